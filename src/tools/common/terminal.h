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

enum class HiddenLine { Read, NoTerminal, Interrupted };
/**
 * Shows `prompt` on the terminal that the process was started from, wherever its streams go, and
 * reads a line there that is not shown. The line is put into `line`, without its end and without a
 * copy elsewhere in this process; `length` is its bytes, and `size`, the room for it, when there
 * were as many or more. What was typed before the prompt does not count.
 * `isInterrupted` is asked while the user thinks; the terminal shows what is typed again when this
 * returns.
 */
HiddenLine ReadHiddenLine(const char* prompt, char* line, int size, int* length,
                          bool (*isInterrupted)());

} // namespace tools
