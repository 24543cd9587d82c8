#include "platform.h"

#include <QDateTime>
#include <QDir>
#include <QFileInfo>

#include <qt_windows.h>

namespace publish {
namespace {

int ModeOf(const QFileInfo& info)
{
    // The flags of owner, group and others stand at 0x7000, 0x0070 and 0x0007.
    const int flags = int(info.permissions());
    return ((flags & 0x7000) >> 6) | ((flags & 0x0070) >> 1) | (flags & 0x0007);
}

FileStatus StatusOf(const QFileInfo& info)
{
    FileStatus status;
    status.mode = ModeOf(info);
    status.size = quint64(info.size());
    status.modifiedNs = info.lastModified().toMSecsSinceEpoch() * 1000000;
    return status;
}

QByteArray TargetOf(const QFileInfo& info)
{
    return info.absoluteDir().relativeFilePath(info.symLinkTarget()).toUtf8();
}

} // namespace

bool ListDirectory(const QString& path, QList<TreeEntry>& entries, QString& error)
{
    const QDir directory(path);
    if (!directory.isReadable()) {
        error = QStringLiteral("the directory cannot be listed");
        return false;
    }
    const QFileInfoList infos = directory.entryInfoList(
        QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDir::NoSort);
    for (const QFileInfo& info : infos) {
        TreeEntry entry;
        entry.name = info.fileName();
        entry.nativeName = entry.name.toUtf8();
        entry.hidden = info.isHidden() || entry.name.startsWith(QLatin1Char('.'));
        entry.status = StatusOf(info);
        if (info.isSymLink()) {
            entry.kind = TreeEntry::Link;
            entry.nativeTarget = TargetOf(info);
        } else if (info.isDir()) {
            entry.kind = TreeEntry::Directory;
        } else if (info.isFile()) {
            entry.kind = TreeEntry::RegularFile;
        }
        entries.append(entry);
    }
    return true;
}

QByteArray ReadLink(const QString& path)
{
    const QFileInfo info(path);
    return info.isSymLink() ? TargetOf(info) : QByteArray();
}

bool OpenRegularFile(QFile& file, const QString& path, int& mode, QString& error)
{
    const QFileInfo info(path);
    if (info.isSymLink() || (info.exists() && !info.isFile())) {
        error = QStringLiteral("not a regular file");
        return false;
    }
    file.setFileName(path);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Unbuffered)) {
        error = file.errorString();
        return false;
    }
    mode = ModeOf(info);
    return true;
}

bool CanRead(const QString& path, QString& error)
{
    QFile file;
    int mode = 0;
    return OpenRegularFile(file, path, mode, error);
}

bool ReadStatus(const QFile& file, FileStatus& status)
{
    status = StatusOf(QFileInfo(file.fileName()));
    return true;
}

bool ReadStatus(const QString& path, FileStatus& status)
{
    const QFileInfo info(path);
    status = StatusOf(info);
    return info.isFile() && !info.isSymLink();
}

bool SyncPath(const QString& path, QString& error)
{
    // Directories have no buffers of their own here.
    if (QFileInfo(path).isDir())
        return true;
    const std::wstring native = QDir::toNativeSeparators(path).toStdWString();
    const HANDLE handle = CreateFileW(native.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                                      OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (handle == INVALID_HANDLE_VALUE) {
        error = qt_error_string(int(GetLastError()));
        return false;
    }
    const bool synced = FlushFileBuffers(handle);
    if (!synced)
        error = qt_error_string(int(GetLastError()));
    CloseHandle(handle);
    return synced;
}

bool SyncVolume(const QString&, QString&)
{
    return false; // needs rights that a publisher need not have
}

bool RemoveAbandonedLock(const QString& path)
{
    // The system refuses to remove a file that a process has open.
    return QFileInfo(path).size() == 0 && QFile::remove(path);
}

void LetOthersRead() {}

bool HasTerminal()
{
    DWORD mode = 0;
    return GetConsoleMode(GetStdHandle(STD_ERROR_HANDLE), &mode);
}

int MaxPathLength()
{
    return 32766;
}

} // namespace publish
