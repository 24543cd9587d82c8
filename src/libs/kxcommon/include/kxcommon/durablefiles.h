#pragma once

#include <kxcommon/kxcommon_export.h>

#include <QByteArray>
#include <QString>

namespace common {

/**
 * Changes to the file system that are on disk when they return, also after a power cut. Static
 * functions only; any thread; they block, and need no event loop. Paths are absolute. Each returns
 * an empty text for success, else what could not be done and why. On systems that cannot bring a
 * directory to disk, only the files are.
 */
class KXCOMMON_EXPORT DurableFiles
{
public:
    /** Puts a file with `bytes`, readable by its owner only, at `path`: what stands there, a file
     *  or a link, is replaced at once or not at all. */
    static QString Write(const QString& path, const QByteArray& bytes);
    /** Removes a file or a link; a missing one is no failure. */
    static QString Remove(const QString& path);
    /** Removes a tree, never through a link, read-only entries included; a missing one is no
     *  failure. Refuses what FileRemover refuses. */
    static QString RemoveTree(const QString& path);
    /** Moves a directory as FileCommands::RenameDirectory() does. */
    static QString Rename(const QString& from, const QString& to);
    /** Brings the entries of the directory that holds `path` to disk: what a process that was
     * killed has renamed or made there. */
    static QString SyncDirectoryOf(const QString& path);
    /**
     * The hidden sibling ".NAME" + `suffix` of `path`, NAME cut and hashed where that would exceed
     * 255 bytes. Write() keeps its bytes in the one with ".kxtmp" until they are complete; a copied
     * tree grows in the one with ".kxnew".
     */
    static QString HiddenSibling(const QString& path, const QString& suffix);
};

} // namespace common
