#include "stephook.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace kxtest {
namespace {

using common::fileops::Step;

std::mutex functionMutex;
StepHook::Function function;

int Call(Step step)
{
    StepHook::Function copy;
    {
        const std::lock_guard<std::mutex> lock(functionMutex);
        copy = function;
    }
    return copy ? copy(step) : 0;
}

} // namespace

StepHook::StepHook(Function called)
{
    const std::lock_guard<std::mutex> lock(functionMutex);
    function = std::move(called);
    common::fileops::stepHook.store(Call);
}

StepHook::~StepHook()
{
    common::fileops::stepHook.store(nullptr);
    const std::lock_guard<std::mutex> lock(functionMutex);
    function = nullptr;
}

StepHook::Function StepHook::Failing(Step step, int nth, int number)
{
    auto count = std::make_shared<std::atomic<int>>(0);
    return [=](Step at) { return at == step && ++*count == nth ? number : 0; };
}

struct StepGate::State
{
    const Step step;
    mutable std::mutex mutex;
    std::condition_variable changed;
    bool isHeld = false;
    bool isReleased = false;
    std::thread releaser;

    explicit State(Step at) : step(at) {}

    int Pass(Step at)
    {
        if (at != step)
            return 0;
        std::unique_lock<std::mutex> lock(mutex);
        isHeld = !isReleased;
        changed.wait(lock, [this] { return isReleased; });
        isHeld = false;
        return 0;
    }
};

StepGate::StepGate(Step step)
    : state(std::make_shared<State>(step)), hook([kept = state](Step at) { return kept->Pass(at); })
{
}

StepGate::~StepGate()
{
    Release();
    if (state->releaser.joinable())
        state->releaser.join();
}

bool StepGate::IsHeld() const
{
    const std::lock_guard<std::mutex> lock(state->mutex);
    return state->isHeld;
}

void StepGate::Release()
{
    const std::lock_guard<std::mutex> lock(state->mutex);
    state->isReleased = true;
    state->changed.notify_all();
}

// The caller is about to wait for the worker; no outcome depends on the length of this pause.
void StepGate::ReleaseSoon()
{
    state->releaser = std::thread([this] {
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        Release();
    });
}

} // namespace kxtest
