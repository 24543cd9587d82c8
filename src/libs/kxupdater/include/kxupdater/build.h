#pragma once

#include <kxupdater/kxupdater_export.h>

#include <QString>

namespace updater {

/**
 * Names the platform in the URLs of the update server. Static functions only; each returns a new
 * string and is safe from any thread.
 */
class KXUPDATER_EXPORT Build
{
public:
    Build() = delete;
    /** Never used: there are no objects. */
    Build& operator=(const Build&) = default;
    /** Never used: there are no objects. */
    Build& operator=(Build&&) = default;

    /** "windows", on every system: the directory of the server tree has this name. */
    static QString OSName();
    /** "XP", on every system. */
    static QString OSVersion();
    /** "x64" on a 64-bit system, otherwise "x86". */
    static QString Platform();
};

} // namespace updater
