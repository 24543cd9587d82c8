#include "fileidentity.h"

#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>

namespace guard {

QString IdentityOf(const QString& path)
{
    const HANDLE opened = ::CreateFileW(
        reinterpret_cast<const wchar_t*>(path.utf16()), FILE_READ_ATTRIBUTES,
        FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
        FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
    if (opened == INVALID_HANDLE_VALUE)
        return NoIdentity();
    BY_HANDLE_FILE_INFORMATION info = {};
    const bool isKnown = ::GetFileInformationByHandle(opened, &info);
    ::CloseHandle(opened);
    if (!isKnown)
        return QString();
    if (!(info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) ||
        (info.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT))
        return NoIdentity();
    return QStringLiteral("%1-%2-%3-%4")
        .arg(info.nFileIndexHigh)
        .arg(info.nFileIndexLow)
        .arg(info.ftCreationTime.dwHighDateTime)
        .arg(info.ftCreationTime.dwLowDateTime);
}

} // namespace guard
