#include "journal.h"

#include "exposure.h"
#include "strictcodec.h"

#include <kxcommon/durablefiles.h>

#include <QCryptographicHash>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QSet>

#include <algorithm>

namespace guard {
namespace {

constexpr qint64 largest = 256 * 1024 * 1024;
const char header[] = "kxjournal 1";

bool IsWord(const QByteArray& text)
{
    return text.size() <= 100 && !text.contains(' ');
}

QByteArray Digest(const QByteArray& text)
{
    return QCryptographicHash::hash(text, QCryptographicHash::Sha256).toHex();
}

// In a directory that all may write somebody else can leave a journal. Who owns the directory could
// as well change the application itself.
bool IsTrusted(const QFileInfo& info)
{
    if (info.permission(QFileDevice::WriteOther))
        return false;
    return info.ownerId() == QFileInfo(info.path()).ownerId() ||
           Exposure(info.filePath()).isEmpty();
}

// The rest of `line` behind "KEY ".
bool Value(const QByteArray& line, const char* key, QByteArray* value)
{
    const QByteArray begin = QByteArray(key) + ' ';
    if (!line.startsWith(begin))
        return false;
    *value = line.mid(begin.size());
    return true;
}

bool ParseEntry(const QByteArray& line, InventoryEntry* entry)
{
    QByteArray value;
    if (Value(line, "link", &value)) {
        entry->kind = InventoryEntry::Link;
    } else if (Value(line, "file", &value)) {
        const qsizetype blank = value.indexOf(' ');
        bool isNumber = false;
        entry->size = value.left(blank).toULongLong(&isNumber);
        if (blank <= 0 || !isNumber)
            return false;
        value = value.mid(blank + 1);
    } else {
        return false;
    }
    return !value.isEmpty() && DecodeUtf8(value, &entry->name);
}

} // namespace

QByteArray Journal::Text() const
{
    QByteArray text = header;
    text += "\napplication " + application.toUtf8() + '\n';
    for (const InventoryEntry& entry : entries) {
        if (entry.kind == InventoryEntry::Link)
            text += "link " + entry.name.toUtf8() + '\n';
        else
            text += "file " + QByteArray::number(entry.size) + ' ' + entry.name.toUtf8() + '\n';
    }
    return text + "end " + QByteArray::number(entries.size()) + ' ' + Digest(text) + '\n';
}

bool Journal::Parse(const QByteArray& text, Journal* journal)
{
    *journal = Journal();
    QList<QByteArray> lines = text.split('\n');
    QByteArray application;
    if (lines.size() < 4 || !lines.takeLast().isEmpty() || lines.at(0) != header ||
        !Value(lines.at(1), "application", &application) || !IsWord(application))
        return false;
    const qsizetype count = lines.size() - 3;
    const QByteArray end = lines.takeLast();
    const QByteArray above = text.chopped(end.size() + 1);
    if (end != "end " + QByteArray::number(count) + ' ' + Digest(above))
        return false;
    Journal read;
    read.application = QString::fromUtf8(application);
    read.entries.reserve(count);
    for (const QByteArray& line : lines.mid(2)) {
        InventoryEntry entry;
        if (!ParseEntry(line, &entry))
            return false;
        read.entries.append(entry);
    }
    // A number can be written in many ways, and only one is that of Text().
    if (read.Text() != text)
        return false;
    *journal = read;
    return true;
}

QString Journal::PathFor(const QString& appDir)
{
    return common::DurableFiles::HiddenSibling(appDir, QStringLiteral(".kxjournal"));
}

bool Journal::Read(const QString& appDir, Journal* journal)
{
    const QFileInfo info(PathFor(appDir));
    if (info.isSymLink() || !info.isFile() || info.size() > largest || !IsTrusted(info))
        return false;
    QFile file(info.filePath());
    // As much memory as it needs, and not as much as it may: there may be a limit.
    return file.open(QIODevice::ReadOnly) && Parse(file.read(info.size() + 1), journal);
}

Journal::Match Journal::Compare(const QList<InventoryEntry>& tree) const
{
    QHash<QString, const InventoryEntry*> wanted;
    for (const InventoryEntry& entry : entries)
        wanted.insert(entry.name, &entry);
    bool hasOthers = false;
    for (const InventoryEntry& entry : tree) {
        const InventoryEntry* expected = wanted.value(entry.name);
        const bool isSame =
            expected && entry.kind == expected->kind && entry.size == expected->size;
        // Not even a power cut leaves a shorter file: the copy is on disk before it is put in
        // place.
        if (isSame)
            wanted.remove(entry.name);
        else
            hasOthers = true;
    }
    if (wanted.isEmpty())
        return Match::Complete;
    return hasOthers ? Match::Other : Match::Part;
}

bool Journal::HasAllNames(const QList<InventoryEntry>& tree) const
{
    QSet<QString> names;
    for (const InventoryEntry& entry : tree)
        names.insert(entry.name);
    return std::all_of(entries.begin(), entries.end(), [&names](const InventoryEntry& entry) {
        return names.contains(entry.name);
    });
}

} // namespace guard
