#pragma once

#include "randomtree.h"

#include <QString>

namespace kxtest {

/**
 * Damages the tree that stands at `root` as `tree` says, as a seed decides: bytes changed, cut off
 * or added, entries that are gone or have become something else, strangers, other modes. At least
 * one entry is damaged. Returns what is still there as it was, with the modes that it has now.
 */
campaign::RandomTree DamageTree(const campaign::RandomTree& tree, const QString& root,
                                quint32 seed);

} // namespace kxtest
