#pragma once

#include <kxupdater/file.h>

#include <QString>

namespace publish {

/**
 * Scans the tree at `root` with the scanner that clients verify with, and waits for the result.
 * False with a text when the scan failed or was interrupted.
 */
bool ScanTree(const QString& root, updater::FileList& files, QString& error);

} // namespace publish
