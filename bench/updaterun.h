#pragma once

#include <QStringList>

namespace kxbench {

/**
 * A whole update in this process: check, download, restart, install.
 * Arguments: server URL, application directory, download directory. Prints one line: peak memory
 * in KiB, and the longest time in milliseconds that the event loop did not come round.
 * Returns the exit status. A process of its own, since peak memory is the process's.
 */
int RunUpdate(const QStringList& arguments);

} // namespace kxbench
