#pragma once

#include "common/programspec.h"

#include <QString>

namespace publish {

/** What the tool's process ends with; --help prints the same list. */
enum ExitStatus : int {
    ExitDone = 0,        //!< the command did what was asked
    ExitRefused = 1,     //!< the tree or the request was refused; nothing has changed
    ExitUsage = 2,       //!< the command line was not understood; nothing has changed
    ExitFailed = 3,      //!< the system failed a read or a write; clients see nothing new
    ExitInterrupted = 4, //!< interrupted by a signal; clients see nothing new
    ExitDamaged = 5,     //!< what is published has something that clients cannot use
};

/** The list above, with the word of each in the result and its meaning for people. */
QList<tools::ExitStatusSpec> ExitStatuses();

/** The word of `status` in the list. */
QString ResultWord(ExitStatus status);

} // namespace publish
