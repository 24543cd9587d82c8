#pragma once

#include "common/paths.h"

#include <QString>

class QSaveFile;

using tools::IsInside;
using tools::ResolvedPath;

/**
 * Makes and removes a directory in `directory`: the only test of rights that also holds for
 * read-only volumes and for root. Empty when it works, else the reason.
 */
QString WriteProblem(const QString& directory);

/**
 * Why `file` cannot be one of kxupdate's own: a link stands there, which may lead anywhere, or
 * something that is no file, which may block who opens it. Empty when it is a file or missing.
 */
QString OwnFileProblem(const QString& file);

/**
 * Writes `bytes` to the open `file` and puts it into place; false leaves what was there, and the
 * reason is the file's error. QSaveFile alone overlooks a full disk: it does not look at how the
 * write-out of its buffer at the commit went.
 */
bool Commit(QSaveFile& file, const QByteArray& bytes);
