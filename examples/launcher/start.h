#pragma once

#include <QString>
#include <QStringList>

/** Runs `program`. Where the system can, it takes the place of this process, whose id, signals and
 *  terminal are then its own. Returns only when it could not be started: why. */
QString StartProgram(const QString& program, const QStringList& arguments);
