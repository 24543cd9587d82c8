#include "applicationdirectory.h"

#include "paths.h"

#include <kxguard/diskspace.h>
#include <kxguard/filelock.h>

#include <QDir>
#include <QDirIterator>
#include <QFileInfo>
#include <QSet>

namespace {

bool StandsAt(const QString& path)
{
    const QFileInfo info(path);
    return info.exists() || info.isSymLink();
}

} // namespace

ApplicationDirectory::ApplicationDirectory(const QString& path) : path(path) {}

QString ApplicationDirectory::BackupPath() const
{
    return path + QStringLiteral(".old");
}

QString ApplicationDirectory::LockPath() const
{
    return guard::ApplicationLockPath(path);
}

bool ApplicationDirectory::Exists() const
{
    return StandsAt(path);
}

bool ApplicationDirectory::BackupExists() const
{
    return StandsAt(BackupPath());
}

QString ApplicationDirectory::Violation() const
{
    const QFileInfo info(path);
    if (info.isSymLink())
        return QStringLiteral("The application directory '%1' is a symbolic link; name the "
                              "directory itself.")
            .arg(path);
    if (info.exists() && !info.isDir())
        return QStringLiteral("The application directory '%1' is not a directory.").arg(path);
    const QString resolved = ResolvedPath(path);
    if (QDir(resolved).isRoot() || IsInside(ResolvedPath(QDir::homePath()), resolved))
        return QStringLiteral("'%1' is the root, or holds your home directory: no application is "
                              "replaced there.")
            .arg(path);
    return QString();
}

QString ApplicationDirectory::SwapViolation() const
{
    const QString parent = QFileInfo(path).absolutePath();
    if (!QFileInfo(parent).isDir())
        return QStringLiteral("The directory '%1', in which the application is to stand, does not "
                              "exist.")
            .arg(parent);
    const QString problem = WriteProblem(parent);
    if (!problem.isEmpty())
        return QStringLiteral("The directory '%1' cannot be written (%2); a swap renames the "
                              "application inside it. Run this as a user who may write there.")
            .arg(parent, problem);
    return QString();
}

bool ApplicationDirectory::NeedsRestore() const
{
    const QFileInfo backup(BackupPath());
    return !StandsAt(path) && backup.isDir() && !backup.isSymLink();
}

quint64 ApplicationDirectory::LeftoverSize() const
{
    const QFileInfo info(path);
    // Where the library copies a directory before it is renamed into place.
    const QString copy = info.absolutePath() + QStringLiteral("/.%1.kxnew").arg(info.fileName());
    return guard::TreeSize(copy) + (Exists() ? guard::TreeSize(BackupPath()) : 0);
}

QStringList ApplicationDirectory::Unlisted(const updater::FileList& manifest) const
{
    QSet<QString> listed;
    for (const updater::File& file : manifest)
        listed.insert(QDir::cleanPath(file.Name()));

    QStringList names;
    const QDir root(path);
    // Without the flag for it, the iterator does not follow links.
    QDirIterator walk(path, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                      QDirIterator::Subdirectories);
    while (walk.hasNext()) {
        walk.next();
        const QFileInfo info = walk.fileInfo();
        if (info.isDir() && !info.isSymLink())
            continue;
        const QString name = root.relativeFilePath(walk.filePath());
        if (!listed.contains(name))
            names.append(name);
    }
    names.sort();
    return names;
}
