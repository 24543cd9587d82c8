#pragma once

#include <QString>
#include <QStringList>

namespace guard {

/** Why files and links with exactly these names cannot stand in one tree: a name that comes twice,
 *  or one below another. Empty when they can. */
QString ShapeViolation(QStringList names);

} // namespace guard
