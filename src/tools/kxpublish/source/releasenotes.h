#pragma once

#include <QByteArray>
#include <QString>

namespace publish {

/**
 * Reads release notes: a regular file of UTF-8 text, 1 MiB at most, with no other control
 * characters than tabs and ends of lines. Answers why it cannot be published, empty when it can. A
 * byte order mark is dropped.
 */
QString ReadNotes(const QString& path, QByteArray& text);

} // namespace publish
