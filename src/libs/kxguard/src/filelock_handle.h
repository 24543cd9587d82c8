#pragma once

#include <kxguard/filelock.h>

#include <QByteArray>

namespace guard {

/** The system's side of a lock. One implementation per platform. */
struct KXGUARD_NO_EXPORT FileLock::Handle
{
    Handle() = default;
    ~Handle();
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;

    /** One try. `text` goes into the file; `holder` is what its owner wrote when it is Busy, and
     *  `reason` what the system says when it Failed. */
    Result Take(const QString& path, const QByteArray& text, QByteArray* holder, QString* reason);
    /** Removes the file, then lets it go. */
    void Release(const QString& path);
    /** `path`: what Take() was given. */
    bool IsHeld(const QString& path) const;

    static bool IsLocked(const QString& path, QByteArray* holder);

private:
#ifdef _WIN32
    void* file = nullptr;
#else
    int file = -1;
#endif
};

} // namespace guard
