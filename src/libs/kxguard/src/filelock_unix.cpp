// flock() belongs to the open file, and the system takes it back when the last descriptor goes:
// neither a number that another process has by now nor a leftover file can keep the lock.

#include "filelock_handle.h"

#include <QFile>

#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace guard {
namespace {

constexpr int openFlags = O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
constexpr int mostReplaced = 100;

int Open(const char* path, int flags)
{
    int file = -1;
    do {
        // Whoever may read a file may lock it, and so keep every updater away.
        file = ::open(path, flags | openFlags, 0600);
    } while (file < 0 && errno == EINTR);
    return file;
}

bool Lock(int file, int mode)
{
    int result = -1;
    do {
        result = ::flock(file, mode | LOCK_NB);
    } while (result < 0 && errno == EINTR);
    return result == 0;
}

QByteArray ReadText(int file)
{
    char text[1024];
    const ssize_t size = ::pread(file, text, sizeof text, 0);
    return size > 0 ? QByteArray(text, size) : QByteArray();
}

void WriteText(int file, const QByteArray& text)
{
    // The text is for messages: a full disk takes nothing from the lock.
    if (::ftruncate(file, 0) == 0)
        static_cast<void>(::pwrite(file, text.constData(), size_t(text.size()), 0));
}

bool IsOwnRegularFile(const struct stat& status)
{
    // What has a second name is somebody's file.
    return S_ISREG(status.st_mode) && status.st_nlink <= 1;
}

bool IsFileAt(const char* path, int file)
{
    struct stat opened = {};
    struct stat standing = {};
    return ::fstat(file, &opened) == 0 && ::lstat(path, &standing) == 0 &&
           opened.st_ino == standing.st_ino && opened.st_dev == standing.st_dev;
}

QString ReasonText(const QString& path, int number)
{
    return QStringLiteral("Cannot make the lock file '%1': %2.").arg(path, qt_error_string(number));
}

QString NoFileText(const QString& path)
{
    return QStringLiteral("Cannot make the lock file '%1': something else stands there; remove it.")
        .arg(path);
}

} // namespace

FileLock::Handle::~Handle()
{
    if (file >= 0)
        ::close(file);
}

FileLock::Result FileLock::Handle::Take(const QString& path, const QByteArray& text,
                                        QByteArray* holder, QString* reason)
{
    const QByteArray name = QFile::encodeName(path);
    // An owner removes the file before it lets it go, so a lock may turn out to be on a file that
    // is gone. Each turn of the loop means that somebody else has had the lock.
    for (int tries = 0; tries < mostReplaced; ++tries) {
        struct stat status = {};
        if (::lstat(name.constData(), &status) == 0 && !IsOwnRegularFile(status) &&
            status.st_nlink > 0) {
            *reason = NoFileText(path);
            return Result::Failed;
        }
        bool isWritable = true;
        int opened = Open(name.constData(), O_RDWR | O_CREAT);
        int number = errno;
        if (opened < 0 && (number == EACCES || number == EPERM || number == EROFS)) {
            isWritable = false;
            opened = Open(name.constData(), O_RDONLY);
        }
        if (opened < 0) {
            *reason = ReasonText(path, number);
            return Result::Failed;
        }
        if (!Lock(opened, LOCK_EX)) {
            number = errno;
            *holder = ReadText(opened);
            ::close(opened);
            if (number == EWOULDBLOCK)
                return Result::Busy;
            *reason = ReasonText(path, number);
            return Result::Failed;
        }
        if (!IsFileAt(name.constData(), opened) || ::fstat(opened, &status) != 0) {
            ::close(opened);
            continue;
        }
        if (!isWritable || !IsOwnRegularFile(status)) {
            *reason = isWritable ? NoFileText(path) : ReasonText(path, number);
            ::close(opened);
            return Result::Failed;
        }
        WriteText(opened, text);
        file = opened;
        return Result::Taken;
    }
    holder->clear();
    return Result::Busy;
}

void FileLock::Handle::Release(const QString& path)
{
    if (file < 0)
        return;
    // While it is still locked: nobody can have taken it in between. Where somebody has removed it
    // by hand, another one may stand there, with another owner.
    const QByteArray name = QFile::encodeName(path);
    if (IsFileAt(name.constData(), file))
        ::unlink(name.constData());
    ::close(file);
    file = -1;
}

bool FileLock::Handle::IsHeld(const QString& path) const
{
    // Who tidies up by hand may have removed the file, and somebody else have made another one.
    return file >= 0 && IsFileAt(QFile::encodeName(path).constData(), file);
}

bool FileLock::Handle::IsLocked(const QString& path, QByteArray* holder)
{
    const QByteArray name = QFile::encodeName(path);
    const int opened = Open(name.constData(), O_RDONLY);
    if (opened < 0) {
        // A file that this user may not read: somebody's, as far as one can tell.
        struct stat status = {};
        return errno == EACCES && ::lstat(name.constData(), &status) == 0 &&
               IsOwnRegularFile(status);
    }
    const bool isLocked = !Lock(opened, LOCK_SH) && errno == EWOULDBLOCK;
    if (isLocked)
        *holder = ReadText(opened);
    ::close(opened);
    return isLocked;
}

} // namespace guard
