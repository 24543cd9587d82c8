// Updates from a server that misbehaves: each ends with exactly the new version or, told clearly,
// with the old one untouched; and what it left in the download directory does not hinder the next.

#include "campaign.h"
#include "campaignsite.h"
#include "chaosserver.h"
#include "errorcodes.h"
#include "logcapture.h"
#include "peer.h"
#include "treebuilder.h"

#include <QCoreApplication>
#include <QNetworkAccessManager>

#include <memory>
#include <vector>

using campaign::RandomTree;
using kxtest::CampaignSite;
using kxtest::ChaosPlan;
using kxtest::ChaosServer;
using kxtest::Peer;
using kxtest::ShortTimeouts;
using kxtest::UpdateOutcome;
using kxtest::UpdateRun;

namespace {

#ifdef KX_SANITIZED
constexpr int shortRounds = 12;
#else
constexpr int shortRounds = 40;
#endif

constexpr int unitMs = 8;
// A worker that reads or writes a whole tree signals nothing meanwhile. On a busy machine it may
// take long, but never as long as this many timeouts.
constexpr int mostSilentTimeouts = 500;

// Each query is sent three times, each file fetched in three attempts, with one more for a part
// that did not fit; Qt sends a request again, three times, on a connection that was gone; and every
// request may lead on 20 times. A client that asks more often than that goes in circles.
constexpr int sendsPerRequest = (3 + 1) * (3 + 1) * (20 + 1);

struct Round
{
    quint32 seed;
    RandomTree before;
    RandomTree after;
    ChaosPlan::Settings chaos;
};

Round MakeRound(quint32 seed, int timeoutMs)
{
    // Seeds that follow each other must not make rounds that are alike.
    QRandomGenerator random(seed * 2654435761u);
    Round round;
    round.seed = seed;
    round.before = RandomTree(random.generate());
    round.after = round.before.Mutate(random.generate());
    static const int percents[] = {2, 5, 10, 20, 40, 80};
    round.chaos.seed = random.generate();
    round.chaos.percent = percents[random.bounded(6)];
    round.chaos.timeoutMs = timeoutMs;
    // Half of the rounds have one kind of fault, so that each kind is met in every phase.
    const QStringList faults = ChaosPlan::AllFaults();
    const QString one = faults.at(int(seed % quint32(faults.size())));
    if (random.bounded(2) == 0)
        round.chaos.faults = QStringList{one};
    return round;
}

/** The campaign, and what its rounds share. */
class Network
{
public:
    explicit Network(campaign::Campaign& campaign) : campaign(campaign) {}

    /** The library, in this process. */
    void Run(quint32 seed);
    /** kxupdate, `count` processes at a time, each with a server of its own. */
    void RunTools(quint32 seed, int count);
    void Report();

private:
    UpdateOutcome Update(const CampaignSite& site, ChaosServer& server, int timeoutMs,
                         int patience);
    QString Chaotic(const Round& round, const CampaignSite& site, ChaosServer& server);
    QString Healthy(const Round& round, const CampaignSite& site, ChaosServer& server);
    QString Judge(const Round& round, const CampaignSite& site, const ChaosServer& server,
                  const UpdateOutcome& outcome);

    campaign::Campaign& campaign;
    const QSet<int> documented = kxtest::DocumentedErrorCodes();
    QMap<QString, int> faults;
    QMap<int, int> codes;
    int rounds = 0;
    int installed = 0;
    int failed = 0;
    int nameless = 0;
    int requests = 0;
    int tools = 0;
    int toolsInstalled = 0;
};

/** kxupdate with a server that misbehaves. */
class ToolRound
{
public:
    ToolRound(quint32 seed, const QString& directory)
        : site(directory), server(site.Server()), round(MakeRound(seed, toolTimeoutMs))
    {
        site.Install(round.before);
        site.Publish(round.after, QStringLiteral("2.0"), server.Url());
        // Each silence costs a second here, and each pause between two tries five.
        round.chaos.percent = qMin(round.chaos.percent, 20);
        server.Misbehave(round.chaos);
    }

    void Start()
    {
        peer = std::make_unique<Peer>(
            QStringLiteral(KX_KXUPDATE),
            QStringList{QStringLiteral("update"), QStringLiteral("--timeout"), QStringLiteral("1"),
                        QStringLiteral("--url"), server.Url(), QStringLiteral("--package"),
                        CampaignSite::package, QStringLiteral("--current"), QStringLiteral("1.0"),
                        QStringLiteral("--app"), site.Application(), QStringLiteral("--download"),
                        site.Download()});
    }

    /** Waits for the end of the first run. */
    QString Chaotic();
    /** Runs it once more, against a server that behaves. */
    QString Healthy();

    bool isInstalled = false;

private:
    static constexpr int toolTimeoutMs = 1000;

    QStringList NewLines() const { return round.after.UpdatedFrom(round.before).Lines(); }

    CampaignSite site;
    ChaosServer server;
    Round round;
    std::unique_ptr<Peer> peer;
};

QString ToolRound::Chaotic()
{
    if (!peer->AwaitEnd())
        return QStringLiteral("kxupdate hangs:\n") + peer->Text();
    const int status = peer->Status();
    isInstalled = status == 0;
    // Done; failed; not what the package describes; the server is of no use.
    if (!QList<int>{0, 1, 5, 6}.contains(status))
        return QStringLiteral("kxupdate ended with %1:\n").arg(status) + peer->Text();
    const bool names =
        peer->Text().contains(server.Url()) || peer->Text().contains(site.Download());
    if (!isInstalled && !names)
        return QStringLiteral("kxupdate names neither an address nor a path:\n") + peer->Text();
    const QString problem =
        site.ApplicationProblem(isInstalled ? NewLines() : round.before.Lines());
    return problem.isEmpty() ? problem
                             : problem + QLatin1Char('\n') + peer->Text() +
                                   server.Plan().Happened().join(QLatin1Char('\n'));
}

QString ToolRound::Healthy()
{
    server.Behave();
    Start();
    if (!peer->AwaitEnd() || peer->Status() != 0)
        return QStringLiteral("kxupdate ended with %1, though the server behaves:\n")
                   .arg(peer->Status()) +
               peer->Text();
    const QString problem = site.ApplicationProblem(NewLines());
    return problem.isEmpty() ? problem : problem + QLatin1Char('\n') + peer->Text();
}

UpdateOutcome Network::Update(const CampaignSite& site, ChaosServer& server, int timeoutMs,
                              int patience)
{
    QNetworkAccessManager manager;
    UpdateRun run(&manager, site.Places(server.Url(), QStringLiteral("1.0")));
    run.SetPatience(timeoutMs, patience);
    QObject::connect(&server, SIGNAL(active()), &run, SLOT(Live()));
    return run.Run();
}

QString Network::Judge(const Round& round, const CampaignSite& site, const ChaosServer& server,
                       const UpdateOutcome& outcome)
{
    const qsizetype most = (round.after.Entries().size() + 2) * sendsPerRequest;
    if (server.RequestCount() > most)
        return QStringLiteral("%1 requests were sent").arg(server.RequestCount());
    if (outcome.end == UpdateOutcome::End::Installed)
        return site.Problem(round.after.UpdatedFrom(round.before).Lines());
    if (outcome.end != UpdateOutcome::End::Failed)
        return QStringLiteral("neither the new version nor an error");
    if (outcome.errors.isEmpty())
        return QStringLiteral("failed without an error");
    for (const UpdateOutcome::Error& error : outcome.errors) {
        if (error.text.isEmpty() || !documented.contains(error.code))
            return QStringLiteral("an error without a text or with an unknown code");
        ++codes[error.code];
    }
    // The first one is the cause.
    const UpdateOutcome::Error& cause = outcome.errors.first();
    const bool names = cause.text.contains(server.Url()) || cause.text.contains(site.Download()) ||
                       cause.text.contains(site.Application());
    if (!names && !kxtest::HasFixedText(cause.code))
        return QStringLiteral("the error names neither an address nor a path");
    nameless += names ? 0 : 1;
    return site.Problem(round.before.Lines());
}

QString Network::Chaotic(const Round& round, const CampaignSite& site, ChaosServer& server)
{
    server.Misbehave(round.chaos);
    const UpdateOutcome outcome = Update(site, server, round.chaos.timeoutMs, mostSilentTimeouts);
    requests += server.RequestCount();
    outcome.end == UpdateOutcome::End::Installed ? ++installed : ++failed;
    const QString problem = Judge(round, site, server, outcome);
    return problem.isEmpty() ? QString()
                             : problem + QStringLiteral("\n  ") + outcome.Text() +
                                   QStringLiteral("\n  the server:\n    ") +
                                   server.Plan().Happened().join(QStringLiteral("\n    "));
}

QString Network::Healthy(const Round& round, const CampaignSite& site, ChaosServer& server)
{
    // Nothing but the new version will do now; timeouts are the shipped ones, so that none is run
    // into because the machine is busy.
    const bool isNew = site.Problem(round.before.Lines()) != QString();
    server.Behave();
    const UpdateOutcome outcome = Update(site, server, 1000, 120);
    const auto expected = isNew ? UpdateOutcome::End::Current : UpdateOutcome::End::Installed;
    const QString problem =
        outcome.end == expected
            ? site.Problem(round.after.UpdatedFrom(round.before).Lines())
            : QStringLiteral("the run against the healthy server does not end as it should");
    return problem.isEmpty() ? QString() : problem + QStringLiteral("\n  ") + outcome.Text();
}

void Network::Run(quint32 seed)
{
    CampaignSite site(campaign.NewDirectory());
    ChaosServer server(site.Server());
    kxtest::LogCapture log;
    QString problem;
    Round round;
    {
        const ShortTimeouts timeouts(unitMs);
        round = MakeRound(seed, timeouts.TimeoutMs());
        site.Install(round.before);
        site.Publish(round.after, QStringLiteral("2.0"), server.Url());
        problem = Chaotic(round, site, server);
    }
    if (problem.isEmpty())
        problem = Healthy(round, site, server);
    ++rounds;
    for (auto fault = server.Plan().Counts().cbegin(); fault != server.Plan().Counts().cend();
         ++fault)
        faults[fault.key()] += fault.value();
    if (problem.isEmpty())
        return;
    const QStringList lines = log.Lines();
    campaign.Fail(
        seed,
        QStringLiteral("%1 % of %2")
            .arg(round.chaos.percent)
            .arg(round.chaos.faults.isEmpty() ? QStringLiteral("all faults")
                                              : round.chaos.faults.first()),
        problem + QStringLiteral("\n  the log ends:\n    ") +
            lines.mid(qMax<qsizetype>(0, lines.size() - 30)).join(QStringLiteral("\n    ")));
}

void Network::RunTools(quint32 seed, int count)
{
    const QString directory = campaign.NewDirectory();
    std::vector<std::unique_ptr<ToolRound>> running;
    for (int i = 0; i < count; ++i) {
        running.push_back(std::make_unique<ToolRound>(seed + quint32(i),
                                                      directory + QStringLiteral("/%1").arg(i)));
        running.back()->Start();
    }
    for (int i = 0; i < count; ++i) {
        ToolRound& round = *running[size_t(i)];
        QString problem = round.Chaotic();
        if (problem.isEmpty())
            problem = round.Healthy();
        if (!problem.isEmpty())
            campaign.Fail(seed + quint32(i), QStringLiteral("kxupdate"), problem);
        ++tools;
        toolsInstalled += round.isInstalled ? 1 : 0;
    }
}

void Network::Report()
{
    campaign.Figure(QStringLiteral("rounds of kxupdate"), tools);
    campaign.Figure(QStringLiteral("installed by kxupdate from the misbehaving server"),
                    toolsInstalled);
    campaign.Figure(QStringLiteral("rounds"), rounds);
    campaign.Figure(QStringLiteral("installed from the misbehaving server"), installed);
    campaign.Figure(QStringLiteral("failed with an error"), failed);
    campaign.Figure(QStringLiteral("errors whose text is fixed"), nameless);
    campaign.Figure(QStringLiteral("requests"), requests);
    int total = 0;
    for (auto fault = faults.cbegin(); fault != faults.cend(); ++fault) {
        campaign.Figure(QStringLiteral("fault, ") + fault.key().toLower(), fault.value());
        total += fault.value();
    }
    campaign.Figure(QStringLiteral("faults"), total);
    QStringList list;
    for (auto code = codes.cbegin(); code != codes.cend(); ++code)
        list << QStringLiteral("%1 x %2").arg(code.key()).arg(code.value());
    campaign.Figure(QStringLiteral("codes"), list.join(QStringLiteral(", ")));
}

} // namespace

int main(int argc, char** argv)
{
    const QCoreApplication application(argc, argv);
    campaign::Campaign campaign(argc, argv);
    Network network(campaign);
    const int rounds = campaign.Given().Rounds(shortRounds, 500);
    for (int round = 0; round < rounds && !campaign.IsEnough(); ++round)
        network.Run(campaign.Given().SeedOf(round));
    const int toolRounds = kxtest::RoundsWithPrograms(rounds, 10);
    constexpr int atOnce = 5;
    for (int i = 0; i < toolRounds && !campaign.IsEnough(); i += atOnce)
        network.RunTools(campaign.Given().SeedOf(i), qMin(atOnce, toolRounds - i));
    network.Report();
    return campaign.End();
}
