#pragma once

namespace updater::internal {

/** Milliseconds between the sends of a server query: 5000 as shipped. */
int RetryDelay();

/** Changes RetryDelay() for the retries scheduled from now on; tests shorten it. Owner thread of
 * the queries only. */
void SetRetryDelay(int milliseconds);

} // namespace updater::internal
