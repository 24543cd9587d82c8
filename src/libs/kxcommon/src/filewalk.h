#pragma once

#include "fileops.h"

#include <vector>

namespace common {

/**
 * The open directories on the way down a tree. Only the lowest ones are kept open, so that a deep
 * tree does not use up the handles of the process; the others are reached again by way of "..", and
 * a directory that turns out to be another one by then is an error.
 */
class DirectoryStack
{
public:
    /** Begins at an open directory; `path` serves messages. */
    void Begin(fileops::Directory root, const fileops::Path& path);
    /** Goes down into `name`; a link there is an error, and nothing has changed. */
    fileops::Error Enter(const fileops::Name& name);
    /** Goes up; the directory that was left, still open, is put into `left`. */
    fileops::Error Leave(fileops::Directory* left);

    const fileops::Directory& Top() const { return levels.back().directory; }
    size_t Depth() const { return levels.size(); }
    /** The path of the entry `name` in Top(), or of Top() itself. */
    fileops::Path PathOf(const fileops::Name& name) const;
    fileops::Path Path() const;

private:
    struct Level
    {
        fileops::Directory directory;
        fileops::Name name;
        fileops::Attributes attributes;
    };
    fileops::Path base;
    std::vector<Level> levels;
    size_t firstOpen = 0;
};

/**
 * Walks a tree without following links, each directory before and after its contents.
 *
 *     FileWalk walk(FileWalk::WithAttributes);
 *     walk.Begin(std::move(root), path);
 *     while ((step = walk.Next()) != FileWalk::Step::End) ...
 *
 * Iterative, so the depth of a tree costs memory and nothing else. An entry that disappears during
 * the walk is skipped.
 */
class FileWalk
{
public:
    enum Option {
        KindsOnly = 0,      //!< Current() has the kind of an entry and no more
        WithAttributes = 1, //!< reads the attributes of each entry
        Unlocking = 2,      //!< makes directories accessible that are closed to their owner
    };
    enum class Step {
        Entry, //!< anything but a directory; it stands in Top()
        Enter, //!< a directory, which has become Top()
        Leave, //!< a directory whose contents are through; Top() is the one that holds it
        Error, //!< see LastError() and ErrorPath(); the next step skips what could not be read
        End,   //!< the contents of the root are through, and the root is Top() still
    };

    explicit FileWalk(int options);

    void Begin(fileops::Directory root, const fileops::Path& path);
    Step Next();

    const fileops::Name& Name() const { return name; }
    const fileops::Attributes& Current() const { return attributes; }
    /** The open directory that Name() stands in; for Enter, the one that was entered. */
    const fileops::Directory& Top() const { return stack.Top(); }
    /** The path of what the step is about. */
    fileops::Path Path() const;

    const fileops::Error& LastError() const { return error; }

private:
    struct Level
    {
        std::vector<fileops::Entry> entries;
        size_t next = 0;
        fileops::Attributes attributes;
        fileops::Name name;
    };

    fileops::Error Read(const fileops::Entry& entry);
    fileops::Error Enter();
    Step Down();
    Step Up();

    const int options;
    DirectoryStack stack;
    std::vector<Level> levels;
    bool isRootListed = false;
    bool isLost = false;
    Step step = Step::End;
    fileops::Name name;
    fileops::Attributes attributes;
    fileops::Error error;
};

} // namespace common
