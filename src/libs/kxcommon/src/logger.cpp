#include <kxcommon/logger.h>

#include <atomic>

namespace common::logger {
namespace {
std::atomic<ILogger*> installed{nullptr};
}

ILogger::~ILogger() = default;

ILogger* GetLogger()
{
    return installed.load(std::memory_order_acquire);
}

void SetLogger(ILogger* logger)
{
    installed.store(logger, std::memory_order_release);
}

} // namespace common::logger
