#include "terminal.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

namespace tools {

namespace {

int Descriptor(Stream stream)
{
    return stream == Stream::Output ? STDOUT_FILENO : STDERR_FILENO;
}

constexpr int pollMs = 100;

// What ends the input other than a line's end leaves the cursor behind the prompt.
HiddenLine EndLine(int terminal, HiddenLine outcome)
{
    const ssize_t written = ::write(terminal, "\n", 1);
    static_cast<void>(written); // it is only for looks
    return outcome;
}

// Reads up to the line's end, or what the user ends with Ctrl-D. A signal need not end a read(),
// and may come just before it.
HiddenLine ReadLine(int terminal, char* line, int size, int* length, bool (*isInterrupted)())
{
    *length = 0;
    for (;;) {
        if (isInterrupted())
            return EndLine(terminal, HiddenLine::Interrupted);
        pollfd wait = {terminal, POLLIN, 0};
        if (::poll(&wait, 1, pollMs) <= 0)
            continue;
        char c = 0;
        const ssize_t count = ::read(terminal, &c, 1);
        if (count < 0 && (errno == EINTR || errno == EAGAIN))
            continue;
        if (count < 0)
            return HiddenLine::NoTerminal; // it was closed
        if (count == 0)
            return EndLine(terminal, HiddenLine::Read);
        if (c == '\n')
            return HiddenLine::Read;
        if (*length < size)
            line[(*length)++] = c;
    }
}

} // namespace

void OpenMissingStreams()
{
    // The lowest free number is taken, so the last one that stays open is above all three.
    int descriptor = 0;
    while (descriptor >= 0 && descriptor <= STDERR_FILENO)
        descriptor = ::open("/dev/null", O_RDWR);
    if (descriptor > STDERR_FILENO)
        ::close(descriptor);
}

bool IsTerminal(Stream stream)
{
    const char* type = std::getenv("TERM");
    return ::isatty(Descriptor(stream)) && !(type && std::strcmp(type, "dumb") == 0);
}

int TerminalWidth(Stream stream)
{
    struct winsize size = {};
    if (::ioctl(Descriptor(stream), TIOCGWINSZ, &size) != 0 || size.ws_col == 0)
        return 80;
    return size.ws_col;
}

HiddenLine ReadHiddenLine(const char* prompt, char* line, int size, int* length,
                          bool (*isInterrupted)())
{
    const int terminal = ::open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC);
    termios shown = {};
    if (terminal < 0 || ::tcgetattr(terminal, &shown) != 0) {
        if (terminal >= 0)
            ::close(terminal);
        return HiddenLine::NoTerminal;
    }
    termios hidden = shown;
    hidden.c_lflag &= ~tcflag_t(ECHO);
    hidden.c_lflag |= ECHONL | ICANON | ISIG;
    // These would leave the user's shell with a terminal that shows nothing.
    hidden.c_cc[VSUSP] = _POSIX_VDISABLE;
    hidden.c_cc[VQUIT] = _POSIX_VDISABLE;
    HiddenLine outcome = HiddenLine::NoTerminal;
    // The prompt comes last: whoever sees it may type.
    if (::tcsetattr(terminal, TCSAFLUSH, &hidden) == 0 &&
        ::write(terminal, prompt, std::strlen(prompt)) >= 0)
        outcome = ReadLine(terminal, line, size, length, isInterrupted);
    ::tcsetattr(terminal, TCSAFLUSH, &shown);
    ::close(terminal);
    return outcome;
}

} // namespace tools
