#include "transferworker.h"

#include "transfertuning.h"

#include <algorithm>
#include <atomic>
#include <system_error>

namespace common::http {
namespace {

std::mutex instanceMutex;
std::weak_ptr<TransferWorker> instance; // guarded by instanceMutex
std::atomic<bool> held{false};
std::atomic<int> workers{0};

} // namespace

std::shared_ptr<TransferWorker> TransferWorker::Get()
{
    const std::lock_guard<std::mutex> lock(instanceMutex);
    std::shared_ptr<TransferWorker> worker = instance.lock();
    if (!worker) {
        worker.reset(new TransferWorker);
        try {
            worker->thread = std::thread(&TransferWorker::Run, worker.get());
        } catch (const std::system_error&) {
            return nullptr;
        }
        ++workers;
        instance = worker;
    }
    return worker;
}

TransferWorker::TransferWorker() = default;

TransferWorker::~TransferWorker()
{
    if (!thread.joinable())
        return;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        stopping = true;
    }
    wake.notify_all();
    thread.join();
    --workers;
}

void TransferWorker::Schedule(const std::shared_ptr<WorkerJob>& job)
{
    {
        const std::lock_guard<std::mutex> lock(mutex);
        if (stepping == job.get()) {
            again = true;
            return;
        }
        if (std::find(queue.begin(), queue.end(), job) != queue.end())
            return;
        queue.push_back(job);
    }
    wake.notify_all();
}

void TransferWorker::Remove(const WorkerJob* job)
{
    std::unique_lock<std::mutex> lock(mutex);
    queue.erase(std::remove_if(queue.begin(), queue.end(),
                               [job](const auto& queued) { return queued.get() == job; }),
                queue.end());
    if (stepping != job)
        return;
    dropped = true;
    stepDone.wait(lock, [this, job] { return stepping != job; });
}

void TransferWorker::Run()
{
    std::unique_lock<std::mutex> lock(mutex);
    for (;;) {
        wake.wait(lock, [this] { return stopping || (!queue.empty() && !held); });
        if (stopping)
            return;
        std::shared_ptr<WorkerJob> job = queue.front();
        queue.pop_front();
        stepping = job.get();
        again = false;
        dropped = false;
        lock.unlock();
        const bool more = job->Step();
        lock.lock();
        stepping = nullptr;
        if ((more || again) && !dropped)
            queue.push_back(std::move(job));
        stepDone.notify_all();
        // The last owner may be this thread: the job must not die under the lock.
        if (job) {
            lock.unlock();
            job.reset();
            lock.lock();
        }
    }
}

void HoldTransferWorker(bool hold)
{
    held = hold;
    const std::lock_guard<std::mutex> lock(instanceMutex);
    if (const std::shared_ptr<TransferWorker> worker = instance.lock()) {
        // With the lock, so that the thread is not between its look at the flag and its wait.
        const std::lock_guard<std::mutex> workerLock(worker->mutex);
        worker->wake.notify_all();
    }
}

int TransferWorkerCount()
{
    return workers;
}

} // namespace common::http
