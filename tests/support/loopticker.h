#pragma once

#include <QObject>
#include <QTimer>

namespace kxtest {

/**
 * Counts how often the event loop of its thread comes round to a timer: proof that the loop kept
 * running while something else took its time.
 */
class LoopTicker : public QObject
{
public:
    /** Ticks every `intervalMs` milliseconds; 0: on every round of the loop. */
    explicit LoopTicker(int intervalMs = 0)
    {
        connect(&timer, &QTimer::timeout, this, [this] { ++ticks; });
        timer.start(intervalMs);
    }

    int Ticks() const { return ticks; }
    void Reset() { ticks = 0; }

private:
    Q_DISABLE_COPY(LoopTicker)

    QTimer timer;
    int ticks = 0;
};

} // namespace kxtest
