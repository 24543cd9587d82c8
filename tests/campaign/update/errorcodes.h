#pragma once

#include <QSet>

namespace kxtest {

/** Codes that docs/errors.md lists. */
QSet<int> DocumentedErrorCodes();

/** Whether the text of that code is published without an address or a path. */
bool HasFixedText(int code);

} // namespace kxtest
