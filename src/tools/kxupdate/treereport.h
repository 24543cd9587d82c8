#pragma once

#include <kxupdater/file.h>

#include <QString>
#include <QStringList>

/**
 * How a scanned tree differs from what a manifest lists, one line an entry, at most `limit` and a
 * count of the rest: "missing NAME", "changed NAME", "unexpected NAME".
 */
QStringList TreeDifferences(const updater::FileList& found, const updater::FileList& manifest,
                            int limit);
