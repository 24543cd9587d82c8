#pragma once

#include <kxcommon/logger.h>

namespace common::logger {

/**
 * A logger that forwards every message to the Qt logging category of the same name.
 *
 *     common::logger::QtLogger logger;
 *     common::logger::SetLogger(&logger);
 *     // QT_LOGGING_RULES="updater.*.debug=true" shows everything,
 *     // qInstallMessageHandler() redirects.
 *
 * Levels 0 to 3 become critical messages, 4 and 5 warnings, 6 info and 7 debug; file, line and
 * function are passed on. Holds no state of its own and is safe from any thread. A category name
 * must be a constant that lives until the process ends, as those of KX_LOG_CATEGORY do.
 */
class KXCOMMON_EXPORT QtLogger : public ILogger
{
public:
    void Log(const IMessage& message) override;
};

} // namespace common::logger
