#include "exitstatus.h"

namespace {

struct Row
{
    ExitStatus status;
    const char* word;
    const char* meaning;
};

const Row rows[] = {
    {ExitStatus::Done, "done",
     "up to date, or done: up-to-date, downloaded, installed, updated,\n"
     "                    repaired, verified"},
    {ExitStatus::Failed, "failed", "a step failed on this machine; the application is untouched"},
    {ExitStatus::Usage, "usage", "the command line is wrong"},
    {ExitStatus::Refused, "refused", "not begun: a directory, a right or the space forbids it"},
    {ExitStatus::Canceled, "canceled", "interrupted; the application is untouched"},
    {ExitStatus::VerificationFailed, "mismatch", "a tree is not what its package describes"},
    {ExitStatus::ServerFailed, "server-failed",
     "the server is not reachable, or what it sends is not usable"},
    {ExitStatus::RolledBack, "rolled-back", "the swap failed; the old version is back in place"},
    {ExitStatus::Broken, "broken", "the swap failed and the application needs attention"},
    {ExitStatus::UpdateAvailable, "available", "check: the server has another version"},
    {ExitStatus::RepairNeeded, "repair", "check: same version, but files differ from it"},
};

} // namespace

QString ResultWord(ExitStatus status)
{
    for (const Row& row : rows) {
        if (row.status == status)
            return QString::fromLatin1(row.word);
    }
    return QString();
}

QString ExitStatusHelp()
{
    QString text;
    for (const Row& row : rows) {
        text += QStringLiteral("  %1  %2 %3\n")
                    .arg(int(row.status), 2)
                    .arg(QString::fromLatin1(row.word), -14)
                    .arg(QString::fromLatin1(row.meaning));
    }
    return text;
}
