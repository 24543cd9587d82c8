#pragma once

#include "fileops.h"
#include "fileworker.h"

namespace common {

/** What stands at the new place of an entry, and so how the entry gets there. */
enum class Placing {
    Fresh,     //!< nothing, in a directory that nobody else uses yet: made under its own name
    Replacing, //!< perhaps a file or a link: made under a hidden name and renamed over it
    Merging,   //!< as Replacing, while the source's other entries go to the same directory
};

/** One end of a copy: an entry of an open directory. */
struct CopyEnd
{
    const fileops::Directory& directory;
    const fileops::Name& name;
    fileops::Path path; //!< for messages
};

/** The failure to copy between two paths; a full disk gets its own code, whatever `code` is. */
Failure CopyFailed(int code, const fileops::Path& source, const fileops::Path& destination,
                   const QString& step, const fileops::Error& error);
Failure CopyFailed(int code, const fileops::Path& source, const fileops::Path& destination,
                   const QString& reason);

/** Copies a regular file with its permissions and times; `follow` lets the source be a link. */
Failure CopyFileEntry(const CopyEnd& source, bool follow, const CopyEnd& destination,
                      Placing placing, const fileops::File::Advance& advance);

/** Copies a symbolic link as a link with the same text. */
Failure CopyLinkEntry(const CopyEnd& source, const CopyEnd& destination, Placing placing);

/**
 * Opens the directory `path`, which is made with its missing parents first. `made` counts the
 * directories that were made.
 */
fileops::Error OpenMade(const fileops::Path& path, fileops::Directory* directory, int* made);

} // namespace common
