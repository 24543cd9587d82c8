// Two processes on one application at the same moment: one works, the other says that it is busy
// or, having come later, finds nothing left to do; and what one of them leaves when it is killed is
// mended once, however many try.

#include "campaign.h"
#include "campaignsite.h"
#include "httptestserver.h"
#include "manifest.h"
#include "peer.h"
#include "treebuilder.h"

#include <kxcommon/durablefiles.h>
#include <kxguard/recover.h>
#include <kxupdater/build.h>

#include <QCoreApplication>
#include <QFileInfo>
#include <QThread>

#include <algorithm>
#include <memory>

using campaign::RandomTree;
using kxtest::CampaignSite;
using kxtest::Peer;

namespace {

const QString installed = QStringLiteral("installed");
const QString current = QStringLiteral("current");
const QString busy = QStringLiteral("busy");

/** One scenario, from the old version on: a place of its own, and the programs that work on it. */
class Scene
{
public:
    Scene(quint32 seed, int entries, const QString& directory, kxtest::HttpTestServer& server);

    using Peers = QList<std::shared_ptr<Peer>>;

    /** What was wrong; empty when nothing. */
    QString TwoInstalls();
    QString TwoUpdates();
    QString UpdateAndQueue();
    QString TwoTools();
    QString RecoversOfKilled();
    QString RecoverOfRunning();

    /** The two have met, and one has made way. */
    bool hasCollided = false;

private:
    /** "next" or another download directory, with the new version in it. */
    QString Assembled(const QString& name);
    std::shared_ptr<Peer> Start(const QString& mode, const QString& download = QString(),
                                const QString& state = QString());
    /** Waits until all are ready, lets them go and waits for their ends. */
    QString LetGo(const Peers& peers);
    /** Checks that each result is one of those. */
    QString Judge(const Peers& peers, const QList<QStringList>& outcomes);
    QString Said(const Peers& peers) const;
    /** A process that is killed in the middle of an install; whether it had swapped by then. */
    QString Killed(bool* maySwap, bool* hasSwapped);

    QRandomGenerator random;
    CampaignSite site;
    RandomTree before;
    RandomTree after;
    QString directory;
    QString url;
};

Scene::Scene(quint32 seed, int entries, const QString& directory, kxtest::HttpTestServer& server)
    : random(seed * 2654435761u),
      site(directory),
      before(random.generate(), entries),
      after(before.Mutate(random.generate())),
      directory(directory),
      url(server.Url(QString()).toString())
{
    site.Install(before);
    site.Publish(after, QStringLiteral("2.0"), url);
    server.ServeDirectory(QStringLiteral("/"), site.Server());
}

QString Scene::Assembled(const QString& name)
{
    const QString path = directory + QLatin1Char('/') + name;
    after.WriteTo(path);
    kxtest::Write(path + QStringLiteral(".xml"),
                  kxtest::Read(site.Server() + QLatin1Char('/') +
                               kxtest::ManifestPath(CampaignSite::package, QStringLiteral("2.0"),
                                                    updater::Build::Platform())));
    return path;
}

std::shared_ptr<Peer> Scene::Start(const QString& mode, const QString& download,
                                   const QString& state)
{
    QStringList arguments{mode, url, CampaignSite::package, site.Application(),
                          download.isEmpty() ? site.Download() : download};
    if (!state.isEmpty())
        arguments << state;
    return std::make_shared<Peer>(QStringLiteral(KX_INSTALLER), arguments);
}

QString Scene::Said(const Peers& peers) const
{
    QString text;
    for (const auto& peer : peers)
        text += QStringLiteral("\n  one said:\n") + peer->Text();
    return text;
}

QString Scene::LetGo(const Peers& peers)
{
    for (const auto& peer : peers) {
        if (!peer->Await(QStringLiteral("ready")))
            return QStringLiteral("one does not get ready") + Said(peers);
    }
    const qint64 moment = Peer::NearMoment();
    for (const auto& peer : peers)
        peer->Go(moment);
    for (const auto& peer : peers) {
        if (!peer->AwaitEnd() || peer->Result().isEmpty())
            return QStringLiteral("one does not come to an end") + Said(peers);
        hasCollided = hasCollided || peer->Result() == busy;
    }
    return QString();
}

QString Scene::Judge(const Peers& peers, const QList<QStringList>& outcomes)
{
    QStringList results;
    for (const auto& peer : peers) {
        results << peer->Result();
        // Whoever makes way says for whom.
        if (peer->Result() == busy && !peer->Text().contains(site.Application()))
            return QStringLiteral("busy, without a reason") + Said(peers);
    }
    results.sort();
    for (QStringList outcome : outcomes) {
        outcome.sort();
        if (outcome == results)
            return QString();
    }
    return QStringLiteral("they ended in ") + results.join(QStringLiteral(" and ")) + Said(peers);
}

QString Scene::TwoInstalls()
{
    const Peers peers{Start(QStringLiteral("install"), Assembled(QStringLiteral("one"))),
                      Start(QStringLiteral("install"), Assembled(QStringLiteral("two")))};
    QString problem = LetGo(peers);
    // An install asks nobody: the one that comes later installs the same once more.
    if (problem.isEmpty())
        problem = Judge(peers, {{installed, busy}, {installed, installed}});
    return problem.isEmpty() ? site.Problem(after.Lines()) : problem;
}

QString Scene::TwoUpdates()
{
    const Peers peers{Start(QStringLiteral("update"), directory + QStringLiteral("/one")),
                      Start(QStringLiteral("update"), directory + QStringLiteral("/two"))};
    QString problem = LetGo(peers);
    if (problem.isEmpty())
        problem = Judge(peers, {{installed, busy}, {installed, current}});
    return problem.isEmpty() ? site.Problem(after.UpdatedFrom(before).Lines()) : problem;
}

QString Scene::UpdateAndQueue()
{
    const Peers peers{Start(QStringLiteral("update"), directory + QStringLiteral("/one")),
                      Start(QStringLiteral("queue"), directory + QStringLiteral("/two"))};
    QString problem = LetGo(peers);
    if (problem.isEmpty())
        problem = Judge(peers, {{installed, current}, {busy, installed}});
    return problem.isEmpty() ? site.Problem(after.UpdatedFrom(before).Lines()) : problem;
}

QString Scene::TwoTools()
{
    const QStringList arguments{
        QStringLiteral("update"),     QStringLiteral("--url"), url,
        QStringLiteral("--package"),  CampaignSite::package,   QStringLiteral("--current"),
        QStringLiteral("1.0"),        QStringLiteral("--app"), site.Application(),
        QStringLiteral("--download"), site.Download()};
    Peers peers;
    for (int i = 0; i < 2; ++i)
        peers << std::make_shared<Peer>(QStringLiteral(KX_KXUPDATE), arguments);
    QList<int> statuses;
    for (const auto& peer : peers) {
        if (!peer->AwaitEnd())
            return QStringLiteral("kxupdate does not end") + Said(peers);
        statuses << peer->Status();
        // Both name the other one's process.
        if (peer->Status() == 3 && !peer->Text().contains(QStringLiteral("process ")))
            return QStringLiteral("kxupdate makes way without a reason") + Said(peers);
    }
    std::sort(statuses.begin(), statuses.end());
    hasCollided = statuses.last() == 3;
    if (statuses != QList<int>{0, 3} && statuses != QList<int>{0, 0})
        return QStringLiteral("kxupdate ended with %1 and %2")
                   .arg(statuses.first())
                   .arg(statuses.last()) +
               Said(peers);
    const QString problem = site.ApplicationProblem(after.UpdatedFrom(before).Lines());
    return problem.isEmpty() ? problem : problem + Said(peers);
}

QString Scene::Killed(bool* maySwap, bool* hasSwapped)
{
    static const char* const states[] = {"BACKUPREMOVING", "BACKUPING", "MOVING", "BACKUPCLEARING"};
    const int choice = int(random.bounded(8));
    const bool isAnywhere = choice >= 4;
    const QString state = isAnywhere ? QString() : QString::fromLatin1(states[choice]);
    const auto peer = Start(isAnywhere ? QStringLiteral("install") : QStringLiteral("die"),
                            Assembled(QStringLiteral("killed")), state);
    if (!peer->Await(QStringLiteral("ready")))
        return QStringLiteral("it does not get ready") + Said({peer});
    peer->Go();
    if (isAnywhere) {
        // Where it is by then, nobody knows.
        QThread::usleep(random.bounded(40000));
        peer->Kill();
    }
    if (!peer->AwaitEnd())
        return QStringLiteral("it is not killed") + Said({peer});
    *hasSwapped = choice == 3 || peer->Result() == installed;
    *maySwap = *hasSwapped || isAnywhere;
    return QString();
}

QString Scene::RecoversOfKilled()
{
    bool maySwap = false;
    bool hasSwapped = false;
    const QString failure = Killed(&maySwap, &hasSwapped);
    if (!failure.isEmpty())
        return failure;
    // Something that takes a while to remove, so that there is time to meet.
    const QString begun =
        common::DurableFiles::HiddenSibling(site.Application(), QStringLiteral(".kxnew"));
    kxtest::TreeBuilder ballast(begun);
    for (int i = 0; i < 2000; ++i)
        ballast.File(QStringLiteral("%1/%2").arg(i % 20).arg(i), {});
    const Peers peers{Start(QStringLiteral("recover")), Start(QStringLiteral("recover"))};
    QString problem = LetGo(peers);
    for (const auto& peer : peers) {
        static const QStringList good{QStringLiteral("whole"), QStringLiteral("restored"),
                                      QStringLiteral("finished"), QStringLiteral("cleaned"), busy};
        if (problem.isEmpty() && !good.contains(peer->Result()))
            problem = QStringLiteral("one cannot recover it") + Said(peers);
    }
    if (problem.isEmpty() && peers[0]->Result() == busy && peers[1]->Result() == busy)
        problem = QStringLiteral("each left it to the other") + Said(peers);
    if (!problem.isEmpty())
        return problem;
    const bool isNew =
        hasSwapped || (maySwap && kxtest::Snapshot(site.Application()) != before.Lines());
    const QStringList lines = isNew ? after.Lines() : before.Lines();
    if (kxtest::Snapshot(site.Application()) != lines)
        return QStringLiteral("the application is neither version:\n") +
               kxtest::Differences(kxtest::Snapshot(site.Application()), lines) + Said(peers);
    // One that was killed before it had moved anything leaves its lock, which nobody holds. The
    // next install takes it along.
    const auto next = Start(QStringLiteral("install"), Assembled(QStringLiteral("next")));
    problem = LetGo({next});
    if (problem.isEmpty())
        problem = Judge({next}, {{installed}});
    return problem.isEmpty() ? site.Problem(after.Lines()) : problem;
}

QString Scene::RecoverOfRunning()
{
    static const char* const states[] = {"BACKUPREMOVING", "BACKUPING", "MOVING", "BACKUPCLEARING"};
    const QString state = QString::fromLatin1(states[random.bounded(4)]);
    const auto peer = Start(QStringLiteral("hold"), Assembled(QStringLiteral("held")), state);
    if (!peer->Await(QStringLiteral("ready")))
        return QStringLiteral("it does not get ready") + Said({peer});
    peer->Go();
    if (!peer->Await(QStringLiteral("state ") + state))
        return QStringLiteral("it does not get to ") + state + Said({peer});
    const QString place = QFileInfo(site.Application()).absolutePath();
    const QStringList found = kxtest::Snapshot(place);
    const guard::Recovery recovery = guard::Recover(site.Application());
    if (recovery.state != guard::RecoveryState::Busy)
        return QStringLiteral("a recovery in %1 is not kept off: %2").arg(state, recovery.text);
    if (kxtest::Snapshot(place) != found)
        return QStringLiteral("a recovery in %1 changed something:\n").arg(state) +
               kxtest::Differences(kxtest::Snapshot(place), found);
    hasCollided = true;
    peer->Go();
    if (!peer->AwaitEnd() || peer->Result() != installed)
        return QStringLiteral("the install does not go on in ") + state + Said({peer});
    return site.Problem(after.Lines());
}

struct SceneRow
{
    const char* name;
    QString (Scene::*run)();
    int entries; // of the trees: there must be time to meet
};

const SceneRow sceneRows[] = {
    {"two installs", &Scene::TwoInstalls, 30},
    {"two updates", &Scene::TwoUpdates, 30},
    {"an update and one that waits", &Scene::UpdateAndQueue, 30},
    {"two kxupdate", &Scene::TwoTools, 30},
    {"two recoveries of a killed install", &Scene::RecoversOfKilled, 200},
    {"a recovery of a running install", &Scene::RecoverOfRunning, 30},
};

} // namespace

int main(int argc, char** argv)
{
    const QCoreApplication application(argc, argv);
    campaign::Campaign campaign(argc, argv);
    const int rounds = campaign.Given().Rounds(5, 100);
    QMap<QString, int> collisions;
    int round = 0;
    for (; round < rounds && !campaign.IsEnough(); ++round) {
        const quint32 seed = campaign.Given().SeedOf(round);
        for (const SceneRow& row : sceneRows) {
            kxtest::HttpTestServer server;
            Scene scene(seed, row.entries, campaign.NewDirectory(), server);
            const QString problem = (scene.*row.run)();
            if (!problem.isEmpty())
                campaign.Fail(seed, QLatin1String(row.name), problem);
            collisions[QLatin1String(row.name)] += scene.hasCollided ? 1 : 0;
        }
    }
    campaign.Figure(QStringLiteral("rounds of each kind"), round);
    for (const SceneRow& row : sceneRows)
        campaign.Figure(QLatin1String("collided, ") + QLatin1String(row.name),
                        collisions.value(QLatin1String(row.name)));
    return campaign.End();
}
