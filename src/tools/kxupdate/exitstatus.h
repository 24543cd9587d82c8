#pragma once

#include "common/programspec.h"

#include <QString>

/** What the process ends with; --help prints the table. */
enum class ExitStatus : int {
    Done = 0,               //!< done as asked, or nothing to do
    Failed = 1,             //!< a step failed on this machine; the application is untouched
    Usage = 2,              //!< the command line is wrong
    Refused = 3,            //!< not begun: a directory, a right, the space, another process or
                            //!< an earlier version does not allow it
    Canceled = 4,           //!< interrupted; the application is untouched
    VerificationFailed = 5, //!< a tree does not hold what its package describes
    ServerFailed = 6,       //!< the server is not reachable, or what it sends is not usable
    RolledBack = 7,         //!< the swap failed and the old version was put back
    Broken = 8,             //!< the swap failed and the application needs attention
    Untrusted = 9,          //!< not signed by a trusted key; the application is untouched
    UpdateAvailable = 10,   //!< check, repair: another version can be installed
    RepairNeeded = 11       //!< check: the same version, but files are damaged, missing or extra
};

/** The word of the result line for `status`; Done has several, which commands give themselves. */
QString ResultWord(ExitStatus status);

/** All of them, with the words of their results and their meanings. */
QList<tools::ExitStatusSpec> ExitStatuses();
