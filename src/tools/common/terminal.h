#pragma once

namespace tools {

/** The standard streams that a tool writes to. */
enum class Stream { Output, Error };

/**
 * Makes sure that the standard streams are open, to nowhere if need be: otherwise the next file
 * that is opened takes the place of a closed one, and messages are written into it. Called first.
 */
void OpenMissingStreams();

/** True when `stream` is a terminal on which a line can be drawn again. */
bool IsTerminal(Stream stream);

/** Columns of the terminal behind `stream`; 80 when unknown. */
int TerminalWidth(Stream stream);

} // namespace tools
