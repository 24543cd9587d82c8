#include "interrupt.h"

#include <csignal>

namespace publish {
namespace {

volatile std::sig_atomic_t interrupted = 0;

extern "C" void OnSignal(int)
{
    interrupted = 1;
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
