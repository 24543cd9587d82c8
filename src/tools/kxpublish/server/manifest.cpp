#include "manifest.h"

#include <kxupdater/package.h>

#include <QXmlStreamReader>
#include <QXmlStreamWriter>

namespace publish {

static constexpr qint64 maxReply = 64 * 1024 * 1024;

namespace {

// Clients pass over attributes that they do not know.
void WriteSignature(QXmlStreamWriter& xml, const ManifestSignature& signature)
{
    xml.writeAttribute(QStringLiteral("version"), signature.version);
    xml.writeAttribute(QStringLiteral("platform"), signature.platform);
    xml.writeAttribute(QStringLiteral("signature"), signature.signature);
    xml.writeAttribute(QStringLiteral("trustedComment"), signature.trustedComment);
    xml.writeAttribute(QStringLiteral("commentSignature"), signature.commentSignature);
}

// To the beginning of the build that clients choose: the first one of the package, if that has an
// address. False when there is none.
bool FindBuild(QXmlStreamReader& xml, const QString& package)
{
    bool isPackage = false;
    while (!xml.atEnd()) {
        if (xml.readNext() != QXmlStreamReader::StartElement)
            continue;
        const QXmlStreamAttributes attributes = xml.attributes();
        if (xml.name() == QLatin1String("package")) {
            isPackage = attributes.value(QLatin1String("name")) == package;
        } else if (isPackage && xml.name() == QLatin1String("build")) {
            if (!attributes.value(QLatin1String("DownloadURL")).isEmpty())
                return true;
            isPackage = false;
        }
    }
    return false;
}

// What the reader of the clients knows nothing of.
void ReadSignature(const QByteArray& text, Manifest* manifest)
{
    QXmlStreamReader xml(text);
    if (!FindBuild(xml, manifest->package))
        return;
    const auto value = [&xml](const char* name) {
        return xml.attributes().value(QLatin1String(name)).toString();
    };
    manifest->signature = {value("version"), value("platform"), value("signature"),
                           value("trustedComment"), value("commentSignature")};
    while (!manifest->signature.IsEmpty() && !xml.atEnd()) {
        const QXmlStreamReader::TokenType token = xml.readNext();
        if (token == QXmlStreamReader::EndElement && xml.name() == QLatin1String("build"))
            return;
        if (token == QXmlStreamReader::StartElement && xml.name() == QLatin1String("file") &&
            !value("sha256").isEmpty())
            manifest->sha256.insert(value("name"), value("sha256").toLatin1());
    }
}

} // namespace

QString PermissionText(int mode, bool isLink)
{
    if (isLink)
        return QStringLiteral("lrwxrwxrwx");
    QString text = QStringLiteral("-rwxrwxrwx");
    for (int bit = 0; bit < 9; ++bit) {
        if (!(mode & (0400 >> bit)))
            text[bit + 1] = QLatin1Char('-');
    }
    return text;
}

QByteArray WriteManifest(const Manifest& manifest)
{
    QByteArray text;
    QXmlStreamWriter xml(&text);
    xml.setAutoFormatting(true);
    xml.setAutoFormattingIndent(1);
    xml.writeStartDocument();
    xml.writeStartElement(QStringLiteral("packages"));
    xml.writeStartElement(QStringLiteral("package"));
    xml.writeAttribute(QStringLiteral("name"), manifest.package);
    xml.writeStartElement(QStringLiteral("build"));
    xml.writeAttribute(QStringLiteral("DownloadURL"), manifest.downloadUrl);
    xml.writeAttribute(QStringLiteral("PostExec"), manifest.executable);
    if (!manifest.signature.IsEmpty())
        WriteSignature(xml, manifest.signature);
    for (const updater::File& file : manifest.files) {
        xml.writeEmptyElement(QStringLiteral("file"));
        xml.writeAttribute(QStringLiteral("name"), file.Name());
        xml.writeAttribute(QStringLiteral("md5"), file.MD5());
        xml.writeAttribute(QStringLiteral("size"), QString::number(file.Size()));
        xml.writeAttribute(QStringLiteral("permissions"), file.PermissionsString());
        xml.writeAttribute(QStringLiteral("symlink"), file.SymlinkPath());
        const QByteArray sha256 = manifest.sha256.value(file.Name());
        if (!sha256.isEmpty())
            xml.writeAttribute(QStringLiteral("sha256"), QString::fromLatin1(sha256));
    }
    xml.writeEndDocument();
    return text;
}

Manifest ReadManifest(const QString& package, const QByteArray& text)
{
    updater::Package reader(nullptr, nullptr);
    reader.SetName(package);
    reader.SetPackageXML(QString::fromUtf8(text));
    Manifest manifest;
    manifest.package = package;
    manifest.downloadUrl = reader.DownloadURL();
    manifest.executable = reader.ExecutableName();
    manifest.files = reader.Files();
    ReadSignature(text, &manifest);
    return manifest;
}

bool CarriesSignature(const QString& package, QIODevice& device)
{
    QXmlStreamReader xml(&device);
    return FindBuild(xml, package) && !xml.attributes().value(QLatin1String("signature")).isEmpty();
}

QString ManifestProblem(const Manifest& manifest, const QByteArray& text)
{
    if (text.size() > maxReply)
        return QStringLiteral("the manifest has %1 bytes, and clients read no more than %2")
            .arg(text.size())
            .arg(maxReply);
    const Manifest read = ReadManifest(manifest.package, text);
    if (read.downloadUrl != manifest.downloadUrl || read.executable != manifest.executable ||
        read.files.size() != manifest.files.size())
        return QStringLiteral("clients would not read the manifest as it was written");
    for (qsizetype i = 0; i < read.files.size(); ++i) {
        const updater::File& is = read.files.at(i);
        const updater::File& should = manifest.files.at(i);
        if (!(is == should) || is.MD5() != should.MD5() ||
            is.PermissionsString() != should.PermissionsString())
            return QStringLiteral("clients would not read the record of '%1' as it was written")
                .arg(should.Name());
    }
    if (read.signature.signature != manifest.signature.signature || read.sha256 != manifest.sha256)
        return QStringLiteral("the signature would not be read as it was written");
    return {};
}

qint64 MaxReplySize()
{
    return maxReply;
}

QByteArray WriteVersionReply(const QString& version)
{
    QByteArray text;
    QXmlStreamWriter xml(&text);
    xml.writeStartDocument();
    xml.writeTextElement(QStringLiteral("version"), version);
    xml.writeEndDocument();
    return text;
}

QString ReadVersionReply(const QByteArray& text)
{
    QXmlStreamReader xml(text);
    if (!xml.readNextStartElement() || xml.name() != QLatin1String("version"))
        return {};
    const QString version = xml.readElementText();
    return xml.hasError() ? QString() : version;
}

} // namespace publish
