#pragma once

#include <kxupdater/file.h>

#include <QString>
#include <QStringList>

/**
 * The directory of the installed application, with its backup beside it. Operations that can fail
 * answer a text that tells why, empty for success.
 */
class ApplicationDirectory
{
public:
    /** `path`: absolute and clean; need not exist. */
    explicit ApplicationDirectory(const QString& path);

    const QString& Path() const { return path; }
    /** Where a swap keeps the old version. */
    QString BackupPath() const;
    /** The lock of who replaces it, in every program. */
    QString LockPath() const;
    bool Exists() const;
    bool BackupExists() const;

    /** Why the path cannot be an application directory: a link, a file, the root, home. */
    QString Violation() const;
    /** Why a swap could not work: the directory beside which it happens cannot be written. */
    QString SwapViolation() const;

    /** True when an earlier swap was cut off between its two steps: only the backup is there. */
    bool NeedsRestore() const;

    /** Bytes beside the application that a swap removes first: what an earlier one left. */
    quint64 LeftoverSize() const;

    /** Files and links, hidden ones included, that `manifest` does not list: a swap drops them. */
    QStringList Unlisted(const updater::FileList& manifest) const;

private:
    QString path;
};
