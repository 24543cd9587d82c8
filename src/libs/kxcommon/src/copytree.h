#pragma once

#include "fileops.h"
#include "fileworker.h"

#include <cstdint>
#include <functional>

namespace common {

/** What an entry counts in the progress of a copy, beside its bytes: about the time that making
 *  one takes. */
constexpr std::uint64_t entryAmount = 32 * 1024;
/** What an entry counts when it is brought to disk. */
constexpr std::uint64_t syncAmount = 32 * 1024;

/** Counts bytes and entries of a tree, for the total of a progress. */
std::uint64_t CountTree(const QString& source, const QString& destination,
                        const std::function<bool()>& isAborted);

/**
 * Copies the tree under `source` to `destination`. Where that does not exist, it is absent or whole
 * at every moment: the copy is made and brought to disk beside it and renamed into place.
 * `advance` counts as above; false abandons the copy.
 */
Failure CopyTree(const QString& source, const QString& destination,
                 const fileops::File::Advance& advance);

} // namespace common
