#pragma once

#include <QByteArray>
#include <QMap>
#include <QRandomGenerator>
#include <QString>
#include <QStringList>

namespace campaign {

/**
 * A tree of files and links that a seed decides, the same on every machine: empty and small files,
 * one or two larger ones, usual modes, directories, links to files and directories, up and down,
 * dangling ones, and names that are legal and odd. Everything in it can be published: no hidden
 * names, no empty directories. A plain value; nothing is on disk before WriteTo().
 */
class RandomTree
{
public:
    struct Entry
    {
        qint64 size = 0;      //!< of a file, in bytes
        quint32 contents = 0; //!< seed of a file's bytes
        int mode = 0644;      //!< of a file
        QString target;       //!< of a link; empty for a file

        bool IsLink() const { return !target.isEmpty(); }
        /** Whether a manifest tells the two apart: modes are not compared. */
        bool HasContentsOf(const Entry& other) const;
    };

    RandomTree() = default;
    /** `entries`: how many at least. */
    explicit RandomTree(quint32 seed, int entries = 30);

    /** Another version: some entries changed, added, removed, files that become directories and
     *  the other way round, files that become links and the other way round, modes alone. */
    RandomTree Mutate(quint32 seed) const;
    /** What an update from `installed` to this version puts in place: this tree, but files with the
     *  same contents keep the modes that they have there. */
    RandomTree UpdatedFrom(const RandomTree& installed) const;

    /** Makes it on disk; `root` is made when missing. */
    void WriteTo(const QString& root) const;
    /** As kxtest::Snapshot() shows it once it is on disk. */
    QStringList Lines() const;

    /** By name, "/" as separator; directories are the parents of what is in them. */
    const QMap<QString, Entry>& Entries() const { return entries; }
    QByteArray Bytes(const Entry& file) const;

    /** Puts an entry; what stands in its way goes. */
    void Put(const QString& name, const Entry& entry);

private:
    class Maker;

    QMap<QString, Entry> entries;
};

} // namespace campaign
