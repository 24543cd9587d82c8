#include "fileops.h"

#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>
// A macro there, an operation here.
#undef RemoveDirectory

#include <algorithm>

namespace common::fileops {
namespace {

namespace fs = std::filesystem;

constexpr DWORD shareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
// Without FILE_SHARE_DELETE: as long as a directory is open, nobody can put a link into its place,
// and paths through it lead where they led when it was opened.
constexpr DWORD shareInPlace = FILE_SHARE_READ | FILE_SHARE_WRITE;
constexpr DWORD retryMs = 10000;
constexpr DWORD pauseMs = 50;
constexpr size_t blockSize = 1024 * 1024;
// File times count 100 ns from 1601 on.
constexpr std::int64_t unixEpoch = 116444736000000000;

Error ErrorOf(DWORD number)
{
    return Error(static_cast<int>(number), std::system_category());
}

Error LastError()
{
    return ErrorOf(GetLastError());
}

Error Result(BOOL good)
{
    return good ? Error() : LastError();
}

// Paths longer than MAX_PATH need a prefix.
std::wstring Long(const Path& path)
{
    Path absolute = path;
    absolute.make_preferred();
    const std::wstring& text = absolute.native();
    if (text.size() < 200 || text.compare(0, 4, L"\\\\?\\") == 0 || !absolute.is_absolute())
        return text;
    if (text.compare(0, 2, L"\\\\") == 0)
        return L"\\\\?\\UNC\\" + text.substr(2);
    return L"\\\\?\\" + text;
}

HANDLE OpenEntry(const Path& path, DWORD access, DWORD share, bool follow)
{
    const DWORD flags =
        FILE_FLAG_BACKUP_SEMANTICS | (follow ? 0u : DWORD(FILE_FLAG_OPEN_REPARSE_POINT));
    return CreateFileW(Long(path).c_str(), access, share, nullptr, OPEN_EXISTING, flags, nullptr);
}

// Virus scanners and indexers hold entries for a moment.
bool IsPassing(DWORD number)
{
    return number == ERROR_SHARING_VIOLATION || number == ERROR_ACCESS_DENIED ||
           number == ERROR_LOCK_VIOLATION;
}

template <typename Call>
Error Patiently(DWORD patienceMs, Call call)
{
    const ULONGLONG end = GetTickCount64() + patienceMs;
    for (;;) {
        if (call())
            return {};
        const DWORD number = GetLastError();
        if (!IsPassing(number) || GetTickCount64() >= end)
            return ErrorOf(number);
        Sleep(pauseMs);
    }
}

std::int64_t Nanoseconds(const FILETIME& time)
{
    const std::int64_t count =
        (static_cast<std::int64_t>(time.dwHighDateTime) << 32) | time.dwLowDateTime;
    return (count - unixEpoch) * 100;
}

FILETIME ToTime(std::int64_t nanoseconds)
{
    const std::int64_t count = nanoseconds / 100 + unixEpoch;
    FILETIME time = {};
    time.dwLowDateTime = static_cast<DWORD>(count & 0xffffffff);
    time.dwHighDateTime = static_cast<DWORD>(count >> 32);
    return time;
}

Kind KindOf(const Path& path, DWORD attributes)
{
    if (attributes & FILE_ATTRIBUTE_REPARSE_POINT) {
        // Junctions lead elsewhere like links do; other reparse points are plain to their readers.
        std::error_code ignored;
        const fs::file_type type = fs::symlink_status(path, ignored).type();
        if (type == fs::file_type::symlink)
            return Kind::Link;
        if (type != fs::file_type::regular && type != fs::file_type::directory)
            return Kind::Special;
    }
    return attributes & FILE_ATTRIBUTE_DIRECTORY ? Kind::Directory : Kind::File;
}

Error ReadHandle(HANDLE handle, const Path& path, Attributes* attributes)
{
    BY_HANDLE_FILE_INFORMATION information = {};
    if (!GetFileInformationByHandle(handle, &information))
        return LastError();
    attributes->kind = KindOf(path, information.dwFileAttributes);
    attributes->size =
        (static_cast<std::uint64_t>(information.nFileSizeHigh) << 32) | information.nFileSizeLow;
    attributes->device = information.dwVolumeSerialNumber;
    attributes->inode =
        (static_cast<std::uint64_t>(information.nFileIndexHigh) << 32) | information.nFileIndexLow;
    attributes->mode = information.dwFileAttributes & FILE_ATTRIBUTE_READONLY ? 0555 : 0777;
    attributes->accessed = Nanoseconds(information.ftLastAccessTime);
    attributes->modified = Nanoseconds(information.ftLastWriteTime);
    return {};
}

Error ApplyTo(HANDLE handle, const Attributes& attributes, bool isDirectory)
{
    if (const Error error = At(Step::Attributes))
        return error;
    FILE_BASIC_INFO information = {};
    if (!GetFileInformationByHandleEx(handle, FileBasicInfo, &information, sizeof(information)))
        return LastError();
    const FILETIME accessed = ToTime(attributes.accessed);
    const FILETIME modified = ToTime(attributes.modified);
    information.LastAccessTime.LowPart = accessed.dwLowDateTime;
    information.LastAccessTime.HighPart = static_cast<LONG>(accessed.dwHighDateTime);
    information.LastWriteTime.LowPart = modified.dwLowDateTime;
    information.LastWriteTime.HighPart = static_cast<LONG>(modified.dwHighDateTime);
    // On a directory the mark does not protect anything; the shell gives it another meaning.
    if (!isDirectory && !(attributes.mode & 0200u))
        information.FileAttributes |= FILE_ATTRIBUTE_READONLY;
    return Result(
        SetFileInformationByHandle(handle, FileBasicInfo, &information, sizeof(information)));
}

void ClearReadOnly(const Path& path)
{
    const std::wstring text = Long(path);
    const DWORD attributes = GetFileAttributesW(text.c_str());
    if (attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_READONLY))
        SetFileAttributesW(text.c_str(), attributes & ~DWORD(FILE_ATTRIBUTE_READONLY));
}

} // namespace

std::atomic<StepHook> stepHook{nullptr};

Directory::Directory(Directory&& other) noexcept
    : path(std::move(other.path)), handle(std::exchange(other.handle, nullptr))
{
}

Directory& Directory::operator=(Directory&& other) noexcept
{
    std::swap(path, other.path);
    std::swap(handle, other.handle);
    return *this;
}

Directory::~Directory()
{
    Close();
}

bool Directory::IsOpen() const
{
    return handle != nullptr;
}

void Directory::Close()
{
    if (handle)
        CloseHandle(std::exchange(handle, nullptr));
}

Error Directory::OpenAnchor(const Path& opened)
{
    Close();
    const HANDLE result =
        OpenEntry(opened, FILE_READ_ATTRIBUTES | FILE_TRAVERSE, shareInPlace, true);
    if (result == INVALID_HANDLE_VALUE)
        return LastError();
    BY_HANDLE_FILE_INFORMATION information = {};
    if (!GetFileInformationByHandle(result, &information) ||
        !(information.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)) {
        CloseHandle(result);
        return std::make_error_code(std::errc::not_a_directory);
    }
    handle = result;
    path = opened;
    return {};
}

Error Directory::Open(const Path& opened)
{
    return OpenAnchor(opened);
}

Error Directory::OpenChild(const Directory& parent, const Name& name)
{
    const Path child = parent.path / name;
    const HANDLE result =
        OpenEntry(child, FILE_READ_ATTRIBUTES | FILE_LIST_DIRECTORY | FILE_WRITE_ATTRIBUTES,
                  shareInPlace, false);
    Error error;
    Attributes attributes;
    if (result == INVALID_HANDLE_VALUE)
        error = LastError();
    else if (!(error = ReadHandle(result, child, &attributes)) &&
             attributes.kind != Kind::Directory)
        error = std::make_error_code(std::errc::not_a_directory);
    Close();
    if (!error) {
        handle = result;
        path = child;
    } else if (result != INVALID_HANDLE_VALUE) {
        CloseHandle(result);
    }
    return error;
}

Error Directory::OpenParent(const Directory& child)
{
    Path above = child.path;
    if (!above.has_filename())
        above = above.parent_path();
    return OpenAnchor(above.has_relative_path() ? above.parent_path() : above);
}

Error Directory::List(std::vector<Entry>* entries) const
{
    entries->clear();
    WIN32_FIND_DATAW data = {};
    const HANDLE search =
        FindFirstFileExW(Long(path / L"*").c_str(), FindExInfoBasic, &data, FindExSearchNameMatch,
                         nullptr, FIND_FIRST_EX_LARGE_FETCH);
    if (search == INVALID_HANDLE_VALUE)
        return GetLastError() == ERROR_FILE_NOT_FOUND ? Error() : LastError();
    do {
        const std::wstring name = data.cFileName;
        if (name != L"." && name != L"..")
            entries->push_back({name, KindOf(path / name, data.dwFileAttributes)});
    } while (FindNextFileW(search, &data));
    const DWORD number = GetLastError();
    FindClose(search);
    return number == ERROR_NO_MORE_FILES ? Error() : ErrorOf(number);
}

Error Directory::Read(Attributes* attributes) const
{
    return ReadHandle(handle, path, attributes);
}

Error Directory::Read(const Name& name, Attributes* attributes) const
{
    *attributes = {};
    const HANDLE entry = OpenEntry(path / name, FILE_READ_ATTRIBUTES, shareAll, false);
    if (entry == INVALID_HANDLE_VALUE) {
        const DWORD number = GetLastError();
        const bool isMissing = number == ERROR_FILE_NOT_FOUND || number == ERROR_PATH_NOT_FOUND;
        return isMissing ? Error() : ErrorOf(number);
    }
    const Error error = ReadHandle(entry, path / name, attributes);
    CloseHandle(entry);
    return error;
}

Error Directory::MakePrivateDirectory(const Name& name) const
{
    return MakeDirectory(name);
}

Error Directory::MakeDirectory(const Name& name) const
{
    return Result(CreateDirectoryW(Long(path / name).c_str(), nullptr));
}

Error Directory::ReadLink(const Name& name, Name* target) const
{
    std::error_code error;
    *target = fs::read_symlink(path / name, error).native();
    return error;
}

Error Directory::MakeLink(const Name& name, const Name& target) const
{
    std::error_code error;
    // The system keeps two kinds of links apart, by what they lead to.
    const Path led = Path(target).is_absolute() ? Path(target) : path / target;
    std::error_code ignored;
    if (fs::is_directory(led, ignored))
        fs::create_directory_symlink(target, path / name, error);
    else
        fs::create_symlink(target, path / name, error);
    return error;
}

void Directory::SetLinkTimes(const Name& name, const Attributes& attributes) const
{
    const HANDLE entry = OpenEntry(path / name, FILE_WRITE_ATTRIBUTES, shareAll, false);
    if (entry == INVALID_HANDLE_VALUE)
        return;
    const FILETIME accessed = ToTime(attributes.accessed);
    const FILETIME modified = ToTime(attributes.modified);
    SetFileTime(entry, nullptr, &accessed, &modified);
    CloseHandle(entry);
}

Error Directory::RemoveEntry(const Name& name) const
{
    const Path entry = path / name;
    const std::wstring text = Long(entry);
    ClearReadOnly(entry);
    const DWORD attributes = GetFileAttributesW(text.c_str());
    // A link to a directory is removed like a directory, and its target stays.
    const bool isDirectory = attributes != INVALID_FILE_ATTRIBUTES &&
                             (attributes & FILE_ATTRIBUTE_DIRECTORY) &&
                             (attributes & FILE_ATTRIBUTE_REPARSE_POINT);
    return Patiently(retryMs, [&] {
        return isDirectory ? RemoveDirectoryW(text.c_str()) : DeleteFileW(text.c_str());
    });
}

Error Directory::RemoveDirectory(const Name& name) const
{
    const Path entry = path / name;
    ClearReadOnly(entry);
    const std::wstring text = Long(entry);
    return Patiently(retryMs, [&] { return RemoveDirectoryW(text.c_str()); });
}

Error Directory::Replace(const Name& from, const Name& to) const
{
    ClearReadOnly(path / to);
    return Patiently(retryMs, [&] {
        return MoveFileExW(Long(path / from).c_str(), Long(path / to).c_str(),
                           MOVEFILE_REPLACE_EXISTING);
    });
}

Error Directory::Place(const Name& from, const Name& to) const
{
    return RenameEntry(path / from, path / to);
}

Error Directory::Unlock() const
{
    return {};
}

Error Directory::Unlock(const Name& name) const
{
    ClearReadOnly(path / name);
    return {};
}

Error Directory::Apply(const Attributes& attributes) const
{
    return ApplyTo(handle, attributes, true);
}

// The journal of the volume keeps entries of directories; the system offers nothing to flush them.
Error Directory::Sync() const
{
    return At(Step::Sync);
}

Error Directory::SyncFile(const Name& name) const
{
    if (const Error error = At(Step::Sync))
        return error;
    const HANDLE entry = OpenEntry(path / name, GENERIC_WRITE, shareAll, false);
    // A read-only file cannot be opened for it; it was flushed when it was written.
    if (entry == INVALID_HANDLE_VALUE)
        return GetLastError() == ERROR_ACCESS_DENIED ? Error() : LastError();
    const Error error = Result(FlushFileBuffers(entry));
    CloseHandle(entry);
    return error;
}

Error Directory::SyncVolume() const
{
    return At(Step::Sync);
}

bool Directory::CanSyncVolume() const
{
    return false;
}

File::~File()
{
    if (handle)
        CloseHandle(handle);
}

Error File::OpenToRead(const Directory& parent, const Name& name, bool follow)
{
    path = parent.path / name;
    const DWORD flags =
        FILE_FLAG_SEQUENTIAL_SCAN | (follow ? 0u : DWORD(FILE_FLAG_OPEN_REPARSE_POINT));
    std::error_code error;
    const fs::file_status status =
        follow ? fs::status(path, error) : fs::symlink_status(path, error);
    if (status.type() == fs::file_type::not_found)
        return std::make_error_code(std::errc::no_such_file_or_directory);
    if (status.type() != fs::file_type::regular)
        return error ? error : std::make_error_code(std::errc::operation_not_supported);
    const HANDLE result = CreateFileW(Long(path).c_str(), GENERIC_READ, shareAll, nullptr,
                                      OPEN_EXISTING, flags, nullptr);
    if (result == INVALID_HANDLE_VALUE)
        return LastError();
    handle = result;
    return {};
}

Error File::Create(const Directory& parent, const Name& name)
{
    path = parent.path / name;
    const HANDLE result = CreateFileW(Long(path).c_str(), GENERIC_READ | GENERIC_WRITE,
                                      FILE_SHARE_READ, nullptr, CREATE_NEW, 0, nullptr);
    if (result == INVALID_HANDLE_VALUE)
        return LastError();
    handle = result;
    return {};
}

Error File::Read(Attributes* attributes) const
{
    return ReadHandle(handle, path, attributes);
}

Error File::Apply(const Attributes& attributes) const
{
    // What becomes read-only now cannot be opened for flushing later.
    if (!(attributes.mode & 0200u) && !FlushFileBuffers(handle))
        return LastError();
    return ApplyTo(handle, attributes, false);
}

Error File::Close()
{
    return Result(CloseHandle(std::exchange(handle, nullptr)));
}

Error File::CopyContent(const File& source, const Attributes& attributes, const File& target,
                        const Advance& advance, bool* isReading)
{
    std::vector<char> buffer(
        static_cast<size_t>(std::clamp<std::uint64_t>(attributes.size, 4096, blockSize)));
    for (;;) {
        DWORD got = 0;
        *isReading = true;
        if (!ReadFile(source.handle, buffer.data(), static_cast<DWORD>(buffer.size()), &got,
                      nullptr))
            return LastError();
        if (got == 0)
            return {};
        *isReading = false;
        for (DWORD done = 0; done < got;) {
            DWORD written = 0;
            if (!WriteFile(target.handle, buffer.data() + done, got - done, &written, nullptr))
                return LastError();
            done += written;
        }
        if (const Error error = At(Step::Block))
            return error;
        if (!advance(got))
            return std::make_error_code(std::errc::operation_canceled);
    }
}

Error RenameEntry(const Path& from, const Path& to)
{
    const std::wstring source = Long(from);
    const std::wstring target = Long(to);
    return Patiently(retryMs, [&] { return MoveFileExW(source.c_str(), target.c_str(), 0); });
}

} // namespace common::fileops
