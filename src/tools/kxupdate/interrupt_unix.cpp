#include "interrupt.h"

#include <QSocketNotifier>

#include <cerrno>
#include <csignal>

#include <fcntl.h>
#include <unistd.h>

namespace {

const int handledSignals[] = {SIGINT, SIGTERM, SIGHUP};

int pipeEnds[2] = {-1, -1};

// Runs in the middle of anything: only what is safe in a signal handler.
void WriteToPipe(int)
{
    const int error = errno;
    const char byte = 1;
    // A full pipe already holds requests enough.
    [[maybe_unused]] const ssize_t written = ::write(pipeEnds[1], &byte, 1);
    errno = error;
}

} // namespace

Interrupt::Interrupt(QObject* parent) : QObject(parent)
{
    if (::pipe(pipeEnds) != 0)
        return;
    for (const int end : pipeEnds) {
        ::fcntl(end, F_SETFD, FD_CLOEXEC);
        ::fcntl(end, F_SETFL, O_NONBLOCK);
    }

    auto* notifier = new QSocketNotifier(pipeEnds[0], QSocketNotifier::Read, this);
    connect(notifier, &QSocketNotifier::activated, this, [this] {
        char bytes[64];
        while (::read(pipeEnds[0], bytes, sizeof bytes) > 0) {
        }
        Q_EMIT interrupted();
    });

    struct sigaction action = {};
    action.sa_handler = WriteToPipe;
    action.sa_flags = SA_RESTART;
    ::sigemptyset(&action.sa_mask);
    for (const int number : handledSignals) {
        // What nohup or a shell's background job has switched off stays off.
        struct sigaction previous = {};
        ::sigaction(number, nullptr, &previous);
        if (previous.sa_handler != SIG_IGN)
            ::sigaction(number, &action, nullptr);
    }

    // A reader that goes away must not end the process in the middle of a swap.
    action.sa_handler = SIG_IGN;
    ::sigaction(SIGPIPE, &action, nullptr);
}

Interrupt::~Interrupt()
{
    if (pipeEnds[0] < 0)
        return;
    // The result is told, and the process about to end with its status: nothing changes that now.
    struct sigaction action = {};
    action.sa_handler = SIG_IGN;
    for (const int number : handledSignals)
        ::sigaction(number, &action, nullptr);
    for (int& end : pipeEnds) {
        ::close(end);
        end = -1;
    }
}
