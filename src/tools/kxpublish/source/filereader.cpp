#include "filereader.h"

#include "interrupt.h"
#include "output/console.h"
#include "output/progress.h"
#include "server/disk.h"
#include "signing/sha256.h"

#include <QCryptographicHash>

#include <cstring>

namespace publish {
namespace {

// Less than `size` only at the end of the file.
qint64 ReadFully(QFile& file, QByteArray& block, qint64 size)
{
    qint64 total = 0;
    while (total < size) {
        const qint64 length = file.read(block.data() + total, size - total);
        if (length < 0)
            return -1;
        if (length == 0)
            break;
        total += length;
    }
    return total;
}

} // namespace

ReadBuffers::ReadBuffers() : first(size, Qt::Uninitialized), second(size, Qt::Uninitialized) {}

ReadResult ReadResult::Of(Kind kind, const QString& text)
{
    ReadResult result;
    result.kind = kind;
    result.text = text;
    return result;
}

FileReader::FileReader(const QString& path, const QString& name, const FileStatus& listed,
                       Digests digests, ReadBuffers& buffers, ProgressMeter* progress)
    : path(path), name(name), listed(listed), digests(digests), buffers(buffers), progress(progress)
{
}

bool FileReader::Open(ReadResult& result)
{
    int mode = 0;
    if (!OpenRegularFile(file, path, mode, result.text)) {
        result.kind = ReadResult::Changed;
        return false;
    }
    CheckUnchanged(result);
    left = listed.size;
    return result.kind == ReadResult::Good;
}

void FileReader::CheckUnchanged(ReadResult& result) const
{
    FileStatus now;
    if (ReadStatus(file, now) && now == listed)
        return;
    result.kind = ReadResult::Changed;
    result.text = now.mode == listed.mode ? QStringLiteral("it was written to or replaced")
                                          : QStringLiteral("it has another mode now");
}

// 0 at the end, negative with another result.
qint64 FileReader::ReadBlock(ReadResult& result)
{
    if (IsInterrupted()) {
        result.kind = ReadResult::Interrupted;
        return -1;
    }
    const qint64 wanted = qint64(qMin(left, quint64(ReadBuffers::size)));
    const qint64 length = ReadFully(file, buffers.first, wanted);
    if (length < 0) {
        result.kind = ReadResult::Failed;
        result.text = QStringLiteral("cannot read %1: %2").arg(Shown(name), file.errorString());
        return length;
    }
    // A file that has become shorter is found out by its status, like one that has grown.
    left = length < wanted ? 0 : left - quint64(length);
    progress->Add(0, quint64(length));
    return length;
}

ReadResult FileReader::Hash()
{
    return Read(nullptr);
}

ReadResult FileReader::CopyTo(const QString& destination)
{
    QFile copy(destination);
    if (copy.open(QIODevice::WriteOnly | QIODevice::NewOnly | QIODevice::Unbuffered))
        return Read(&copy);
    return ReadResult::Of(
        ReadResult::Failed,
        QStringLiteral("cannot write %1: %2").arg(Shown(destination), copy.errorString()));
}

ReadResult FileReader::Read(QFile* copy)
{
    ReadResult result;
    if (!Open(result))
        return result;
    QCryptographicHash hash(QCryptographicHash::Md5);
    Sha256 sha256;
    while (left > 0) {
        const qint64 length = ReadBlock(result);
        if (length < 0)
            return result;
        const QByteArrayView bytes(buffers.first.constData(), length);
        hash.addData(bytes);
        if (digests == Digests::Md5AndSha256)
            sha256.Add(bytes);
        if (copy && !WriteAll(*copy, bytes, result.text)) {
            result.kind = ReadResult::Failed;
            return result;
        }
    }
    CheckUnchanged(result);
    result.digest = hash.result();
    if (digests == Digests::Md5AndSha256)
        result.sha256 = sha256.Hex();
    return result;
}

ReadResult FileReader::CompareWith(QFile& other)
{
    ReadResult result;
    if (!Open(result))
        return result;
    FileStatus otherStatus;
    if (!ReadStatus(other, otherStatus) || otherStatus.size != listed.size)
        result.kind = ReadResult::Different;
    while (left > 0 && result.kind == ReadResult::Good) {
        const qint64 length = ReadBlock(result);
        if (length < 0)
            return result;
        if (ReadFully(other, buffers.second, length) != length ||
            std::memcmp(buffers.first.constData(), buffers.second.constData(), size_t(length)) !=
                0) {
            result.kind = ReadResult::Different;
        }
    }
    CheckUnchanged(result); // a file that changes differs for that reason
    return result;
}

} // namespace publish
