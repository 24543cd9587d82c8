#include "diskusage.h"

#include <QFile>

#include <sys/stat.h>

namespace publish {

bool LookAtFile(const QString& path, DiskFile& file)
{
    struct stat status;
    if (::lstat(QFile::encodeName(path).constData(), &status) != 0)
        return false;
    file.identity = qMakePair(quint64(status.st_dev), quint64(status.st_ino));
    file.names = quint64(status.st_nlink);
    file.bytes = quint64(status.st_blocks) * 512; // whatever the block size of the file system
    return true;
}

} // namespace publish
