#pragma once

#include "exitstatus.h"

namespace tools {
class CommandLine;
}

namespace publish {

/** The command line of the tool: one row a command. */
const tools::ProgramSpec& Program();

/** Carries out the command of a parsed line. */
ExitStatus RunCommand(const tools::CommandLine& line);

} // namespace publish
