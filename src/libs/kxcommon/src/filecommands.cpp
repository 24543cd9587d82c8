#include <kxcommon/filecommands.h>

#include "filepath.h"

namespace common {

bool FileCommands::RenameDirectory(QDir& dir, const QString& from, const QString& to)
{
    // A directory that moves is no place to find paths from, so its QDir is of no use here.
    static_cast<void>(dir);
    if (!QDir::isAbsolutePath(from) || !QDir::isAbsolutePath(to) || HasNull(from) || HasNull(to))
        return false;
    const SplitPath source = Split(from);
    const SplitPath target = Split(to);
    if (source.name.empty() || target.name.empty())
        return false;

    // A link to a directory moves as a link: its target stays where it is and loses nothing.
    fileops::Directory directory;
    fileops::Attributes before;
    if (directory.OpenAnchor(source.Path()) || directory.Read(&before))
        return false;
    // Some systems rename no directory that is open.
    directory.Close();
    if (fileops::RenameEntry(source.Path(), target.Path()))
        return false;
    fileops::Attributes after;
    if (!directory.OpenAnchor(target.Path()) && !directory.Read(&after) &&
        after.IsSameEntry(before))
        return true;
    directory.Close();
    // A relative link that leads elsewhere, or nowhere, from its new place.
    fileops::RenameEntry(target.Path(), source.Path());
    return false;
}

} // namespace common
