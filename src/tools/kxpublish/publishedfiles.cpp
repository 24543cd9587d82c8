#include "publishedfiles.h"

#include "console.h"
#include "parallel.h"
#include "problems.h"
#include "servertree.h"

#include <QFile>
#include <QXmlStreamReader>

#include <vector>

namespace publish {

// For each content: enough to pass over damaged files and those with too many names already.
static constexpr qsizetype maxPlaces = 4;
static constexpr qsizetype digestSize = 16;

void PublishedFiles::Read(const ServerTree& server, const QSet<quint64>& sizes, Problems* problems)
{
    const QList<Build> builds = server.Builds();
    std::vector<QList<Found>> found(size_t(builds.size()));
    std::vector<QString> errors(size_t(builds.size()));
    const auto read = [&](int, qsizetype index) {
        errors[size_t(index)] =
            ReadManifest(server.ManifestPath(builds.at(index)), sizes, found[size_t(index)]);
        return true;
    };
    ForEach(builds.size(), read, [] {});
    // Backwards: the last build of a platform is the one that is kept the longest.
    for (qsizetype i = builds.size() - 1; i >= 0; --i) {
        const size_t index = size_t(i);
        if (!errors[index].isEmpty())
            problems->Warn(Shown(server.ManifestPath(builds.at(i))),
                           errors[index] + QStringLiteral("; no file of it is linked to"));
        const int root = int(roots.size());
        roots.append(server.FilesPath(builds.at(i)));
        for (Found& file : found[index]) {
            publishedSizes.insert(file.size);
            QList<Record>& places = records[{file.digest, file.size}];
            if (places.size() < maxPlaces)
                places.append({root, std::move(file.name)});
        }
        found[index].clear();
    }
}

// The reader of the clients needs twenty times the memory, and would keep all of it.
QString PublishedFiles::ReadManifest(const QString& path, const QSet<quint64>& sizes,
                                     QList<Found>& found)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QStringLiteral("cannot be read: ") + file.errorString();
    QXmlStreamReader xml(&file);
    while (!xml.atEnd()) {
        if (xml.readNext() != QXmlStreamReader::StartElement || xml.name() != QLatin1String("file"))
            continue;
        const QXmlStreamAttributes attributes = xml.attributes();
        const quint64 size = attributes.value(QLatin1String("size")).toULongLong();
        if (!attributes.value(QLatin1String("symlink")).isEmpty() || !sizes.contains(size))
            continue;
        const QByteArray digest =
            QByteArray::fromHex(attributes.value(QLatin1String("md5")).toLatin1());
        if (digest.size() == digestSize)
            found.append({digest, size, attributes.value(QLatin1String("name")).toString()});
    }
    return xml.hasError() ? QStringLiteral("not a manifest") : QString();
}

bool PublishedFiles::HasSize(quint64 size) const
{
    return publishedSizes.contains(size);
}

QList<PublishedFiles::Place> PublishedFiles::Find(const QByteArray& digest, quint64 size) const
{
    QList<Place> places;
    for (const Record& record : records.value({digest, size}))
        places.append({roots.at(record.build), record.name});
    return places;
}

} // namespace publish
