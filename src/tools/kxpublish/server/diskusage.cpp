#include "diskusage.h"

#include "source/platform.h"

namespace publish {

void DiskUsage::Add(const QString& path)
{
    QList<TreeEntry> entries;
    QString ignored; // what cannot be listed is not counted
    ListDirectory(path, entries, ignored);
    for (const TreeEntry& entry : std::as_const(entries)) {
        const QString entryPath =
            path + QLatin1Char('/') +
            (entry.name.isEmpty() ? QFile::decodeName(entry.nativeName) : entry.name);
        if (entry.kind == TreeEntry::Directory) {
            Add(entryPath);
            continue;
        }
        DiskFile file;
        if (entry.kind != TreeEntry::RegularFile || !LookAtFile(entryPath, file))
            continue;
        Seen& seen = files[file.identity];
        seen.file = file;
        ++seen.namesHere;
    }
}

quint64 DiskUsage::OwnBytes() const
{
    quint64 bytes = 0;
    for (const Seen& seen : files) {
        if (seen.namesHere >= seen.file.names)
            bytes += seen.file.bytes;
    }
    return bytes;
}

} // namespace publish
