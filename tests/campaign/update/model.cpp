// Pairs of trees: what an update makes of the one is what a fresh install of the other would be, a
// damaged one is repaired, and nothing is fetched that is there already. What is expected is worked
// out from the seeds' own lists of entries; the library's comparison has no part in it.

#include "campaign.h"
#include "campaignsite.h"
#include "httptestserver.h"
#include "peer.h"
#include "toolpair.h"
#include "treebuilder.h"
#include "treedamage.h"

#include <kxupdater/build.h>

#include <QCoreApplication>
#include <QNetworkAccessManager>
#include <QRegularExpression>

using campaign::RandomTree;
using kxtest::CampaignSite;
using kxtest::HttpTestServer;
using kxtest::UpdateOutcome;
using kxtest::UpdateRun;

namespace {

#ifdef KX_SANITIZED
constexpr int shortRounds = 10;
#else
constexpr int shortRounds = 30;
#endif

const QString versionA = QStringLiteral("1.0");
const QString versionB = QStringLiteral("2.0");

QString UrlOf(const HttpTestServer& server)
{
    return server.Url(QString()).toString();
}

QString AreaOf(const QString& version)
{
    return QStringLiteral("/files/%1/%2/%3/")
        .arg(CampaignSite::package, version, updater::Build::Platform());
}

/** Names of the files that were asked for, as often as they were. */
QStringList Fetched(const HttpTestServer& server, const QString& version)
{
    QStringList names;
    for (const kxtest::Request& request : server.Requests()) {
        if (request.path.startsWith(QLatin1String("/files/")))
            names << request.path.mid(AreaOf(version).size());
    }
    names.sort();
    return names;
}

QStringList WithoutModes(QStringList lines)
{
    static const QRegularExpression mode(QStringLiteral(" file [0-7]+ "));
    return lines.replaceInStrings(mode, QStringLiteral(" file "));
}

/** One round. */
class Pair
{
public:
    Pair(quint32 seed, const QString& directory)
        : random(seed * 2654435761u),
          site(directory + QStringLiteral("/updated")),
          freshSite(directory + QStringLiteral("/fresh")),
          before(random.generate(), int(10 + random.bounded(40))),
          after(before.Mutate(random.generate()))
    {
        server.ServeDirectory(QStringLiteral("/"), site.Server());
    }

    /** What was wrong; empty when all was right. */
    QString Run();

    int fetched = 0;  // files, by the update
    int repaired = 0; // files, by the repair
    int inAll = 0;    // files of the new version

private:
    /** Updates, and compares: the tree, the files that were fetched, what is left beside. */
    QString Update(CampaignSite& at, const char* what, const QString& current,
                   const RandomTree& present, int& count);
    QString CheckIsCurrent(const CampaignSite& at);

    QRandomGenerator random;
    HttpTestServer server;
    CampaignSite site;
    CampaignSite freshSite;
    RandomTree before;
    RandomTree after;
};

QString Pair::Update(CampaignSite& at, const char* what, const QString& current,
                     const RandomTree& present, int& count)
{
    server.ClearRequests();
    kxtest::Remove(at.Download());
    QNetworkAccessManager manager;
    UpdateRun run(&manager, at.Places(UrlOf(server), current));
    const UpdateOutcome outcome = run.Run();
    QString problem;
    if (outcome.end != UpdateOutcome::End::Installed)
        problem = outcome.Text();
    else
        problem = at.Problem(after.UpdatedFrom(present).Lines());
    const QStringList names = Fetched(server, versionB);
    const QStringList expected = kxtest::MissingFiles(after, present);
    count = int(names.size());
    if (problem.isEmpty() && names != expected)
        problem = QStringLiteral("not exactly the files that differ were fetched:\n") +
                  kxtest::Differences(names, expected);
    return problem.isEmpty() ? problem : QLatin1String(what) + QStringLiteral(": ") + problem;
}

QString Pair::CheckIsCurrent(const CampaignSite& at)
{
    QNetworkAccessManager manager;
    UpdateRun run(&manager, at.Places(UrlOf(server), versionB));
    run.CheckOnly();
    const UpdateOutcome outcome = run.Run();
    return outcome.end == UpdateOutcome::End::Current
               ? QString()
               : QStringLiteral("a check of what was just installed: ") + outcome.Text();
}

QString Pair::Run()
{
    site.Install(before);
    site.Publish(after, versionB, UrlOf(server));
    QString problem = Update(site, "update", versionA, before, fetched);
    if (problem.isEmpty())
        problem = Update(freshSite, "fresh install", versionA, {}, inAll);
    const QStringList updated = kxtest::Snapshot(site.Application());
    const QStringList fresh = kxtest::Snapshot(freshSite.Application());
    // Modes that alone differ are not delivered.
    if (problem.isEmpty() && WithoutModes(updated) != WithoutModes(fresh))
        problem = QStringLiteral("an update is not what a fresh install is:\n") +
                  kxtest::Differences(WithoutModes(updated), WithoutModes(fresh));
    if (problem.isEmpty())
        problem = CheckIsCurrent(site);
    if (!problem.isEmpty())
        return problem;
    const RandomTree left = kxtest::DamageTree(after, freshSite.Application(), random.generate());
    return Update(freshSite, "repair", versionB, left, repaired);
}

} // namespace

int main(int argc, char** argv)
{
    const QCoreApplication application(argc, argv);
    campaign::Campaign campaign(argc, argv);
    const int rounds = campaign.Given().Rounds(shortRounds, 1000);
    qint64 fetched = 0;
    qint64 inAll = 0;
    qint64 repaired = 0;
    int round = 0;
    for (; round < rounds && !campaign.IsEnough(); ++round) {
        const quint32 seed = campaign.Given().SeedOf(round);
        Pair pair(seed, campaign.NewDirectory());
        const QString problem = pair.Run();
        if (!problem.isEmpty())
            campaign.Fail(seed, QStringLiteral("the library"), problem);
        fetched += pair.fetched;
        inAll += pair.inAll;
        repaired += pair.repaired;
    }
    const int toolRounds = kxtest::RoundsWithPrograms(rounds, 20);
    for (int i = 0; i < toolRounds && !campaign.IsEnough(); ++i) {
        const quint32 seed = campaign.Given().SeedOf(i);
        const QString problem = kxtest::ToolPair(seed, campaign.NewDirectory()).Run();
        if (!problem.isEmpty())
            campaign.Fail(seed, QStringLiteral("the tools"), problem);
    }
    campaign.Figure(QStringLiteral("pairs"), round);
    campaign.Figure(QStringLiteral("pairs by way of the tools"), toolRounds);
    campaign.Figure(QStringLiteral("files of the new versions"), inAll);
    campaign.Figure(QStringLiteral("files fetched by the updates"), fetched);
    campaign.Figure(QStringLiteral("files fetched by the repairs"), repaired);
    return campaign.End();
}
