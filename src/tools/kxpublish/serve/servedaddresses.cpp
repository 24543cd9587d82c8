#include "servedaddresses.h"

#include "output/console.h"
#include "source/names.h"

#include <QFile>
#include <QXmlStreamReader>

namespace publish {
namespace {

// As clients choose: the first build of the package, and only if it has an address.
QString DownloadUrl(QIODevice& manifest, const QString& package)
{
    QXmlStreamReader xml(&manifest);
    bool wanted = false;
    while (!xml.atEnd()) {
        if (xml.readNext() != QXmlStreamReader::StartElement)
            continue;
        if (xml.name() == QLatin1String("package")) {
            wanted = xml.attributes().value(QLatin1String("name")) == package;
        } else if (wanted && xml.name() == QLatin1String("build")) {
            const QString url = xml.attributes().value(QLatin1String("DownloadURL")).toString();
            if (!url.isEmpty())
                return url;
            wanted = false;
        }
    }
    return {};
}

} // namespace

bool FindAddresses(const ServerTree& server, ServedAddresses& addresses, QString& error)
{
    for (const Build& build : server.Builds()) {
        QFile file(server.ManifestPath(build));
        if (!file.open(QIODevice::ReadOnly)) {
            error = QStringLiteral("cannot read %1: %2")
                        .arg(Shown(file.fileName()), file.errorString());
            return false;
        }
        QString url = DownloadUrl(file, build.package);
        const QString ownPath = ServerTree::FilesUrl(QString(), build);
        const bool own = url.endsWith(ownPath);
        url.chop(own ? ownPath.size() : 0);
        if (!own || !BaseUrlProblem(url).isEmpty())
            addresses.elsewhere.append(file.fileName());
        else if (!addresses.baseUrls.contains(url))
            addresses.baseUrls.append(url);
    }
    return true;
}

} // namespace publish
