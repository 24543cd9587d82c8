#include "manifest.h"

#include <kxupdater/package.h>

#include <QXmlStreamReader>
#include <QXmlStreamWriter>

namespace publish {

static constexpr qint64 maxReply = 64 * 1024 * 1024;

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
    for (const updater::File& file : manifest.files) {
        xml.writeEmptyElement(QStringLiteral("file"));
        xml.writeAttribute(QStringLiteral("name"), file.Name());
        xml.writeAttribute(QStringLiteral("md5"), file.MD5());
        xml.writeAttribute(QStringLiteral("size"), QString::number(file.Size()));
        xml.writeAttribute(QStringLiteral("permissions"), file.PermissionsString());
        xml.writeAttribute(QStringLiteral("symlink"), file.SymlinkPath());
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
    return manifest;
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
