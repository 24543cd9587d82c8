#include "paths.h"

#include <QFileInfo>
#include <QTemporaryFile>

namespace tools {

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
    return path == directory ||
           path.startsWith(directory.endsWith(QLatin1Char('/')) ? directory
                                                                : directory + QLatin1Char('/'));
}

QString FileProblem(const QString& path)
{
    // On a full volume only what stands in a file finds no room, so the probe writes something.
    QTemporaryFile probe(path + QStringLiteral(".XXXXXX"));
    if (probe.open() && probe.write("x") == 1 && probe.flush())
        return QStringLiteral("the system does not tell why");
    return probe.errorString();
}

} // namespace tools
