#include "listcommand.h"

#include "output/console.h"
#include "output/texttable.h"
#include "server/disk.h"
#include "server/diskusage.h"
#include "server/publishedbuild.h"
#include "server/versionorder.h"

#include <QFileInfo>
#include <QJsonArray>

#include <algorithm>

namespace publish {
namespace {

bool StandsBefore(const Build& a, const Build& b)
{
    if (a.package != b.package)
        return a.package < b.package;
    if (a.platform != b.platform)
        return a.platform < b.platform;
    return IsListedBefore(a.version, b.version);
}

QString Remarks(const ListResult::Row& row)
{
    QStringList remarks;
    if (row.offered)
        remarks.append(QStringLiteral("offered"));
    if (!row.problem.isEmpty())
        remarks.append(QStringLiteral("broken: ") + row.problem);
    else if (!row.promotable)
        remarks.append(QStringLiteral("not complete"));
    if (row.notes)
        remarks.append(QStringLiteral("notes"));
    return remarks.join(QStringLiteral(", "));
}

QString Time(const QDateTime& time)
{
    return time.isValid() ? time.toString(Qt::ISODate) : QString();
}

} // namespace

ListCommand::ListCommand(const ListSettings& given)
    : settings(given), server(ResolvedPath(given.serverTree))
{
}

ExitStatus ListCommand::Run()
{
    if (!CheckServerTree(server, settings.serverTree))
        return ExitRefused;
    result.offered = server.OfferedVersion();
    const QList<Build> builds = server.Builds();
    for (const Build& build : builds + server.UnfinishedBuilds())
        result.rows.append(RowOf(build));
    std::sort(result.rows.begin(), result.rows.end(),
              [](const ListResult::Row& a, const ListResult::Row& b) {
                  return StandsBefore(a.build, b.build);
              });

    QList<Build> usable;
    for (const ListResult::Row& row : std::as_const(result.rows)) {
        if (row.problem.isEmpty())
            usable.append(row.build);
    }
    result.promotable = CommonVersions(builds, usable);
    for (ListResult::Row& row : result.rows)
        row.promotable = result.promotable.contains(row.build.version);
    return ExitDone;
}

ListResult::Row ListCommand::RowOf(const Build& build) const
{
    ListResult::Row row;
    row.build = build;
    row.offered = build.version == result.offered;
    row.notes = QFileInfo(server.NotesPath(build)).isFile();
    DiskUsage usage;
    usage.Add(server.BuildPath(build));
    row.diskBytes = usage.OwnBytes();
    const QFileInfo index(server.ManifestPath(build));
    if (!index.isFile()) {
        row.problem = QStringLiteral("it has no index.xml");
        return row;
    }
    row.published = index.lastModified().toUTC();
    Manifest manifest;
    const QString problem = ReadManifestOf(server, build, manifest);
    if (!problem.isEmpty()) {
        row.problem = QStringLiteral("index.xml: ") + problem;
        return row;
    }
    row.problem = FilesProblem(server, build, manifest);
    for (const updater::File& file : std::as_const(manifest.files)) {
        if (file.IsSymlink()) {
            ++row.links;
        } else {
            ++row.files;
            row.bytes += file.Size();
        }
    }
    return row;
}

QStringList ListResult::Lines() const
{
    QStringList lines;
    lines.append(QStringLiteral("offered: ") +
                 (offered.isEmpty() ? QStringLiteral("nothing") : Printable(offered)));
    lines.append(
        QStringLiteral("can be promoted: ") +
        (promotable.isEmpty() ? QStringLiteral("nothing") : promotable.join(QStringLiteral(", "))));
    for (qsizetype i = 0; i < rows.size();) {
        const Build& first = rows.at(i).build;
        lines.append(QStringLiteral("%1 for %2").arg(first.package, Printable(first.platform)));
        QList<QStringList> table = {{QString(), QStringLiteral("VERSION"),
                                     QStringLiteral("PUBLISHED"), QStringLiteral("FILES"),
                                     QStringLiteral("LINKS"), QStringLiteral("BYTES"),
                                     QStringLiteral("OWN DISK BYTES"), QString()}};
        for (; i < rows.size() && rows.at(i).build.package == first.package &&
               rows.at(i).build.platform == first.platform;
             ++i) {
            const Row& row = rows.at(i);
            table.append({QString(), row.build.version, Time(row.published),
                          QString::number(row.files), QString::number(row.links),
                          QString::number(row.bytes), QString::number(row.diskBytes),
                          Remarks(row)});
        }
        lines += TableLines(table, {3, 4, 5, 6});
    }
    return lines;
}

QJsonObject ListResult::ToJson() const
{
    QJsonArray builds;
    for (const Row& row : rows) {
        QJsonObject object{{QStringLiteral("name"), row.build.package},
                           {QStringLiteral("platform"), row.build.platform},
                           {QStringLiteral("version"), row.build.version},
                           {QStringLiteral("files"), qint64(row.files)},
                           {QStringLiteral("links"), qint64(row.links)},
                           {QStringLiteral("bytes"), qint64(row.bytes)},
                           {QStringLiteral("ownDiskBytes"), qint64(row.diskBytes)},
                           {QStringLiteral("offered"), row.offered},
                           {QStringLiteral("promotable"), row.promotable},
                           {QStringLiteral("notes"), row.notes}};
        if (row.published.isValid())
            object.insert(QStringLiteral("published"), Time(row.published));
        if (!row.problem.isEmpty())
            object.insert(QStringLiteral("broken"), row.problem);
        builds.append(object);
    }
    return {{QStringLiteral("offered"), offered},
            {QStringLiteral("promotable"), QJsonArray::fromStringList(promotable)},
            {QStringLiteral("builds"), builds}};
}

} // namespace publish
