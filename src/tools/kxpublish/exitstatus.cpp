#include "exitstatus.h"

namespace publish {

QList<tools::ExitStatusSpec> ExitStatuses()
{
    return {
        {ExitDone, "done", "done"},
        {ExitRefused, "refused", "the tree or the request was refused; nothing has changed"},
        {ExitUsage, "usage", "the command line was not understood; nothing has changed"},
        {ExitFailed, "failed", "the system failed a read or a write; clients see nothing new"},
        {ExitInterrupted, "interrupted", "interrupted by a signal; clients see nothing new"},
        {ExitDamaged, "damaged", "what is published has something that clients cannot use"},
    };
}

QString ResultWord(ExitStatus status)
{
    for (const tools::ExitStatusSpec& row : ExitStatuses()) {
        if (row.status == status)
            return QString::fromUtf8(row.word);
    }
    return QString();
}

} // namespace publish
