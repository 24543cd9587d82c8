#include "parallel.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

namespace publish {

static constexpr int maxWorkers = 16;

int WorkerCount(qsizetype count)
{
    const int cores = int(std::thread::hardware_concurrency());
    return int(std::clamp<qsizetype>(count, 1, std::clamp(cores, 1, maxWorkers)));
}

void ForEach(qsizetype count, const std::function<bool(int, qsizetype)>& job,
             const std::function<void()>& tick)
{
    std::atomic<qsizetype> next{0};
    std::atomic<bool> stopped{false};
    std::mutex mutex;
    std::condition_variable ended;
    int running = 0; // under the mutex
    const auto work = [&](int worker) {
        // An index that is taken is worked on, or a lower one could be left out.
        while (!stopped) {
            const qsizetype index = next++;
            if (index >= count)
                break;
            if (!job(worker, index))
                stopped = true;
        }
        const std::lock_guard<std::mutex> guard(mutex);
        --running;
        ended.notify_one();
    };

    std::vector<std::thread> threads;
    for (int worker = 0; worker < WorkerCount(count); ++worker) {
        {
            const std::lock_guard<std::mutex> guard(mutex);
            ++running;
        }
        try {
            threads.emplace_back(work, worker);
        } catch (const std::system_error&) {
            // The system gives no more threads: those that run do it all, or this one.
            if (threads.empty())
                work(worker);
            else {
                const std::lock_guard<std::mutex> guard(mutex);
                --running;
            }
            break;
        }
    }
    std::unique_lock<std::mutex> lock(mutex);
    while (!ended.wait_for(lock, std::chrono::milliseconds(100), [&] { return running == 0; })) {
        lock.unlock();
        tick();
        lock.lock();
    }
    lock.unlock();
    for (std::thread& thread : threads)
        thread.join();
}

void RunBoth(const std::function<void()>& aside, const std::function<void()>& here)
{
    std::thread thread;
    try {
        thread = std::thread(aside);
    } catch (const std::system_error&) {
        aside();
    }
    here();
    if (thread.joinable())
        thread.join();
}

} // namespace publish
