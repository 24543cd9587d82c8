#pragma once

#include <kxupdater/file.h>

#include <QByteArray>
#include <QString>

namespace publish {

/** Why the file at `path` is not `file`, as the end of a message; empty when it is, and after an
 *  interrupt. `sha256`: its digest in hexadecimal digits, empty when there is none. Any thread. */
QString PublishedFileProblem(const QString& path, const updater::File& file,
                             const QByteArray& sha256);

/** Reads a small file of a build, such as a list of digests, into `bytes`. Why that was not
 *  possible, as the end of a message. */
QString ReadPublishedFile(const QString& path, QByteArray* bytes);

} // namespace publish
