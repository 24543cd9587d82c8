#include "runningprograms.h"

#include <QDir>
#include <QFileInfo>

#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>
// After windows.h, whose types it needs.
#include <tlhelp32.h>

namespace guard {
namespace {

QString ProgramOf(DWORD process)
{
    const HANDLE opened = ::OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, process);
    if (!opened)
        return QString();
    wchar_t path[32768];
    DWORD size = DWORD(std::size(path));
    const bool isKnown = ::QueryFullProcessImageNameW(opened, 0, path, &size);
    ::CloseHandle(opened);
    return isKnown ? QDir::fromNativeSeparators(QString::fromWCharArray(path, int(size)))
                   : QString();
}

} // namespace

RunningProgram FindRunningProgram(const QString& directory)
{
    const QString canonical = QFileInfo(directory).canonicalFilePath();
    if (canonical.isEmpty())
        return {};
    const QString inside = canonical + QLatin1Char('/');
    const HANDLE list = ::CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
    if (list == INVALID_HANDLE_VALUE)
        return {};
    RunningProgram found;
    PROCESSENTRY32W entry = {};
    entry.dwSize = sizeof entry;
    for (BOOL more = ::Process32FirstW(list, &entry); more && found.process == 0;
         more = ::Process32NextW(list, &entry)) {
        if (entry.th32ProcessID == ::GetCurrentProcessId())
            continue;
        const QString path = ProgramOf(entry.th32ProcessID);
        if (path.startsWith(inside, Qt::CaseInsensitive))
            found = {qint64(entry.th32ProcessID), path};
    }
    ::CloseHandle(list);
    return found;
}

} // namespace guard
