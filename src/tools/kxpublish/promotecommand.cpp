#include "promotecommand.h"

#include "console.h"
#include "disk.h"
#include "interrupt.h"
#include "manifest.h"
#include "names.h"

#include <kxcommon/version.h>

#include <QFile>
#include <QFileInfo>
#include <QMap>
#include <QPair>

namespace publish {

PromoteCommand::PromoteCommand(const PromoteSettings& given)
    : settings(given), server(ResolvedPath(given.serverTree))
{
}

ExitStatus PromoteCommand::Run()
{
    const QString problem = VersionProblem(settings.version);
    if (!problem.isEmpty())
        problems.Refuse(QStringLiteral("--version ") + Shown(settings.version), problem);
    if (!QFileInfo(server.PackagesPath()).isDir())
        problems.Refuse(QStringLiteral("--out ") + Shown(settings.serverTree),
                        QStringLiteral("not a server tree, it has no directory 'packages'"));
    QString error;
    // The lock comes before the look at the builds: none may come or go in between.
    if (problems.IsEmpty() && !server.Open(error)) {
        Complain(error);
        return ExitFailed;
    }
    if (problems.IsEmpty())
        CheckBuilds();
    if (!problems.IsEmpty()) {
        problems.Print();
        return ExitRefused;
    }
    if (IsInterrupted()) {
        Complain(QStringLiteral("interrupted, the version on offer is unchanged"));
        return ExitInterrupted;
    }

    const QString before = server.OfferedVersion();
    if (common::Version(before) > common::Version(settings.version))
        Warn(QStringLiteral("%1 is earlier than %2, which clients are offered now")
                 .arg(settings.version, before));
    if (!server.PlaceVersionReply(WriteVersionReply(settings.version), error)) {
        Complain(error);
        return ExitFailed;
    }
    PrintDatum(QStringLiteral("reply"), server.VersionReplyPath());
    PrintDatum(QStringLiteral("version"), settings.version);
    Say(QStringLiteral("clients are offered version %1 now").arg(settings.version) +
        (before.isEmpty() ? QString() : QStringLiteral(", %1 before").arg(before)));
    return ExitDone;
}

void PromoteCommand::CheckBuilds()
{
    QMap<QPair<QString, QString>, bool> hasVersion;
    for (const Build& build : server.Builds()) {
        bool& has = hasVersion[qMakePair(build.package, build.platform)];
        has = has || build.version == settings.version;
        if (build.version == settings.version)
            CheckManifest(build);
    }
    if (hasVersion.isEmpty())
        problems.Refuse(Shown(server.PackagesPath()), QStringLiteral("nothing is published here"));
    for (auto row = hasVersion.constBegin(); row != hasVersion.constEnd(); ++row) {
        if (!row.value())
            problems.Refuse(Shown(row.key().first),
                            QStringLiteral("not published in version %1 for %2")
                                .arg(settings.version, row.key().second));
    }
}

// A client that is sent to a broken manifest stays on its old version, with an error on each check.
void PromoteCommand::CheckManifest(const Build& build)
{
    const QString path = server.ManifestPath(build);
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        problems.Refuse(Shown(path), QStringLiteral("cannot be read: ") + file.errorString());
    else if (ReadManifest(build.package, file.readAll()).files.isEmpty())
        problems.Refuse(Shown(path),
                        QStringLiteral("not a manifest with files of %1").arg(build.package));
}

} // namespace publish
