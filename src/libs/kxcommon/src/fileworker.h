#pragma once

#include "fileops.h"

#include <QElapsedTimer>
#include <QObject>
#include <QString>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

namespace common {

/** Why a run ended early; code 0 is no failure. An abandoned run has no text that anybody reads. */
struct Failure
{
    int code = 0;
    QString text;

    explicit operator bool() const { return code != 0; }
};

/** The code of a run that was told to stop; it is never signalled. */
constexpr int abandoned = -1;

/** `done` of `total` as the ints of a progress signal: 0 <= first <= second, second >= 1, and equal
 *  when the amounts are. Never decreasing in `done`. */
std::pair<int, int> ScaleProgress(std::uint64_t done, std::uint64_t total);

/** `left + right`, or the largest number where that is too large. */
std::uint64_t AddSaturated(std::uint64_t left, std::uint64_t right);

/**
 * One run on a thread of its own: the part that copying and removing share.
 * Lives in the owner's thread; a derived class does its work in Work(), on the worker's thread, and
 * calls Stop() first thing in its destructor. succesed() or failed() comes once, as the last thing
 * that the object does, and progress() before it; none of them from inside Start(). May be deleted
 * inside its own signals.
 */
class FileWorker : public QObject
{
    Q_OBJECT
public:
    ~FileWorker() override;

    /** False if the run was started before. */
    bool Start();
    /** True from Start() on: what the run reads must not change any more. */
    bool IsStarted() const { return started; }

Q_SIGNALS:
    void succesed();
    void failed(int error, const QString& errorText);
    void progress(int done, int total);

protected:
    /** `startCode` and `startText` report a thread that cannot be made. */
    FileWorker(QObject* parent, int startCode, const QString& startText);

    /** Ends the run and waits for the thread; nothing is signalled afterwards. */
    void Stop();

    /** The work itself, on the worker's thread. */
    virtual Failure Work() = 0;

    // For the worker's thread.
    bool IsAborted() const { return aborted.load(std::memory_order_relaxed); }
    /** Sets the amount that stands for the whole run; once, before the first Advance(). */
    void SetTotal(std::uint64_t amount);
    /** Counts work that is done; what exceeds the total is not counted. False if aborted. */
    bool Advance(std::uint64_t amount);

private:
    bool event(QEvent* event) override;
    void Run();
    void Finish(const Failure& failure);
    void Wake();
    void Deliver();

    const int startCode;
    const QString startText;
    std::atomic<bool> aborted{false};

    // Owner thread only.
    std::thread thread;
    bool started = false;
    std::pair<int, int> reported{-1, 0};

    // Worker thread only, once it runs.
    QElapsedTimer sinceWake;
    std::uint64_t counted = 0;

    // Handed over under the mutex. The posted event is a mere wake-up and carries nothing.
    std::mutex mutex;
    bool isWakePosted = false;
    std::uint64_t done = 0;
    std::uint64_t total = 0;
    std::optional<Failure> outcome;
};

} // namespace common
