#pragma once

#include <QList>
#include <QStringList>

namespace publish {

/** Rows as lines with aligned columns, two blanks between them and none at a line's end. The
 *  columns in `right` are aligned to the right. */
QStringList TableLines(const QList<QStringList>& rows, const QList<int>& right);

} // namespace publish
