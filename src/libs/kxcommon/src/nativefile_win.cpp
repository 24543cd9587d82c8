#include "nativefile.h"

#include <QDir>

#include <qt_windows.h>

namespace common::http {
namespace {

// The prefix lifts the limit of 260 characters; it needs an absolute path with backslashes.
std::wstring NativePath(const QString& path)
{
    const QString native = QDir::toNativeSeparators(QDir::cleanPath(path));
    if (native.startsWith(QLatin1String("\\\\")))
        return native.toStdWString();
    return (QStringLiteral("\\\\?\\") + native).toStdWString();
}

HANDLE HandleOf(qintptr handle)
{
    return reinterpret_cast<HANDLE>(handle);
}

bool IsPlainFile(DWORD attributes)
{
    return attributes != INVALID_FILE_ATTRIBUTES &&
           !(attributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT));
}

// Virus scanners and indexers hold new files for a moment.
bool IsHeldByOthers(DWORD error)
{
    return error == ERROR_SHARING_VIOLATION || error == ERROR_ACCESS_DENIED;
}

} // namespace

NativeFile::~NativeFile()
{
    Close();
}

bool NativeFile::Fail()
{
    const DWORD error = GetLastError();
    errorText = qt_error_string(int(error));
    noSpace = error == ERROR_DISK_FULL || error == ERROR_HANDLE_DISK_FULL;
    return false;
}

NativeFile::Entry NativeFile::EntryAt(const QString& path, qint64* size)
{
    WIN32_FILE_ATTRIBUTE_DATA data;
    if (!GetFileAttributesExW(NativePath(path).c_str(), GetFileExInfoStandard, &data))
        return Entry::Missing;
    if (size)
        *size = (qint64(data.nFileSizeHigh) << 32) | data.nFileSizeLow;
    if (IsPlainFile(data.dwFileAttributes))
        return Entry::RegularFile;
    const bool link = data.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT;
    return link ? Entry::Other : Entry::Directory;
}

bool NativeFile::OpenExisting(const QString& path)
{
    Close();
    openPath = path;
    if (EntryAt(path) != Entry::RegularFile)
        return false;
    const HANDLE file =
        CreateFileW(NativePath(path).c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_DELETE,
                    nullptr, OPEN_EXISTING, FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return Fail();
    handle = reinterpret_cast<qintptr>(file);
    return true;
}

NativeFile::Opened NativeFile::OpenForWriting(const QString& path)
{
    Close();
    openPath = path;
    const std::wstring name = NativePath(path);
    const Entry entry = EntryAt(path);
    if (entry == Entry::Other && !DeleteFileW(name.c_str()))
        RemoveDirectoryW(name.c_str()); // a link to a directory
    // No share of writing: a second writer gets a sharing violation.
    const HANDLE file =
        CreateFileW(name.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_DELETE,
                    nullptr, entry == Entry::RegularFile ? OPEN_ALWAYS : CREATE_NEW,
                    FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        const bool busy = GetLastError() == ERROR_SHARING_VIOLATION;
        Fail();
        return busy ? Opened::Busy : Opened::Failed;
    }
    handle = reinterpret_cast<qintptr>(file);
    return Opened::Yes;
}

qint64 NativeFile::Size() const
{
    LARGE_INTEGER size;
    return GetFileSizeEx(HandleOf(handle), &size) ? size.QuadPart : 0;
}

qint64 NativeFile::Read(char* data, qint64 count)
{
    DWORD got = 0;
    if (!ReadFile(HandleOf(handle), data, DWORD(count), &got, nullptr)) {
        Fail();
        return -1;
    }
    return got;
}

bool NativeFile::Write(const char* data, qint64 count)
{
    while (count > 0) {
        DWORD written = 0;
        const DWORD piece = DWORD(qMin<qint64>(count, 1 << 20));
        if (!WriteFile(HandleOf(handle), data, piece, &written, nullptr))
            return Fail();
        data += written;
        count -= written;
    }
    return true;
}

bool NativeFile::Truncate()
{
    LARGE_INTEGER begin = {};
    if (!SetFilePointerEx(HandleOf(handle), begin, nullptr, FILE_BEGIN) ||
        !SetEndOfFile(HandleOf(handle)))
        return Fail();
    return true;
}

bool NativeFile::SetPermissions(QFileDevice::Permissions permissions)
{
    FILE_BASIC_INFO info = {};
    if (!GetFileInformationByHandleEx(HandleOf(handle), FileBasicInfo, &info, sizeof info))
        return Fail();
    // Of all permissions, this system keeps "read only" with the file.
    const bool writable = permissions & (QFileDevice::WriteOwner | QFileDevice::WriteUser);
    const DWORD wanted = writable ? info.FileAttributes & ~DWORD(FILE_ATTRIBUTE_READONLY)
                                  : info.FileAttributes | FILE_ATTRIBUTE_READONLY;
    if (wanted == info.FileAttributes)
        return true;
    return SetFileAttributesW(NativePath(openPath).c_str(), wanted) || Fail();
}

void NativeFile::Close()
{
    if (handle != invalid)
        CloseHandle(HandleOf(handle));
    handle = invalid;
}

bool NativeFile::MoveTo(const QString& destination)
{
    Close();
    const std::wstring from = NativePath(openPath);
    const std::wstring to = NativePath(destination);
    for (int attempt = 0; attempt < 20; ++attempt) {
        if (MoveFileExW(from.c_str(), to.c_str(), MOVEFILE_REPLACE_EXISTING))
            return true;
        Fail();
        if (!IsHeldByOthers(GetLastError()))
            return false;
        Sleep(50);
    }
    return false;
}

void NativeFile::Remove(const QString& path)
{
    DeleteFileW(NativePath(path).c_str());
}

} // namespace common::http
