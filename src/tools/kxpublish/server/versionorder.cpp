#include "versionorder.h"

#include <kxcommon/version.h>

namespace publish {

bool IsListedBefore(const QString& a, const QString& b)
{
    const common::Version first(a);
    const common::Version second(b);
    if (second > first)
        return true;
    return !(first > second) && a < b;
}

} // namespace publish
