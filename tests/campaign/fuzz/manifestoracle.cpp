#include "manifestoracle.h"

#include <QXmlStreamReader>

namespace kxfuzz {
namespace {

class Reading
{
public:
    explicit Reading(const QString& package) : package(package) {}

    ExpectedManifest result;

    void Open(int depth, const QString& name, const QXmlStreamAttributes& attributes)
    {
        const auto value = [&](const char* key) {
            return attributes.value(QLatin1String(key)).toString();
        };
        if (depth == 1)
            result.isManifest = name == QLatin1String("packages");
        if (depth == 2) {
            inPackage = !result.hasBuild && name == QLatin1String("package") &&
                        attributes.hasAttribute(QLatin1String("name")) == !package.isEmpty() &&
                        value("name") == package;
        }
        if (depth == 3 && inPackage && name == QLatin1String("build")) {
            // Only the first build of a package counts, usable or not.
            inPackage = false;
            inBuild = !value("DownloadURL").isEmpty();
            if (inBuild) {
                result.hasBuild = true;
                result.downloadUrl = value("DownloadURL");
                result.executable = value("PostExec");
            }
        }
        if (depth == 4 && inBuild && name == QLatin1String("file") && !value("name").isEmpty()) {
            QString path = value("name");
            path.remove(0, SlashesAtBegin(path));
            result.records.append(
                {path, value("md5"), value("size"), value("permissions"), value("symlink")});
        }
    }

    void Close(int depth) { inBuild = inBuild && depth != 3; }

private:
    static qsizetype SlashesAtBegin(const QString& text)
    {
        qsizetype count = 0;
        while (count < text.size() && text.at(count) == QLatin1Char('/'))
            ++count;
        return count;
    }

    const QString package;
    bool inPackage = false;
    bool inBuild = false;
};

} // namespace

bool IsReadable(const QString& xml)
{
    constexpr int mostLevels = 256;
    QXmlStreamReader reader(xml);
    reader.setNamespaceProcessing(false);
    bool isLate = false;
    int level = 0;
    while (!reader.atEnd()) {
        reader.readNext();
        if (reader.isDTD() && (isLate || reader.text().contains(QLatin1String("<!ENTITY")) ||
                               reader.text().contains(QLatin1String("<!ATTLIST"))))
            return false;
        if (reader.isStartElement() && ++level > mostLevels)
            return false;
        if (reader.isEndElement())
            --level;
        isLate = isLate || reader.isDTD() || reader.isStartElement();
    }
    return !reader.hasError();
}

ExpectedManifest ExpectManifest(const QString& xml, const QString& package)
{
    Reading reading(package);
    QXmlStreamReader reader(xml);
    reader.setNamespaceProcessing(false);
    int depth = 0;
    while (!reader.atEnd()) {
        reader.readNext();
        if (reader.isStartElement())
            reading.Open(++depth, reader.qualifiedName().toString(), reader.attributes());
        else if (reader.isEndElement())
            reading.Close(depth--);
    }
    return !IsReadable(xml) ? ExpectedManifest() : reading.result;
}

bool IsPlainSize(const QString& text, quint64* value)
{
    if (text.isEmpty() || text.size() > 19)
        return false;
    quint64 sum = 0;
    for (const QChar c : text) {
        if (c < QLatin1Char('0') || c > QLatin1Char('9'))
            return false;
        sum = sum * 10 + quint64(c.unicode() - '0');
    }
    if (value)
        *value = sum;
    return true;
}

} // namespace kxfuzz
