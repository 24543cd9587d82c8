#include "diskusage.h"

#include <QDir>
#include <QFileInfo>
#include <QHashFunctions>

#include <qt_windows.h>

namespace publish {

bool LookAtFile(const QString& path, DiskFile& file)
{
    const QFileInfo info(path);
    if (!info.exists() && !info.isSymLink())
        return false;
    // For a volume that does not tell: one file a path.
    file.identity = qMakePair(quint64(0), quint64(qHash(path)));
    file.names = 1;
    file.bytes = quint64(info.size());
    const std::wstring native = QDir::toNativeSeparators(path).toStdWString();
    const HANDLE handle = CreateFileW(
        native.c_str(), 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
        OPEN_EXISTING, FILE_FLAG_OPEN_REPARSE_POINT | FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (handle == INVALID_HANDLE_VALUE)
        return true;
    BY_HANDLE_FILE_INFORMATION found;
    if (GetFileInformationByHandle(handle, &found)) {
        file.identity = qMakePair(quint64(found.dwVolumeSerialNumber),
                                  quint64(found.nFileIndexHigh) << 32 | found.nFileIndexLow);
        file.names = found.nNumberOfLinks;
    }
    CloseHandle(handle);
    return true;
}

} // namespace publish
