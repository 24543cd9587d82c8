#include "disk.h"

#include "output/console.h"
#include "source/platform.h"

#include <QFile>
#include <QFileInfo>

namespace publish {

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

} // namespace publish
