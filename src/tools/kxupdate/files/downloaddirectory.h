#pragma once

#include <kxupdater/file.h>

#include <QString>
#include <QStringList>

class ApplicationDirectory;

/**
 * The directory in which a new version is assembled.
 * Only a directory that kxupdate made, or found empty, is ever cleared. A marker file beside it
 * records that, together with the moment at which the directory came to be: a marker left over does
 * not vouch for another directory of the same name. Operations that can fail answer a text that
 * tells why, empty for success. No link is ever followed.
 */
class DownloadDirectory
{
public:
    /** `path`: absolute and clean; need not exist. */
    explicit DownloadDirectory(const QString& path);

    const QString& Path() const { return path; }
    QString MarkerPath() const;
    /** Where the runs on this directory remember things, see RunRecord. */
    QString RecordPath() const;
    /** The lock of who works on it. */
    QString LockPath() const;

    /** Why the path cannot be a download directory at all: a link, a file, or a place that overlaps
     *  the application, its backup, the root or the home directory. */
    QString Violation(const ApplicationDirectory& application) const;
    /** Why the directory must not be cleared: it holds something and was not made here. */
    QString ClaimViolation() const;

    /** Makes the directory when it is missing, and marks it. ClaimViolation() must be empty. */
    QString Claim() const;

    /**
     * Removes what `manifest` does not list: other files and links, hidden ones, and directories
     * left empty. Kept are listed entries of the right kind and unfinished transfers of listed
     * files. `removed` counts the entries that went.
     */
    QString Clear(const updater::FileList& manifest, int& removed) const;

    /** Bytes of the files that Clear() removes. */
    quint64 ClearedSize(const updater::FileList& manifest) const;

    /** True when kxupdate made the directory, or took it over empty. */
    bool IsMarked() const;
    bool IsEmpty() const;
    /** Relative paths of entries with hidden names, which the scans of the library leave out. */
    QStringList HiddenEntries() const;

private:
    QString Identity() const;

    QString path;
};
