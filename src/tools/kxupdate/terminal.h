#pragma once

/** The standard streams that kxupdate writes to. */
enum class Stream { Output, Error };

/** True when `stream` is a terminal on which a line can be drawn again. */
bool IsTerminal(Stream stream);

/** Columns of the terminal behind `stream`; 80 when unknown. */
int TerminalWidth(Stream stream);
