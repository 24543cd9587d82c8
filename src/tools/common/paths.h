#pragma once

#include <QString>

namespace tools {

/** `path` as an absolute path without links, as far as it exists. */
QString ResolvedPath(const QString& path);

/** True when `path` is `directory` or lies below it; both resolved. */
bool IsInside(const QString& path, const QString& directory);

/** Why no file with content can be made beside `path`; some text in any case. */
QString FileProblem(const QString& path);

} // namespace tools
