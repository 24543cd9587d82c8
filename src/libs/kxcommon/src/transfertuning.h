#pragma once

#include <QtGlobal>

namespace common::http {

/**
 * Lengths that the tests shrink; the values here are the shipped ones.
 * Read and written on the threads that own transfers, and changed only while none exists.
 */
struct TransferTuning
{
    int firstPauseMs = 500;    //!< before the second attempt; every further pause is twice as long
    int longestPauseMs = 8000; //!< no pause between attempts is longer
    int timeoutUnitMs = 1000;  //!< what one second of a timeout lasts
    qint64 largestReply = 64 * 1024 * 1024; //!< bytes of a reply that IHttpRequest accepts
};

TransferTuning& Tuning();

/** Milliseconds between the attempt of that number, counted from 1, and the next one. */
int PauseAfterAttempt(int attempt);

/** While true, the worker thread of the transfers begins no piece of work. Safe from any thread. */
void HoldTransferWorker(bool hold);

/** Worker threads of transfers that exist now. Safe from any thread. */
int TransferWorkerCount();

} // namespace common::http
