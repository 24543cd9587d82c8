#pragma once

#include <QString>

namespace publish {

/**
 * True when `a` comes before `b` in a list of versions: as clients order them, and by their texts
 * where clients know no order ("2" and "2.0", "nightly" and "weekly"). A strict weak ordering.
 */
bool IsListedBefore(const QString& a, const QString& b);

} // namespace publish
