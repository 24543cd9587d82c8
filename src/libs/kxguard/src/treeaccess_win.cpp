#include "strictcodec.h"
#include "treeaccess.h"

#include <QStringList>

#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>

#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace guard {
namespace {

namespace fs = std::filesystem;

constexpr DWORD blockSize = 256 * 1024;
// Without FILE_SHARE_DELETE: as long as a directory is open, nobody can put a link into its place,
// and paths through it lead where they led when it was opened.
constexpr DWORD shareInPlace = FILE_SHARE_READ | FILE_SHARE_WRITE;

QString LastReason()
{
    return qt_error_string(static_cast<int>(GetLastError()));
}

class OpenHandle
{
public:
    explicit OpenHandle(HANDLE handle = INVALID_HANDLE_VALUE) : handle(handle) {}
    ~OpenHandle() { Reset(INVALID_HANDLE_VALUE); }
    HANDLE Get() const { return handle; }
    bool IsOpen() const { return handle != INVALID_HANDLE_VALUE; }
    void Reset(HANDLE next)
    {
        if (IsOpen())
            CloseHandle(handle);
        handle = next;
    }

private:
    Q_DISABLE_COPY(OpenHandle)

    HANDLE handle;
};

fs::path ToNative(const QString& path)
{
    return fs::path(path.toStdWString()).make_preferred();
}

// Paths longer than MAX_PATH need the prefix.
std::wstring Long(const fs::path& path)
{
    const std::wstring& text = path.native();
    if (text.compare(0, 2, L"\\\\") == 0 || !path.is_absolute())
        return text;
    return L"\\\\?\\" + text;
}

HANDLE OpenPath(const fs::path& path, DWORD access, bool follow)
{
    const DWORD flags =
        FILE_FLAG_BACKUP_SEMANTICS | (follow ? 0u : DWORD(FILE_FLAG_OPEN_REPARSE_POINT));
    return CreateFileW(Long(path).c_str(), access, shareInPlace, nullptr, OPEN_EXISTING, flags,
                       nullptr);
}

// Junctions and other points that lead elsewhere are not entries that a list can name.
EntryKind KindOfAttributes(const fs::path& path, DWORD attributes)
{
    if (attributes & FILE_ATTRIBUTE_REPARSE_POINT) {
        std::error_code ignored;
        return fs::is_symlink(fs::symlink_status(path, ignored)) ? EntryKind::Link
                                                                 : EntryKind::Special;
    }
    return attributes & FILE_ATTRIBUTE_DIRECTORY ? EntryKind::Directory : EntryKind::File;
}

// The reason why `handle` is not an entry of the kind; empty when it is.
QString KindProblem(HANDLE handle, const fs::path& path, EntryKind kind, const QString& problem,
                    quint64* size)
{
    BY_HANDLE_FILE_INFORMATION information = {};
    if (!GetFileInformationByHandle(handle, &information))
        return LastReason();
    *size = (static_cast<quint64>(information.nFileSizeHigh) << 32) | information.nFileSizeLow;
    return KindOfAttributes(path, information.dwFileAttributes) == kind ? QString() : problem;
}

} // namespace

struct TreeDirectory::Handle
{
    fs::path path;
    // The directory and, for one below another, those between: all stay in their places.
    std::vector<std::unique_ptr<OpenHandle>> opened;

    QString Enter(const fs::path& next, bool follow)
    {
        auto handle = std::make_unique<OpenHandle>(
            OpenPath(next, FILE_READ_ATTRIBUTES | FILE_LIST_DIRECTORY, follow));
        if (!handle->IsOpen())
            return LastReason();
        quint64 size = 0;
        const QString problem = KindProblem(handle->Get(), next, EntryKind::Directory,
                                            QStringLiteral("it is not a directory"), &size);
        if (!problem.isEmpty() && !follow)
            return problem;
        opened.push_back(std::move(handle));
        path = next;
        return {};
    }
};

TreeDirectory::TreeDirectory() : handle(std::make_unique<Handle>()) {}

TreeDirectory::~TreeDirectory() = default;

QString TreeDirectory::Open(const QString& path)
{
    return handle->Enter(ToNative(path), true);
}

QString TreeDirectory::OpenBelow(const TreeDirectory& root, const QString& name)
{
    fs::path path = root.handle->path;
    QString problem = handle->Enter(path, true);
    for (const QString& component : name.split(QLatin1Char('/'), Qt::SkipEmptyParts)) {
        if (!problem.isEmpty())
            break;
        path /= ToNative(component);
        problem = handle->Enter(path, false);
    }
    return problem;
}

QString TreeDirectory::List(QList<TreeEntry>* entries) const
{
    entries->clear();
    WIN32_FIND_DATAW found = {};
    const HANDLE search = FindFirstFileW(Long(handle->path / L"*").c_str(), &found);
    if (search == INVALID_HANDLE_VALUE)
        return LastReason();
    do {
        const std::wstring name(found.cFileName);
        if (name == L"." || name == L"..")
            continue;
        TreeEntry entry;
        entry.name = QString::fromStdWString(name);
        entry.isText = !HasLoneSurrogate(entry.name);
        entry.kind = KindOfAttributes(handle->path / name, found.dwFileAttributes);
        entries->append(entry);
    } while (FindNextFileW(search, &found));
    const DWORD number = GetLastError();
    FindClose(search);
    return number == ERROR_NO_MORE_FILES ? QString() : qt_error_string(static_cast<int>(number));
}

QString TreeDirectory::Look(const QString& name, EntryKind* kind, quint64* size) const
{
    const fs::path path = handle->path / ToNative(name);
    WIN32_FILE_ATTRIBUTE_DATA found = {};
    const DWORD number = GetFileAttributesExW(Long(path).c_str(), GetFileExInfoStandard, &found)
                             ? 0
                             : GetLastError();
    if (number != 0 && number != ERROR_FILE_NOT_FOUND)
        return qt_error_string(static_cast<int>(number));
    *kind = number == 0 ? KindOfAttributes(path, found.dwFileAttributes) : EntryKind::Missing;
    *size = *kind == EntryKind::File
                ? (static_cast<quint64>(found.nFileSizeHigh) << 32) | found.nFileSizeLow
                : 0;
    return {};
}

QString TreeDirectory::ReadLink(const QString& name, QString* target, bool* isText) const
{
    std::error_code error;
    const fs::path found = fs::read_symlink(handle->path / ToNative(name), error);
    if (error)
        return qt_error_string(error.value());
    *target = QString::fromStdWString(found.generic_wstring());
    *isText = !HasLoneSurrogate(*target);
    return {};
}

QString TreeDirectory::Read(const QString& name, quint64 limit, const Take& take) const
{
    const fs::path path = handle->path / ToNative(name);
    const OpenHandle file(OpenPath(path, GENERIC_READ, false));
    if (!file.IsOpen())
        return LastReason();
    quint64 size = 0;
    const QString problem = KindProblem(file.Get(), path, EntryKind::File,
                                        QStringLiteral("it is not a regular file"), &size);
    if (!problem.isEmpty())
        return problem;
    if (size > limit)
        return QStringLiteral("it is larger than %1 bytes").arg(limit);
    QByteArray block(static_cast<qsizetype>(blockSize), Qt::Uninitialized);
    for (quint64 total = 0;;) {
        DWORD got = 0;
        if (!ReadFile(file.Get(), block.data(), blockSize, &got, nullptr))
            return LastReason();
        if (got == 0)
            return {};
        total += got;
        if (total > size)
            return QStringLiteral("it grew while it was read");
        take(QByteArrayView(block.constData(), static_cast<qsizetype>(got)));
    }
}

} // namespace guard
