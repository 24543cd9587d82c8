#include "treebuilder.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRandomGenerator>

#include <filesystem>
#include <system_error>

namespace kxtest {
namespace {

namespace fs = std::filesystem;

// QFileInfo follows links and cannot tell the text of one; the standard library can do both.
fs::path ToPath(const QString& path)
{
    return fs::path(QFile::encodeName(path).toStdString());
}

QString FromPath(const fs::path& path)
{
    return QFile::decodeName(QByteArray::fromStdString(path.string()));
}

void Require(bool good, const char* action, const QString& path)
{
    if (!good)
        qFatal("test tree: cannot %s '%s'", action, qPrintable(path));
}

QString Octal(fs::perms mode)
{
    return QString::number(static_cast<int>(mode & fs::perms::mask), 8);
}

QString LineOf(const fs::directory_entry& entry, const QString& name)
{
    const fs::file_status status = entry.symlink_status();
    const QString path = FromPath(entry.path());
    if (fs::is_symlink(status))
        return name + QStringLiteral(" link ") + LinkText(path);
    const QString mode = Octal(status.permissions());
    if (fs::is_directory(status))
        return name + QStringLiteral(" dir ") + mode;
    if (!fs::is_regular_file(status))
        return name + QStringLiteral(" special ") + mode;
    return QStringLiteral("%1 file %2 %3 %4")
        .arg(name, mode, QString::number(entry.file_size()), MD5OfFile(path));
}

void Collect(const QString& directory, const QString& prefix, QStringList& lines)
{
    for (const fs::directory_entry& entry : fs::directory_iterator(ToPath(directory))) {
        const QString name = prefix + FromPath(entry.path().filename());
        lines << LineOf(entry, name);
        if (fs::is_directory(entry.symlink_status()))
            Collect(FromPath(entry.path()), name + QLatin1Char('/'), lines);
    }
}

} // namespace

TreeBuilder::TreeBuilder() : temporary(std::make_unique<QTemporaryDir>())
{
    Require(temporary->isValid(), "make", QDir::tempPath());
    root = QDir(temporary->path()).canonicalPath();
}

TreeBuilder::TreeBuilder(const QString& root) : root(root)
{
    Require(QDir().mkpath(root), "make", root);
}

TreeBuilder& TreeBuilder::Dir(const QString& name, int mode)
{
    Require(QDir().mkpath(Path(name)), "make", Path(name));
    SetMode(Path(name), mode);
    return *this;
}

TreeBuilder& TreeBuilder::File(const QString& name, const QByteArray& bytes, int mode)
{
    MakeParent(Path(name));
    Write(Path(name), bytes);
    SetMode(Path(name), mode);
    return *this;
}

TreeBuilder& TreeBuilder::RandomFile(const QString& name, qint64 size, quint32 seed, int mode)
{
    return File(name, RandomBytes(size, seed), mode);
}

TreeBuilder& TreeBuilder::Sparse(const QString& name, qint64 size)
{
    File(name, {});
    Require(QFile::resize(Path(name), size), "resize", Path(name));
    return *this;
}

TreeBuilder& TreeBuilder::Symlink(const QString& name, const QString& target)
{
    MakeParent(Path(name));
    std::error_code error;
    fs::create_symlink(ToPath(target), ToPath(Path(name)), error);
    Require(!error, "make the link", Path(name));
    return *this;
}

TreeBuilder& TreeBuilder::Remove(const QString& name)
{
    kxtest::Remove(Path(name));
    return *this;
}

void TreeBuilder::MakeParent(const QString& path)
{
    const QString parent = path.left(path.lastIndexOf(QLatin1Char('/')));
    Require(QDir().mkpath(parent), "make", parent);
}

QStringList Snapshot(const QString& root)
{
    if (!Exists(root))
        return {QStringLiteral("(missing)")};
    QStringList lines;
    Collect(root, {}, lines);
    lines.sort();
    return lines;
}

QByteArray RandomBytes(qint64 size, quint32 seed)
{
    QRandomGenerator generator(seed);
    QByteArray bytes((size + 3) / 4 * 4, Qt::Uninitialized);
    generator.fillRange(reinterpret_cast<quint32*>(bytes.data()), bytes.size() / 4);
    bytes.truncate(size);
    return bytes;
}

QString MD5Of(const QByteArray& bytes)
{
    return QString::fromLatin1(QCryptographicHash::hash(bytes, QCryptographicHash::Md5).toHex());
}

QString MD5OfFile(const QString& path)
{
    QFile file(path);
    QCryptographicHash hash(QCryptographicHash::Md5);
    if (!file.open(QIODevice::ReadOnly) || !hash.addData(&file))
        return QStringLiteral("(unreadable)");
    return QString::fromLatin1(hash.result().toHex());
}

QByteArray Read(const QString& path)
{
    QFile file(path);
    Require(file.open(QIODevice::ReadOnly), "read", path);
    return file.readAll();
}

void Write(const QString& path, const QByteArray& bytes)
{
    QFile file(path);
    Require(file.open(QIODevice::WriteOnly | QIODevice::Truncate), "open", path);
    Require(file.write(bytes) == bytes.size() && file.flush(), "write", path);
}

void Remove(const QString& path)
{
    std::error_code error;
    fs::remove_all(ToPath(path), error);
    Require(!error, "remove", path);
}

void SetMode(const QString& path, int mode)
{
    std::error_code error;
    fs::permissions(ToPath(path), static_cast<fs::perms>(mode), error);
    Require(!error, "set the mode of", path);
}

int Mode(const QString& path)
{
    std::error_code error;
    const fs::file_status status = fs::symlink_status(ToPath(path), error);
    Require(!error, "read the mode of", path);
    return static_cast<int>(status.permissions());
}

bool Exists(const QString& path)
{
    std::error_code error;
    return fs::exists(fs::symlink_status(ToPath(path), error));
}

QString LinkText(const QString& path)
{
    std::error_code error;
    return FromPath(fs::read_symlink(ToPath(path), error));
}

} // namespace kxtest
