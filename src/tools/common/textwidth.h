#pragma once

#include <QString>

namespace tools {

/**
 * Columns that `text` takes on a terminal. What terminals do not agree about counts as wide: a line
 * that is cut by this measure never wraps. Control characters count as one.
 */
int Columns(const QString& text);

/** The beginning of `text` that takes at most `columns`. */
QString CutEnd(const QString& text, int columns);

/** `text`, with "..." for its middle when it takes more than `columns`. */
QString CutMiddle(const QString& text, int columns);

/** `text` with a "?" for each character that does not print but acts: controls, marks of the
 *  direction, line separators. */
QString Printable(const QString& text);

} // namespace tools
