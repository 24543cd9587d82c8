#include "packagecheck.h"

#include "exposure.h"

#include <kxupdater/package.h>

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHash>

namespace guard {
namespace {

QString PathOf(const QString& root, const QString& name)
{
    return root + QLatin1Char('/') + name;
}

Problem Differs(const QString& root, const QString& kind, const QStringList& names)
{
    return {PackageDiffers, QStringLiteral("The download directory '%1' is not exactly the "
                                           "package: %2: %3.")
                                .arg(root, kind, Sample(names))};
}

bool IsMeantWritable(const updater::File& record)
{
    return record.Permissions().testFlag(QFileDevice::WriteOther);
}

// As the scans of the updater see a link: what its target is from the link's directory.
bool HasTarget(const QString& path, const InventoryEntry& entry, const updater::File& record)
{
    if (entry.target == record.SymlinkPath())
        return true;
    const QFileInfo info(path);
    return info.absoluteDir().relativeFilePath(info.symLinkTarget()) == record.SymlinkPath();
}

bool HasKindAndSize(const QString& path, const InventoryEntry& entry, const updater::File& record)
{
    if (record.IsSymlink())
        return entry.kind == InventoryEntry::Link && HasTarget(path, entry, record);
    return entry.kind == InventoryEntry::File && entry.size == record.Size();
}

Problem Exposed(const QString& root, const QString& text)
{
    if (text.isEmpty())
        return {};
    return {PackageExposed,
            QStringLiteral("Nothing is installed from '%1', where another user could change what "
                           "was verified: %2.")
                .arg(root, text)};
}

// In all directories: a file in one that is empty now would be copied with the others.
Problem CheckExposure(const QString& root, const QStringList& directories,
                      const QList<InventoryEntry>& inventory,
                      const QHash<QString, updater::File>& records)
{
    QString text = ParentExposure(root);
    for (const QString& directory : directories) {
        if (text.isEmpty())
            text = Exposure(directory.isEmpty() ? root : PathOf(root, directory));
    }
    for (const InventoryEntry& entry : inventory) {
        if (text.isEmpty())
            text = Exposure(PathOf(root, entry.name), IsMeantWritable(records.value(entry.name)));
    }
    return Exposed(root, text);
}

Problem CheckDigest(const QString& path, const updater::File& record)
{
    QFile file(path);
    QCryptographicHash hash(QCryptographicHash::Md5);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Unbuffered) || !hash.addData(&file))
        return {PackageUnreadable,
                QStringLiteral("Cannot read '%1': %2.").arg(path, file.errorString())};
    const QString digest = QString::fromLatin1(hash.result().toHex());
    if (digest.compare(record.MD5(), Qt::CaseInsensitive) == 0)
        return {};
    return {PackageDiffers, QString()};
}

} // namespace

QString Sample(const QStringList& names)
{
    constexpr qsizetype shown = 5;
    QStringList quoted;
    for (const QString& name : names.mid(0, shown))
        quoted << QLatin1Char('\'') + name + QLatin1Char('\'');
    QString text = quoted.join(QStringLiteral(", "));
    if (names.size() > shown)
        text += QStringLiteral(" and %1 more").arg(names.size() - shown);
    return text;
}

Problem CheckDownloadPlace(const QString& root)
{
    const QString text = ParentExposure(root);
    return Exposed(root, text.isEmpty() ? Exposure(root) : text);
}

Problem CheckPackage(const QString& root, const updater::FileList& manifest,
                     QList<InventoryEntry>* inventory)
{
    QString unreadable;
    QStringList directories;
    if (!TakeInventory(root, inventory, &unreadable, &directories))
        return {PackageUnreadable,
                QStringLiteral("The directory '%1' cannot be listed.").arg(unreadable)};
    if (inventory->isEmpty())
        return {PackageEmpty,
                QStringLiteral("The download directory '%1' is missing or empty.").arg(root)};
    if (manifest.isEmpty())
        return {PackageUndescribed,
                QStringLiteral("There is no description of the package in '%1', so nothing tells "
                               "whether it is whole.")
                    .arg(root)};

    QHash<QString, updater::File> records;
    for (const updater::File& record : manifest)
        records.insert(record.Name(), record);
    if (const Problem exposed = CheckExposure(root, directories, *inventory, records))
        return exposed;

    QHash<QString, updater::File> missing = records;
    QStringList unexpected;
    QStringList changed;
    for (const InventoryEntry& entry : *inventory) {
        const auto record = records.constFind(entry.name);
        if (record == records.constEnd())
            unexpected << entry.name;
        else if (!HasKindAndSize(PathOf(root, entry.name), entry, *record))
            changed << entry.name;
        missing.remove(entry.name);
    }
    if (!unexpected.isEmpty())
        return Differs(root, QStringLiteral("it does not list"), unexpected);
    if (!missing.isEmpty()) {
        QStringList names = missing.keys();
        names.sort();
        return Differs(root, QStringLiteral("missing are"), names);
    }
    // Only what has the right shape is worth reading.
    if (!changed.isEmpty())
        return Differs(root, QStringLiteral("changed are"), changed);
    for (const InventoryEntry& entry : *inventory) {
        const updater::File& record = *records.constFind(entry.name);
        if (record.IsSymlink())
            continue;
        const Problem problem = CheckDigest(PathOf(root, entry.name), record);
        if (problem.code == PackageUnreadable)
            return problem;
        if (problem)
            changed << entry.name;
    }
    return changed.isEmpty() ? Problem() : Differs(root, QStringLiteral("changed are"), changed);
}

Problem CheckUnchanged(const QString& root, const QList<InventoryEntry>& inventory)
{
    QList<InventoryEntry> now;
    QString unreadable;
    QStringList changed;
    if (TakeInventory(root, &now, &unreadable)) {
        QHash<QString, InventoryEntry> before;
        for (const InventoryEntry& entry : inventory)
            before.insert(entry.name, entry);
        for (const InventoryEntry& entry : std::as_const(now)) {
            const InventoryEntry known = before.take(entry.name);
            if (known.name.isEmpty() || known.kind != entry.kind || known.size != entry.size ||
                known.changed != entry.changed || known.target != entry.target)
                changed << entry.name;
        }
        changed += before.keys();
    } else {
        changed << unreadable;
    }
    if (changed.isEmpty())
        return {};
    changed.sort();
    return {PackageChanged, QStringLiteral("The download directory '%1' changed after it had been "
                                           "verified: %2.")
                                .arg(root, Sample(changed))};
}

updater::FileList RecordsOf(const QString& name, const QString& xml)
{
    if (xml.isEmpty())
        return {};
    updater::Package package(nullptr, nullptr);
    package.SetName(name);
    package.SetPackageXML(xml);
    return package.Files();
}

} // namespace guard
