#pragma once

#include <QList>
#include <QString>
#include <QStringList>

namespace guard {

/** An entry of a tree that is no directory. */
struct InventoryEntry
{
    enum Kind { File, Link, Special };

    QString name; //!< relative path, "/" as separator
    Kind kind = File;
    quint64 size = 0;
    qint64 changed = 0; //!< milliseconds since 1970 of its last change, also of its attributes
    QString target;     //!< of a link, as it stands
};

/**
 * The files, links and special files of the tree at `root`, hidden ones included, sorted by name;
 * no link is followed, nothing is opened. A root that is no directory has no entries. False when a
 * directory could not be listed; `unreadable` is its path then. `directories`, where wanted, are
 * the names of all directories, empty ones too, with an empty name for the root.
 */
bool TakeInventory(const QString& root, QList<InventoryEntry>* entries, QString* unreadable,
                   QStringList* directories = nullptr);

} // namespace guard
