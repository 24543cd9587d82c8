#include <kxguard/diskspace.h>

#include "volume.h"

#include <kxcommon/ifiledownload.h>

#include <QDirIterator>
#include <QFileInfo>
#include <QLocale>
#include <QSet>
#include <QStorageInfo>

#include <limits>

namespace guard {
namespace {

// Sizes come from the server: a sum must not wrap round to a small one.
quint64 Add(quint64 sum, quint64 size)
{
    const quint64 limit = std::numeric_limits<quint64>::max();
    return size > limit - sum ? limit : sum + size;
}

quint64 Subtract(quint64 sum, quint64 size)
{
    return size > sum ? 0 : sum - size;
}

// The path itself, or the nearest directory above it that exists.
QString Existing(QString path)
{
    while (!QFileInfo::exists(path) && path.contains(u'/')) {
        path.truncate(path.lastIndexOf(u'/'));
        if (path.isEmpty())
            path = QStringLiteral("/");
    }
    return path;
}

QStorageInfo VolumeOf(const QString& path)
{
    return QStorageInfo(Existing(path));
}

// What is mounted in two places has its free space once; so have the parts of a device that look
// like file systems of their own.
bool IsShared(const QString& a, const QString& b)
{
    const QStorageInfo first = VolumeOf(a);
    const QStorageInfo second = VolumeOf(b);
    return first == second ||
           (first.device() == second.device() && first.device().startsWith("/dev/")) ||
           IsOneFileSystem(Existing(a), Existing(b));
}

quint64 BlockOf(const QStorageInfo& volume)
{
    return quint64(qMax(1, volume.blockSize()));
}

// What is there of a file: all of it, or what an earlier transfer left.
quint64 Present(const QString& path, quint64 size)
{
    const QFileInfo whole(path);
    if (whole.isFile() && !whole.isSymLink() && quint64(whole.size()) == size)
        return size;
    const QFileInfo part(common::http::PartialFilePath(path));
    return part.isFile() && !part.isSymLink() ? qMin(quint64(part.size()), size) : 0;
}

// Bytes that a tree takes in `volume`, less what stands below `root` already, if it is given.
quint64 Demand(const updater::FileList& manifest, const QStorageInfo& volume, const QString& root)
{
    const quint64 block = BlockOf(volume);
    quint64 sum = 0;
    QSet<QString> directories;
    for (const updater::File& file : manifest) {
        for (qsizetype end = file.Name().lastIndexOf(u'/'); end > 0;
             end = file.Name().lastIndexOf(u'/', end - 1)) {
            const QString directory = file.Name().left(end);
            if (directories.contains(directory))
                break;
            directories.insert(directory);
            if (root.isEmpty() || !QFileInfo::exists(root + u'/' + directory))
                sum = Add(sum, block);
        }
        if (file.IsSymlink())
            continue;
        const quint64 present =
            root.isEmpty() ? 0 : Present(root + u'/' + file.Name(), file.Size());
        sum = Add(sum, InBlocks(file.Size() - present, block));
    }
    return sum;
}

QString Shortage(const QStorageInfo& volume, quint64 needed)
{
    if (!volume.isValid() || volume.bytesAvailable() < 0 ||
        needed <= quint64(volume.bytesAvailable()))
        return QString();
    const QLocale locale = QLocale::c();
    return QStringLiteral("Not enough space on '%1': %2 bytes are needed, %3 are free (%4).")
        .arg(volume.rootPath())
        .arg(needed)
        .arg(volume.bytesAvailable())
        .arg(locale.formattedDataSize(volume.bytesAvailable()));
}

} // namespace

QString SpaceProblem(const updater::FileList& manifest, const SpaceDemand& demand)
{
    const QStorageInfo assembly = VolumeOf(demand.download);
    const QStorageInfo installed = VolumeOf(demand.application);
    quint64 forDownload = 0;
    quint64 forSwap = 0;
    if (!demand.download.isEmpty())
        forDownload =
            Subtract(Demand(manifest, assembly, demand.download), demand.freedBesideDownload);
    if (!demand.application.isEmpty())
        forSwap = Subtract(Demand(manifest, installed, QString()), demand.freedBesideApplication);

    if (demand.download.isEmpty())
        return Shortage(installed, forSwap);
    if (demand.application.isEmpty())
        return Shortage(assembly, forDownload);
    if (IsShared(demand.download, demand.application))
        return Shortage(assembly, Add(forDownload, forSwap));
    const QString problem = Shortage(assembly, forDownload);
    return problem.isEmpty() ? Shortage(installed, forSwap) : problem;
}

quint64 BlockSize(const QString& path)
{
    return BlockOf(VolumeOf(path));
}

quint64 InBlocks(quint64 size, quint64 block)
{
    return size % block == 0 ? size : Add(size, block - size % block);
}

quint64 TreeSize(const QString& path)
{
    if (QFileInfo(path).isSymLink())
        return 0;
    quint64 sum = 0;
    const quint64 block = BlockSize(path);
    QDirIterator walk(path, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                      QDirIterator::Subdirectories);
    while (walk.hasNext()) {
        walk.next();
        const QFileInfo info = walk.fileInfo();
        if (info.isFile() && !info.isSymLink())
            sum = Add(sum, InBlocks(quint64(info.size()), block));
    }
    return sum;
}

} // namespace guard
