#include "disk.h"

#include "output/console.h"
#include "source/platform.h"

#include <QFile>
#include <QFileInfo>
#include <QTemporaryFile>

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

bool WriteAll(QFile& file, QByteArrayView bytes, QString& error)
{
    // A full disk may take the first part of a block, and says why only when the rest follows.
    while (!bytes.isEmpty()) {
        const qint64 written = file.write(bytes.data(), bytes.size());
        if (written <= 0) {
            error = QStringLiteral("cannot write %1: %2")
                        .arg(Shown(file.fileName()), file.errorString());
            return false;
        }
        bytes = bytes.sliced(written);
    }
    return true;
}

bool WriteNewFile(const QString& path, const QByteArray& text, QString& error)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::NewOnly | QIODevice::Unbuffered)) {
        error = QStringLiteral("cannot write %1: %2").arg(Shown(path), file.errorString());
        return false;
    }
    if (!WriteAll(file, text, error))
        return false;
    file.close();
    return Sync(path, error);
}

QString FileProblem(const QString& path)
{
    // On a full volume only what stands in a file finds no room, so the probe writes something.
    QTemporaryFile probe(path + QStringLiteral(".XXXXXX"));
    if (probe.open() && probe.write("x") == 1 && probe.flush())
        return QStringLiteral("the system does not tell why");
    return probe.errorString();
}

} // namespace publish
