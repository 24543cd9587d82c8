#include "removeworker.h"

#include "filepath.h"
#include "filewalk.h"
#include "removetree.h"

#include <kxcommon/errors.h>

#include <QDir>

namespace common {
namespace {

Failure Failed(int code, const QString& path, const QString& reason)
{
    return {code, QStringLiteral("Cannot remove directory '%1': %2").arg(path, reason)};
}

bool IsMissing(const fileops::Error& error)
{
    return error == std::errc::no_such_file_or_directory || error == std::errc::not_a_directory;
}

} // namespace

RemoveWorker::RemoveWorker(QObject* parent)
    : FileWorker(parent, RemoveStart, QStringLiteral("Cannot start the removal")),
      home(QDir::homePath())
{
}

RemoveWorker::~RemoveWorker()
{
    Stop();
}

void RemoveWorker::AddDirectory(const QString& path)
{
    if (!IsStarted())
        paths << path;
}

Failure RemoveWorker::Work()
{
    std::uint64_t total = 0;
    for (const QString& path : std::as_const(paths))
        total = AddSaturated(total, Count(path));
    SetTotal(total);
    for (const QString& path : std::as_const(paths)) {
        if (IsAborted())
            return {abandoned, {}};
        if (Failure failure = RemoveDirectory(path))
            return failure;
        Advance(1);
    }
    return {};
}

// What cannot be counted is found out by the removal.
std::uint64_t RemoveWorker::Count(const QString& path) const
{
    const SplitPath split = Split(path);
    fileops::Directory parent;
    fileops::Directory root;
    std::uint64_t count = 1;
    if (split.name.empty() || parent.OpenAnchor(split.parent) || root.OpenChild(parent, split.name))
        return count;
    FileWalk walk(FileWalk::KindsOnly);
    walk.Begin(std::move(root), split.Path());
    for (FileWalk::Step step = walk.Next(); step != FileWalk::Step::End; step = walk.Next()) {
        if (IsAborted())
            break;
        if (step == FileWalk::Step::Entry || step == FileWalk::Step::Leave)
            ++count;
    }
    return count;
}

Failure RemoveWorker::RemoveDirectory(const QString& path)
{
    if (path.isEmpty())
        return Failed(RemoveForbidden, path, QStringLiteral("the path is empty"));
    if (HasNull(path))
        return Failed(RemoveForbidden, path, QStringLiteral("the path has a null character"));
    if (!QDir::isAbsolutePath(path))
        return Failed(RemoveForbidden, path, QStringLiteral("the path is not absolute"));

    // Refused by its letters too: a detour through a missing directory does not make it another.
    const QString cleaned = QDir::cleanPath(path);
    if (cleaned == QDir::cleanPath(home))
        return Failed(RemoveForbidden, path, QStringLiteral("it is the home directory"));
    if (QDir(cleaned).isRoot())
        return Failed(RemoveForbidden, path, QStringLiteral("it is the root directory"));

    SplitPath split = Split(path);
    fileops::Directory parent;
    if (split.name.empty()) {
        // A root, or a path that ends in "..": what that means is known to the file system only.
        std::error_code error;
        const fileops::Path canonical = std::filesystem::canonical(split.parent, error);
        if (IsMissing(error))
            return {};
        if (error)
            return Failed(RemoveFailed, path, Reason(error));
        split = Split(FromNative(canonical));
        if (split.name.empty())
            return Failed(RemoveForbidden, path, QStringLiteral("it is the root directory"));
    }
    if (const fileops::Error error = parent.OpenAnchor(split.parent))
        return IsMissing(error) ? Failure() : Failed(RemoveFailed, path, Reason(error));

    fileops::Attributes attributes;
    if (const fileops::Error error = parent.Read(split.name, &attributes))
        return Failed(RemoveFailed, path, Reason(error));
    if (attributes.kind == fileops::Kind::Missing)
        return {};
    if (attributes.kind != fileops::Kind::Directory && attributes.kind != fileops::Kind::Link)
        return Failed(RemoveNotADirectory, path, QStringLiteral("it is not a directory"));
    if (attributes.kind == fileops::Kind::Directory) {
        // Compared by identity, since a directory has more than one spelling.
        fileops::Directory directory;
        fileops::Attributes other;
        const fileops::Path root = split.parent.root_path();
        if (!directory.OpenAnchor(root) && !directory.Read(&other) && other.IsSameEntry(attributes))
            return Failed(RemoveForbidden, path, QStringLiteral("it is the root directory"));
        if (!directory.OpenAnchor(ToNative(home)) && !directory.Read(&other) &&
            other.IsSameEntry(attributes))
            return Failed(RemoveForbidden, path, QStringLiteral("it is the home directory"));
    }

    const RemoveResult result =
        RemoveTree(parent, split.name, split.Path(), [this] { return Advance(1); });
    if (!result.error)
        return {};
    if (IsAborted())
        return {abandoned, {}};
    const QString what = result.isListing ? QStringLiteral("listing") : QStringLiteral("removing");
    return Failed(
        result.isListing ? RemoveList : RemoveFailed, path,
        QStringLiteral("%1 '%2': %3").arg(what, FromNative(result.path), Reason(result.error)));
}

} // namespace common
