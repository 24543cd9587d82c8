#pragma once

#include <QString>

namespace guard {

/**
 * Why another user than the one who runs this, or the administrator, may change the entry at `path`
 * itself; a link is looked at, not followed. Empty when nobody may. Group rights do not count: many
 * systems give each user a group of their own. `isMeantWritable`: the entry is meant to be writable
 * for all.
 */
QString Exposure(const QString& path, bool isMeantWritable = false);

/** Why another user may put another entry at `path`: the same for the directories above it, and for
 *  links on the way. A directory that all may write is accepted with the restriction that temporary
 *  directories have. */
QString ParentExposure(const QString& path);

} // namespace guard
