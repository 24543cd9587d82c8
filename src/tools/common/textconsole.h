#pragma once

#include "console.h"
#include "progressline.h"
#include "terminal.h"

#include <QElapsedTimer>
#include <QMutex>

namespace tools {

/** For people: messages, errors and progress on stderr, data as "name: value" on stdout. */
class TextConsole : public Console
{
public:
    /** `quiet` drops messages, states and progress, never errors and data. */
    explicit TextConsole(bool quiet);
    ~TextConsole() override;

    void Message(const QString& text) override;
    void Warning(const QString& text) override;
    void Error(const QString& text) override;
    void Failure(int code, const QString& text, const QString& hint) override;
    void State(const QString& name, const QString& text) override;
    void Data(const QString& name, const QString& value) override;
    /** The first twenty, and how many more there are; Dropped() alike. */
    void Differences(const QList<Difference>& differences) override;
    void Dropped(const QStringList& names) override;
    void Log(const QString& line) override;
    using Console::Progress;
    void Progress(const ProgressFigures& figures) override;
    void EndProgress() override;
    void BreakLine() override;
    void Result(const QString& word, int exitStatus) override;

private:
    void Write(Stream stream, const QString& text);
    void PrintLine(Stream stream, const QString& text);
    int Width() const;

    bool quiet;
    bool drawsLine;      // stderr is a terminal on which a line can be drawn again
    bool sharedTerminal; // and stdout is one as well: data must not land inside the bar
    QElapsedTimer clock;
    QMutex mutex; // guards all below, and the streams
    ProgressLine progressLine;
};

} // namespace tools
