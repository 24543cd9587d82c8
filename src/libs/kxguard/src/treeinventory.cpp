#include "treeinventory.h"

#include "nativepath.h"

#include <QDateTime>
#include <QFileInfo>

#include <algorithm>
#include <filesystem>

namespace guard {
namespace {

namespace fs = std::filesystem;

InventoryEntry Entry(const fs::directory_entry& found, const QString& name)
{
    InventoryEntry entry;
    entry.name = name;
    std::error_code ignored;
    const fs::file_status status = found.symlink_status(ignored);
    if (fs::is_symlink(status)) {
        entry.kind = InventoryEntry::Link;
        entry.target = FromNative(fs::read_symlink(found.path(), ignored));
        return entry;
    }
    entry.kind = fs::is_regular_file(status) ? InventoryEntry::File : InventoryEntry::Special;
    const QFileInfo info(FromNative(found.path()));
    entry.size = quint64(info.size());
    entry.changed = qMax(info.lastModified().toMSecsSinceEpoch(),
                         info.metadataChangeTime().toMSecsSinceEpoch());
    return entry;
}

} // namespace

bool TakeInventory(const QString& root, QList<InventoryEntry>* entries, QString* unreadable,
                   QStringList* directories)
{
    entries->clear();
    std::error_code error;
    const fs::path top = ToNative(root);
    if (!fs::is_directory(fs::symlink_status(top, error)))
        return true;

    struct Level
    {
        fs::path path;
        QString name;
    };
    QList<Level> open{{top, QString()}};
    while (!open.isEmpty()) {
        const Level level = open.takeLast();
        if (directories)
            directories->append(level.name.chopped(level.name.isEmpty() ? 0 : 1));
        fs::directory_iterator walk(level.path, error);
        for (; !error && walk != fs::directory_iterator(); walk.increment(error)) {
            const QString name = level.name + FromNative(walk->path().filename());
            std::error_code ignored;
            if (walk->symlink_status(ignored).type() == fs::file_type::directory)
                open.append({walk->path(), name + QLatin1Char('/')});
            else
                entries->append(Entry(*walk, name));
        }
        if (error) {
            *unreadable = FromNative(level.path);
            return false;
        }
    }
    std::sort(entries->begin(), entries->end(),
              [](const InventoryEntry& a, const InventoryEntry& b) { return a.name < b.name; });
    return true;
}

} // namespace guard
