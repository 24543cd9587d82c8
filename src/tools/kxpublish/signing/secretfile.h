#pragma once

#include "secretbytes.h"

#include <QString>

namespace publish {

/**
 * Reads the regular file `path`, of `most` bytes at most; a link is not followed. What went wrong
 * as the end of a message, or an empty text. `exposed`: others than its owner may read it.
 */
QString ReadSecretFile(const QString& path, qsizetype most, SecretBytes* bytes, bool* exposed);

/**
 * Makes the file `path` and brings it to the disk. Nobody but its owner may ever read it, not even
 * while it is made. What stands there, a link included, is an error and stays; a file that could
 * not be completed is removed. False with an error that names the path.
 */
bool WriteSecretFile(const QString& path, const SecretBytes& bytes, QString& error);

} // namespace publish
