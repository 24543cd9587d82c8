#pragma once

#include "common/paths.h"

#include <QByteArrayView>
#include <QString>

QT_BEGIN_NAMESPACE
class QFile;
QT_END_NAMESPACE

namespace publish {

using tools::FileProblem;
using tools::IsInside;
using tools::ResolvedPath;

/** Brings the file or the directory `path` to the disk; `error` names it on failure. */
bool Sync(const QString& path, QString& error);

/** Writes all of `bytes`; `error` names the file on failure. */
bool WriteAll(QFile& file, QByteArrayView bytes, QString& error);

/** Writes a new file and brings it to the disk; `error` names it on failure. */
bool WriteNewFile(const QString& path, const QByteArray& text, QString& error);

} // namespace publish
