#pragma once

#include <kxcommon/kxcommon_export.h>

#include <QString>

namespace common {

/**
 * Confines names that come from elsewhere to a directory. Static functions only, safe from any
 * thread.
 */
class KXCOMMON_EXPORT PathGuard
{
public:
    /**
     * Why `name` cannot be the relative path of an entry of a tree, as a text for a log; empty when
     * it can. Refused are an empty name, absolute names, drive letters, backslashes, control
     * characters, "." and ".." as components, and a separator at the end.
     */
    static QString NameViolation(const QString& name);

    /**
     * Why `name` must not be read or written below `root`, empty when it may: what NameViolation()
     * refuses, and a symbolic link or a plain file among the directories between `root` and the
     * entry. The entry itself may be anything. `root` may be reached through links and need not
     * exist.
     */
    static QString Violation(const QString& root, const QString& name);
};

} // namespace common
