#pragma once

#include "fileops.h"

#include <QString>

namespace common {

/** The last component of a path and the path of the directory that holds it. */
struct SplitPath
{
    fileops::Path parent;
    fileops::Name name; //!< empty if the path names no entry: it is empty, a root, or ends in ".."
    fileops::Path Path() const { return parent / name; }
};

/**
 * Splits a path for operations on the entry itself: separators and single dots at the end are
 * ignored, so that an entry that is a link is the link and not what it leads to. The parent keeps
 * its "..", whose meaning depends on links.
 */
SplitPath Split(const QString& path);

/** A path of the host in the system's spelling, and back for messages. */
fileops::Path ToNative(const QString& path);
QString FromNative(const fileops::Path& path);
/** The reason behind an error in the words of the system. */
QString Reason(const fileops::Error& error);

/** True for a text that the system would cut off at a null character. */
bool HasNull(const QString& path);

/**
 * The hidden name ".NAME" + `suffix`; a name too long for that is cut and told apart by a hash, in
 * the way of http::PartialFilePath().
 */
fileops::Name HiddenName(const fileops::Name& name, const char* suffix);

} // namespace common
