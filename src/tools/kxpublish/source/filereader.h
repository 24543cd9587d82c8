#pragma once

#include "platform.h"

#include <QByteArray>
#include <QFile>
#include <QString>

namespace publish {

class ProgressMeter;

/** What one thread reads and compares with: made once, used for each of its files. */
struct ReadBuffers
{
    static constexpr qint64 size = 256 * 1024;

    QByteArray first;
    QByteArray second;

    ReadBuffers();
};

/** How a file was left by whoever has worked with it. */
struct ReadResult
{
    enum Kind {
        Good,
        Different,   //!< compared files have other contents
        Changed,     //!< the file is not what was listed; `text` tells how
        Failed,      //!< the system failed; `text` tells why, and the path
        Interrupted, //!< by the user
    };
    Kind kind = Good;
    QString text;
    QByteArray digest; //!< MD5, 16 bytes, where one was asked for
    QByteArray sha256; //!< hexadecimal digits, where they were asked for

    static ReadResult Of(Kind kind, const QString& text);
};

/** Which digests a file gets while it is read. */
enum class Digests {
    Md5,
    Md5AndSha256,
};

/**
 * A file of a tree that was listed before, for reading it once from its beginning to its end. What
 * has been written to or replaced since then is found out when the file is opened and once more
 * when it has been read.
 */
class FileReader
{
public:
    /** `progress` is told of the bytes on their way; it is not owned. */
    FileReader(const QString& path, const QString& name, const FileStatus& listed, Digests digests,
               ReadBuffers& buffers, ProgressMeter* progress);

    ReadResult Hash();
    /** Copies into the new file `destination`, which stays when that fails, and hashes. */
    ReadResult CopyTo(const QString& destination);
    /** Good or Different, by every byte of `other`, which is open at its beginning. */
    ReadResult CompareWith(QFile& other);

private:
    bool Open(ReadResult& result);
    qint64 ReadBlock(ReadResult& result);
    void CheckUnchanged(ReadResult& result) const;
    ReadResult Read(QFile* copy);

    QString path;
    QString name;
    FileStatus listed;
    Digests digests;
    ReadBuffers& buffers;
    ProgressMeter* progress;
    QFile file;
    quint64 left = 0; // bytes that are still to come, if the file is as it was listed
};

} // namespace publish
