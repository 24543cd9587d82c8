#pragma once

#include <kxcommon/logger.h>

namespace updater {

// One category for all files of the updater; KX_LOG finds it by this name.
[[maybe_unused]] inline constexpr char kxLoggerName[] = "main";
inline constexpr char kxLogCategory[] = "updater.core";

} // namespace updater

/** A message of the updater: begins with the name of the present state. In Updater's members only.
 */
#define KX_LOG_STATE(level) KX_LOG(level) << stateName << ": "
