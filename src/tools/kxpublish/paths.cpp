#include "paths.h"

#include "console.h"
#include "platform.h"

#include <QFileInfo>

namespace publish {

QString ResolvedPath(const QString& path)
{
    QString absolute = QFileInfo(path).absoluteFilePath();
    while (absolute.size() > 1 && absolute.endsWith(QLatin1Char('/')))
        absolute.chop(1);
    const QFileInfo info(absolute);
    const QString canonical = info.canonicalFilePath();
    if (!canonical.isEmpty())
        return canonical;
    const QString parent = info.path();
    if (parent == absolute)
        return absolute;
    const QString resolved = ResolvedPath(parent);
    return (resolved.endsWith(QLatin1Char('/')) ? resolved : resolved + QLatin1Char('/')) +
           info.fileName();
}

bool IsInside(const QString& path, const QString& directory)
{
    return path == directory || directory == QLatin1String("/") ||
           path.startsWith(directory + QLatin1Char('/'));
}

bool Sync(const QString& path, QString& error)
{
    QString reason;
    if (SyncPath(path, reason))
        return true;
    error = QStringLiteral("cannot bring %1 to the disk: %2").arg(Shown(path), reason);
    return false;
}

} // namespace publish
