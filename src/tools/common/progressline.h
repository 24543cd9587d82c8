#pragma once

#include "progresstext.h"

#include <QString>

namespace tools {

/**
 * Turns figures into what is written to show them: a line that is drawn again in place on a
 * terminal, elsewhere a line now and then. Knows what stands on the terminal; writes nothing
 * itself. The width is asked for each time, since windows are resized.
 */
class ProgressLine
{
public:
    explicit ProgressLine(bool terminal);

    /**
     * What to write for `figures`; empty when nothing new is to be seen. `width`: columns of the
     * terminal. `now`: milliseconds of any clock that runs evenly; it spaces the lines of a log.
     */
    QString Update(const ProgressFigures& figures, int width, qint64 now);
    /** What to write before anything else may be printed: erases a bar, empty when none stands. */
    QString Erase(int width);
    /** What to write after other text: draws the bar again; empty when none was standing. */
    QString Redraw(int width);
    /** What to write when the user has typed into the bar: leaves it where it is. */
    QString Leave();
    /** The next figures belong to another run from 0 to 100. The bar must be erased. */
    void Reset();

private:
    QString LogLine(const ProgressFigures& next, qint64 now);

    bool terminal;
    ProgressFigures figures;
    bool shown = false; // there are figures, and they are to be seen
    int drawn = 0;      // columns that stand on the terminal; 0: nothing
    // Of a log: what the line before the next one was about.
    QString lineText;
    int linePercent = 0;
    qint64 lineTime = -1; // -1: none, and the run has not begun
};

} // namespace tools
