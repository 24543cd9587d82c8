#include "diffcommand.h"

#include "output/console.h"
#include "output/texttable.h"
#include "server/disk.h"
#include "server/publishedbuild.h"

#include <QJsonArray>
#include <QSet>

#include <algorithm>
#include <limits>

namespace publish {
namespace {

constexpr qsizetype mostListed = 20;

const char* KindName(DiffResult::Kind kind)
{
    static constexpr const char* names[] = {"download", "copy", "link", "drop"};
    return names[kind];
}

const char* CauseName(DiffResult::Cause cause)
{
    static constexpr const char* names[] = {"unchanged", "new", "changed", "moved", "gone"};
    return names[cause];
}

QString Remark(const DiffResult::Entry& entry)
{
    if (entry.cause == DiffResult::Moved)
        return QStringLiteral("contents of ") + Shown(entry.origin);
    if (entry.kind == DiffResult::Download && entry.cause == DiffResult::Changed)
        return QStringLiteral("%1 bytes before").arg(entry.before);
    return {};
}

QList<QString> Sorted(const QSet<QString>& set)
{
    QList<QString> list(set.begin(), set.end());
    std::sort(list.begin(), list.end());
    return list;
}

/** `given`, or the only one of `present`; empty after a message when there is a choice or none. */
QString Chosen(const QString& given, const QSet<QString>& present, const char* option,
               const QString& what)
{
    if (!given.isEmpty() && present.contains(given))
        return given;
    if (given.isEmpty() && present.size() == 1)
        return *present.begin();
    if (present.isEmpty()) {
        Complain(QStringLiteral("nothing is published here"));
        return {};
    }
    QStringList names;
    for (const QString& name : Sorted(present))
        names.append(Printable(name));
    const QString all = names.join(QStringLiteral(", "));
    Complain(
        given.isEmpty()
            ? QStringLiteral("%1 is needed to choose %2: %3").arg(QLatin1String(option), what, all)
            : QStringLiteral("%1 %2: not published; there is %3")
                  .arg(QLatin1String(option), Shown(given), all));
    return {};
}

} // namespace

DiffCommand::DiffCommand(const DiffSettings& given)
    : settings(given), server(ResolvedPath(given.serverTree))
{
}

ExitStatus DiffCommand::Run()
{
    Build build;
    if (!CheckServerTree(server, settings.serverTree) || !ChoosePlace(build))
        return ExitRefused;
    Build from = build;
    from.version = settings.from;
    Build to = build;
    to.version = settings.to;
    Manifest before;
    Manifest after;
    const bool hasFrom = Read(from, before);
    if (!Read(to, after) || !hasFrom)
        return ExitRefused;
    result = PlanUpdate(before, after);
    result.from = from;
    result.to = to;
    result.listed = settings.all ? std::numeric_limits<qsizetype>::max() : mostListed;
    return ExitDone;
}

bool DiffCommand::ChoosePlace(Build& build) const
{
    const QList<Build> builds = server.Builds();
    QSet<QString> packages;
    for (const Build& each : builds)
        packages.insert(each.package);
    build.package =
        Chosen(settings.package, packages, "--name", QStringLiteral("one of the packages"));
    if (build.package.isEmpty())
        return false;
    QSet<QString> platforms;
    for (const Build& each : builds) {
        if (each.package == build.package)
            platforms.insert(each.platform);
    }
    build.platform = Chosen(settings.platform, platforms, "--platform",
                            QStringLiteral("one of the platforms of %1").arg(build.package));
    return !build.platform.isEmpty();
}

bool DiffCommand::Read(const Build& build, Manifest& manifest) const
{
    for (const Build& each : server.Builds()) {
        if (each.package != build.package || each.platform != build.platform ||
            each.version != build.version)
            continue;
        const QString problem = ReadManifestOf(server, build, manifest);
        if (!problem.isEmpty())
            Complain(Shown(server.ManifestPath(build)) + QStringLiteral(": ") + problem);
        return problem.isEmpty();
    }
    Complain(QStringLiteral("%1: not published in version %2 for %3")
                 .arg(Shown(build.package), Shown(build.version), Printable(build.platform)));
    return false;
}

QStringList DiffResult::Lines() const
{
    QStringList lines;
    lines.append(QStringLiteral("%1 for %2, from %3 to %4")
                     .arg(to.package, Printable(to.platform), from.version, to.version));
    QList<QStringList> table;
    const auto add = [&table](const QString& what, const Sum& sum) {
        table.append({what, QString::number(sum.count), QString::number(sum.bytes)});
    };
    table.append({QString(), QStringLiteral("COUNT"), QStringLiteral("BYTES")});
    add(QStringLiteral("download"), SumOf(Download));
    add(QStringLiteral("  new"), SumOf(Download, New));
    add(QStringLiteral("  changed"), SumOf(Download, Changed));
    add(QStringLiteral("  moved"), SumOf(Download, Moved));
    add(QStringLiteral("copy"), SumOf(Copy));
    add(QStringLiteral("link"), SumOf(Link));
    add(QStringLiteral("drop"), SumOf(Drop));
    add(QStringLiteral("  replaced"), SumOf(Drop, Changed));
    add(QStringLiteral("  gone"), SumOf(Drop, Gone));
    lines += TableLines(table, {1, 2});
    if (programBefore != programAfter)
        lines.append(QStringLiteral("program: %1, before %2")
                         .arg(Shown(programAfter), Shown(programBefore)));

    QList<QStringList> rows;
    qsizetype more = 0;
    for (const Entry& entry : entries) {
        // A replaced file stands in the list as what replaces it.
        if (entry.kind == Copy || (entry.kind == Drop && entry.cause == Changed))
            continue;
        if (rows.size() == listed) {
            ++more;
            continue;
        }
        rows.append({QLatin1String(KindName(entry.kind)), QLatin1String(CauseName(entry.cause)),
                     QString::number(entry.bytes), Shown(entry.name), Remark(entry)});
    }
    lines += TableLines(rows, {2});
    if (more > 0)
        lines.append(QStringLiteral("... and %1 more, listed with --all").arg(more));

    if (!modes.isEmpty())
        lines.append(QStringLiteral("Only the mode differs. Clients copy these files and keep the "
                                    "old mode:"));
    for (const ModeChange& change : modes.mid(0, listed))
        lines.append(QStringLiteral("mode  %1, before %2  ")
                         .arg(Printable(change.after), Printable(change.before)) +
                     Shown(change.name));
    if (modes.size() > listed)
        lines.append(
            QStringLiteral("... and %1 more, listed with --all").arg(modes.size() - listed));
    return lines;
}

QJsonObject DiffResult::ToJson() const
{
    const auto object = [](const Sum& sum) {
        return QJsonObject{{QStringLiteral("count"), qint64(sum.count)},
                           {QStringLiteral("bytes"), qint64(sum.bytes)}};
    };
    QJsonArray files;
    for (const Entry& entry : entries) {
        if (entry.kind == Copy)
            continue;
        QJsonObject file{{QStringLiteral("kind"), QLatin1String(KindName(entry.kind))},
                         {QStringLiteral("cause"), QLatin1String(CauseName(entry.cause))},
                         {QStringLiteral("name"), entry.name},
                         {QStringLiteral("bytes"), qint64(entry.bytes)}};
        if (entry.cause == Moved)
            file.insert(QStringLiteral("origin"), entry.origin);
        if (entry.kind == Download && entry.cause == Changed)
            file.insert(QStringLiteral("bytesBefore"), qint64(entry.before));
        files.append(file);
    }
    QJsonArray modeChanges;
    for (const ModeChange& change : modes)
        modeChanges.append(QJsonObject{{QStringLiteral("name"), change.name},
                                       {QStringLiteral("before"), change.before},
                                       {QStringLiteral("after"), change.after}});
    return {{QStringLiteral("name"), to.package},
            {QStringLiteral("platform"), to.platform},
            {QStringLiteral("from"), from.version},
            {QStringLiteral("to"), to.version},
            {QStringLiteral("download"), object(SumOf(Download))},
            {QStringLiteral("downloadNew"), object(SumOf(Download, New))},
            {QStringLiteral("downloadChanged"), object(SumOf(Download, Changed))},
            {QStringLiteral("downloadMoved"), object(SumOf(Download, Moved))},
            {QStringLiteral("copy"), object(SumOf(Copy))},
            {QStringLiteral("link"), object(SumOf(Link))},
            {QStringLiteral("drop"), object(SumOf(Drop))},
            {QStringLiteral("programBefore"), programBefore},
            {QStringLiteral("programAfter"), programAfter},
            {QStringLiteral("files"), files},
            {QStringLiteral("modes"), modeChanges}};
}

} // namespace publish
