#include "exposure.h"

#include "nativepath.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStringList>

#include <filesystem>
#include <system_error>

#include <sys/stat.h>
#include <unistd.h>

namespace guard {
namespace {

// In a name space of users the administrator outside has another number: that of the root
// directory.
bool IsOthers(const struct stat& status)
{
    struct stat root = {};
    return status.st_uid != ::geteuid() && status.st_uid != 0 &&
           (::stat("/", &root) != 0 || status.st_uid != root.st_uid);
}

// Of a directory above the one that is looked at.
QString DirectoryExposure(const QString& path)
{
    struct stat status = {};
    if (::lstat(QFile::encodeName(path).constData(), &status) != 0)
        return QString();
    if ((status.st_mode & S_IWOTH) && !(status.st_mode & S_ISVTX))
        return QStringLiteral("'%1', which holds it, may be written by everybody").arg(path);
    if (IsOthers(status))
        return QStringLiteral("'%1', which holds it, belongs to another user (%2)")
            .arg(path)
            .arg(status.st_uid);
    return QString();
}

QString LinkTarget(const QString& path)
{
    std::error_code ignored;
    return FromNative(std::filesystem::read_symlink(ToNative(path), ignored));
}

} // namespace

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
    // Step by step as the system goes, links included: whoever may exchange a directory on the way,
    // or a link, may lead the path elsewhere after the last look.
    constexpr int mostLinks = 40;
    QStringList steps = QDir::current().absoluteFilePath(path).split(u'/', Qt::SkipEmptyParts);
    if (!steps.isEmpty())
        steps.removeLast();
    QString at = QStringLiteral("/");
    for (int links = 0;;) {
        const QString text = DirectoryExposure(at);
        if (!text.isEmpty() || steps.isEmpty())
            return text;
        const QString step = steps.takeFirst();
        if (step == QLatin1String(".."))
            at = QFileInfo(at).path();
        if (step == QLatin1String(".") || step == QLatin1String(".."))
            continue;
        const QString next = at.endsWith(u'/') ? at + step : at + u'/' + step;
        struct stat status = {};
        if (::lstat(QFile::encodeName(next).constData(), &status) != 0)
            return QString();
        if (!S_ISLNK(status.st_mode)) {
            at = next;
            continue;
        }
        if (IsOthers(status))
            return QStringLiteral("the link '%1', which leads to it, belongs to another user (%2)")
                .arg(next)
                .arg(status.st_uid);
        // The system does not go on either.
        if (++links > mostLinks)
            return QString();
        const QString target = LinkTarget(next);
        if (target.startsWith(u'/'))
            at = QStringLiteral("/");
        steps = target.split(u'/', Qt::SkipEmptyParts) + steps;
    }
}

} // namespace guard
