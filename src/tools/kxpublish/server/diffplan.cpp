#include "commands/diffcommand.h"

#include "filediff.h"

#include <QHash>

#include <algorithm>

namespace publish {
namespace {

using updater::File;
using updater::FileList;
using Entry = DiffResult::Entry;

// What a client has of a build is what its scan reports, and that writes digests in lower case.
FileList AsScanned(const FileList& files)
{
    FileList scanned;
    scanned.reserve(files.size());
    for (const File& file : files)
        scanned.append(File(file.Name(), file.MD5().toLower(), file.Size(),
                            file.PermissionsString(), file.SymlinkPath()));
    return scanned;
}

QHash<QString, File> ByName(const FileList& files)
{
    QHash<QString, File> found;
    for (const File& file : files)
        found.insert(file.Name(), file);
    return found;
}

QString ContentsKey(const File& file)
{
    return QString::number(file.Size()) + QLatin1Char(' ') + file.MD5().toLower();
}

void AddAdditions(const FileList& before, const FileList& after, DiffResult& result)
{
    const QHash<QString, File> old = ByName(before);
    QHash<QString, QString> contents;
    for (const File& file : before) {
        if (!file.IsSymlink())
            contents.insert(ContentsKey(file), file.Name());
    }
    for (const File& file : updater::Difference(after, before)) {
        Entry entry = {file.IsSymlink() ? DiffResult::Link : DiffResult::Download,
                       DiffResult::New,
                       file.Name(),
                       file.Size(),
                       0,
                       {}};
        const auto same = old.constFind(file.Name());
        const auto moved = contents.constFind(ContentsKey(file));
        if (same != old.constEnd()) {
            entry.cause = DiffResult::Changed;
            entry.before = same->IsSymlink() ? 0 : same->Size();
        } else if (!file.IsSymlink() && file.Size() > 0 && moved != contents.constEnd()) {
            entry.cause = DiffResult::Moved;
            entry.origin = moved.value();
        }
        result.entries.append(entry);
    }
}

void AddModes(const FileList& before, const FileList& after, DiffResult& result)
{
    const QHash<QString, File> old = ByName(before);
    for (const File& file : after) {
        const auto same = old.constFind(file.Name());
        if (same != old.constEnd() && *same == file && !file.IsSymlink() &&
            same->PermissionsString() != file.PermissionsString())
            result.modes.append({file.Name(), same->PermissionsString(), file.PermissionsString()});
    }
}

} // namespace

DiffResult PlanUpdate(const Manifest& from, const Manifest& to)
{
    DiffResult result;
    result.programBefore = from.executable;
    result.programAfter = to.executable;
    const FileList before = AsScanned(from.files);
    AddAdditions(before, to.files, result);
    const QHash<QString, File> kept = ByName(to.files);
    for (const File& file : updater::Difference(before, to.files))
        result.entries.append({DiffResult::Drop,
                               kept.contains(file.Name()) ? DiffResult::Changed : DiffResult::Gone,
                               file.Name(),
                               file.Size(),
                               0,
                               {}});
    for (const File& file : updater::Intersection(before, to.files))
        result.entries.append(
            {DiffResult::Copy, DiffResult::Unchanged, file.Name(), file.Size(), 0, {}});
    AddModes(before, to.files, result);
    std::sort(result.entries.begin(), result.entries.end(), [](const Entry& a, const Entry& b) {
        return a.bytes != b.bytes ? a.bytes > b.bytes
               : a.name != b.name ? a.name < b.name
                                  : a.kind < b.kind;
    });
    return result;
}

DiffResult::Sum DiffResult::SumOf(Kind kind) const
{
    Sum sum;
    for (const Entry& entry : entries) {
        if (entry.kind == kind) {
            ++sum.count;
            sum.bytes += entry.bytes;
        }
    }
    return sum;
}

DiffResult::Sum DiffResult::SumOf(Kind kind, Cause cause) const
{
    Sum sum;
    for (const Entry& entry : entries) {
        if (entry.kind == kind && entry.cause == cause) {
            ++sum.count;
            sum.bytes += entry.bytes;
        }
    }
    return sum;
}

} // namespace publish
