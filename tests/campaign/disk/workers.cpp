#include "workers.h"

#include <atomic>
#include <thread>
#include <vector>

namespace campaign {

void InParallel(int count, const std::function<void(int item, int thread)>& work,
                const std::function<bool()>& isEnough, int threads)
{
    std::atomic<int> next{0};
    std::vector<std::thread> running;
    for (int number = 0; number < threads; ++number) {
        running.emplace_back([&, number] {
            for (int item = next++; item < count && !isEnough(); item = next++)
                work(item, number);
        });
    }
    for (std::thread& thread : running)
        thread.join();
}

} // namespace campaign
