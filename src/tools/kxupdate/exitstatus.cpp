#include "exitstatus.h"

QList<tools::ExitStatusSpec> ExitStatuses()
{
    return {
        {int(ExitStatus::Done), "done",
         "up to date, or done: up-to-date, downloaded, installed, updated, repaired, verified, "
         "recovered, status"},
        {int(ExitStatus::Failed), "failed",
         "a step failed on this machine; the application is untouched"},
        {int(ExitStatus::Usage), "usage", "the command line or the configuration is wrong"},
        {int(ExitStatus::Refused), "refused",
         "not begun: a directory, a right, the space, another process or an earlier version "
         "forbids "
         "it"},
        {int(ExitStatus::Canceled), "canceled", "interrupted; the application is untouched"},
        {int(ExitStatus::VerificationFailed), "mismatch",
         "a tree is not what its package describes"},
        {int(ExitStatus::ServerFailed), "server-failed",
         "the server is not reachable, or what it sends is not usable"},
        {int(ExitStatus::RolledBack), "rolled-back",
         "the swap failed; the old version is back in place"},
        {int(ExitStatus::Broken), "broken",
         "the swap or a recovery failed and the application needs attention"},
        {int(ExitStatus::Untrusted), "untrusted",
         "--key is given, and none of the keys has signed this; the application is untouched"},
        {int(ExitStatus::UpdateAvailable), "available",
         "check, repair: the server has another version"},
        {int(ExitStatus::RepairNeeded), "repair", "check: same version, but files differ from it"},
    };
}

QString ResultWord(ExitStatus status)
{
    for (const tools::ExitStatusSpec& row : ExitStatuses()) {
        if (row.status == int(status))
            return QString::fromUtf8(row.word);
    }
    return QString();
}
