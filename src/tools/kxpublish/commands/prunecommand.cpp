#include "prunecommand.h"

#include "interrupt.h"
#include "output/console.h"
#include "server/disk.h"
#include "server/diskusage.h"
#include "server/history.h"
#include "server/publishedbuild.h"
#include "server/versionorder.h"
#include "source/names.h"

#include <QFileInfo>
#include <QJsonArray>
#include <QMap>
#include <QPair>
#include <QSet>

#include <algorithm>

namespace publish {
namespace {

QString Text(const Build& build)
{
    return QStringLiteral("%1 %2 for %3")
        .arg(build.package, build.version, Printable(build.platform));
}

QJsonObject Object(const Build& build)
{
    return {{QStringLiteral("name"), build.package},
            {QStringLiteral("version"), build.version},
            {QStringLiteral("platform"), build.platform}};
}

bool IsUsable(const ServerTree& server, const Build& build)
{
    Manifest manifest;
    return ReadManifestOf(server, build, manifest).isEmpty() &&
           FilesProblem(server, build, manifest).isEmpty();
}

QString RealPath(const ServerTree& server, const Build& build)
{
    return QFileInfo(server.BuildPath(build)).canonicalFilePath();
}

bool IsBehindLink(const ServerTree& server, const Build& build)
{
    const QString packages = server.PackagesPath();
    return RealPath(server, build) !=
           QFileInfo(packages).canonicalFilePath() + server.BuildPath(build).mid(packages.size());
}

} // namespace

PruneCommand::PruneCommand(const PruneSettings& given)
    : settings(given), server(ResolvedPath(given.serverTree))
{
    result.dryRun = settings.dryRun;
}

ExitStatus PruneCommand::Run()
{
    if (settings.keep < 1) {
        Complain(QStringLiteral("--keep %1: at least one version has to stay").arg(settings.keep));
        return ExitRefused;
    }
    if (!CheckServerTree(server, settings.serverTree))
        return ExitRefused;
    QString error;
    // The lock comes before the look at the builds: none may come, go or be offered in between.
    if (!settings.dryRun && !server.Open(error, settings.waitSeconds)) {
        Complain(error);
        return IsInterrupted() ? ExitInterrupted : ExitFailed;
    }
    const QFileInfo reply(server.VersionReplyPath());
    if ((reply.exists() || reply.isSymLink()) &&
        !VersionProblem(server.OfferedVersion()).isEmpty()) {
        Complain(Shown(server.VersionReplyPath()) +
                 QStringLiteral(": does not tell which version clients are offered, so nothing is "
                                "removed; 'promote' writes it anew"));
        return ExitRefused;
    }
    const QList<Build> plan = Plan();
    for (const PruneResult::Kept& kept : std::as_const(result.kept))
        Say(QStringLiteral("%1 stays: %2").arg(Text(kept.build), kept.reason));
    return Remove(plan);
}

QList<Build> PruneCommand::Plan()
{
    const QString offered = server.OfferedVersion();
    History history = ReadHistory(server, offered);
    if (!history.problem.isEmpty())
        Warn(Shown(server.HistoryPath()) + QStringLiteral(": ") + history.problem);
    const QString next =
        offered.isEmpty() ? QString() : ChooseRollback(server, history, offered).target;

    QMap<QPair<QString, QString>, QList<Build>> places;
    // Removing through a link, such as one to the latest version, removes what it leads to.
    QSet<QString> linked;
    for (const Build& build : server.Builds()) {
        if (IsBehindLink(server, build))
            linked.insert(RealPath(server, build));
    }
    for (const Build& build : server.Builds())
        places[qMakePair(build.package, build.platform)].append(build);
    QList<Build> plan;
    for (QList<Build>& builds : places) {
        std::sort(builds.begin(), builds.end(), [](const Build& a, const Build& b) {
            return IsListedBefore(b.version, a.version);
        });
        int latest = 0;
        QList<Build> old;
        for (const Build& build : std::as_const(builds)) {
            if (IsBehindLink(server, build)) {
                result.kept.append({build, QStringLiteral("it lies behind a link")});
                continue;
            }
            const bool isOld = latest == settings.keep;
            const bool isUsable = !isOld && IsUsable(server, build);
            if (isUsable)
                ++latest;
            if (build.version == offered && isOld)
                result.kept.append({build, QStringLiteral("clients are offered it")});
            else if (build.version == next && isOld)
                result.kept.append({build, QStringLiteral("a rollback would offer it next")});
            else if (isOld && linked.contains(RealPath(server, build)))
                result.kept.append({build, QStringLiteral("a link leads to it")});
            else if (isOld)
                old.prepend(build);
            else if (!isUsable)
                result.kept.append({build, QStringLiteral("broken, but later than those that go")});
        }
        plan += old;
    }
    return plan;
}

ExitStatus PruneCommand::Remove(const QList<Build>& builds)
{
    DiskUsage usage;
    QString error;
    for (const Build& build : builds) {
        if (IsInterrupted())
            break;
        DiskUsage untouched = usage;
        usage.Add(server.BuildPath(build));
        if (!settings.dryRun && !server.TakeBuildAway(build, error)) {
            usage = untouched;
            break;
        }
        result.removed.append(build);
    }
    result.freedBytes = usage.OwnBytes();
    QString discardError;
    if (!settings.dryRun && !server.Discard(discardError) && error.isEmpty())
        error = discardError;
    if (!error.isEmpty()) {
        Complain(error);
        return ExitFailed;
    }
    if (result.removed.size() < builds.size()) {
        Complain(QStringLiteral("interrupted, %1 builds are not removed yet")
                     .arg(builds.size() - result.removed.size()));
        return ExitInterrupted;
    }
    return ExitDone;
}

QStringList PruneResult::Lines() const
{
    QStringList lines;
    for (const Build& build : removed)
        lines.append((dryRun ? QStringLiteral("would remove: ") : QStringLiteral("removed: ")) +
                     Text(build));
    lines.append(
        (dryRun ? QStringLiteral("bytes to come free: %1") : QStringLiteral("bytes freed: %1"))
            .arg(freedBytes));
    return lines;
}

QJsonObject PruneResult::ToJson() const
{
    QJsonArray gone;
    for (const Build& build : removed)
        gone.append(Object(build));
    QJsonArray stay;
    for (const Kept& each : kept) {
        QJsonObject object = Object(each.build);
        object.insert(QStringLiteral("reason"), each.reason);
        stay.append(object);
    }
    return {{QStringLiteral("removed"), gone},
            {QStringLiteral("kept"), stay},
            {QStringLiteral("freedBytes"), qint64(freedBytes)},
            {QStringLiteral("dryRun"), dryRun}};
}

} // namespace publish
