#include "fileidentity.h"

#include <QDateTime>
#include <QFile>
#include <QFileInfo>

#include <sys/stat.h>

namespace guard {

QString IdentityOf(const QString& path)
{
    struct stat status = {};
    if (::lstat(QFile::encodeName(path).constData(), &status) != 0 || !S_ISDIR(status.st_mode))
        return NoIdentity();
    // Without the device's number, which may be another one after a start. The time of birth tells
    // a directory from one that has got the number of a removed one.
    const QDateTime born = QFileInfo(path).birthTime();
    return QStringLiteral("%1-%2")
        .arg(status.st_ino)
        .arg(born.isValid() ? born.toMSecsSinceEpoch() : 0);
}

} // namespace guard
