#pragma once

#include <kxcommon/logger.h>

namespace tools {
class Console;
}

/**
 * Prints the library's log messages up to a severity, and the lines of the plan always: they tell
 * how many files are copied, downloaded, linked and dropped. Installed as the process's logger as
 * long as it lives. Safe from any thread.
 */
class LogForwarder : public common::logger::ILogger
{
public:
    /** `level`: most verbose severity to print, -1 for none. The console is not owned. */
    LogForwarder(tools::Console& console, int level);
    ~LogForwarder() override;

    void Log(const common::logger::IMessage& message) override;

private:
    Q_DISABLE_COPY(LogForwarder)

    tools::Console& console;
    int level;
};
