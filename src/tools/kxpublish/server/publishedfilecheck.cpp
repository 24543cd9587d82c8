#include "publishedfilecheck.h"

#include "interrupt.h"
#include "manifest.h"
#include "signing/sha256.h"
#include "source/platform.h"

#include <QCryptographicHash>
#include <QFile>

namespace publish {

static constexpr qint64 blockSize = 1024 * 1024;

QString PublishedFileProblem(const QString& path, const updater::File& file,
                             const QByteArray& sha256)
{
    QFile device;
    int mode = 0;
    QString error;
    if (!OpenRegularFile(device, path, mode, error))
        return QStringLiteral("cannot be read: ") + error;
    if (quint64(device.size()) != file.Size())
        return QStringLiteral("has %1 bytes instead of %2").arg(device.size()).arg(file.Size());
    QCryptographicHash hash(QCryptographicHash::Md5);
    Sha256 otherHash;
    QByteArray block(blockSize, Qt::Uninitialized);
    for (;;) {
        if (IsInterrupted())
            return {};
        const qint64 length = device.read(block.data(), blockSize);
        if (length < 0)
            return QStringLiteral("cannot be read: ") + device.errorString();
        if (length == 0)
            break;
        const QByteArrayView bytes(block.constData(), length);
        hash.addData(bytes);
        if (!sha256.isEmpty())
            otherHash.Add(bytes);
    }
    if (file.MD5().compare(QLatin1String(hash.result().toHex()), Qt::CaseInsensitive) != 0)
        return QStringLiteral("has another digest than the manifest says");
    if (!sha256.isEmpty() && otherHash.Hex() != sha256)
        return QStringLiteral("has another SHA-256 digest than the manifest says");
    return {};
}

QString ReadPublishedFile(const QString& path, QByteArray* bytes)
{
    QFile file;
    int mode = 0;
    QString error;
    if (!OpenRegularFile(file, path, mode, error))
        return QStringLiteral("cannot be read: ") + error;
    if (file.size() > MaxReplySize())
        return QStringLiteral("has %1 bytes, and clients read no more than %2")
            .arg(file.size())
            .arg(MaxReplySize());
    *bytes = file.readAll();
    return file.error() == QFileDevice::NoError
               ? QString()
               : QStringLiteral("cannot be read: ") + file.errorString();
}

} // namespace publish
