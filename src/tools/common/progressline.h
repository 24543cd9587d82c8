#pragma once

#include <QString>

namespace tools {

/**
 * Turns percentages into what is written to show them: a bar that is drawn again in place on a
 * terminal, a line per quarter elsewhere. Knows what stands on the terminal; writes nothing
 * itself.
 */
class ProgressLine
{
public:
    /** `width`: columns of the terminal; 0 when there is none. */
    explicit ProgressLine(int width);

    /** What to write for `percent` of the step `label`; empty when nothing new is to be seen. */
    QString Update(int percent, const QString& label);
    /** What to write before anything else may be printed: erases a bar, empty when none stands. */
    QString Erase();
    /** What to write after other text: draws the bar again; empty when none was standing. */
    QString Redraw();
    /** What to write when the user has typed into the bar: leaves it where it is. */
    QString Leave();
    /** The next percentage belongs to another run from 0 to 100. The bar must be erased. */
    void Reset();

private:
    QString Bar(int percent, const QString& label) const;

    int width;
    int lastPercent = -1;
    QString bar;
    bool drawn = false;
};

} // namespace tools
