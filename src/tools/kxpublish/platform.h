#pragma once

#include <QByteArray>
#include <QFile>
#include <QList>
#include <QString>

namespace publish {

/** One entry of a directory, as the system knows it; a link is never followed. */
struct TreeEntry
{
    enum Kind { RegularFile, Directory, Link, Special };

    QByteArray nativeName;
    QString name; //!< empty when the native name is not valid UTF-8
    Kind kind = Special;
    bool hidden = false;
    int mode = 0;            //!< permission bits in the octal notation of chmod
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

/** The longest path that a program can open, in bytes of its native form. */
int MaxPathLength();

} // namespace publish
