#include "terminal.h"

#include <cstring>
#include <initializer_list>
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

HiddenLine ReadHiddenLine(const char* prompt, char* line, int size, int* length,
                          bool (*isInterrupted)())
{
    const auto open = [](const wchar_t* name) {
        return CreateFileW(name, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                           nullptr, OPEN_EXISTING, 0, nullptr);
    };
    const HANDLE input = open(L"CONIN$");
    const HANDLE output = open(L"CONOUT$");
    HiddenLine outcome = HiddenLine::NoTerminal;
    DWORD shown = 0;
    DWORD count = 0;
    *length = 0;
    if (input != INVALID_HANDLE_VALUE && output != INVALID_HANDLE_VALUE &&
        GetConsoleMode(input, &shown) && FlushConsoleInputBuffer(input) &&
        SetConsoleMode(input, (shown | ENABLE_LINE_INPUT) & ~DWORD(ENABLE_ECHO_INPUT)) &&
        WriteFile(output, prompt, DWORD(std::strlen(prompt)), &count, nullptr)) {
        char c = 0;
        outcome = HiddenLine::Read;
        while (ReadFile(input, &c, 1, &count, nullptr) && count == 1 && c != '\n') {
            if (c != '\r' && *length < size)
                line[(*length)++] = c;
        }
        // Ctrl-C ends the read, too.
        if (isInterrupted())
            outcome = HiddenLine::Interrupted;
        SetConsoleMode(input, shown);
        WriteFile(output, "\r\n", 2, &count, nullptr);
    }
    for (HANDLE handle : {input, output}) {
        if (handle != INVALID_HANDLE_VALUE)
            CloseHandle(handle);
    }
    return outcome;
}

} // namespace tools
