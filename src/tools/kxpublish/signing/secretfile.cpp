#include "secretfile.h"

#include "newsecretfile.h"
#include "output/console.h"
#include "server/disk.h"
#include "source/platform.h"

#include <QFile>
#include <QFileInfo>

namespace publish {

QString ReadSecretFile(const QString& path, qsizetype most, SecretBytes* bytes, bool* exposed)
{
    QFile file;
    int mode = 0;
    QString error;
    if (!OpenRegularFile(file, path, mode, error))
        return QStringLiteral("cannot be read: ") + error;
    *exposed = (mode & 0077) != 0;
    SecretBytes read(most + 1);
    qsizetype size = 0;
    // The file is not buffered: no other copy of what is read is left in memory.
    while (size < read.Size()) {
        const qint64 length = file.read(read.Text() + size, read.Size() - size);
        if (length < 0)
            return QStringLiteral("cannot be read: ") + file.errorString();
        if (length == 0)
            break;
        size += length;
    }
    if (size > most)
        return QStringLiteral("is longer than %1 bytes").arg(most);
    read.Truncate(size);
    *bytes = std::move(read);
    return {};
}

bool WriteSecretFile(const QString& path, const SecretBytes& bytes, QString& error)
{
    QFile file;
    QString reason;
    if (!OpenNewSecretFile(file, path, reason)) {
        error = QStringLiteral("cannot write %1: %2").arg(Shown(path), reason);
        return false;
    }
    bool written = WriteAll(file, QByteArrayView(bytes.Text(), bytes.Size()), error);
    // A file that was opened by its number has no name to tell.
    if (!written)
        error = QStringLiteral("cannot write %1: %2").arg(Shown(path), file.errorString());
    file.close();
    written = written && Sync(path, error) && Sync(QFileInfo(path).path(), error);
    if (!written)
        QFile::remove(path);
    return written;
}

} // namespace publish
