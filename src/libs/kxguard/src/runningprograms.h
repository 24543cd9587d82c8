#pragma once

#include <QString>

namespace guard {

struct RunningProgram
{
    qint64 process = 0; //!< 0 for none
    QString path;
};

/** A process, other than this one, whose program lies in `directory`; none where the system does
 *  not tell, and of other users' processes it may tell nothing. */
RunningProgram FindRunningProgram(const QString& directory);

} // namespace guard
