#pragma once

#include <functional>

namespace campaign {

/** Calls `work` with 0 to `count` - 1 and with the number of the thread that it runs on, on
 *  `threads` threads, the lower numbers first; returns when all are done, or once `isEnough` says
 *  so. */
void InParallel(int count, const std::function<void(int item, int thread)>& work,
                const std::function<bool()>& isEnough, int threads = 2);

} // namespace campaign
