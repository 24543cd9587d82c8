#pragma once

#include <kxguard/kxguard_export.h>

#include <QString>

namespace guard {

/** How Recover() found an application directory, and what it has done. */
enum class RecoveryState {
    Whole,    //!< the application stands, and there was nothing to do
    Absent,   //!< there is neither an application nor a backup of it
    Restored, //!< an install had been interrupted: the old version is back
    Finished, //!< an install had been interrupted after the swap: the new version stands, the rest
              //!< of the old one is removed
    Cleaned,  //!< the application stands; what an interrupted install left beside it is removed
    Busy,     //!< an install is under way in another process: nothing was done
    Failed    //!< something could not be read, renamed or removed, or neither version stands in the
              //!< application's place, with the old one aside; nothing is lost
};

/** What Recover() found and did. */
struct Recovery
{
    RecoveryState state = RecoveryState::Whole; //!< how it ended
    QString text; //!< what was found and done, for a log or a user; names the paths

    /** Whether a whole application stands in its place. */
    bool IsWhole() const
    {
        return state != RecoveryState::Absent && state != RecoveryState::Busy &&
               state != RecoveryState::Failed;
    }
};

/**
 * Brings the application directory `appDir`, an absolute path, back to a whole state after an
 * install that was killed or cut off.
 *
 * A missing application whose backup (the path with ".old" appended) stands there is renamed back.
 * Anything is removed only if the journal of an InstallGuard, ".NAME.kxjournal" beside the
 * application, tells of an install that did not end: a backup that nobody made here is nobody's
 * business here. Only the file of a lock that nobody holds goes in any case. While another process
 * holds the application's lock nothing is done; `waitMs` milliseconds are waited for it.
 * Idempotent, and safe to run at each start and in several processes at once. Any thread; blocks
 * while a tree is removed; needs no event loop.
 */
KXGUARD_EXPORT Recovery Recover(const QString& appDir, int waitMs = 0);

} // namespace guard
