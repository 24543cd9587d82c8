#include "strictcodec.h"
#include "treeaccess.h"

#include <QFile>
#include <QStringList>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace guard {
namespace {

constexpr size_t blockSize = 256 * 1024;
constexpr size_t longestTarget = 64 * 1024;
constexpr int directoryFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;

QString Reason(int number)
{
    return qt_error_string(number);
}

/** Calls again as long as a signal interrupts. */
template <typename Call>
auto Retry(Call call)
{
    auto result = call();
    while (result < 0 && errno == EINTR)
        result = call();
    return result;
}

class Descriptor
{
public:
    explicit Descriptor(int number) : number(number) {}
    ~Descriptor() { Close(); }
    int Number() const { return number; }
    bool IsOpen() const { return number >= 0; }
    int Release() { return std::exchange(number, -1); }
    void Reset(int next)
    {
        Close();
        number = next;
    }

private:
    Q_DISABLE_COPY(Descriptor)

    void Close()
    {
        if (number >= 0)
            close(number);
    }
    int number;
};

EntryKind KindOfMode(mode_t mode)
{
    if (S_ISREG(mode))
        return EntryKind::File;
    if (S_ISDIR(mode))
        return EntryKind::Directory;
    return S_ISLNK(mode) ? EntryKind::Link : EntryKind::Special;
}

QString DecodeName(const QByteArray& bytes, bool* isText)
{
    QString name;
    *isText = DecodeUtf8(bytes, &name);
    return name;
}

} // namespace

struct TreeDirectory::Handle
{
    Descriptor directory{-1};

    /** The error number of the system, 0 for none. */
    int Attributes(const QByteArray& name, struct stat* status) const
    {
        const int result =
            fstatat(directory.Number(), name.constData(), status, AT_SYMLINK_NOFOLLOW);
        return result < 0 ? errno : 0;
    }
};

TreeDirectory::TreeDirectory() : handle(std::make_unique<Handle>()) {}

TreeDirectory::~TreeDirectory() = default;

QString TreeDirectory::Open(const QString& path)
{
    const QByteArray name = QFile::encodeName(path);
    handle->directory.Reset(Retry([&] { return open(name.constData(), directoryFlags); }));
    return handle->directory.IsOpen() ? QString() : Reason(errno);
}

QString TreeDirectory::OpenBelow(const TreeDirectory& root, const QString& name)
{
    QStringList components = name.split(QLatin1Char('/'), Qt::SkipEmptyParts);
    components.prepend(QStringLiteral("."));
    // Step by step: the system follows links among the components of a longer name.
    int parent = root.handle->directory.Number();
    for (const QString& component : std::as_const(components)) {
        const QByteArray encoded = component.toUtf8();
        const int next =
            Retry([&] { return openat(parent, encoded.constData(), directoryFlags | O_NOFOLLOW); });
        const int number = errno;
        handle->directory.Reset(next);
        if (next < 0)
            return Reason(number);
        parent = next;
    }
    return {};
}

QString TreeDirectory::List(QList<TreeEntry>* entries) const
{
    entries->clear();
    // Opened anew: a copy of the descriptor would share the position with the original.
    Descriptor own(Retry([&] { return openat(handle->directory.Number(), ".", directoryFlags); }));
    if (!own.IsOpen())
        return Reason(errno);
    const std::unique_ptr<DIR, int (*)(DIR*)> stream(fdopendir(own.Number()), closedir);
    if (!stream)
        return Reason(errno);
    own.Release();
    for (;;) {
        errno = 0;
        const dirent* found = readdir(stream.get());
        if (!found)
            return errno == 0 ? QString() : Reason(errno);
        const QByteArray name(found->d_name);
        if (name == "." || name == "..")
            continue;
        struct stat status = {};
        if (const int number = handle->Attributes(name, &status))
            return Reason(number);
        TreeEntry entry;
        entry.name = DecodeName(name, &entry.isText);
        entry.kind = KindOfMode(status.st_mode);
        entries->append(entry);
    }
}

QString TreeDirectory::Look(const QString& name, EntryKind* kind, quint64* size) const
{
    struct stat status = {};
    const int number = handle->Attributes(name.toUtf8(), &status);
    if (number != 0 && number != ENOENT)
        return Reason(number);
    *kind = number == 0 ? KindOfMode(status.st_mode) : EntryKind::Missing;
    *size = *kind == EntryKind::File ? static_cast<quint64>(status.st_size) : 0;
    return {};
}

QString TreeDirectory::ReadLink(const QString& name, QString* target, bool* isText) const
{
    QByteArray buffer(longestTarget, '\0');
    const QByteArray encoded = name.toUtf8();
    const ssize_t size = readlinkat(handle->directory.Number(), encoded.constData(), buffer.data(),
                                    static_cast<size_t>(buffer.size()));
    if (size < 0)
        return Reason(errno);
    buffer.truncate(size);
    *target = DecodeName(buffer, isText);
    return {};
}

QString TreeDirectory::Read(const QString& name, quint64 limit, const Take& take) const
{
    const QString special = QStringLiteral("it is not a regular file");
    const QByteArray encoded = name.toUtf8();
    struct stat status = {};
    if (const int number = handle->Attributes(encoded, &status))
        return Reason(number);
    // Looked at before as well: the mere opening of a device can have effects.
    if (!S_ISREG(status.st_mode))
        return special;
    const int flags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    const Descriptor file(
        Retry([&] { return openat(handle->directory.Number(), encoded.constData(), flags); }));
    if (!file.IsOpen() || fstat(file.Number(), &status) < 0)
        return Reason(errno);
    if (!S_ISREG(status.st_mode))
        return special;

    const auto size = static_cast<quint64>(status.st_size);
    if (size > limit)
        return QStringLiteral("it is larger than %1 bytes").arg(limit);
    QByteArray block(blockSize, Qt::Uninitialized);
    for (quint64 total = 0;;) {
        const ssize_t got = Retry([&] { return read(file.Number(), block.data(), blockSize); });
        if (got < 0)
            return Reason(errno);
        if (got == 0)
            return {};
        total += static_cast<quint64>(got);
        if (total > size)
            return QStringLiteral("it grew while it was read");
        take(QByteArrayView(block.constData(), got));
    }
}

} // namespace guard
