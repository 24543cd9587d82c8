#pragma once

namespace publish {

/** Turns Ctrl-C and a request to terminate into a flag, so that a run can tidy up and leave. */
void CatchInterrupts();

/** True once the user wants the run to end. */
bool IsInterrupted();

} // namespace publish
