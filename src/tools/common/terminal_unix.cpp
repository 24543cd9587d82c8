#include "terminal.h"

#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace tools {

namespace {

int Descriptor(Stream stream)
{
    return stream == Stream::Output ? STDOUT_FILENO : STDERR_FILENO;
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

} // namespace tools
