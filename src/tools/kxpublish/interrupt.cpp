#include "interrupt.h"

#include <csignal>

namespace publish {
namespace {

volatile std::sig_atomic_t interrupted = 0;

extern "C" void OnSignal(int number)
{
    interrupted = 1;
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
    return interrupted != 0;
}

} // namespace publish
