#include "terminal.h"

#include <windows.h>

namespace tools {

namespace {

HANDLE Handle(Stream stream)
{
    return GetStdHandle(stream == Stream::Output ? STD_OUTPUT_HANDLE : STD_ERROR_HANDLE);
}

} // namespace

void OpenMissingStreams()
{
    // Files are opened by handles here, which never stand in for the C library's streams.
}

bool IsTerminal(Stream stream)
{
    DWORD mode = 0;
    return GetConsoleMode(Handle(stream), &mode) != 0;
}

int TerminalWidth(Stream stream)
{
    CONSOLE_SCREEN_BUFFER_INFO info = {};
    if (!GetConsoleScreenBufferInfo(Handle(stream), &info))
        return 80;
    return info.srWindow.Right - info.srWindow.Left + 1;
}

} // namespace tools
