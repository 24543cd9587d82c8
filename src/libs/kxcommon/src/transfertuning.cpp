#include "transfertuning.h"

namespace common::http {

TransferTuning& Tuning()
{
    static TransferTuning tuning;
    return tuning;
}

int PauseAfterAttempt(int attempt)
{
    const TransferTuning& tuning = Tuning();
    qint64 pause = tuning.firstPauseMs;
    for (int i = 1; i < attempt && pause < tuning.longestPauseMs; ++i)
        pause *= 2;
    return int(qMin<qint64>(pause, tuning.longestPauseMs));
}

} // namespace common::http
