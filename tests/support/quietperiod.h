#pragma once

#include <QSignalSpy>
#include <QTest>
#include <QTimer>

namespace kxtest {

/**
 * Runs the event loop until a timer of `milliseconds` has fired, and with it every timer that was
 * due earlier. For claims that something does not happen: the timers of a loop fire in the order of
 * their ends, so the claim does not rest on the speed of the machine.
 */
inline void PassTimersOf(int milliseconds)
{
    QTimer timer;
    QSignalSpy fired(&timer, SIGNAL(timeout()));
    timer.setSingleShot(true);
    timer.start(milliseconds);
    if (!fired.wait(milliseconds + 30000))
        qFatal("a timer did not fire");
}

} // namespace kxtest
