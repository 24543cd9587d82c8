#pragma once

#include "fileops.h"

#include <functional>

namespace common {

/** How a removal ended. */
struct RemoveResult
{
    fileops::Error error; //!< operation_canceled if it was told to stop
    fileops::Path path;   //!< the entry that the error is about
    bool isListing = false;
};

/** Told after each entry that is gone; false stops the removal. */
using RemoveAdvance = std::function<bool()>;

/**
 * Removes the entry `name` of `parent`, and everything under it if it is a directory. Links are
 * removed and never followed, read-only entries are removed too, a missing entry is no error.
 * `path` is the path of the entry and serves messages.
 */
RemoveResult RemoveTree(const fileops::Directory& parent, const fileops::Name& name,
                        const fileops::Path& path, const RemoveAdvance& advance);

} // namespace common
