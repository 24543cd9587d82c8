#include "fileops_unix.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#ifdef __linux__
#include <linux/magic.h>
#include <sys/utsname.h>
#include <sys/vfs.h>
#endif

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace common::fileops {
namespace {

#ifdef O_PATH
constexpr int anchorFlags = O_PATH | O_DIRECTORY | O_CLOEXEC;
#else
constexpr int anchorFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
#endif
constexpr int listFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
constexpr std::int64_t nanosecondsPerSecond = 1000000000;

Kind KindOf(mode_t mode)
{
    if (S_ISREG(mode))
        return Kind::File;
    if (S_ISDIR(mode))
        return Kind::Directory;
    return S_ISLNK(mode) ? Kind::Link : Kind::Special;
}

Kind KindOf(const dirent& entry)
{
    switch (entry.d_type) {
    case DT_UNKNOWN:
        return Kind::Unknown;
    case DT_REG:
        return Kind::File;
    case DT_DIR:
        return Kind::Directory;
    case DT_LNK:
        return Kind::Link;
    default:
        return Kind::Special;
    }
}

std::int64_t Nanoseconds(const timespec& time)
{
    return static_cast<std::int64_t>(time.tv_sec) * nanosecondsPerSecond + time.tv_nsec;
}

timespec ToTime(std::int64_t nanoseconds)
{
    // The remainder of a time before 1970 must not become negative.
    std::int64_t rest = nanoseconds % nanosecondsPerSecond;
    if (rest < 0)
        rest += nanosecondsPerSecond;
    timespec time = {};
    time.tv_sec = static_cast<time_t>((nanoseconds - rest) / nanosecondsPerSecond);
    time.tv_nsec = static_cast<long>(rest);
    return time;
}

std::array<timespec, 2> Times(const Attributes& attributes)
{
    return {ToTime(attributes.accessed), ToTime(attributes.modified)};
}

// Opens in pieces what is longer than one call takes.
int OpenLong(const std::string& path, int flags)
{
    const int handle = Retry([&] { return open(path.c_str(), flags); });
    if (handle >= 0 || errno != ENAMETOOLONG)
        return handle;
    constexpr size_t pieceSize = 2048;
    int directory = AT_FDCWD;
    size_t begin = 0;
    while (begin < path.size()) {
        size_t end = path.size();
        if (end - begin > pieceSize)
            end = path.rfind('/', begin + pieceSize);
        if (end <= begin || end == std::string::npos) {
            errno = ENAMETOOLONG;
            break;
        }
        const std::string piece = path.substr(begin, end - begin);
        const int pieceFlags = end == path.size() ? flags : anchorFlags;
        const int next = Retry([&] { return openat(directory, piece.c_str(), pieceFlags); });
        const int number = errno;
        if (directory != AT_FDCWD)
            close(directory);
        errno = number;
        if (next < 0 || end == path.size())
            return next;
        directory = next;
        begin = path.find_first_not_of('/', end);
        if (begin == std::string::npos)
            return directory;
    }
    if (directory != AT_FDCWD)
        close(directory);
    errno = ENAMETOOLONG;
    return -1;
}

// Renames where nothing stands at the new name. File systems that cannot do both in one step get a
// look before, which leaves a moment in which another process could come first.
int RenameNew(int fromDirectory, const char* from, int toDirectory, const char* to)
{
#if defined(RENAME_NOREPLACE)
    const int result = renameat2(fromDirectory, from, toDirectory, to, RENAME_NOREPLACE);
#elif defined(RENAME_EXCL)
    const int result = renameatx_np(fromDirectory, from, toDirectory, to, RENAME_EXCL);
#else
    const int result = -1;
    errno = ENOSYS;
#endif
    if (result == 0 || (errno != ENOSYS && errno != EINVAL && errno != ENOTSUP))
        return result;
    struct stat status = {};
    if (fstatat(toDirectory, to, &status, AT_SYMLINK_NOFOLLOW) == 0) {
        errno = EEXIST;
        return -1;
    }
    return errno == ENOENT ? renameat(fromDirectory, from, toDirectory, to) : -1;
}

int SyncHandle(int handle)
{
#ifdef F_FULLFSYNC
    if (fcntl(handle, F_FULLFSYNC) == 0)
        return 0;
#endif
    const int result = Retry([&] { return fsync(handle); });
    // Some network file systems refuse it for directories, where it has nothing to do.
    return result < 0 && errno == EINVAL ? 0 : result;
}

} // namespace

std::atomic<StepHook> stepHook{nullptr};

void ToAttributes(const struct stat& status, Attributes* attributes)
{
    attributes->kind = KindOf(status.st_mode);
    attributes->size = static_cast<std::uint64_t>(status.st_size);
    attributes->device = static_cast<std::uint64_t>(status.st_dev);
    attributes->inode = static_cast<std::uint64_t>(status.st_ino);
    attributes->sparse = status.st_blocks * 512 < status.st_size;
    attributes->mode = status.st_mode & 07777u;
    attributes->owner = status.st_uid;
    attributes->group = status.st_gid;
#ifdef __APPLE__
    attributes->accessed = Nanoseconds(status.st_atimespec);
    attributes->modified = Nanoseconds(status.st_mtimespec);
#else
    attributes->accessed = Nanoseconds(status.st_atim);
    attributes->modified = Nanoseconds(status.st_mtim);
#endif
}

Error ApplyTo(int handle, const Attributes& attributes)
{
    if (const Error error = At(Step::Attributes))
        return error;
    struct stat status = {};
    if (fstat(handle, &status) < 0)
        return LastError();
    // A set-id bit is a right given by the entry's owner; the copy may belong to someone else.
    mode_t mode = attributes.mode;
    if (status.st_uid != attributes.owner)
        mode &= ~static_cast<mode_t>(S_ISUID);
    if (status.st_gid != attributes.group)
        mode &= ~static_cast<mode_t>(S_ISGID);
    if ((status.st_mode & 07777u) != mode && Retry([&] { return fchmod(handle, mode); }) < 0)
        return LastError();
    return Result(futimens(handle, Times(attributes).data()));
}

Directory::Directory(Directory&& other) noexcept : handle(std::exchange(other.handle, -1)) {}

Directory& Directory::operator=(Directory&& other) noexcept
{
    std::swap(handle, other.handle);
    return *this;
}

Directory::~Directory()
{
    Close();
}

bool Directory::IsOpen() const
{
    return handle >= 0;
}

void Directory::Close()
{
    if (handle >= 0)
        close(std::exchange(handle, -1));
}

Error Directory::OpenAnchor(const Path& path)
{
    Close();
    handle = OpenLong(path.native(), anchorFlags);
    return Result(handle);
}

Error Directory::Open(const Path& path)
{
    Close();
    handle = OpenLong(path.native(), listFlags);
    return Result(handle);
}

Error Directory::OpenChild(const Directory& parent, const Name& name)
{
    // Opened before the old handle is closed: a directory may be replaced by its own child.
    const int child =
        Retry([&] { return openat(parent.handle, name.c_str(), listFlags | O_NOFOLLOW); });
    const Error error = Result(child);
    Close();
    handle = child;
    return error;
}

Error Directory::OpenParent(const Directory& child)
{
    int parent = Retry([&] { return openat(child.handle, "..", listFlags); });
    if (parent < 0 && errno == EACCES)
        parent = Retry([&] { return openat(child.handle, "..", anchorFlags); });
    const Error error = Result(parent);
    Close();
    handle = parent;
    return error;
}

Error Directory::List(std::vector<Entry>* entries) const
{
    entries->clear();
    const int own = Retry([&] { return openat(handle, ".", listFlags); });
    // Readable, but not to be entered: the handle at hand lists it as well.
    const int listed = own >= 0 ? own : fcntl(handle, F_DUPFD_CLOEXEC, 0);
    DIR* stream = listed < 0 ? nullptr : fdopendir(listed);
    if (!stream) {
        const Error error = LastError();
        if (listed >= 0)
            close(listed);
        return error;
    }
    rewinddir(stream);
    errno = 0;
    while (const dirent* entry = readdir(stream)) {
        if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0)
            entries->push_back({entry->d_name, KindOf(*entry)});
        errno = 0;
    }
    const Error error = errno ? LastError() : Error();
    closedir(stream);
    return error;
}

Error Directory::Read(Attributes* attributes) const
{
    struct stat status = {};
    if (fstat(handle, &status) < 0)
        return LastError();
    ToAttributes(status, attributes);
    return {};
}

Error Directory::Read(const Name& name, Attributes* attributes) const
{
    *attributes = {};
    struct stat status = {};
    if (fstatat(handle, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) < 0)
        return errno == ENOENT || errno == ENOTDIR ? Error() : LastError();
    ToAttributes(status, attributes);
    return {};
}

Error Directory::MakePrivateDirectory(const Name& name) const
{
    return Result(mkdirat(handle, name.c_str(), 0700));
}

Error Directory::MakeDirectory(const Name& name) const
{
    return Result(mkdirat(handle, name.c_str(), 0777));
}

Error Directory::ReadLink(const Name& name, Name* target) const
{
    target->resize(256);
    for (;;) {
        const ssize_t size = readlinkat(handle, name.c_str(), target->data(), target->size());
        if (size < 0)
            return LastError();
        if (static_cast<size_t>(size) < target->size()) {
            target->resize(static_cast<size_t>(size));
            return {};
        }
        target->resize(target->size() * 2);
    }
}

Error Directory::MakeLink(const Name& name, const Name& target) const
{
    return Result(symlinkat(target.c_str(), handle, name.c_str()));
}

void Directory::SetLinkTimes(const Name& name, const Attributes& attributes) const
{
    utimensat(handle, name.c_str(), Times(attributes).data(), AT_SYMLINK_NOFOLLOW);
}

Error Directory::RemoveEntry(const Name& name) const
{
    return Result(unlinkat(handle, name.c_str(), 0));
}

Error Directory::RemoveDirectory(const Name& name) const
{
    return Result(unlinkat(handle, name.c_str(), AT_REMOVEDIR));
}

Error Directory::Replace(const Name& from, const Name& to) const
{
    return Result(renameat(handle, from.c_str(), handle, to.c_str()));
}

Error Directory::Place(const Name& from, const Name& to) const
{
    return Result(RenameNew(handle, from.c_str(), handle, to.c_str()));
}

Error Directory::Unlock() const
{
    struct stat status = {};
    if (fstat(handle, &status) < 0)
        return LastError();
    return Result(fchmod(handle, (status.st_mode & 07777u) | S_IRWXU));
}

Error Directory::Unlock(const Name& name) const
{
    struct stat status = {};
    if (fstatat(handle, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) < 0)
        return LastError();
    if (!S_ISDIR(status.st_mode))
        return Error(ENOTDIR, std::system_category());
    return Result(
        fchmodat(handle, name.c_str(), (status.st_mode & 07777u) | S_IRWXU, AT_SYMLINK_NOFOLLOW));
}

Error Directory::Apply(const Attributes& attributes) const
{
    return ApplyTo(handle, attributes);
}

Error Directory::Sync() const
{
    if (const Error error = At(Step::Sync))
        return error;
    const int own = Retry([&] { return openat(handle, ".", listFlags); });
    if (own < 0)
        return LastError();
    const Error error = Result(SyncHandle(own));
    close(own);
    return error;
}

Error Directory::SyncFile(const Name& name) const
{
    if (const Error error = At(Step::Sync))
        return error;
    const int file = Retry([&] {
        return openat(handle, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    });
    if (file < 0)
        return LastError();
    const Error error = Result(SyncHandle(file));
    close(file);
    return error;
}

Error Directory::SyncVolume() const
{
    if (const Error error = At(Step::Sync))
        return error;
#ifdef __linux__
    const int own = Retry([&] { return openat(handle, ".", listFlags); });
    if (own < 0)
        return LastError();
    const Error error = Result(syncfs(own));
    close(own);
    return error;
#else
    sync();
    return {};
#endif
}

bool Directory::CanSyncVolume() const
{
#ifdef __linux__
    // Before Linux 5.8 the call kept errors of the medium to itself.
    utsname system = {};
    if (uname(&system) < 0)
        return false;
    char* minor = nullptr;
    const long major = std::strtol(system.release, &minor, 10);
    if (major < 5 || (major == 5 && (*minor != '.' || std::strtol(minor + 1, nullptr, 10) < 8)))
        return false;
    struct statfs volume = {};
    if (fstatfs(handle, &volume) < 0)
        return false;
    // Network and user space file systems may pass nothing on to those who store the data.
    constexpr long xfs = 0x58465342;
    const auto type = static_cast<long>(volume.f_type);
    return type == EXT4_SUPER_MAGIC || type == BTRFS_SUPER_MAGIC || type == F2FS_SUPER_MAGIC ||
           type == TMPFS_MAGIC || type == xfs;
#else
    return false;
#endif
}

Error RenameEntry(const Path& from, const Path& to)
{
    return Result(RenameNew(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str()));
}

} // namespace common::fileops
