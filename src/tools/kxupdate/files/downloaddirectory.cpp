#include "downloaddirectory.h"

#include "applicationdirectory.h"
#include "paths.h"

#include <kxcommon/ifiledownload.h>
#include <kxguard/diskspace.h>

#include <QDateTime>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QSet>

namespace {

constexpr QDir::Filters everything =
    QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot;

bool IsRealDirectory(const QFileInfo& info)
{
    return info.isDir() && !info.isSymLink();
}

/** Removes from one tree what is not to be kept, depth first. */
class Cleaner
{
public:
    Cleaner(const QString& root, const updater::FileList& manifest)
    {
        for (const updater::File& file : manifest) {
            const QString destination = QDir::cleanPath(root + u'/' + file.Name());
            if (file.IsSymlink()) {
                links.insert(destination);
            } else {
                files.insert(destination);
                files.insert(QDir::cleanPath(common::http::PartialFilePath(destination)));
            }
        }
    }

    /** True when `directory` is empty now; stops at the first failure. */
    bool Clean(const QString& directory)
    {
        bool empty = true;
        const QFileInfoList entries = QDir(directory).entryInfoList(everything, QDir::NoSort);
        for (const QFileInfo& entry : entries) {
            if (!problem.isEmpty())
                return false;
            if (!CleanEntry(entry))
                empty = false;
        }
        return empty;
    }

    /** Bytes, in whole blocks, of the files below `directory` that Clean() removes. */
    quint64 Size(const QString& directory, quint64 block) const
    {
        quint64 sum = 0;
        const QFileInfoList entries = QDir(directory).entryInfoList(everything, QDir::NoSort);
        for (const QFileInfo& entry : entries) {
            if (IsRealDirectory(entry))
                sum += Size(entry.filePath(), block);
            else if (!Keeps(entry) && !entry.isSymLink())
                sum += guard::InBlocks(quint64(entry.size()), block);
        }
        return sum;
    }

    QString problem;
    int removed = 0;

private:
    bool Keeps(const QFileInfo& entry) const
    {
        const QString path = entry.filePath();
        return entry.isSymLink() ? links.contains(path) : entry.isFile() && files.contains(path);
    }

    bool CleanEntry(const QFileInfo& entry)
    {
        const QString path = entry.filePath();
        if (IsRealDirectory(entry)) {
            if (!Clean(path))
                return false;
            if (!QDir().rmdir(path)) {
                problem = QStringLiteral("Cannot remove the directory '%1'.").arg(path);
                return false;
            }
        } else {
            if (Keeps(entry))
                return false;
            QFile file(path);
            if (!file.remove()) {
                problem = QStringLiteral("Cannot remove '%1': %2.").arg(path, file.errorString());
                return false;
            }
        }
        ++removed;
        return true;
    }

    QSet<QString> files;
    QSet<QString> links;
};

} // namespace

DownloadDirectory::DownloadDirectory(const QString& path) : path(path) {}

QString DownloadDirectory::MarkerPath() const
{
    return path + QStringLiteral(".kxupdate");
}

QString DownloadDirectory::RecordPath() const
{
    return MarkerPath() + QStringLiteral(".state");
}

QString DownloadDirectory::LockPath() const
{
    return MarkerPath() + QStringLiteral(".lock");
}

QString DownloadDirectory::Violation(const ApplicationDirectory& application) const
{
    const QFileInfo info(path);
    if (info.isSymLink())
        return QStringLiteral("The download directory '%1' is a symbolic link; name the directory "
                              "itself.")
            .arg(path);
    if (info.exists() && !info.isDir())
        return QStringLiteral("The download directory '%1' is not a directory.").arg(path);

    const QString resolved = ResolvedPath(path);
    if (QDir(resolved).isRoot() || IsInside(ResolvedPath(QDir::homePath()), resolved))
        return QStringLiteral("'%1' is the root, or holds your home directory: it cannot be a "
                              "download directory.")
            .arg(path);
    for (const QString& other : {application.Path(), application.BackupPath()}) {
        const QString place = ResolvedPath(other);
        if (IsInside(resolved, place) || IsInside(place, resolved))
            return QStringLiteral("The download directory '%1' and the application's '%2' lie "
                                  "inside one another.")
                .arg(path, other);
    }
    return QString();
}

QString DownloadDirectory::ClaimViolation() const
{
    if (IsEmpty() || IsMarked())
        return QString();
    return QStringLiteral("The download directory '%1' holds something and was not made by "
                          "kxupdate, which would clear it. Name another one, or empty it.")
        .arg(path);
}

QString DownloadDirectory::Claim() const
{
    // The directory comes first: a marker alone would vouch for whatever is put there later.
    if (!QDir().mkpath(path))
        return QStringLiteral("Cannot make the download directory '%1'. Is the directory above it "
                              "writable?")
            .arg(path);
    if (IsMarked())
        return QString();
    const QString problem = OwnFileProblem(MarkerPath());
    if (!problem.isEmpty())
        return QStringLiteral("The marker ") + problem;
    QSaveFile marker(MarkerPath());
    const QByteArray text = "Marks the directory beside it as one that kxupdate may clear.\n" +
                            Identity().toLatin1() + '\n';
    if (!marker.open(QIODevice::WriteOnly) || !Commit(marker, text))
        return QStringLiteral("Cannot write the marker '%1': %2.")
            .arg(MarkerPath(), marker.errorString());
    return QString();
}

QString DownloadDirectory::Clear(const updater::FileList& manifest, int& removed) const
{
    Cleaner cleaner(path, manifest);
    cleaner.Clean(path);
    removed = cleaner.removed;
    return cleaner.problem;
}

quint64 DownloadDirectory::ClearedSize(const updater::FileList& manifest) const
{
    return Cleaner(path, manifest).Size(path, guard::BlockSize(path));
}

bool DownloadDirectory::IsEmpty() const
{
    return QDir(path).isEmpty(everything);
}

QStringList DownloadDirectory::HiddenEntries() const
{
    QStringList names;
    const QDir root(path);
    QDirIterator walk(path, everything, QDirIterator::Subdirectories);
    while (walk.hasNext()) {
        walk.next();
        if (walk.fileInfo().isHidden())
            names.append(root.relativeFilePath(walk.filePath()));
    }
    names.sort();
    return names;
}

QString DownloadDirectory::Identity() const
{
    const QDateTime born = QFileInfo(path).birthTime();
    // Some file systems do not record it; the marker then stands for the path alone.
    return born.isValid() ? QStringLiteral("made %1").arg(born.toMSecsSinceEpoch())
                          : QStringLiteral("made at an unknown time");
}

bool DownloadDirectory::IsMarked() const
{
    QFile marker(MarkerPath());
    if (!OwnFileProblem(MarkerPath()).isEmpty() || !marker.open(QIODevice::ReadOnly))
        return false;
    return marker.read(4096).split('\n').contains(Identity().toLatin1());
}
