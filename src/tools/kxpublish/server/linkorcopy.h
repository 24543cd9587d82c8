#pragma once

#include <QString>

namespace publish {

/**
 * Makes `to`, which must not exist, a second name of the file `from`, or a copy of it where the
 * volume has no hard links or the file has too many. Brings a copy to the disk; `error` names the
 * file on failure.
 */
bool LinkOrCopy(const QString& from, const QString& to, QString& error);

} // namespace publish
