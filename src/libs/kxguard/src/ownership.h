#pragma once

#include <QString>

namespace guard {

/**
 * Gives the regular file at `path`, which this process has made, to the owner of the directory it
 * lies in, if this is the administrator at work in a user's directory: what a killed process leaves
 * there must not be in the user's own way. Anything else at the path is left alone.
 */
void GiveToOwnerOfDirectory(const QString& path);

} // namespace guard
