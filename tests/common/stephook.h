#pragma once

#include "fileops.h"

#include <functional>
#include <memory>

namespace kxtest {

/**
 * Calls `function` on the worker's thread at each step of copies and removals while it lives; what
 * it returns is the error number with which the step fails, 0 for none. One at a time, and its end
 * comes after the end of the runs.
 */
class StepHook
{
public:
    using Function = std::function<int(common::fileops::Step step)>;

    explicit StepHook(Function function);
    ~StepHook();
    StepHook(const StepHook&) = delete;
    StepHook& operator=(const StepHook&) = delete;

    /** Fails the `nth` step of its kind, counted from 1, with an error number. */
    static Function Failing(common::fileops::Step step, int nth, int number);
};

/** Holds the worker at the first step of a kind until it is released. */
class StepGate
{
public:
    explicit StepGate(common::fileops::Step step);
    ~StepGate();

    bool IsHeld() const;
    void Release();
    /** Lets the worker go on a little after this call, from another thread. */
    void ReleaseSoon();

private:
    struct State;
    std::shared_ptr<State> state;
    StepHook hook;
};

} // namespace kxtest
