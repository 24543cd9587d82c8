#pragma once

#include <QString>

namespace updater {

/** Nesting of elements, the root counting as 1, that is still read. */
constexpr int maxXmlDepth = 256;

/**
 * True when `xml` is well-formed, declares no entities and no attributes, and nests no deeper than
 * maxXmlDepth.
 * Everything that comes from a server passes here before it reaches the DOM, whose time and memory
 * a short text of references or a deep one could otherwise exhaust.
 */
bool IsSafeXml(const QString& xml);

} // namespace updater
