#include "filewalk.h"

#include <utility>

namespace common {
namespace {

constexpr size_t openLevels = 32;

bool IsAccess(const fileops::Error& error)
{
    return error == std::errc::permission_denied || error == std::errc::operation_not_permitted;
}

bool IsMissing(const fileops::Error& error)
{
    return error == std::errc::no_such_file_or_directory;
}

} // namespace

void DirectoryStack::Begin(fileops::Directory root, const fileops::Path& path)
{
    levels.clear();
    firstOpen = 0;
    base = path;
    levels.push_back({std::move(root), {}, {}});
}

fileops::Error DirectoryStack::Enter(const fileops::Name& name)
{
    fileops::Directory child;
    if (const fileops::Error error = child.OpenChild(Top(), name))
        return error;
    if (levels.size() - firstOpen >= openLevels) {
        Level& level = levels[firstOpen];
        if (const fileops::Error error = level.directory.Read(&level.attributes))
            return error;
        level.directory.Close();
        ++firstOpen;
    }
    levels.push_back({std::move(child), name, {}});
    return {};
}

fileops::Error DirectoryStack::Leave(fileops::Directory* left)
{
    *left = std::move(levels.back().directory);
    levels.pop_back();
    Level& level = levels.back();
    if (level.directory.IsOpen())
        return {};
    firstOpen = levels.size() - 1;
    fileops::Directory parent;
    fileops::Attributes attributes;
    fileops::Error error = parent.OpenParent(*left);
    if (!error)
        error = parent.Read(&attributes);
    if (!error && !attributes.IsSameEntry(level.attributes))
        error = std::make_error_code(std::errc::no_such_file_or_directory);
    if (!error)
        level.directory = std::move(parent);
    return error;
}

fileops::Path DirectoryStack::PathOf(const fileops::Name& name) const
{
    return Path() / name;
}

fileops::Path DirectoryStack::Path() const
{
    fileops::Path path = base;
    for (size_t i = 1; i < levels.size(); ++i)
        path /= levels[i].name;
    return path;
}

FileWalk::FileWalk(int options_) : options(options_) {}

void FileWalk::Begin(fileops::Directory root, const fileops::Path& path)
{
    stack.Begin(std::move(root), path);
    levels.clear();
    levels.emplace_back();
    isRootListed = false;
    isLost = false;
}

FileWalk::Step FileWalk::Next()
{
    // Without the way back up nothing more can be reached.
    if (isLost)
        return step = Step::End;
    if (!std::exchange(isRootListed, true)) {
        name.clear();
        error = stack.Top().List(&levels.back().entries);
        if (error && IsAccess(error) && (options & Unlocking) && !stack.Top().Unlock())
            error = stack.Top().List(&levels.back().entries);
        if (error)
            return step = Step::Error;
    }
    for (;;) {
        Level& level = levels.back();
        if (level.next == level.entries.size())
            return step = Up();
        const fileops::Entry& entry = level.entries[level.next++];
        name = entry.name;
        error = Read(entry);
        if (error)
            return step = Step::Error;
        if (attributes.kind == fileops::Kind::Missing)
            continue;
        if (attributes.kind != fileops::Kind::Directory)
            return step = Step::Entry;
        step = Down();
        if (step != Step::Error || !IsMissing(error))
            return step;
    }
}

fileops::Error FileWalk::Read(const fileops::Entry& entry)
{
    attributes = {};
    attributes.kind = entry.kind;
    if (entry.kind != fileops::Kind::Unknown && !(options & WithAttributes))
        return {};
    fileops::Error result = stack.Top().Read(name, &attributes);
    if (result && IsAccess(result) && (options & Unlocking) && !stack.Top().Unlock())
        result = stack.Top().Read(name, &attributes);
    return result;
}

fileops::Error FileWalk::Enter()
{
    fileops::Error result = stack.Enter(name);
    if (!result || !(options & Unlocking) || !IsAccess(result))
        return result;
    // Closed may be the directory that holds it, the directory itself, or both.
    stack.Top().Unlock();
    if (stack.Top().Unlock(name))
        return result;
    return stack.Enter(name);
}

FileWalk::Step FileWalk::Down()
{
    error = Enter();
    if (error) {
        // Swapped for something else since it was listed: it is what it is now, never what a link
        // leads to.
        fileops::Attributes now;
        if (stack.Top().Read(name, &now) || now.kind == fileops::Kind::Directory)
            return Step::Error;
        attributes = now;
        if (now.kind != fileops::Kind::Missing)
            return Step::Entry;
        error = std::make_error_code(std::errc::no_such_file_or_directory);
        return Step::Error;
    }
    Level level;
    level.name = name;
    level.attributes = attributes;
    error = stack.Top().List(&level.entries);
    if (error && IsAccess(error) && (options & Unlocking) && !stack.Top().Unlock())
        error = stack.Top().List(&level.entries);
    if (error) {
        fileops::Directory left;
        isLost = static_cast<bool>(stack.Leave(&left));
        return Step::Error;
    }
    levels.push_back(std::move(level));
    return Step::Enter;
}

FileWalk::Step FileWalk::Up()
{
    if (levels.size() == 1)
        return Step::End;
    name = levels.back().name;
    attributes = levels.back().attributes;
    levels.pop_back();
    fileops::Directory left;
    error = stack.Leave(&left);
    isLost = static_cast<bool>(error);
    return error ? Step::Error : Step::Leave;
}

fileops::Path FileWalk::Path() const
{
    if (step == Step::Enter || name.empty())
        return stack.Path();
    return stack.PathOf(name);
}

} // namespace common
