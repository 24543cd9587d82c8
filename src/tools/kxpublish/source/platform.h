#pragma once

#include <QByteArray>
#include <QFile>
#include <QList>
#include <QString>

namespace publish {

/** What tells whether a file has been written to, replaced or given another mode. */
struct FileStatus
{
    int mode = 0; //!< permission bits in the octal notation of chmod
    quint64 size = 0;
    quint64 device = 0; //!< 0, as all that follows, where the system does not tell
    quint64 inode = 0;
    qint64 modifiedNs = 0; //!< since 1970
    qint64 changedNs = 0;  //!< of content, mode or number of names; cannot be set by programs

    bool operator==(const FileStatus& other) const;
    bool operator!=(const FileStatus& other) const { return !(*this == other); }
    /**
     * True when another write could leave the times as they are: those of some file systems go in
     * steps of two seconds.
     */
    bool IsYoung() const;
};

/** One entry of a directory, as the system knows it; a link is never followed. */
struct TreeEntry
{
    enum Kind { RegularFile, Directory, Link, Special };

    QByteArray nativeName;
    QString name; //!< empty when the native name is not valid UTF-8
    Kind kind = Special;
    bool hidden = false;
    FileStatus status;       //!< of a link: its own, not that of its target
    QByteArray nativeTarget; //!< of a link: its text as it stands on the disk
};

/** Everything in the directory `path`, hidden entries too, in no order. */
bool ListDirectory(const QString& path, QList<TreeEntry>& entries, QString& error);

/** The text of the link at `path` as it stands on the disk; null when there is no link. */
QByteArray ReadLink(const QString& path);

/**
 * Opens the regular file `path` for reading and gives its mode. Never follows a link and never
 * waits, whatever has taken the file's place.
 */
bool OpenRegularFile(QFile& file, const QString& path, int& mode, QString& error);

/** True when this process may read the file `path`, as far as modes tell; quicker than opening it.
 */
bool CanRead(const QString& path, QString& error);

/** The status of a file that OpenRegularFile() has opened; false when the system does not tell. */
bool ReadStatus(const QFile& file, FileStatus& status);

/** The same of the regular file `path`; false when it is none, a link included. */
bool ReadStatus(const QString& path, FileStatus& status);

/** Brings the file or the directory `path` to the disk. */
bool SyncPath(const QString& path, QString& error);

/**
 * Brings everything on the volume of `path` to the disk, and tells when that failed. False without
 * an error when the system cannot do it; then SyncPath() has to.
 */
bool SyncVolume(const QString& path, QString& error);

/**
 * Removes a lock file that has no text, if no process has it open as its own; false when it stays.
 * Takes a moment, in which a process that is only about to write its text gets the time for it.
 */
bool RemoveAbandonedLock(const QString& path);

/**
 * What this process makes from now on may be read by everybody, whatever its umask says: a web
 * server has to. Who may write is not changed.
 */
void LetOthersRead();

/** True when stderr is a terminal on which a line can be drawn again. */
bool HasTerminal();

/** The longest path that a program can open, in bytes of its native form. */
int MaxPathLength();

} // namespace publish
