#pragma once

#include <QString>

namespace guard {

/** True when two existing paths lie on one file system, also when it is mounted in two places.
 * False when the system does not tell. */
bool IsOneFileSystem(const QString& a, const QString& b);

} // namespace guard
