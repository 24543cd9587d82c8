#include "treecopy.h"

#include "console.h"
#include "disk.h"
#include "interrupt.h"
#include "platform.h"
#include "problems.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFileInfo>

namespace publish {

static constexpr qint64 blockSize = 1024 * 1024;
static constexpr qsizetype manyFiles = 256;

TreeCopy::TreeCopy(const QString& source, const QString& destination)
    : source(source), destination(destination)
{
}

TreeCopy::Result TreeCopy::Run(const updater::FileList& files, const QMap<QString, int>& modes,
                               Problems* problems, QString& error)
{
    bool changed = false;
    for (const updater::File& file : files) {
        QString change;
        if (file.IsSymlink()) {
            if (ReadLink(source + QLatin1Char('/') + file.Name()) != file.SymlinkPath().toUtf8())
                change = QStringLiteral("it is another link now");
        } else {
            const Result result = CopyFile(file, modes.value(file.Name()), change, error);
            if (result == Failed || result == Interrupted)
                return result;
        }
        if (!change.isEmpty()) {
            problems->Refuse(Shown(file.Name()),
                             QStringLiteral("changed while it was published: ") + change);
            changed = true;
        }
    }
    if (changed)
        return Changed;
    return SyncAll(files, error) ? Complete : Failed;
}

TreeCopy::Result TreeCopy::CopyFile(const updater::File& file, int mode, QString& change,
                                    QString& error)
{
    const QString path = destination + QLatin1Char('/') + file.Name();
    QFile from;
    int modeNow = 0;
    if (!OpenRegularFile(from, source + QLatin1Char('/') + file.Name(), modeNow, change))
        return Changed;
    if (modeNow != mode) {
        change = QStringLiteral("it has another mode now");
        return Changed;
    }
    if (!MakeParent(path, error))
        return Failed;
    QFile to(path);
    if (!to.open(QIODevice::WriteOnly | QIODevice::NewOnly | QIODevice::Unbuffered)) {
        error = QStringLiteral("cannot write %1: %2").arg(Shown(path), to.errorString());
        return Failed;
    }
    QCryptographicHash hash(QCryptographicHash::Md5);
    QByteArray block(blockSize, Qt::Uninitialized);
    quint64 size = 0;
    for (;;) {
        if (IsInterrupted())
            return Interrupted;
        const qint64 length = from.read(block.data(), blockSize);
        if (length < 0) {
            error =
                QStringLiteral("cannot read %1: %2").arg(Shown(file.Name()), from.errorString());
            return Failed;
        }
        if (length == 0)
            break;
        hash.addData(QByteArrayView(block.constData(), length));
        size += quint64(length);
        if (!WriteAll(to, QByteArrayView(block.constData(), length), error))
            return Failed;
    }
    if (size != file.Size() || QString::fromLatin1(hash.result().toHex()) != file.MD5()) {
        change = QStringLiteral("it has other contents now");
        return Changed;
    }
    return Complete;
}

bool TreeCopy::MakeParent(const QString& path, QString& error)
{
    QString parent = QFileInfo(path).path();
    if (parent == destination || directories.contains(parent))
        return true;
    if (!QDir().mkpath(parent)) {
        error = QStringLiteral("cannot make the directory %1").arg(Shown(parent));
        return false;
    }
    for (; parent != destination; parent = QFileInfo(parent).path())
        directories.insert(parent);
    return true;
}

// In a pass of its own: the system has begun to write by then, and waits far less per file.
bool TreeCopy::SyncAll(const updater::FileList& files, QString& error)
{
    // One call for the volume is far quicker than one for each of many files. For a few it is not:
    // the call waits for what other programs have written, too.
    QString reason;
    if (files.size() >= manyFiles && SyncVolume(destination, reason))
        return true;
    if (!reason.isEmpty()) {
        error = QStringLiteral("cannot bring %1 to the disk: %2").arg(Shown(destination), reason);
        return false;
    }
    for (const updater::File& file : files) {
        if (file.IsSymlink())
            continue;
        if (!Sync(destination + QLatin1Char('/') + file.Name(), error))
            return false;
    }
    for (const QString& directory : std::as_const(directories)) {
        if (!Sync(directory, error))
            return false;
    }
    return Sync(destination, error);
}

} // namespace publish
