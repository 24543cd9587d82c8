#include <kxcommon/shell.h>

#include <QString>
#include <QSysInfo>

namespace common {

bool Shell::Is64BitSystem()
{
    // A 64-bit process needs a 64-bit system; a 32-bit one has to ask.
    return QSysInfo::WordSize == 64 ||
           QSysInfo::currentCpuArchitecture().contains(QLatin1String("64"));
}

} // namespace common
