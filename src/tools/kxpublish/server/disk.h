#pragma once

#include <QByteArrayView>
#include <QString>

QT_BEGIN_NAMESPACE
class QFile;
QT_END_NAMESPACE

namespace publish {

/** `path` as an absolute path without links, as far as it exists. */
QString ResolvedPath(const QString& path);

/** True when `path` is `directory` or lies below it; both resolved. */
bool IsInside(const QString& path, const QString& directory);

/** Brings the file or the directory `path` to the disk; `error` names it on failure. */
bool Sync(const QString& path, QString& error);

/** Writes all of `bytes`; `error` names the file on failure. */
bool WriteAll(QFile& file, QByteArrayView bytes, QString& error);

/** Writes a new file and brings it to the disk; `error` names it on failure. */
bool WriteNewFile(const QString& path, const QByteArray& text, QString& error);

/** Why no file with content can be made beside `path`; some text in any case. */
QString FileProblem(const QString& path);

} // namespace publish
