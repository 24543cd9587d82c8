#pragma once

#include <kxcommon/logger.h>

class LogFile;
namespace tools {
class Console;
}

/**
 * Writes the library's log messages up to a severity to a file or the console, and tells the lines
 * of the plan always: how many files are copied, downloaded, linked and dropped. Installed as the
 * process's logger as long as it lives. Safe from any thread.
 */
class LogForwarder : public common::logger::ILogger
{
public:
    /**
     * `level`: most verbose severity to write; -1: none, but those of outcomes (6) when there is a
     * file. `file`: where they go if it is open, else to the console. Neither is owned.
     */
    LogForwarder(tools::Console& console, LogFile& file, int level);
    ~LogForwarder() override;

    void Log(const common::logger::IMessage& message) override;

private:
    Q_DISABLE_COPY(LogForwarder)

    tools::Console& console;
    LogFile& file;
    int level;
};
