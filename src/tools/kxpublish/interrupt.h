#pragma once

namespace publish {

/** Turns Ctrl-C and a request to terminate into a flag, so that a run can tidy up and leave.
 *  The second one ends the process on the spot, and the next run tidies up. */
void CatchInterrupts();

/** True once the user wants the run to end. */
bool IsInterrupted();

} // namespace publish
