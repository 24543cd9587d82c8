#pragma once

#include "programspec.h"

namespace tools {

/** The text of --help: commands, common options, sections, examples, exit statuses. */
QString ProgramHelp(const ProgramSpec& program);

/** The text of --help behind a command: its usage, arguments and options. */
QString CommandHelp(const ProgramSpec& program, const CommandSpec& command);

/** "add [options] TREE": the command with the names of what follows it. */
QString Synopsis(const CommandSpec& command);

/** "--exclude GLOB": an option as it is typed. */
QString OptionUsage(const OptionSpec& option);

} // namespace tools
