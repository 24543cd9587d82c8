#pragma once

#include <QElapsedTimer>

#include <atomic>

namespace publish {

/** How far a run has come in one of its steps. */
struct Progress
{
    enum Step { Checking, Hashing, Copying, Comparing, Syncing };

    Step step = Checking;
    quint64 files = 0;
    quint64 filesTotal = 0; //!< 0 when it is not known
    quint64 bytes = 0;
    quint64 bytesTotal = 0; //!< 0 when it is not known
};

/** What a step is called on its way: "hashing". */
const char* StepText(Progress::Step step);

/** Is told how far a run has come: by the thread that runs it, at most ten times a second. */
class ProgressSink
{
public:
    virtual ~ProgressSink() = default;
    virtual void Show(const Progress& progress) = 0;
    /** Messages follow, or the end: what is shown has to go. May come without a Show() before. */
    virtual void Clear() = 0;
};

/** Counts for a sink. Everything but Add() is for the thread that runs the command. */
class ProgressMeter
{
public:
    /** `sink` is not owned and may be null. */
    explicit ProgressMeter(ProgressSink* sink);

    void Begin(Progress::Step step, quint64 filesTotal, quint64 bytesTotal);
    /** From any thread. */
    void Add(quint64 files, quint64 bytes);
    /** Tells the sink, if it is time to. */
    void Tick();
    void End();

private:
    Q_DISABLE_COPY(ProgressMeter)

    ProgressSink* sink;
    Progress totals;
    QElapsedTimer lastShown;
    std::atomic<quint64> files{0};
    std::atomic<quint64> bytes{0};
};

} // namespace publish
