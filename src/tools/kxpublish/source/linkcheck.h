#pragma once

#include <QString>

namespace publish {

class Problems;
struct TreeContents;

/**
 * Looks at where the links of a tree lead. Refused are targets that are absolute, lead out of the
 * tree, by themselves or through other links, or are not in the one form that a scan reports, which
 * is the shortest ("lib", not "./lib" or "lib/"; a parent directory has a slash, "../"), and
 * targets that rules leave out. Links that lead nowhere inside the tree, or in a circle, are warned
 * of: clients make them and verify their text.
 */
void CheckLinks(const TreeContents& contents, Problems* problems);

} // namespace publish
