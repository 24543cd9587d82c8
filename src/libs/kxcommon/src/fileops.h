#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

/**
 * The calls to the file system that copying, removing and renaming need and Qt lacks: entries are
 * reached through open directories and never through links, so that a directory that is swapped for
 * a link while a run goes on leads nowhere. One implementation per platform; std only. Nothing here
 * throws, except for want of memory.
 */
namespace common::fileops {

using Path = std::filesystem::path;
/** One component of a path, spelled as the system spells it. */
using Name = Path::string_type;
using Error = std::error_code;

enum class Kind { Missing, File, Directory, Link, Special, Unknown };

struct Attributes
{
    Kind kind = Kind::Missing;
    std::uint64_t size = 0;
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    bool sparse = false;
    unsigned mode = 0;  //!< permission bits of the system
    unsigned owner = 0; //!< with `group`, decides whether set-id bits may be kept
    unsigned group = 0;
    std::int64_t accessed = 0; //!< nanoseconds since 1970
    std::int64_t modified = 0;

    bool IsSameEntry(const Attributes& other) const
    {
        return device == other.device && inode == other.inode;
    }
};

struct Entry
{
    Name name;
    Kind kind = Kind::Unknown;
};

/** An open directory. Names are single components and are never followed where they are links. */
class Directory
{
public:
    Directory() = default;
    Directory(Directory&& other) noexcept;
    Directory& operator=(Directory&& other) noexcept;
    ~Directory();

    bool IsOpen() const;
    void Close();

    /** Opens `path`, links followed, to reach entries by name; it need not be readable. */
    Error OpenAnchor(const Path& path);
    /** Opens `path`, links followed, to list it too. */
    Error Open(const Path& path);
    /** Opens the directory `name` in `parent`; a link there is an error. */
    Error OpenChild(const Directory& parent, const Name& name);
    /** Opens the directory that holds `child`, to list it too if it is readable. */
    Error OpenParent(const Directory& child);

    Error List(std::vector<Entry>* entries) const;
    Error Read(Attributes* attributes) const;
    /** Reads the attributes of an entry; one that does not exist has the kind Missing, and that is
     *  no error. */
    Error Read(const Name& name, Attributes* attributes) const;

    /** Makes a directory that only its owner may enter. */
    Error MakePrivateDirectory(const Name& name) const;
    /** Makes a directory with the permissions that are usual for the process. */
    Error MakeDirectory(const Name& name) const;
    Error ReadLink(const Name& name, Name* target) const;
    Error MakeLink(const Name& name, const Name& target) const;
    /** Gives the link `name` the times of another; a system that cannot is no error. */
    void SetLinkTimes(const Name& name, const Attributes& attributes) const;

    /** Removes a file, a link or a special file, read-only or not. */
    Error RemoveEntry(const Name& name) const;
    /** Removes an empty directory, read-only or not. */
    Error RemoveDirectory(const Name& name) const;
    /** Renames within the directory; what stands at `to` is replaced at once. */
    Error Replace(const Name& from, const Name& to) const;
    /** Renames within the directory and fails with file_exists if anything stands at `to`. */
    Error Place(const Name& from, const Name& to) const;

    /** Lets the owner read, change and enter the directory itself. */
    Error Unlock() const;
    /** The same for the directory `name` in it, which may be closed to its owner; never a link. */
    Error Unlock(const Name& name) const;
    /** Sets permissions and times. */
    Error Apply(const Attributes& attributes) const;

    /** Brings the list of entries to disk. */
    Error Sync() const;
    /** Brings the content of the file `name` to disk. */
    Error SyncFile(const Name& name) const;
    /** Brings everything on the directory's volume to disk in one call. */
    Error SyncVolume() const;
    /** Whether SyncVolume() is known to reach the disk and to tell when it could not. */
    bool CanSyncVolume() const;

private:
    friend class File;
    friend Error RenameEntry(const Path& from, const Path& to);

#ifdef _WIN32
    Path path;
    void* handle = nullptr;
#else
    int handle = -1;
#endif
};

/** An open regular file. */
class File
{
public:
    File() = default;
    ~File();
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    /** Opens for reading, and fails with operation_not_supported unless it is a regular file; a
     *  FIFO is never waited for. `follow` lets the last component be a link. */
    Error OpenToRead(const Directory& parent, const Name& name, bool follow);
    /** Makes a new file that only its owner may read and write; anything in its place is an error.
     */
    Error Create(const Directory& parent, const Name& name);

    Error Read(Attributes* attributes) const;
    /** Sets permissions and times, whatever the process's mask is. */
    Error Apply(const Attributes& attributes) const;
    Error Close();

    /** Told how many bytes were copied; false stops the copy with operation_canceled. */
    using Advance = std::function<bool(std::uint64_t bytes)>;
    /**
     * Copies everything from `source` to the empty file `target`, in blocks or by sharing them.
     * Holes stay holes. `isReading` tells at which end an error arose.
     */
    static Error CopyContent(const File& source, const Attributes& attributes, const File& target,
                             const Advance& advance, bool* isReading);

private:
#ifdef _WIN32
    void* handle = nullptr;
    Path path;
#else
    int handle = -1;
#endif
};

/** Moves an entry to a path where nothing stands, on one volume; file_exists otherwise. On Windows
 *  violations of sharing are tried again for up to ten seconds. */
Error RenameEntry(const Path& from, const Path& to);

/** Steps of a run at which a test can hold it up, look at the disk, or make the step fail. */
enum class Step { Start, Entry, Block, Attributes, Sync, Place, Placed };
/** Returns 0, or the error number of the system with which the step fails. */
using StepHook = int (*)(Step step);
extern std::atomic<StepHook> stepHook;

inline Error At(Step step)
{
    const StepHook hook = stepHook.load(std::memory_order_acquire);
    const int number = hook ? hook(step) : 0;
    return number ? Error(number, std::system_category()) : Error();
}

} // namespace common::fileops
