#pragma once

#include "common/console.h"

#include <QElapsedTimer>
#include <QJsonObject>
#include <QMutex>

/**
 * For programs: one JSON object a line on stdout and nothing else there; docs/kxupdate-json.md
 * lists them. Each line is UTF-8 and written at once. Log lines go to stderr.
 */
class JsonConsole : public tools::Console
{
public:
    /** `quiet` drops messages, states and progress. */
    explicit JsonConsole(bool quiet);

    void Message(const QString& text) override;
    void Warning(const QString& text) override;
    void Error(const QString& text) override;
    void Failure(int code, const QString& text, const QString& hint) override;
    void State(const QString& name, const QString& text) override;
    /** Told at once, and again as a member of the result. */
    void Data(const QString& name, const QString& value) override;
    void Differences(const QList<tools::Difference>& differences) override;
    void Dropped(const QStringList& names) override;
    void Log(const QString& line) override;
    using tools::Console::Progress;
    void Progress(const tools::ProgressFigures& figures) override;
    void EndProgress() override;
    void BreakLine() override {}
    void Result(const QString& word, int exitStatus) override;

private:
    void Print(const char* type, const QJsonObject& members);
    void PrintProgress();

    bool quiet;
    QMutex mutex; // guards all below, and the streams
    QElapsedTimer clock;
    tools::ProgressFigures figures; // the last ones that came
    bool pending = false;           // and were not printed
    bool fresh = true;              // none came in this run from 0 to 100
    int printedPercent = 0;
    QString printedStep;
    QJsonObject data;
};
