#include <kxupdater/build.h>

#include <kxcommon/shell.h>

namespace updater {

QString Build::OSName()
{
    return QStringLiteral("windows");
}

QString Build::OSVersion()
{
    return QStringLiteral("XP");
}

QString Build::Platform()
{
    return common::Shell::Is64BitSystem() ? QStringLiteral("x64") : QStringLiteral("x86");
}

} // namespace updater
