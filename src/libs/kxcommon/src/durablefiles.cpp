#include <kxcommon/durablefiles.h>

#include <kxcommon/filecommands.h>

#include "filepath.h"
#include "removetree.h"

#include <QDir>
#include <QFile>

namespace common {
namespace {

QString Failed(const char* action, const QString& path, const QString& reason)
{
    return QStringLiteral("Cannot %1 '%2': %3").arg(QLatin1String(action), path, reason);
}

QString Failed(const char* action, const QString& path, const fileops::Error& error)
{
    return Failed(action, path, Reason(error));
}

QString PathViolation(const QString& path, const SplitPath& split)
{
    if (!QDir::isAbsolutePath(path))
        return QStringLiteral("the path is not absolute");
    if (HasNull(path) || split.name.empty())
        return QStringLiteral("the path names no entry");
    return QString();
}

// Some directories may be written and not read, and cannot be brought to disk then.
fileops::Error SyncParent(const SplitPath& split)
{
    fileops::Directory parent;
    fileops::Error error = parent.Open(split.parent);
    if (!error)
        error = parent.Sync();
    if (error == std::errc::permission_denied || error == std::errc::operation_not_permitted)
        return {};
    return error;
}

fileops::Error WriteNew(const fileops::Directory& parent, const SplitPath& split,
                        const QByteArray& bytes, QString* reason)
{
    if (const fileops::Error error = parent.RemoveEntry(split.name);
        error && error != std::errc::no_such_file_or_directory)
        return error;
    QFile file(FromNative(split.Path()));
    // The permissions are the file's from its beginning; nothing that stands there is opened.
    if (!file.open(QIODevice::WriteOnly | QIODevice::NewOnly | QIODevice::Unbuffered,
                   QFileDevice::ReadOwner | QFileDevice::WriteOwner) ||
        file.write(bytes) != bytes.size()) {
        *reason = file.errorString();
        return std::make_error_code(std::errc::io_error);
    }
    file.close();
    return parent.SyncFile(split.name);
}

} // namespace

QString DurableFiles::HiddenSibling(const QString& path, const QString& suffix)
{
    const SplitPath split = Split(path);
    return FromNative(split.parent / HiddenName(split.name, suffix.toUtf8().constData()));
}

QString DurableFiles::Write(const QString& path, const QByteArray& bytes)
{
    const SplitPath split = Split(path);
    if (const QString violation = PathViolation(path, split); !violation.isEmpty())
        return Failed("write", path, violation);
    const SplitPath temporary = Split(HiddenSibling(path, QStringLiteral(".kxtmp")));
    fileops::Directory parent;
    if (const fileops::Error error = parent.OpenAnchor(split.parent))
        return Failed("write", path, error);

    QString reason;
    fileops::Error error = WriteNew(parent, temporary, bytes, &reason);
    if (!error)
        error = parent.Replace(temporary.name, split.name);
    if (error) {
        parent.RemoveEntry(temporary.name);
        return Failed("write", path, reason.isEmpty() ? Reason(error) : reason);
    }
    if ((error = SyncParent(split)))
        return Failed("bring to disk", path, error);
    return QString();
}

QString DurableFiles::Remove(const QString& path)
{
    const SplitPath split = Split(path);
    if (const QString violation = PathViolation(path, split); !violation.isEmpty())
        return Failed("remove", path, violation);
    fileops::Directory parent;
    fileops::Error error = parent.OpenAnchor(split.parent);
    if (!error)
        error = parent.RemoveEntry(split.name);
    if (error == std::errc::no_such_file_or_directory)
        return QString();
    if (!error)
        error = SyncParent(split);
    return error ? Failed("remove", path, error) : QString();
}

QString DurableFiles::RemoveTree(const QString& path)
{
    const SplitPath split = Split(path);
    if (const QString violation = PathViolation(path, split); !violation.isEmpty())
        return Failed("remove", path, violation);
    const QDir home = QDir::home();
    if (home.exists() && QDir(path).canonicalPath() == home.canonicalPath())
        return Failed("remove", path, QStringLiteral("it is the home directory"));
    fileops::Directory parent;
    fileops::Error error = parent.OpenAnchor(split.parent);
    if (error == std::errc::no_such_file_or_directory)
        return QString();
    fileops::Attributes attributes;
    if (!error)
        error = parent.Read(split.name, &attributes);
    if (error)
        return Failed("remove", path, error);
    if (attributes.kind == fileops::Kind::File || attributes.kind == fileops::Kind::Special)
        return Failed("remove", path, QStringLiteral("it is not a directory"));
    const RemoveResult result =
        common::RemoveTree(parent, split.name, split.Path(), [] { return true; });
    if (result.error)
        return Failed("remove", FromNative(result.path), result.error);
    error = SyncParent(split);
    return error ? Failed("remove", path, error) : QString();
}

QString DurableFiles::Rename(const QString& from, const QString& to)
{
    QDir directory(from);
    if (!FileCommands::RenameDirectory(directory, from, to))
        return QStringLiteral("Cannot rename '%1' to '%2'").arg(from, to);
    for (const QString& path : {to, from}) {
        if (const fileops::Error error = SyncParent(Split(path)))
            return Failed("bring to disk", path, error);
    }
    return QString();
}

QString DurableFiles::SyncDirectoryOf(const QString& path)
{
    const SplitPath split = Split(path);
    if (const QString violation = PathViolation(path, split); !violation.isEmpty())
        return Failed("bring to disk", path, violation);
    const fileops::Error error = SyncParent(split);
    return error ? Failed("bring to disk", path, error) : QString();
}

} // namespace common
