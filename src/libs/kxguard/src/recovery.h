#pragma once

#include <kxguard/recover.h>

#include <QString>

namespace guard {

/** What may take long. */
enum class Removals { Do, Leave };

/**
 * Recover() for who holds the application's lock. With Removals::Leave only renames happen, and
 * what is to be removed stays for the next time, the journal with it.
 */
Recovery RecoverLocked(const QString& appDir, Removals removals);

/** Why `appDir` cannot be the path of an application directory; empty when it can. */
QString ApplicationViolation(const QString& appDir);

} // namespace guard
