#pragma once

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QSet>
#include <QString>

#include <utility>

namespace publish {

class Problems;
class ServerTree;

/**
 * The files of the builds on a server, by what their manifests say of them. What a manifest says is
 * a hint and no more: whoever uses a file has to look at the file itself.
 */
class PublishedFiles
{
public:
    struct Place
    {
        QString root; //!< directory of the build's files
        QString name; //!< relative to it; not checked

        QString Path() const { return root + QLatin1Char('/') + name; }
    };

    /**
     * Reads the manifests of all builds, for files that have one of `sizes`. A manifest that cannot
     * be read is warned of and passed over.
     */
    void Read(const ServerTree& server, const QSet<quint64>& sizes, Problems* problems);

    /** True when a file of `size` bytes was published; safe from any thread after Read(). */
    bool HasSize(quint64 size) const;
    /**
     * Some of the places of files with the MD5 digest `digest`, 16 bytes, and `size`: of later
     * builds first. Safe from any thread after Read().
     */
    QList<Place> Find(const QByteArray& digest, quint64 size) const;

private:
    struct Record
    {
        int build = 0; // index in roots
        QString name;
    };
    struct Found
    {
        QByteArray digest;
        quint64 size = 0;
        QString name;
    };

    struct Contents
    {
        QList<Found> files;
        QString error;
    };

    static void ReadManifest(const QString& path, const QSet<quint64>& sizes, Contents& contents);
    void Merge(const QString& root, Contents& contents);

    QList<QString> roots;
    QHash<std::pair<QByteArray, quint64>, QList<Record>> records; // by digest and size
    QSet<quint64> publishedSizes;
};

} // namespace publish
