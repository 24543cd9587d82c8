#pragma once

#include <QString>

#include <filesystem>

namespace guard {

/**
 * A path in the system's spelling, and back. Names on a disk may be any bytes: what is no text
 * becomes one that no package can have, while the conversions of the standard library would throw.
 */
std::filesystem::path ToNative(const QString& path);
QString FromNative(const std::filesystem::path& path);

} // namespace guard
