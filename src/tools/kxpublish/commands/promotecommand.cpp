#include "promotecommand.h"

#include "interrupt.h"
#include "output/console.h"
#include "server/disk.h"
#include "server/history.h"
#include "server/manifest.h"
#include "server/publishedbuild.h"
#include "source/names.h"

#include <kxcommon/version.h>

#include <QFileInfo>

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
    const QString closed = server.ClosedDirectory();
    if (!closed.isEmpty())
        problems.Refuse(Shown(closed), QStringLiteral("the directory cannot be listed"));
    QString error;
    // The lock comes before the look at the builds: none may come or go in between.
    if (problems.IsEmpty() && !server.Open(error, settings.waitSeconds)) {
        Complain(error);
        return IsInterrupted() ? ExitInterrupted : ExitFailed;
    }
    if (problems.IsEmpty())
        CheckPromotable(server, settings.version, &problems);
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
    WarnOfLostSignatures(server, before, settings.version);
    if (!RecordHistory(before, error) ||
        !server.PlaceVersionReply(WriteVersionReply(settings.version), error)) {
        Complain(error);
        return ExitFailed;
    }
    PrintDatum(QStringLiteral("reply"), server.VersionReplyPath());
    PrintDatum(QStringLiteral("version"), settings.version);
    Say(QStringLiteral("clients are offered version %1 now").arg(settings.version) +
        (before.isEmpty()             ? QString()
         : before == settings.version ? QStringLiteral(", as before")
                                      : QStringLiteral(", %1 before").arg(before)));
    return ExitDone;
}

// Before the reply: a run that is killed in between leaves a version on top that is still offered,
// which a rollback passes over. The other way round a version would be forgotten.
bool PromoteCommand::RecordHistory(const QString& before, QString& error)
{
    History history = ReadHistory(server, before);
    if (!history.problem.isEmpty())
        Warn(Shown(server.HistoryPath()) + QStringLiteral(": ") + history.problem +
             QStringLiteral("; the history begins anew"));
    const bool isNew = !history.known;
    const QByteArray text = history.ToText();
    history.Promote(before, settings.version);
    // A first version has nothing before it, and needs no history.
    const bool same = isNew ? history.versions.isEmpty() && history.problem.isEmpty()
                            : history.ToText() == text && !history.underWay;
    return same || server.PlaceHistory(history.ToText(), error);
}

} // namespace publish
