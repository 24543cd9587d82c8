#pragma once

#include "programspec.h"

namespace tools {

/** The manual of `program` as the source of a man page in section 1, for groff's man macros. */
QString ManPage(const ProgramSpec& program);

} // namespace tools
