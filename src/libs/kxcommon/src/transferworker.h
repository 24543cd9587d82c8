#pragma once

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>

namespace common::http {

/** Work that is done in small pieces on the worker thread. */
class WorkerJob
{
public:
    virtual ~WorkerJob() = default;
    /** Does one piece; true when there is more to do at once. Never runs twice at a time. */
    virtual bool Step() = 0;
};

/**
 * The one thread that hashes and writes for all transfers of the process.
 * Exists while a transfer holds it. Jobs take turns, piece by piece, so that a large file does not
 * hold up the small ones. All functions are safe from any thread but the worker's own.
 *
 * The hand-off uses the standard library's mutex and condition alone, and not Qt's, so that the
 * thread sanitizer sees it.
 */
class TransferWorker
{
public:
    /** The worker, started when there is none; null when no thread can be had. */
    static std::shared_ptr<TransferWorker> Get();
    ~TransferWorker();

    /** Lets the job's Step() run until it has no more to do; does nothing while it waits for that.
     */
    void Schedule(const std::shared_ptr<WorkerJob>& job);
    /** Takes the job out; when its Step() is running, waits for that one piece. */
    void Remove(const WorkerJob* job);

private:
    TransferWorker();
    TransferWorker(const TransferWorker&) = delete;
    TransferWorker& operator=(const TransferWorker&) = delete;

    void Run();

    // Guarded by the mutex.
    std::mutex mutex;
    std::condition_variable wake;     // for the thread: work, the end, or no more hold
    std::condition_variable stepDone; // for Remove()
    std::deque<std::shared_ptr<WorkerJob>> queue;
    const WorkerJob* stepping = nullptr;
    bool again = false;   // Schedule() came for the job that is stepping
    bool dropped = false; // Remove() came for it
    bool stopping = false;

    std::thread thread;

    friend void HoldTransferWorker(bool hold);
};

} // namespace common::http
