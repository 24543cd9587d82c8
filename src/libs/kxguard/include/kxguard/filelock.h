#pragma once

#include <kxguard/kxguard_export.h>

#include <QString>

#include <memory>

namespace guard {

/**
 * An exclusive lock between processes: a file that is locked by the system, which takes the lock
 * back when its owner ends, however that happens. The file is removed with the lock. Not shared by
 * two objects, also of one process. One thread at a time.
 */
class KXGUARD_EXPORT FileLock
{
public:
    /** `path`: absolute; its directory must exist. */
    explicit FileLock(const QString& path);
    /** Releases it. */
    ~FileLock();

    /** What came of an attempt. */
    enum class Result {
        Taken,
        Busy,  //!< another process has it
        Failed //!< the file could not be made or locked
    };
    /** Tries for `waitMs` milliseconds, 0 for once. A link or anything else but a regular file at
     *  the path is a failure, and is left alone. */
    Result Take(int waitMs = 0);
    /** Gives the lock back and removes its file; nothing without a lock. */
    void Release();
    /** Whether this object has the lock; not when somebody has removed its file, which lets others
     *  take it. */
    bool IsHeld() const;
    /** Why Take() was not Taken, names the path and the owner. */
    QString Reason() const { return reason; }
    /** As it was given. */
    QString Path() const { return path; }

    /** The process that has a lock. */
    struct Owner
    {
        qint64 process = 0; //!< 0 when nobody has it, -1 when its owner is not known
        QString program;    //!< as it called itself; may be empty
    };
    /** Who has the lock at `path` at this moment; takes nothing. */
    static Owner OwnerOf(const QString& path);

private:
    Q_DISABLE_COPY(FileLock)

    struct KXGUARD_NO_EXPORT Handle;
    QString path;
    QString reason;
    std::unique_ptr<Handle> handle;
};

/** Where the lock of an application directory lies: ".NAME.kxlock" beside it. */
KXGUARD_EXPORT QString ApplicationLockPath(const QString& appDir);

} // namespace guard
