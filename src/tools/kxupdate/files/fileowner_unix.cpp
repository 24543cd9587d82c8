#include "fileowner.h"

#include <QFile>

#include <sys/stat.h>
#include <unistd.h>

void KeepOwner(const QString& model, QFileDevice& file)
{
    struct stat status = {};
    if (::stat(QFile::encodeName(model).constData(), &status) != 0)
        return;
    mode_t mode = status.st_mode & 0777;
    if (::fchown(file.handle(), status.st_uid, status.st_gid) != 0 &&
        ::fchown(file.handle(), uid_t(-1), status.st_gid) != 0)
        mode = (mode & ~mode_t(070)) | (mode & (mode << 3) & 070);
    // Last, because a change of the owner may clear bits.
    [[maybe_unused]] const int changed = ::fchmod(file.handle(), mode);
}
