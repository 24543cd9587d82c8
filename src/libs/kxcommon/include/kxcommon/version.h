#pragma once

#include <kxcommon/kxcommon_export.h>

#include <QString>
#include <QStringList>

namespace common {

/**
 * A version text as a value that can be ordered.
 *
 * Numeric components, separated by dots, are compared from the left; a missing one counts as zero,
 * so 1.0 equals 1.0.0, and a component may have any number of digits. A text with a hyphenated
 * suffix ("2.0-rc1") is earlier than the same one without; two suffixes are compared in runs,
 * digits by value ("rc2" before "rc10"). A text that is empty or does not follow this syntax is
 * earlier than any that does, and no two of those are ordered. Accepts every text and never fails.
 */
class KXCOMMON_EXPORT Version
{
public:
    /** Any text; see the class for the order of those that are versions. */
    Version(const QString& text);

    /** True when this version is later than `other`; false for equal ones. */
    bool operator>(const Version& other) const { return greater(other); }

private:
    bool greater(const Version& other) const;

    bool numeric = false;
    QStringList components; // digits without leading zeros
    bool hasSuffix = false;
    QStringList suffix; // runs of digits and of other characters
};

} // namespace common
