#include "publishedfiles.h"

#include "output/console.h"
#include "output/problems.h"
#include "servertree.h"
#include "source/parallel.h"

#include <QFile>
#include <QXmlStreamReader>

#include <vector>

namespace publish {

// For each content: enough to pass over damaged files and those with too many names already.
static constexpr qsizetype maxPlaces = 4;
static constexpr qsizetype digestSize = 16;
static constexpr qsizetype atATime = 8;

void PublishedFiles::Read(const ServerTree& server, const QSet<quint64>& sizes, Problems* problems)
{
    // Backwards: the last build of a platform is the one that is kept the longest. A few at a time:
    // only what is merged is needed for long.
    QList<Build> builds = server.Builds();
    while (!builds.isEmpty()) {
        QList<Build> batch;
        while (!builds.isEmpty() && batch.size() < atATime)
            batch.append(builds.takeLast());
        std::vector<Contents> contents(size_t(batch.size()));
        const auto read = [&](int, qsizetype index) {
            ReadManifest(server.ManifestPath(batch.at(index)), sizes, contents[size_t(index)]);
            return true;
        };
        ForEach(batch.size(), read, [] {});
        for (qsizetype i = 0; i < batch.size(); ++i) {
            const QString& error = contents[size_t(i)].error;
            if (!error.isEmpty())
                problems->Warn(Shown(server.ManifestPath(batch.at(i))),
                               error + QStringLiteral("; no file of it is linked to"));
            else
                Merge(server.FilesPath(batch.at(i)), contents[size_t(i)]);
        }
    }
}

void PublishedFiles::Merge(const QString& root, Contents& contents)
{
    const int number = int(roots.size());
    roots.append(root);
    for (Found& file : contents.files) {
        publishedSizes.insert(file.size);
        QList<Record>& places = records[{file.digest, file.size}];
        if (places.size() < maxPlaces)
            places.append({number, std::move(file.name)});
    }
}

// The reader of the clients needs twenty times the memory, and would keep all of it.
void PublishedFiles::ReadManifest(const QString& path, const QSet<quint64>& sizes,
                                  Contents& contents)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        contents.error = QStringLiteral("cannot be read: ") + file.errorString();
        return;
    }
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
            contents.files.append(
                {digest, size, attributes.value(QLatin1String("name")).toString()});
    }
    if (xml.hasError())
        contents.error = QStringLiteral("not a manifest");
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
