#include "exitstatus.h"

namespace publish {

QString ExitStatusHelp()
{
    struct Row
    {
        ExitStatus status;
        const char* meaning;
    };
    static constexpr Row rows[] = {
        {ExitDone, "done"},
        {ExitRefused, "the tree or the request was refused; nothing has changed"},
        {ExitUsage, "the command line was not understood; nothing has changed"},
        {ExitFailed, "the system failed a read or a write; clients see nothing new"},
        {ExitInterrupted, "interrupted by a signal; clients see nothing new"},
    };
    QString text = QStringLiteral("Exit statuses:\n");
    for (const Row& row : rows)
        text += QStringLiteral("  %1  %2\n").arg(int(row.status)).arg(QLatin1String(row.meaning));
    return text;
}

} // namespace publish
