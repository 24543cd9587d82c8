#include "removetree.h"

#include "filewalk.h"

namespace common {
namespace {

// Another process may put entries into a directory that is being emptied; not for ever, though.
constexpr int passes = 4;

bool IsMissing(const fileops::Error& error)
{
    return error == std::errc::no_such_file_or_directory;
}

bool IsNotEmpty(const fileops::Error& error)
{
    return error == std::errc::directory_not_empty || error == std::errc::file_exists;
}

bool IsAccess(const fileops::Error& error)
{
    return error == std::errc::permission_denied || error == std::errc::operation_not_permitted;
}

fileops::Error Remove(const fileops::Directory& parent, const fileops::Name& name, bool isDirectory)
{
    const fileops::Error error =
        isDirectory ? parent.RemoveDirectory(name) : parent.RemoveEntry(name);
    return IsMissing(error) ? fileops::Error() : error;
}

// Inside the tree even the directory that holds an entry may be read-only.
fileops::Error RemoveInside(const fileops::Directory& parent, const fileops::Name& name,
                            bool isDirectory)
{
    const fileops::Error error = Remove(parent, name, isDirectory);
    if (!IsAccess(error) || parent.Unlock())
        return error;
    return Remove(parent, name, isDirectory);
}

RemoveResult Empty(fileops::Directory root, const fileops::Path& path, const RemoveAdvance& advance,
                   bool* isEmpty)
{
    FileWalk walk(FileWalk::KindsOnly | FileWalk::Unlocking);
    walk.Begin(std::move(root), path);
    *isEmpty = true;
    for (;;) {
        const FileWalk::Step step = walk.Next();
        if (step == FileWalk::Step::End)
            return {};
        if (step == FileWalk::Step::Error)
            return {walk.LastError(), walk.Path(), true};
        if (step == FileWalk::Step::Enter)
            continue;
        fileops::Error error = fileops::At(fileops::Step::Entry);
        if (!error)
            error = RemoveInside(walk.Top(), walk.Name(), step == FileWalk::Step::Leave);
        const bool isSwapped = error == std::errc::not_a_directory;
        if (step == FileWalk::Step::Leave && (isSwapped || IsNotEmpty(error)))
            *isEmpty = false;
        else if (error)
            return {error, walk.Path(), false};
        if (!advance())
            return {std::make_error_code(std::errc::operation_canceled), walk.Path(), false};
    }
}

} // namespace

RemoveResult RemoveTree(const fileops::Directory& parent, const fileops::Name& name,
                        const fileops::Path& path, const RemoveAdvance& advance)
{
    for (int pass = 0; pass < passes; ++pass) {
        fileops::Attributes attributes;
        if (const fileops::Error error = parent.Read(name, &attributes))
            return {error, path, false};
        if (attributes.kind == fileops::Kind::Missing)
            return {};
        if (attributes.kind != fileops::Kind::Directory)
            return {Remove(parent, name, false), path, false};

        fileops::Directory root;
        fileops::Error error = root.OpenChild(parent, name);
        if (IsAccess(error) && !parent.Unlock(name))
            error = root.OpenChild(parent, name);
        // Anything else has taken its place: the next pass sees what.
        if (error == std::errc::not_a_directory || IsMissing(error))
            continue;
        if (error)
            return {error, path, true};

        bool isEmpty = true;
        RemoveResult result = Empty(std::move(root), path, advance, &isEmpty);
        if (result.error)
            return result;
        if (!isEmpty)
            continue;
        error = Remove(parent, name, true);
        if (!error)
            return {};
        if (!IsNotEmpty(error) && error != std::errc::not_a_directory)
            return {error, path, false};
    }
    return {std::make_error_code(std::errc::directory_not_empty), path, false};
}

} // namespace common
