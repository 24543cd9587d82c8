#pragma once

#include <kxcommon/kxcommon_export.h>

#include <QDir>
#include <QString>

/** Services that the updater is built on: log, requests, downloads, files, versions. */
namespace common {

/** Single operations on the file system. Static functions only, safe from any thread. */
class KXCOMMON_EXPORT FileCommands
{
public:
    /**
     * Moves the directory `from` to the new path `to`; true when it stands there now.
     * Absolute paths, on one volume. Refuses when anything stands at `to`, a dangling link and an
     * empty directory included. `dir` may stand on the directory that moves; no path is resolved
     * against it. On Windows sharing violations are tried again for up to ten seconds; elsewhere
     * the call does not wait. Emits and logs nothing.
     */
    static bool RenameDirectory(QDir& dir, const QString& from, const QString& to);
};

} // namespace common
