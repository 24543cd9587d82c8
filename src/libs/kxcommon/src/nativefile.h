#pragma once

#include <QFileDevice>
#include <QString>

namespace common::http {

/**
 * A regular file of the local disk that is never reached through a link at its own path.
 * Links among its directories are followed. Used by one thread at a time; blocks.
 */
class NativeFile
{
public:
    /** What stands at a path, without following a link. */
    enum class Entry { Missing, RegularFile, Directory, Other };

    NativeFile() = default;
    ~NativeFile();

    static Entry EntryAt(const QString& path, qint64* size = nullptr);

    /** Opens an existing regular file for reading; false for anything else. */
    bool OpenExisting(const QString& path);

    enum class Opened { Yes, Busy, Failed };
    /**
     * Opens a file for reading and writing that no other process writes, or makes it.
     * What is no regular file with this one name (a link, a FIFO, a hard link) is removed first,
     * a directory is a failure.
     */
    Opened OpenForWriting(const QString& path);

    bool IsOpen() const { return handle != invalid; }
    qint64 Size() const;
    /** Number of bytes read, 0 at the end, -1 on failure. */
    qint64 Read(char* data, qint64 count);
    bool Write(const char* data, qint64 count);
    /** Drops the content and goes to the beginning. */
    bool Truncate();
    /** Does nothing when they are what is asked for. */
    bool SetPermissions(QFileDevice::Permissions permissions);
    void Close();

    /** Renames into place, over a file or a link, never over a directory. The handle is closed. */
    bool MoveTo(const QString& destination);
    static void Remove(const QString& path);

    /** The system's words for the last failure. */
    QString ErrorText() const { return errorText; }
    /** True when the last failure was that the volume is full. */
    bool IsNoSpace() const { return noSpace; }

private:
    Q_DISABLE_COPY(NativeFile)

    static constexpr qintptr invalid = -1;

    bool Fail();

    qintptr handle = invalid;
    QString openPath;
    QString errorText;
    bool noSpace = false;
};

} // namespace common::http
