#pragma once

#include "common/console.h"

#include <kxupdater/file.h>

#include <QList>

/** How a scanned tree differs from what a manifest lists, in the order of kinds and names. */
QList<tools::Difference> TreeDifferences(const updater::FileList& found,
                                         const updater::FileList& manifest);
