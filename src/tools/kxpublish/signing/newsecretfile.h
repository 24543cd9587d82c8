#pragma once

#include <QFile>
#include <QString>

namespace publish {

/** Makes the file `path`, which must not exist, for its owner alone, and opens it for writing
 *  without a buffer. */
bool OpenNewSecretFile(QFile& file, const QString& path, QString& error);

} // namespace publish
