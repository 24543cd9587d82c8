#pragma once

#include <QByteArray>
#include <QList>

#include <sys/types.h>

namespace campaign {

/** A system call of the traced program on an entry below the watched directory. */
struct DiskCall
{
    enum class Kind {
        Change, //!< makes, fills, moves, removes or marks an entry
        Sync,   //!< brings something to disk
        Look    //!< opens for reading, reads, lists, asks
    };

    Kind kind = Kind::Look;
    long number = 0;       //!< of the kernel
    const char* name = ""; //!< the kernel's
    quint64 arguments[6] = {};
    QByteArray path;       //!< of the entry, or of the open file; absolute
    QByteArray secondPath; //!< where a rename or a hard link leads; absolute
    bool hasPath = false;  //!< names the entry, and does not have it open
    bool isGone = false;   //!< the open file has no name any more; `path` was its last one
    pid_t thread = 0;
    qint64 result = 0; //!< once it is through: the kernel's, an error as its negative number

    /** "renameat2 '/a' '/b'" */
    QByteArray Text() const;
};

/** What becomes of a call. */
struct Verdict
{
    enum class What {
        Go,
        KillBefore, //!< SIGKILL for the program, the call is not made
        KillAfter,  //!< SIGKILL when the call is through, before the program sees its result
        Fail,       //!< the call is not made and fails with `error`
        Swallow     //!< the call is not made and returns 0
    };
    What what = What::Go;
    int error = 0;
};

/** Is asked about each call, on the thread that traces. */
class DiskWatcher
{
public:
    virtual ~DiskWatcher() = default;
    /** Before the call. */
    virtual Verdict Enter(const DiskCall& call) = 0;
    /** Whether Leave() is to be called, and calls are let through one after the other: the program
     *  stops twice at each then. */
    virtual bool WantsResults() const { return true; }
    /** After it, unless the program was killed before. */
    virtual void Leave(const DiskCall& call) { Q_UNUSED(call) }
};

struct TracedCommand
{
    QByteArray program;            //!< absolute path
    QList<QByteArray> arguments;   //!< without the program's name
    QList<QByteArray> environment; //!< all of it, "NAME=VALUE"
    QByteArray output;             //!< file for what it prints; is replaced
    QByteArray root;               //!< the watched directory, canonical
    bool withLooks = false;        //!< whether calls of the kind Look are reported
    long only = -1;                //!< a system call's number: no others are stopped at; -1 for all
    int timeout = 400;             //!< seconds until SIGALRM: only for what hangs
};

struct TracedEnd
{
    bool isKilled = false; //!< by a verdict
    int signal = 0;        //!< that ended it otherwise
    int status = -1;       //!< when it ended by itself

    bool IsTimeout() const;
};

/**
 * Runs a program and stops it at each system call on something below a directory. The kernel does
 * the selection, so no call can be missed, whatever library makes it; calls of several threads are
 * let through one after the other. Blocks. To be called on a thread whose only children it makes;
 * several threads may each run one. x86-64 Linux only. Ends the test program when tracing is not
 * possible.
 */
TracedEnd RunTraced(const TracedCommand& command, DiskWatcher& watcher);

} // namespace campaign
