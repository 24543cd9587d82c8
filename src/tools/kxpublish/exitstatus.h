#pragma once

#include <QString>

namespace publish {

/** What the tool's process ends with; --help prints the same list. */
enum ExitStatus : int {
    ExitDone = 0,        //!< the command did what was asked
    ExitRefused = 1,     //!< the tree or the request was refused; nothing has changed
    ExitUsage = 2,       //!< the command line was not understood; nothing has changed
    ExitFailed = 3,      //!< the system failed a read or a write; clients see nothing new
    ExitInterrupted = 4, //!< interrupted by a signal; clients see nothing new
};

/** The list above as the last paragraph of a help text. */
QString ExitStatusHelp();

} // namespace publish
