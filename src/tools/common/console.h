#pragma once

#include "progressline.h"
#include "terminal.h"

#include <QMutex>
#include <QString>

namespace tools {

/**
 * Everything that a tool prints: messages, errors and progress on stderr, data on stdout.
 * Control characters in texts are replaced: some come from the server, and none may reach the
 * terminal. Safe from any thread.
 */
class Console
{
public:
    /** `quiet` drops messages and progress, never errors and data. */
    explicit Console(bool quiet);
    ~Console();

    void Message(const QString& text);
    void Error(const QString& text);
    /** Prints "name: value" on stdout. */
    void Data(const QString& name, const QString& value);
    /** Shows `percent` of the step `label`. */
    void Progress(int percent, const QString& label);
    /** Begins a new line on a terminal, whose last one holds the "^C" of the user. */
    void BreakLine();
    /** Takes the bar away; the next Progress() begins a new one. */
    void EndProgress();

private:
    Q_DISABLE_COPY(Console)

    void Write(Stream stream, const QString& text);
    void PrintLine(Stream stream, const QString& text);

    bool quiet;
    bool sharedTerminal; // stdout and stderr are terminals: data must not land inside the bar
    QMutex mutex;        // guards all below, and the streams
    ProgressLine progressLine;
};

} // namespace tools
