#include "toolpair.h"

#include "peer.h"
#include "treebuilder.h"
#include "treedamage.h"

#include <QHash>
#include <QRandomGenerator>

#include <algorithm>

namespace kxtest {
namespace {

using campaign::RandomTree;

// The tree without names that differ only in case or in the normal form of Unicode from others of
// their directory: kxpublish refuses those, because some systems cannot have both.
RandomTree WithoutTwins(const RandomTree& tree)
{
    RandomTree result;
    QHash<QString, QString> known; // paths by what such a system makes of them
    for (auto it = tree.Entries().cbegin(); it != tree.Entries().cend(); ++it) {
        bool isTwin = false;
        for (qsizetype end = 0; end >= 0 && !isTwin;) {
            end = it.key().indexOf(QLatin1Char('/'), end + 1);
            const QString path = it.key().left(end);
            const QString folded = path.normalized(QString::NormalizationForm_C).toCaseFolded();
            isTwin = known.value(folded, path) != path;
            if (!isTwin)
                known.insert(folded, path);
        }
        if (!isTwin)
            result.Put(it.key(), it.value());
    }
    return result;
}

// Empty when the program ended with 0.
QString Failure(const QString& program, const QStringList& arguments)
{
    Peer peer(program, arguments);
    if (peer.AwaitEnd() && peer.Status() == 0)
        return QString();
    return QStringLiteral("'%1 %2' ended with %3:\n")
               .arg(program.section(QLatin1Char('/'), -1), arguments.first())
               .arg(peer.Status()) +
           peer.Text();
}

} // namespace

QStringList MissingFiles(const RandomTree& wanted, const RandomTree& present)
{
    QStringList names;
    for (auto it = wanted.Entries().cbegin(); it != wanted.Entries().cend(); ++it) {
        const auto there = present.Entries().constFind(it.key());
        const bool isThere = there != present.Entries().cend() && it->HasContentsOf(*there);
        if (!it->IsLink() && !isThere)
            names << it.key();
    }
    names.sort();
    return names;
}

ToolPair::ToolPair(quint32 seed, const QString& directory)
    : seed(seed), directory(directory), site(directory)
{
    server.ServeDirectory(QStringLiteral("/"), site.Server());
}

QString ToolPair::Publish(const RandomTree& tree, const QString& version)
{
    const QString program = QStringLiteral(KX_KXPUBLISH);
    const QString source = directory + QStringLiteral("/tree-") + version;
    tree.WriteTo(source);
    const QString failure = Failure(
        program, {QStringLiteral("add"), source, QStringLiteral("--name"), CampaignSite::package,
                  QStringLiteral("--version"), version, QStringLiteral("--exec"),
                  QStringLiteral("bin/app"), QStringLiteral("--base-url"),
                  server.Url(QString()).toString(), QStringLiteral("--out"), site.Server()});
    return failure.isEmpty()
               ? Failure(program, {QStringLiteral("promote"), QStringLiteral("--version"), version,
                                   QStringLiteral("--out"), site.Server()})
               : failure;
}

QString ToolPair::Update(const QString& command, const QString& current, const RandomTree& wanted,
                         const RandomTree& present)
{
    server.ClearRequests();
    // What an earlier run has fetched would not be fetched again.
    Remove(site.Download());
    const QString failure =
        Failure(QStringLiteral(KX_KXUPDATE),
                {command, QStringLiteral("--url"), server.Url(QString()).toString(),
                 QStringLiteral("--package"), CampaignSite::package, QStringLiteral("--current"),
                 current, QStringLiteral("--app"), site.Application(), QStringLiteral("--download"),
                 site.Download()});
    if (!failure.isEmpty())
        return failure;
    const QString problem = site.ApplicationProblem(wanted.UpdatedFrom(present).Lines());
    if (!problem.isEmpty())
        return command + QStringLiteral(": ") + problem;
    // Where the files lie on the server is the publisher's affair.
    QStringList missing = MissingFiles(wanted, present);
    for (const Request& request : server.Requests()) {
        if (request.path.endsWith(QLatin1String(".xml")))
            continue;
        const auto name =
            std::find_if(missing.begin(), missing.end(), [&request](const QString& candidate) {
                return request.path.endsWith(QLatin1Char('/') + candidate);
            });
        if (name == missing.end())
            return command + QStringLiteral(": fetched without need: ") + request.path;
        missing.erase(name);
    }
    return missing.isEmpty()
               ? QString()
               : command + QStringLiteral(": not fetched: ") + missing.join(QStringLiteral(", "));
}

QString ToolPair::Run()
{
    QRandomGenerator random(seed * 2654435761u + 1);
    const RandomTree before = WithoutTwins(RandomTree(random.generate()));
    const RandomTree after = WithoutTwins(before.Mutate(random.generate()));
    QString problem = Publish(before, QStringLiteral("1.0"));
    if (problem.isEmpty())
        problem = Update(QStringLiteral("update"), QStringLiteral("0"), before, {});
    if (problem.isEmpty())
        problem = Publish(after, QStringLiteral("2.0"));
    if (problem.isEmpty())
        problem = Update(QStringLiteral("update"), QStringLiteral("1.0"), after, before);
    if (!problem.isEmpty())
        return problem;
    const RandomTree left =
        DamageTree(after.UpdatedFrom(before), site.Application(), random.generate());
    return Update(QStringLiteral("repair"), QStringLiteral("2.0"), after, left);
}

} // namespace kxtest
