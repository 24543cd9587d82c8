#pragma once

#include "manifest.h"
#include "output/problems.h"

namespace publish {

/**
 * Looks at what a manifest says with the eyes of a client, whoever wrote it: entries that could
 * never be fetched, made or verified are problems, by themselves or next to each other.
 */
void CheckRecords(const Manifest& manifest, Problems* problems);

} // namespace publish
