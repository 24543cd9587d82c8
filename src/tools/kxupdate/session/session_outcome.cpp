// What a run leaves behind beside the application: the version in the configuration, the record of
// attempts and results, the started program.

#include "session.h"

#include "common/console.h"
#include "files/configfile.h"
#include "files/packagefile.h"
#include "launcher.h"

#include <kxcommon/errors.h>

#include <QRegularExpression>

namespace {

// What a watch tries by itself of one version.
constexpr int mostAttempts = 2;

} // namespace

void Session::CheckAttempts()
{
    if (!options.watch)
        return Next();
    const QString version = updater->ServerVersion();
    if (record.Attempts(RunRecord::Key(version, manifest)) < mostAttempts)
        return Next();
    Refuse(QStringLiteral("Version %1 has been tried %2 times and is still not what '%3' holds: it "
                          "is not tried again by itself. 'kxupdate update' tries it.")
               .arg(version)
               .arg(mostAttempts)
               .arg(application.Path()));
}

void Session::CountAttempt()
{
    if (!options.watch)
        return Next();
    // Before the attempt, so that one that kills the process counts as well.
    attemptKey = RunRecord::Key(updater->ServerVersion(), manifest);
    const QString problem = record.SetAttempts(attemptKey, record.Attempts(attemptKey) + 1);
    if (!problem.isEmpty())
        return Refuse(problem);
    Next();
}

bool Session::FailurePasses() const
{
    if (errors.isEmpty())
        return canceling;
    const ReportedError& first = errors.constFirst();
    switch (first.code) {
    case common::DownloadTimeout:
    case common::DownloadNetwork:
    case common::DownloadProxy:
    case common::DownloadTls:
    case common::DownloadBusy:
    case guard::InstallBusy:
    case guard::InstallNoSpace:
    case guard::InstallRunning:
        return true;
    case common::DownloadStatus: {
        static const QRegularExpression passing(QStringLiteral("status (408|429|5\\d\\d)\\b"));
        return passing.match(first.text).hasMatch();
    }
    default:
        return canceling;
    }
}

void Session::RecordOutcome(ExitStatus status, const QString& word)
{
    // Only who holds the directory writes beside it.
    if (!downloadLock || !downloadLock->IsHeld())
        return;
    const bool upToDate = status == ExitStatus::Done && !swapBegan && Swaps();
    // A success clears it only when the next check agrees: what is offered again after each update
    // is not to be tried for ever.
    QString problem;
    if (upToDate)
        problem = record.ClearAttempts();
    else if (!attemptKey.isEmpty() && !swapBegan && FailurePasses())
        problem = record.SetAttempts(attemptKey, record.Attempts(attemptKey) - 1);
    if (problem.isEmpty())
        problem = record.SetResult(word, installedVersion.isEmpty() ? updater->ServerVersion()
                                                                    : installedVersion);
    if (!problem.isEmpty())
        console.Message(problem);
}

void Session::FinishUpToDate()
{
    if (Swaps()) {
        installedVersion = updater->ServerVersion();
        KeepVersion();
        if (options.run) {
            console.Message(QStringLiteral("Nothing was replaced, so nothing is started."));
            console.Data(QStringLiteral("started"), QStringLiteral("none"));
        }
    }
    Finish(ExitStatus::Done, QStringLiteral("up-to-date"));
}

void Session::KeepVersion()
{
    if (options.config.isEmpty())
        return;
    const QString problem =
        installedVersion.isEmpty()
            ? QStringLiteral("'%1' does not tell which version it describes: correct 'version' in "
                             "'%2'.")
                  .arg(options.xml, options.config)
            : ConfigFile::SetVersion(options.config, installedVersion);
    if (!problem.isEmpty())
        console.Error(problem);
}

void Session::RunProgram()
{
    if (!options.run)
        return;
    // The program may want to check for updates itself.
    installGuard.Unlock();
    const QString name = packagefile::Executable(
        options.package.isEmpty() ? packagefile::PackageName(packageXml) : options.package,
        packageXml);
    const QString problem = Launch(application.Path(), name);
    if (problem.isEmpty())
        console.Message(QStringLiteral("Started '%1'.").arg(name));
    else
        console.Error(problem);
    console.Data(QStringLiteral("started"), problem.isEmpty() ? name : QStringLiteral("none"));
}
