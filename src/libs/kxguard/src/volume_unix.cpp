#include "volume.h"

#include <QFile>

#include <sys/stat.h>

namespace guard {

bool IsOneFileSystem(const QString& a, const QString& b)
{
    struct stat first = {};
    struct stat second = {};
    return ::stat(QFile::encodeName(a).constData(), &first) == 0 &&
           ::stat(QFile::encodeName(b).constData(), &second) == 0 && first.st_dev == second.st_dev;
}

} // namespace guard
