#include <kxupdater/file.h>

#include <QHashFunctions>

namespace updater {

File::File() = default;

File::File(const QString& name, const QString& md5, quint64 size, const QString& permissions,
           const QString& symlinkPath)
    : name(name), md5(md5), permissions(permissions), size(size), symlinkPath(symlinkPath)
{
}

File::File(const File& other) = default;
File& File::operator=(const File& other) = default;
File::~File() = default;

bool File::operator==(const File& other) const
{
    return size == other.size && name == other.name &&
           md5.compare(other.md5, Qt::CaseInsensitive) == 0 &&
           symlinkPath.isEmpty() == other.symlinkPath.isEmpty() && symlinkPath == other.symlinkPath;
}

QString File::Name() const
{
    return name;
}

QString File::MD5() const
{
    return md5;
}

quint64 File::Size() const
{
    return size;
}

QString File::PermissionsString() const
{
    return permissions;
}

QFileDevice::Permissions File::Permissions() const
{
    struct Position
    {
        char letter;
        QFileDevice::Permission flag;
    };
    static constexpr Position positions[] = {
        {'r', QFileDevice::ReadOwner}, {'w', QFileDevice::WriteOwner}, {'x', QFileDevice::ExeOwner},
        {'r', QFileDevice::ReadGroup}, {'w', QFileDevice::WriteGroup}, {'x', QFileDevice::ExeGroup},
        {'r', QFileDevice::ReadOther}, {'w', QFileDevice::WriteOther}, {'x', QFileDevice::ExeOther},
    };

    QFileDevice::Permissions flags;
    if (permissions.size() < 10)
        return flags;
    qsizetype index = 1; // the first character is the type of the entry
    for (const Position& position : positions) {
        if (permissions.at(index++) == QLatin1Char(position.letter))
            flags |= position.flag;
    }
    return flags;
}

bool File::IsSymlink() const
{
    return !symlinkPath.isEmpty();
}

QString File::SymlinkPath() const
{
    return symlinkPath;
}

size_t qHash(const File& file, size_t seed)
{
    return ::qHash(file.size, seed) ^ ::qHash(QStringView(file.md5), seed) ^
           ::qHash(QStringView(file.name), seed);
}

} // namespace updater
