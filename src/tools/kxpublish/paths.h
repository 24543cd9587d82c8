#pragma once

#include <QString>

namespace publish {

/** `path` as an absolute path without links, as far as it exists. */
QString ResolvedPath(const QString& path);

/** True when `path` is `directory` or lies below it; both resolved. */
bool IsInside(const QString& path, const QString& directory);

/** Brings the file or the directory `path` to the disk; `error` names it on failure. */
bool Sync(const QString& path, QString& error);

} // namespace publish
