#include "packagefile.h"

#include "paths.h"

#include <kxupdater/package.h>

#include <QFile>
#include <QFileInfo>
#include <QNetworkAccessManager>
#include <QSaveFile>
#include <QUrl>
#include <QXmlStreamReader>

namespace packagefile {
namespace {

// A note to ourselves that every other reader of the file passes over.
const QString noteTarget = QStringLiteral("kxupdate-version");

} // namespace

QString Read(const QString& path, QString& xml)
{
    QFile file(path);
    if (!file.exists())
        return QStringLiteral("The package description '%1' does not exist.").arg(path);
    if (!QFileInfo(path).isFile())
        return QStringLiteral("The package description '%1' is not a regular file.").arg(path);
    if (!file.open(QIODevice::ReadOnly))
        return QStringLiteral("Cannot read the package description '%1': %2.")
            .arg(path, file.errorString());
    xml = QString::fromUtf8(file.readAll());
    return QString();
}

QString Write(const QString& path, const QString& xml, const QString& version)
{
    // Again, because the download has taken its time.
    const QString foreign = OwnFileProblem(path);
    if (!foreign.isEmpty())
        return QStringLiteral("The package description ") + foreign;
    QSaveFile file(path);
    const QByteArray bytes = xml.toUtf8() + "\n<?" + noteTarget.toLatin1() + ' ' +
                             QUrl::toPercentEncoding(version) + "?>\n";
    if (file.open(QIODevice::WriteOnly) && Commit(file, bytes))
        return QString();
    return QStringLiteral("Cannot write the package description '%1': %2.")
        .arg(path, file.errorString());
}

QString Version(const QString& xml)
{
    QXmlStreamReader reader(xml);
    while (!reader.atEnd()) {
        if (reader.readNext() == QXmlStreamReader::ProcessingInstruction &&
            reader.processingInstructionTarget() == noteTarget)
            return QUrl::fromPercentEncoding(
                reader.processingInstructionData().trimmed().toLatin1());
    }
    return QString();
}

QString Executable(const QString& name, const QString& xml)
{
    QNetworkAccessManager unused;
    updater::Package package(&unused, nullptr);
    package.SetName(name);
    package.SetPackageXML(xml);
    return package.ExecutableName();
}

QString PackageName(const QString& xml)
{
    QXmlStreamReader reader(xml);
    while (!reader.atEnd()) {
        if (reader.readNext() == QXmlStreamReader::StartElement &&
            reader.name() == QLatin1String("package"))
            return reader.attributes().value(QLatin1String("name")).toString();
    }
    return QString();
}

updater::FileList Files(const QString& name, const QString& xml)
{
    QNetworkAccessManager unused;
    updater::Package package(&unused, nullptr);
    package.SetName(name);
    package.SetPackageXML(xml);
    return package.Files();
}

} // namespace packagefile
