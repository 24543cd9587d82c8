#pragma once

#include <QString>

/** What the updater does in the state `name`, for a message; empty for WAITING, which is a pause
 *  between steps, and for unknown names. */
QString StateDescription(const QString& name);

/** The same in a word or two, beside a percentage; empty for states without one. */
QString StepName(const QString& name);

/** True for the states in which the application directory is being replaced: from the removal of a
 *  stale backup on, an interruption would leave the program moved aside. */
bool IsSwapState(const QString& name);
