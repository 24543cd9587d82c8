#include "exposure.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <sys/stat.h>
#include <unistd.h>

namespace guard {

QString Exposure(const QString& path, bool isMeantWritable)
{
    struct stat status = {};
    if (::lstat(QFile::encodeName(path).constData(), &status) != 0)
        return QString();
    if (status.st_uid != ::geteuid() && status.st_uid != 0)
        return QStringLiteral("'%1' belongs to another user (%2)").arg(path).arg(status.st_uid);
    if ((status.st_mode & S_IWOTH) && !S_ISLNK(status.st_mode) && !isMeantWritable)
        return QStringLiteral("'%1' may be written by everybody").arg(path);
    return QString();
}

QString ParentExposure(const QString& path)
{
    // The directories that really hold it, also when a link leads there.
    QString above = QFileInfo(QFileInfo(path).absolutePath()).canonicalFilePath();
    while (!above.isEmpty()) {
        struct stat status = {};
        const bool isKnown = ::stat(QFile::encodeName(above).constData(), &status) == 0;
        // Who owns a directory may put another one into the place of what it holds.
        if (isKnown && status.st_uid != ::geteuid() && status.st_uid != 0)
            return QStringLiteral("'%1', which holds it, belongs to another user (%2)")
                .arg(above)
                .arg(status.st_uid);
        if (isKnown && (status.st_mode & S_IWOTH) && !(status.st_mode & S_ISVTX))
            return QStringLiteral("'%1', which holds it, may be written by everybody").arg(above);
        if (QDir(above).isRoot())
            break;
        above = QFileInfo(above).path();
    }
    return QString();
}

} // namespace guard
