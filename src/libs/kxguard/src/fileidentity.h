#pragma once

#include <QString>

namespace guard {

/** Identity of a directory that is no directory. */
inline QString NoIdentity()
{
    return QStringLiteral("none");
}

/**
 * What tells the directory at `path` from another one that stands at its path later, and what it
 * keeps when it is renamed or the system starts anew. One word of at most 100 characters. Empty
 * when the system does not tell, NoIdentity() when no directory stands there (a link is none).
 */
QString IdentityOf(const QString& path);

} // namespace guard
