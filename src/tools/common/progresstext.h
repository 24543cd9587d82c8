#pragma once

#include <QString>

namespace tools {

/** How far a step has come. Negative counts and an empty file are not known, or not the step's. */
struct ProgressFigures
{
    QString step; //!< what is being done, in a word or two
    int percent = 0;
    int filesDone = -1;
    int filesTotal = -1;
    qint64 bytesDone = -1;
    qint64 bytesTotal = -1;
    qint64 bytesPerSecond = -1;
    int secondsLeft = -1;
    QString file; //!< what is under way just now
};

bool operator==(const ProgressFigures& a, const ProgressFigures& b);
inline bool operator!=(const ProgressFigures& a, const ProgressFigures& b)
{
    return !(a == b);
}

/**
 * The figures for a line of a terminal that has `columns` to spare: percentage and step first, then
 * what else fits. Fields keep their width while the numbers grow. Empty when not even the
 * percentage fits.
 */
QString ProgressLineText(const ProgressFigures& figures, int columns);

/** The figures as a line of a log, however long. */
QString ProgressSentence(const ProgressFigures& figures);

} // namespace tools
