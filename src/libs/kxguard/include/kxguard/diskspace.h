#pragma once

#include <kxguard/kxguard_export.h>
#include <kxupdater/file.h>

#include <QString>

namespace guard {

/** What is about to be written; a path is empty for a tree that is not written. Neither need
 *  exist. */
struct SpaceDemand
{
    QString download;                   //!< download directory
    QString application;                //!< application directory
    quint64 freedBesideDownload = 0;    //!< bytes that go before the download begins
    quint64 freedBesideApplication = 0; //!< bytes that go before the new version is copied
};

/**
 * Compares what a download, a swap or both will write with what the volumes have free. A tree for
 * `manifest` is counted on the volume of each path, in whole blocks, the two together when they
 * share it. What the download directory already holds of a listed file is not counted again. Empty
 * when there is room, else a text that names the volume, the bytes needed and those free. Any
 * thread.
 */
KXGUARD_EXPORT QString SpaceProblem(const updater::FileList& manifest, const SpaceDemand& demand);

/** Bytes that a file takes in the volume of `path` at least. */
KXGUARD_EXPORT quint64 BlockSize(const QString& path);
/** `size` in whole blocks. */
KXGUARD_EXPORT quint64 InBlocks(quint64 size, quint64 block);
/** Bytes of the regular files in the tree at `path`, in whole blocks; links are not followed. */
KXGUARD_EXPORT quint64 TreeSize(const QString& path);

} // namespace guard
