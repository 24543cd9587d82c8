#pragma once

#include "diskmodel.h"

#include <QString>

#include <utility>
#include <vector>

namespace campaign {

/** What a power cut in the middle of a program may leave. */
struct CrashState
{
    /** What survives of a file's data that nobody has synced. */
    enum class Data {
        None,  //!< nothing: the file is as it was synced, empty if it never was
        Zeros, //!< its size, with zeros for the data
        Cut,   //!< half of it
        All,
        Mixed //!< one of these for each file
    };

    int steps = 0;              //!< that the program had made
    std::vector<int> nameTimes; //!< for each inode: how many steps its names have seen
    std::vector<int> modeTimes; //!< the same for its attributes
    Data data = Data::None;
    quint32 seed = 0; //!< for Mixed
};

/**
 * The states in which a power cut may leave a file system, after each of a program's steps, in two
 * models of what a file system brings to disk when nobody asks it to:
 *
 * Journal: changes of names and attributes reach the disk in their order, any number of them; a
 * sync brings those up to the last one that touched the synced entry. Data reaches the disk when
 * the file is synced, or by chance. Journaling file systems (ext4, xfs) are like that.
 *
 * Directories: each directory, and each file's attributes, go to disk on their own; of its own
 * changes, a directory has any number of the first ones, at least those before its last sync.
 * Renaming within a directory is one change; between two directories it is two. No file system that
 * is in use is as bad as that.
 */
class CrashStates
{
public:
    enum class Order { Journal, Directories };

    CrashStates(const DiskModel& start, std::vector<DiskStep> steps);

    /**
     * All states that differ below the directory `inode`, the earliest first. With
     * Order::Directories the choices are too many: each directory's alone with the others early or
     * late, each one of the directory `inode` itself, and `random` random ones after each step.
     * Of all these only one in `share` is looked at, which `seed` decides, too.
     */
    std::vector<CrashState> Distinct(Order order, int inode, int random, quint32 seed,
                                     int share = 1) const;
    /** The file system in that state. */
    DiskModel Build(const CrashState& state) const;
    /** The steps up to the state, the last `count` of them, with what is not on disk. */
    QString Describe(const CrashState& state, int count = 40) const;

    const std::vector<DiskStep>& Steps() const { return steps; }

private:
    template <typename Value>
    using History = std::vector<std::pair<int, Value>>; // from how many steps on

    template <typename Value>
    static size_t IndexAt(const History<Value>& history, int time)
    {
        size_t index = history.size() - 1;
        while (index > 0 && history[index].first > time)
            --index;
        return index;
    }

    class Collector;

    /** Of a file's data. */
    struct Fate
    {
        size_t synced = 0; // in its history
        size_t full = 0;
        CrashState::Data data = CrashState::Data::All;
    };

    Fate FateOf(const CrashState& state, int inode) const;
    QByteArray Fingerprint(const CrashState& state, int inode) const;
    int SyncTime(int inode, int time) const;
    void AddJournal(Collector* collector) const;
    void AddDirectories(int inode, int random, quint32 seed, Collector* collector) const;

    DiskModel start;
    std::vector<DiskStep> steps;
    int inodeCount = 0;
    std::vector<DiskModel::Inode> first; // of each inode: its type and, of a link, its target
    std::vector<History<QMap<QByteArray, int>>> names;
    std::vector<History<int>> modes;
    std::vector<History<QByteArray>> contents;
    std::vector<std::vector<int>> syncs; // of each inode: after how many steps
    std::vector<int> durable;            // after each step: metadata that a journal has on disk
};

} // namespace campaign
