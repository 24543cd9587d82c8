#include "nativefile.h"

#include <QFile>

#include <cerrno>
#include <cstdio>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace common::http {
namespace {

// Qt keeps the rights of the owner twice, as the owner's and as the current user's.
mode_t ModeOf(QFileDevice::Permissions permissions)
{
    mode_t mode = 0;
    const auto add = [&](QFileDevice::Permissions flags, mode_t bit) {
        if (permissions & flags)
            mode |= bit;
    };
    add(QFileDevice::ReadOwner | QFileDevice::ReadUser, S_IRUSR);
    add(QFileDevice::WriteOwner | QFileDevice::WriteUser, S_IWUSR);
    add(QFileDevice::ExeOwner | QFileDevice::ExeUser, S_IXUSR);
    add(QFileDevice::ReadGroup, S_IRGRP);
    add(QFileDevice::WriteGroup, S_IWGRP);
    add(QFileDevice::ExeGroup, S_IXGRP);
    add(QFileDevice::ReadOther, S_IROTH);
    add(QFileDevice::WriteOther, S_IWOTH);
    add(QFileDevice::ExeOther, S_IXOTH);
    return mode;
}

} // namespace

NativeFile::~NativeFile()
{
    Close();
}

bool NativeFile::Fail()
{
    const int error = errno;
    errorText = qt_error_string(error);
    noSpace = error == ENOSPC || error == EDQUOT;
    return false;
}

NativeFile::Entry NativeFile::EntryAt(const QString& path, qint64* size)
{
    struct stat info;
    if (lstat(QFile::encodeName(path).constData(), &info) != 0)
        return Entry::Missing;
    if (size)
        *size = info.st_size;
    if (S_ISREG(info.st_mode))
        return Entry::RegularFile;
    return S_ISDIR(info.st_mode) ? Entry::Directory : Entry::Other;
}

bool NativeFile::OpenExisting(const QString& path)
{
    Close();
    openPath = path;
    // Without O_NONBLOCK, a FIFO that took the file's place would hang the thread.
    const int fd =
        open(QFile::encodeName(path).constData(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0)
        return Fail();
    handle = fd;
    struct stat info;
    if (fstat(fd, &info) == 0 && S_ISREG(info.st_mode))
        return true;
    Close();
    return false;
}

NativeFile::Opened NativeFile::OpenForWriting(const QString& path)
{
    Close();
    openPath = path;
    const QByteArray name = QFile::encodeName(path);
    const auto failed = [this] {
        Fail();
        return Opened::Failed;
    };
    struct stat info;
    const bool present = lstat(name.constData(), &info) == 0;
    if (present && S_ISDIR(info.st_mode)) {
        errno = EISDIR;
        return failed();
    }
    int fd = -1;
    if (present && S_ISREG(info.st_mode) && info.st_nlink == 1) {
        fd = open(name.constData(), O_RDWR | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
        // A file that may not be opened is made anew; any other failure may pass, and keeps it.
        if (fd < 0 && errno != EACCES && errno != ELOOP && errno != ENOENT)
            return failed();
    }
    if (fd < 0) {
        if (unlink(name.constData()) != 0 && errno != ENOENT)
            return failed();
        fd = open(name.constData(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
    }
    if (fd < 0)
        return failed();
    handle = fd;
    // File systems without locks are served, too: only a lock that another holds is a refusal.
    if (flock(fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
        Close();
        return Opened::Busy;
    }
    return Opened::Yes;
}

qint64 NativeFile::Size() const
{
    struct stat info;
    return fstat(int(handle), &info) == 0 ? qint64(info.st_size) : 0;
}

qint64 NativeFile::Read(char* data, qint64 count)
{
    ssize_t got;
    do {
        got = read(int(handle), data, size_t(count));
    } while (got < 0 && errno == EINTR);
    if (got < 0)
        Fail();
    return got;
}

bool NativeFile::Write(const char* data, qint64 count)
{
    while (count > 0) {
        const ssize_t written = write(int(handle), data, size_t(count));
        if (written < 0 && errno == EINTR)
            continue;
        if (written < 0)
            return Fail();
        data += written;
        count -= written;
    }
    return true;
}

bool NativeFile::Truncate()
{
    if (ftruncate(int(handle), 0) != 0 || lseek(int(handle), 0, SEEK_SET) != 0)
        return Fail();
    return true;
}

bool NativeFile::SetPermissions(QFileDevice::Permissions permissions)
{
    struct stat info;
    const mode_t mode = ModeOf(permissions);
    if (fstat(int(handle), &info) == 0 && (info.st_mode & 07777) == mode)
        return true;
    return fchmod(int(handle), mode) == 0 || Fail();
}

void NativeFile::Close()
{
    if (handle != invalid)
        close(int(handle));
    handle = invalid;
}

bool NativeFile::MoveTo(const QString& destination)
{
    const bool moved = rename(QFile::encodeName(openPath).constData(),
                              QFile::encodeName(destination).constData()) == 0;
    if (!moved)
        Fail();
    // Only now: until it stands elsewhere, the lock keeps others off the partial file.
    Close();
    return moved;
}

void NativeFile::Remove(const QString& path)
{
    unlink(QFile::encodeName(path).constData());
}

} // namespace common::http
