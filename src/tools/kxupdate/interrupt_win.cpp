#include "interrupt.h"

#include <windows.h>

#include <atomic>

namespace {

std::atomic<Interrupt*> receiver{nullptr};

// Runs on a thread of the system's. True keeps the process alive, except for a closed window, a
// log-off or a shutdown: there the process ends when this returns, so it does not.
BOOL WINAPI HandleControl(DWORD type)
{
    Interrupt* interrupt = receiver;
    if (!interrupt)
        return FALSE;
    QMetaObject::invokeMethod(interrupt, "interrupted", Qt::QueuedConnection);
    if (type != CTRL_C_EVENT && type != CTRL_BREAK_EVENT)
        Sleep(INFINITE);
    return TRUE;
}

} // namespace

Interrupt::Interrupt(QObject* parent) : QObject(parent)
{
    receiver = this;
    SetConsoleCtrlHandler(HandleControl, TRUE);
}

Interrupt::~Interrupt()
{
    SetConsoleCtrlHandler(HandleControl, FALSE);
    receiver = nullptr;
}
