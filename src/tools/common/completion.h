#pragma once

#include "programspec.h"

namespace tools {

/**
 * The completion script of `program` for `shell`, "bash" or "zsh"; empty for any other. Commands
 * complete as the first word, options and their values behind it.
 */
QString CompletionScript(const ProgramSpec& program, const QString& shell);

} // namespace tools
