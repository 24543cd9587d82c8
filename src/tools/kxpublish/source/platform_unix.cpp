#include "platform.h"

#include <QStringDecoder>
#include <QSysInfo>
#include <QThread>
#include <QVersionNumber>

#include <cerrno>
#include <climits>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace publish {
namespace {

QString SystemText(int number)
{
    return QString::fromLocal8Bit(std::strerror(number));
}

TreeEntry::Kind KindOf(mode_t mode)
{
    if (S_ISREG(mode))
        return TreeEntry::RegularFile;
    if (S_ISDIR(mode))
        return TreeEntry::Directory;
    if (S_ISLNK(mode))
        return TreeEntry::Link;
    return TreeEntry::Special;
}

qint64 Nanoseconds(const timespec& time)
{
    return qint64(time.tv_sec) * 1000000000 + time.tv_nsec;
}

FileStatus StatusOf(const struct stat& status)
{
    FileStatus result;
    result.mode = int(status.st_mode & 0777);
    result.size = quint64(status.st_size);
    result.device = quint64(status.st_dev);
    result.inode = quint64(status.st_ino);
    result.modifiedNs = Nanoseconds(status.st_mtim);
    result.changedNs = Nanoseconds(status.st_ctim);
    return result;
}

QByteArray ReadLinkAt(int directory, const char* name)
{
    QByteArray text(PATH_MAX + 1, Qt::Uninitialized);
    const ssize_t length = ::readlinkat(directory, name, text.data(), size_t(text.size()));
    return length < 0 ? QByteArray() : text.left(length);
}

// A leading byte order mark would be dropped by the decoder, hence the way back.
QString Decoded(const QByteArray& native)
{
    QStringDecoder decoder(QStringDecoder::Utf8);
    const QString text = decoder(native);
    return decoder.hasError() || QFile::encodeName(text) != native ? QString() : text;
}

} // namespace

bool ListDirectory(const QString& path, QList<TreeEntry>& entries, QString& error)
{
    DIR* directory = ::opendir(QFile::encodeName(path).constData());
    if (!directory) {
        error = SystemText(errno);
        return false;
    }
    int failure = 0;
    for (;;) {
        errno = 0;
        const dirent* found = ::readdir(directory);
        if (!found) {
            failure = errno;
            break;
        }
        const QByteArray name(found->d_name);
        if (name == "." || name == "..")
            continue;
        struct stat status;
        if (::fstatat(::dirfd(directory), name.constData(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
            failure = errno;
            break;
        }
        TreeEntry entry;
        entry.nativeName = name;
        entry.name = Decoded(name);
        entry.kind = KindOf(status.st_mode);
        entry.hidden = name.startsWith('.');
        entry.status = StatusOf(status);
        if (entry.kind == TreeEntry::Link)
            entry.nativeTarget = ReadLinkAt(::dirfd(directory), name.constData());
        entries.append(entry);
    }
    ::closedir(directory);
    if (failure)
        error = SystemText(failure);
    return failure == 0;
}

QByteArray ReadLink(const QString& path)
{
    return ReadLinkAt(AT_FDCWD, QFile::encodeName(path).constData());
}

bool OpenRegularFile(QFile& file, const QString& path, int& mode, QString& error)
{
    const int descriptor = ::open(QFile::encodeName(path).constData(),
                                  O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    struct stat status;
    if (descriptor < 0 || ::fstat(descriptor, &status) != 0) {
        error = SystemText(errno);
        if (descriptor >= 0)
            ::close(descriptor);
        return false;
    }
    mode = int(status.st_mode & 0777);
    if (!S_ISREG(status.st_mode)) {
        error = QStringLiteral("not a regular file");
        ::close(descriptor);
        return false;
    }
    if (!file.open(descriptor, QIODevice::ReadOnly | QIODevice::Unbuffered,
                   QFileDevice::AutoCloseHandle)) {
        error = file.errorString();
        ::close(descriptor);
        return false;
    }
    return true;
}

bool CanRead(const QString& path, QString& error)
{
    if (::faccessat(AT_FDCWD, QFile::encodeName(path).constData(), R_OK, AT_EACCESS) == 0)
        return true;
    error = SystemText(errno);
    return false;
}

bool ReadStatus(const QFile& file, FileStatus& status)
{
    struct stat found;
    if (::fstat(file.handle(), &found) != 0)
        return false;
    status = StatusOf(found);
    return true;
}

bool ReadStatus(const QString& path, FileStatus& status)
{
    struct stat found;
    if (::lstat(QFile::encodeName(path).constData(), &found) != 0 || !S_ISREG(found.st_mode))
        return false;
    status = StatusOf(found);
    return true;
}

bool SyncPath(const QString& path, QString& error)
{
    const int descriptor = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_CLOEXEC);
    if (descriptor < 0) {
        error = SystemText(errno);
        return false;
    }
    const bool synced = ::fsync(descriptor) == 0;
    if (!synced)
        error = SystemText(errno);
    ::close(descriptor);
    return synced;
}

bool SyncVolume(const QString& path, QString& error)
{
#ifdef __linux__
    // Before Linux 5.8 the call kept errors of the medium to itself.
    if (QVersionNumber::fromString(QSysInfo::kernelVersion()) < QVersionNumber(5, 8))
        return false;
    const int descriptor = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_CLOEXEC);
    const bool synced = descriptor >= 0 && ::syncfs(descriptor) == 0;
    if (!synced)
        error = SystemText(errno);
    if (descriptor >= 0)
        ::close(descriptor);
    return synced;
#else
    Q_UNUSED(path);
    Q_UNUSED(error);
    return false;
#endif
}

bool RemoveAbandonedLock(const QString& path)
{
    const QByteArray native = QFile::encodeName(path);
    struct stat before;
    if (::lstat(native.constData(), &before) != 0 || !S_ISREG(before.st_mode) ||
        before.st_size != 0)
        return false;
    // Between making the file and locking it a process needs some microseconds.
    QThread::msleep(200);
    const int descriptor = ::open(native.constData(), O_RDWR | O_NOFOLLOW | O_CLOEXEC);
    struct stat now;
    // QLockFile keeps such a lock on its file for as long as it holds it.
    const bool abandoned = descriptor >= 0 && ::flock(descriptor, LOCK_EX | LOCK_NB) == 0 &&
                           ::fstat(descriptor, &now) == 0 && now.st_ino == before.st_ino &&
                           now.st_size == 0 && ::unlink(native.constData()) == 0;
    if (descriptor >= 0)
        ::close(descriptor);
    return abandoned;
}

void LetOthersRead()
{
    const mode_t mask = ::umask(022);
    ::umask(mask & 0222);
}

bool HasTerminal()
{
    const QByteArray type = qgetenv("TERM");
    return ::isatty(STDERR_FILENO) && !type.isEmpty() && type != "dumb";
}

int MaxPathLength()
{
    return PATH_MAX - 1;
}

} // namespace publish
