#pragma once

#include <kxcommon/kxcommon_export.h>

namespace common {

/** Facts about the running system. Static queries only, safe from any thread. */
class KXCOMMON_EXPORT Shell
{
public:
    /** True when the operating system is a 64-bit one, also when this process is not. */
    static bool Is64BitSystem();
};

} // namespace common
