// A file that is open without FILE_SHARE_WRITE is the lock; the system closes and removes it when
// its owner ends.

#include "filelock_handle.h"

#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>

namespace guard {
namespace {

HANDLE Open(const QString& path, DWORD access, DWORD share, DWORD disposition, DWORD flags)
{
    return ::CreateFileW(reinterpret_cast<const wchar_t*>(path.utf16()), access, share, nullptr,
                         disposition, flags | FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
}

bool IsBusy(DWORD number)
{
    return number == ERROR_SHARING_VIOLATION || number == ERROR_LOCK_VIOLATION ||
           number == ERROR_DELETE_PENDING;
}

QByteArray ReadText(const QString& path)
{
    const HANDLE opened =
        Open(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
             OPEN_EXISTING, 0);
    if (opened == INVALID_HANDLE_VALUE)
        return QByteArray();
    char text[1024];
    DWORD size = 0;
    ::ReadFile(opened, text, sizeof text, &size, nullptr);
    ::CloseHandle(opened);
    return QByteArray(text, qsizetype(size));
}

} // namespace

FileLock::Handle::~Handle()
{
    if (file)
        ::CloseHandle(file);
}

FileLock::Result FileLock::Handle::Take(const QString& path, const QByteArray& text,
                                        QByteArray* holder, QString* reason)
{
    const HANDLE opened = Open(path, GENERIC_READ | GENERIC_WRITE | DELETE, FILE_SHARE_READ,
                               OPEN_ALWAYS, FILE_FLAG_DELETE_ON_CLOSE);
    if (opened == INVALID_HANDLE_VALUE) {
        const DWORD number = ::GetLastError();
        if (IsBusy(number)) {
            *holder = ReadText(path);
            return Result::Busy;
        }
        *reason = QStringLiteral("Cannot make the lock file '%1': %2.")
                      .arg(path, qt_error_string(int(number)));
        return Result::Failed;
    }
    DWORD size = 0;
    ::WriteFile(opened, text.constData(), DWORD(text.size()), &size, nullptr);
    file = opened;
    return Result::Taken;
}

void FileLock::Handle::Release(const QString& path)
{
    static_cast<void>(path); // removed by the system
    if (!file)
        return;
    ::CloseHandle(file);
    file = nullptr;
}

bool FileLock::Handle::IsHeld(const QString&) const
{
    // A file that is open this way cannot be removed.
    return file != nullptr;
}

bool FileLock::Handle::IsLocked(const QString& path, QByteArray* holder)
{
    const HANDLE opened =
        Open(path, GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
             OPEN_EXISTING, 0);
    if (opened != INVALID_HANDLE_VALUE) {
        ::CloseHandle(opened);
        return false;
    }
    if (!IsBusy(::GetLastError()))
        return false;
    *holder = ReadText(path);
    return true;
}

} // namespace guard
