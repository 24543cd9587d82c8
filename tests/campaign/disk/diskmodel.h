#pragma once

#include "disktrace.h"

#include <QByteArray>
#include <QMap>
#include <QString>
#include <QStringList>

#include <vector>

namespace campaign {

/** A step that changes a file system, or brings a part of it to disk. */
struct DiskStep
{
    enum class Kind {
        Make,   //!< a new entry `name` in `directory`: `inode`
        Link,   //!< another name for `inode`
        Unlink, //!< `name` goes; a directory, too
        Rename, //!< `inode`, from `name` to `secondName`, which may be another's until then
        Mode,   //!< of `inode`
        Write,  //!< `bytes` at `position` of `inode`
        Resize, //!< `inode` to `position` bytes
        Sync,   //!< `inode`: its contents and attributes
        SyncAll
    };

    Kind kind = Kind::Sync;
    int inode = -1;
    int directory = -1;
    QByteArray name;
    int secondDirectory = -1;
    QByteArray secondName;
    int mode = 0;
    QByteArray bytes;
    qint64 position = 0;
    QByteArray text; //!< of the call

    /** Whether it changes names or attributes; the others change data or sync. */
    bool IsMetadata() const { return kind <= Kind::Mode; }
};

/** A file system as far as a campaign looks at it: names, kinds, modes, contents. A value. */
class DiskModel
{
public:
    enum class Type { File, Directory, Link };
    struct Inode
    {
        Type type = Type::File;
        int mode = 0;
        QByteArray bytes;            //!< of a file; of a link its target
        QMap<QByteArray, int> names; //!< of a directory
    };

    /** Reads what stands at `root`, which becomes inode 0. */
    static DiskModel Read(const QByteArray& root);

    /** The inode at a path that begins below the root, "" for the root; -1 for none. */
    int Find(const QByteArray& path) const;
    void Apply(const DiskStep& step);
    /** As kxtest::Snapshot() shows the directory `inode` once it is on disk. */
    QStringList Lines(int inode) const;
    /** Makes the directory `inode` at `path`, which must not exist. */
    void WriteTo(int inode, const QByteArray& path) const;

    std::vector<Inode> inodes;

private:
    int ReadEntry(const QByteArray& path);
};

/** Writes down what a traced program does to the disk. */
class DiskRecorder : public DiskWatcher
{
public:
    /** `root`: what is watched, as it stands before the program starts. */
    explicit DiskRecorder(const QByteArray& root);

    Verdict Enter(const DiskCall& call) override;
    void Leave(const DiskCall& call) override;

    const DiskModel& Start() const { return start; }
    const std::vector<DiskStep>& Steps() const { return steps; }
    /** What the steps make of the start. */
    const DiskModel& End() const { return live; }
    /** Calls that the model does not know. */
    const QList<QByteArray>& Unknown() const { return unknown; }

private:
    QByteArray Below(const QByteArray& path) const { return path.mid(root.size()); }
    void Add(DiskStep step, const DiskCall& call);
    void AddMake(DiskModel::Type type, const DiskCall& call);
    void AddOpen(const DiskCall& call, quint64 flags);
    void AddWrite(const DiskCall& call, int descriptor, qint64 position);
    void AddNames(DiskStep::Kind kind, const DiskCall& call);

    QByteArray root;
    DiskModel start;
    DiskModel live;
    std::vector<DiskStep> steps;
    QList<QByteArray> unknown;
};

} // namespace campaign
