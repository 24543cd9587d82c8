#include "ownership.h"

#include <QFile>
#include <QFileInfo>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace guard {

void GiveToOwnerOfDirectory(const QString& path)
{
    struct stat directory = {};
    if (::geteuid() != 0 ||
        ::stat(QFile::encodeName(QFileInfo(path).path()).constData(), &directory) != 0)
        return;
    const int file =
        ::open(QFile::encodeName(path).constData(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    struct stat status = {};
    // What has a second name is somebody's file: the user could have put it there meanwhile.
    if (file >= 0 && ::fstat(file, &status) == 0 && S_ISREG(status.st_mode) &&
        status.st_nlink == 1 && status.st_uid == 0 && directory.st_uid != 0)
        static_cast<void>(!::fchown(file, directory.st_uid, directory.st_gid));
    if (file >= 0)
        ::close(file);
}

} // namespace guard
