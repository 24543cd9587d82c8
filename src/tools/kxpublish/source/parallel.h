#pragma once

#include <QtGlobal>

#include <functional>

namespace publish {

/** The number of threads that ForEach() uses for `count` jobs: one a core, at most sixteen. */
int WorkerCount(qsizetype count);

/**
 * Calls `job` for each index below `count`, on WorkerCount() threads that take the indices in
 * order. `worker`, from 0, tells the threads apart, for buffers of their own. A job that answers
 * false keeps further ones from being started; those with lower indices have all been started by
 * then, and are waited for: which index fails first does not depend on the threads.
 *
 * The caller waits for the end, and calls `tick` meanwhile, about ten times a second.
 */
void ForEach(qsizetype count, const std::function<bool(int worker, qsizetype index)>& job,
             const std::function<void()>& tick);

/** Calls `aside` in a thread and `here` in this one, and returns when both are done. */
void RunBoth(const std::function<void()>& aside, const std::function<void()>& here);

} // namespace publish
