#include "progress.h"

namespace publish {

static constexpr qint64 pauseMs = 100;

const char* StepText(Progress::Step step)
{
    switch (step) {
    case Progress::Checking:
        return "checking";
    case Progress::Hashing:
        return "hashing";
    case Progress::Copying:
        return "copying";
    case Progress::Comparing:
        return "comparing with published files";
    case Progress::Syncing:
        return "bringing to the disk";
    }
    return "";
}

ProgressMeter::ProgressMeter(ProgressSink* sink) : sink(sink)
{
    // What is over at once needs no line.
    lastShown.start();
}

void ProgressMeter::Begin(Progress::Step step, quint64 filesTotal, quint64 bytesTotal)
{
    totals.step = step;
    totals.filesTotal = filesTotal;
    totals.bytesTotal = bytesTotal;
    files = 0;
    bytes = 0;
}

void ProgressMeter::Add(quint64 moreFiles, quint64 moreBytes)
{
    files.fetch_add(moreFiles, std::memory_order_relaxed);
    bytes.fetch_add(moreBytes, std::memory_order_relaxed);
}

void ProgressMeter::Tick()
{
    if (!sink || lastShown.elapsed() < pauseMs)
        return;
    lastShown.restart();
    Progress progress = totals;
    progress.files = files;
    progress.bytes = bytes;
    sink->Show(progress);
}

void ProgressMeter::End()
{
    if (sink)
        sink->Clear();
}

} // namespace publish
