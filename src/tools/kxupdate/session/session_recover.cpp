// An application that an earlier install has left in pieces.

#include "session.h"

#include "common/console.h"
#include "lockowner.h"

namespace {

// Between two tries for the lock the event loop runs: who waits can be interrupted.
constexpr qint64 waitSliceMs = 200;

QString Word(guard::RecoveryState state)
{
    switch (state) {
    case guard::RecoveryState::Whole:
        return QStringLiteral("whole");
    case guard::RecoveryState::Absent:
        return QStringLiteral("absent");
    case guard::RecoveryState::Restored:
        return QStringLiteral("restored");
    case guard::RecoveryState::Finished:
        return QStringLiteral("finished");
    case guard::RecoveryState::Cleaned:
        return QStringLiteral("cleaned");
    case guard::RecoveryState::Busy:
        return QStringLiteral("busy");
    case guard::RecoveryState::Failed:
        break;
    }
    return QStringLiteral("failed");
}

} // namespace

void Session::MendApplication()
{
    const guard::Recovery recovery = installGuard.Recover();
    if (!recovery.IsWhole() && recovery.state != guard::RecoveryState::Absent)
        return Fail(recovery.text, ExitStatus::Broken);
    // A first install begins with nothing.
    if (recovery.state != guard::RecoveryState::Whole && application.Exists())
        console.Message(recovery.text);
    Next();
}

void Session::Recover()
{
    const QString violation = application.Violation();
    if (!violation.isEmpty())
        return Refuse(violation);
    const guard::Recovery recovery = guard::Recover(
        application.Path(), int(qMin(recoveryDeadline.remainingTime(), waitSliceMs)));
    if (recovery.state == guard::RecoveryState::Busy && !recoveryDeadline.hasExpired()) {
        if (!waiting)
            console.Message(recovery.text + QStringLiteral(" Waiting for its end."));
        waiting = true;
        steps.prepend(&Session::Recover);
        return Next();
    }
    FinishRecovery(recovery);
}

void Session::FinishRecovery(const guard::Recovery& recovery)
{
    console.Data(QStringLiteral("recovery"), Word(recovery.state));
    switch (recovery.state) {
    case guard::RecoveryState::Busy:
        return Refuse(
            BusyText(guard::FileLock::OwnerOf(application.LockPath()), application.Path()));
    case guard::RecoveryState::Failed:
        return Fail(application.NeedsRestore()
                        ? recovery.text +
                              QStringLiteral(" The old version was moved aside to '%1'.")
                                  .arg(application.BackupPath())
                        : recovery.text,
                    ExitStatus::Broken);
    case guard::RecoveryState::Absent:
        return Fail(recovery.text);
    case guard::RecoveryState::Whole:
    case guard::RecoveryState::Restored:
    case guard::RecoveryState::Finished:
    case guard::RecoveryState::Cleaned:
        break;
    }
    console.Message(recovery.text);
    Finish(ExitStatus::Done, QStringLiteral("recovered"));
}
