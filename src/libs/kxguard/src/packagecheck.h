#pragma once

#include "treeinventory.h"

#include <kxguard/errors.h>
#include <kxupdater/file.h>

#include <QList>
#include <QString>

namespace guard {

/** Up to five of `names`, and how many more there are; for a message. */
QString Sample(const QStringList& names);

/** Whether another user may change what the download directory `root`, which need not exist, holds
 *  or will hold, or what stands at its path. */
Problem CheckDownloadPlace(const QString& root);

/**
 * Checks that the download directory `root` holds exactly the records of `manifest`, hidden entries
 * included, with their digests and link targets, and that no other user may change it. Reads every
 * byte. `inventory` is what stands there, taken before the first byte was read.
 */
Problem CheckPackage(const QString& root, const updater::FileList& manifest,
                     QList<InventoryEntry>* inventory);

/** Whether the tree at `root` still is as `inventory` says; nothing is read but names and times. */
Problem CheckUnchanged(const QString& root, const QList<InventoryEntry>& inventory);

/** The records that the package XML `xml` has for the package `name`, as the updater reads them. */
updater::FileList RecordsOf(const QString& name, const QString& xml);

} // namespace guard
