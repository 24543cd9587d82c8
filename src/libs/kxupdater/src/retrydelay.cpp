#include "retrydelay.h"

namespace updater::internal {
namespace {
int retryDelay = 5000;
}

int RetryDelay()
{
    return retryDelay;
}

void SetRetryDelay(int milliseconds)
{
    retryDelay = milliseconds;
}

} // namespace updater::internal
