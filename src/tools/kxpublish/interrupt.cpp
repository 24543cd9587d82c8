#include "interrupt.h"

#include <atomic>
#include <csignal>

namespace publish {
namespace {

// Read by every thread that works, written by a signal handler.
std::atomic<bool> interrupted{false};
static_assert(std::atomic<bool>::is_always_lock_free);

extern "C" void OnSignal(int number)
{
    interrupted = true;
    // Whoever does not want to wait for the tidying asks a second time.
    std::signal(number, SIG_DFL);
}

} // namespace

void CatchInterrupts()
{
    std::signal(SIGINT, OnSignal);
    std::signal(SIGTERM, OnSignal);
}

bool IsInterrupted()
{
    return interrupted;
}

} // namespace publish
