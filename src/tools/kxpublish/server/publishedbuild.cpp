#include "publishedbuild.h"

#include "output/console.h"
#include "output/problems.h"
#include "source/platform.h"
#include "versionorder.h"

#include <QFile>
#include <QFileInfo>
#include <QMap>
#include <QPair>
#include <QSet>

#include <algorithm>

namespace publish {
namespace {

using Place = QPair<QString, QString>; // package and platform

Place PlaceOf(const Build& build)
{
    return qMakePair(build.package, build.platform);
}

} // namespace

bool CheckServerTree(const ServerTree& server, const QString& path)
{
    const QString closed = server.ClosedDirectory();
    if (!closed.isEmpty()) {
        Complain(Shown(closed) + QStringLiteral(": the directory cannot be listed"));
        return false;
    }
    if (QFileInfo(server.PackagesPath()).isDir())
        return true;
    Complain(Shown(path) +
             (QFileInfo::exists(path)
                  ? QStringLiteral(": not a server tree, it has no directory 'packages'")
                  : QStringLiteral(": no such directory")));
    return false;
}

QString ReadManifestOf(const ServerTree& server, const Build& build, Manifest& manifest,
                       QByteArray* text)
{
    QFile file;
    int mode = 0;
    QString error;
    // What a stranger has put in its place, such as a pipe, must not hold up the run.
    if (!OpenRegularFile(file, server.ManifestPath(build), mode, error))
        return QStringLiteral("cannot be read: ") + error;
    if (file.size() > MaxReplySize())
        return QStringLiteral("has %1 bytes, and clients read no more than %2")
            .arg(file.size())
            .arg(MaxReplySize());
    const QByteArray bytes = file.readAll();
    manifest = ReadManifest(build.package, bytes);
    if (text)
        *text = bytes;
    if (manifest.files.isEmpty())
        return QStringLiteral("not a manifest with files of %1").arg(build.package);
    return {};
}

QString FilesProblem(const ServerTree& server, const Build& build, const Manifest& manifest)
{
    qsizetype bad = 0;
    QString first;
    for (const updater::File& file : manifest.files) {
        if (file.IsSymlink())
            continue;
        const QFileInfo info(server.FilesPath(build) + QLatin1Char('/') + file.Name());
        if (info.isFile() && !info.isSymLink() && quint64(info.size()) == file.Size())
            continue;
        if (bad++ == 0)
            first = file.Name();
    }
    if (bad == 0)
        return {};
    if (bad == 1)
        return QStringLiteral("%1 is missing or has another size").arg(Shown(first));
    return QStringLiteral("%1 files are missing or have another size, such as ").arg(bad) +
           Shown(first);
}

void CheckPromotable(const ServerTree& server, const QString& version, Problems* problems)
{
    QMap<Place, bool> hasVersion;
    for (const Build& build : server.Builds()) {
        bool& has = hasVersion[PlaceOf(build)];
        has = has || build.version == version;
        if (build.version != version)
            continue;
        // A client that is sent to a broken manifest stays on its old version, with an error on
        // each check.
        Manifest manifest;
        const QString problem = ReadManifestOf(server, build, manifest);
        if (!problem.isEmpty())
            problems->Refuse(Shown(server.ManifestPath(build)), problem);
    }
    if (hasVersion.isEmpty())
        problems->Refuse(Shown(server.PackagesPath()), QStringLiteral("nothing is published here"));
    for (auto row = hasVersion.constBegin(); row != hasVersion.constEnd(); ++row) {
        if (!row.value())
            problems->Refuse(Shown(row.key().first),
                             QStringLiteral("not published in version %1 for %2")
                                 .arg(version, row.key().second));
    }
}

void WarnOfLostSignatures(const ServerTree& server, const QString& before, const QString& offered)
{
    const QList<Build> builds = server.Builds();
    const auto isSigned = [&server](const Build& build) {
        QFile file;
        int mode = 0;
        QString error;
        return OpenRegularFile(file, server.ManifestPath(build), mode, error) &&
               CarriesSignature(build.package, file);
    };
    QSet<Place> wereSigned;
    for (const Build& build : builds) {
        if (build.version == before && isSigned(build))
            wereSigned.insert(PlaceOf(build));
    }
    for (const Build& build : builds) {
        if (build.version == offered && wereSigned.contains(PlaceOf(build)) && !isSigned(build))
            Warn(QStringLiteral("%1 %2 for %3 is not signed, and %4 is: clients that want a "
                                "signature refuse it")
                     .arg(build.package, offered, Printable(build.platform), before));
    }
}

QStringList CommonVersions(const QList<Build>& all, const QList<Build>& usable)
{
    QSet<Place> places;
    for (const Build& build : all)
        places.insert(PlaceOf(build));
    QMap<QString, qsizetype> counts;
    for (const Build& build : usable)
        ++counts[build.version];
    QStringList versions;
    for (auto row = counts.constBegin(); row != counts.constEnd(); ++row) {
        if (row.value() == places.size())
            versions.append(row.key());
    }
    std::sort(versions.begin(), versions.end(), IsListedBefore);
    return versions;
}

} // namespace publish
