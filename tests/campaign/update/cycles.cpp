// One process that updates again and again, in every way that an update can go: afterwards it holds
// no more descriptors, threads and memory than when it was warm.

#include "campaign.h"
#include "campaignsite.h"
#include "chaosserver.h"
#include "processfigures.h"
#include "treebuilder.h"

#include <kxguard/filelock.h>
#include <kxguard/recover.h>

#include <QCoreApplication>
#include <QEventLoop>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QRegularExpression>

#include <memory>

using campaign::RandomTree;
using kxtest::CampaignSite;
using kxtest::ChaosPlan;
using kxtest::ChaosServer;
using kxtest::ProcessFigures;
using kxtest::ShortTimeouts;
using kxtest::UpdateOutcome;
using kxtest::UpdateRun;

namespace {

#ifdef KX_SANITIZED
constexpr int shortRounds = 60;
#else
constexpr int shortRounds = 100;
#endif

constexpr int unitMs = 8;
constexpr int patienceMs = 60000;
constexpr int hostRefusal = 4711;

// Between the means of the first and the last quarter of the samples. About half of what one
// leaked block of the smallest size (32 bytes) makes of the 600 cycles between them, and more than
// twice what the samples of a healthy process differ by.
constexpr qint64 mostHeapGrowth = 9600;
// Memory that malloc() has not given out: stacks, mappings. In whole pages, and what the allocator
// keeps varies by two of these three megabytes.
constexpr qint64 mostResidentGrowth = 6 << 20;

const char* const states[] = {"CHECKING",         "QUERYING",   "SCANNING",      "AVAILABLE",
                              "PREPARING",        "COPYING",    "DOWNLOADING",   "VERIFICATION",
                              "CREATINGSYMLINKS", "INSTALLING", "APPCALLBACK",   "BACKUPREMOVING",
                              "BACKUPING",        "MOVING",     "BACKUPCLEARING"};

// A guard must not go while it is asked.
const char* const deletionStates[] = {"QUERYING",     "SCANNING",  "COPYING", "DOWNLOADING",
                                      "VERIFICATION", "BACKUPING", "MOVING"};

// What Qt loads with its first secure connection, such as the certificates of the system, stays: a
// redirect that leads to one must not look like growth.
void LoadSecureTransport()
{
    QNetworkAccessManager manager;
    QEventLoop loop;
    std::unique_ptr<QNetworkReply> reply(
        manager.get(QNetworkRequest(QUrl(QStringLiteral("https://127.0.0.1:1/")))));
    QObject::connect(reply.get(), SIGNAL(finished()), &loop, SLOT(quit()));
    loop.exec();
}

/** One version, as its server offers it. */
struct Offer
{
    Offer(const QString& root, const RandomTree& tree, const QString& version)
        : site(root), server(site.Server()), version(version), lines(tree.Lines())
    {
        site.Publish(tree, version, server.Url());
    }

    CampaignSite site;
    ChaosServer server;
    QString version;
    QStringList lines;
};

QStringList WithoutModes(QStringList lines)
{
    static const QRegularExpression mode(QStringLiteral(" file [0-7]+ "));
    return lines.replaceInStrings(mode, QStringLiteral(" file "));
}

class Cycles
{
public:
    Cycles(quint32 seed, const QString& directory);

    /** One update, or what came of it; one that meets `fault` if that is not empty. Empty when the
     *  application is whole afterwards. */
    QString Run(const QString& fault);
    /** Before the first one. */
    const ProcessFigures& AtRest() const { return atRest; }
    /** Waits until everything that was given up has gone, and counts. */
    ProcessFigures Settle();

    const QMap<QString, int>& Counts() const { return counts; }

private:
    enum class Kind { Whole, CheckOnly, Failing, Canceled, Deleted, Refused, Busy, Recovered };

    QString RunKind(Kind kind, const QString& fault, UpdateRun& run, Offer& offer);
    QString WholeProblem();

    QRandomGenerator random;
    CampaignSite site;
    RandomTree tree;
    Offer first;
    Offer second;
    QNetworkAccessManager lasting;
    const Offer* offered = nullptr; // in the last cycle
    ProcessFigures atRest;
    QMap<QString, int> counts;
};

Cycles::Cycles(quint32 seed, const QString& directory)
    : random(seed),
      site(directory + QStringLiteral("/site")),
      tree(random.generate(), 25),
      first(directory + QStringLiteral("/first"), tree, QStringLiteral("1.0")),
      second(directory + QStringLiteral("/second"), tree.Mutate(random.generate()),
             QStringLiteral("2.0"))
{
    site.Install(tree);
    atRest = ProcessFigures::Now();
    LoadSecureTransport();
    atRest = Settle();
}

QString Cycles::WholeProblem()
{
    const QStringList found = WithoutModes(kxtest::Snapshot(site.Application()));
    if (found != WithoutModes(first.lines) && found != WithoutModes(second.lines))
        return QStringLiteral("the application is neither of the two versions:\n") +
               kxtest::Differences(found, WithoutModes(first.lines));
    return site.BesideProblem();
}

QString Cycles::RunKind(Kind kind, const QString& fault, UpdateRun& run, Offer& offer)
{
    guard::FileLock lock(guard::ApplicationLockPath(site.Application()));
    switch (kind) {
    case Kind::Whole:
    case Kind::Recovered:
        break;
    case Kind::CheckOnly:
        run.CheckOnly();
        break;
    case Kind::Failing: {
        ChaosPlan::Settings chaos;
        chaos.seed = random.generate();
        chaos.percent = 50;
        chaos.timeoutMs = unitMs * 30;
        if (!fault.isEmpty())
            chaos.faults = QStringList{fault};
        offer.server.Misbehave(chaos);
        break;
    }
    case Kind::Canceled:
        run.CancelAt(QLatin1String(states[random.bounded(int(std::size(states)))]));
        break;
    case Kind::Deleted:
        run.DeleteAt(QLatin1String(deletionStates[random.bounded(int(std::size(deletionStates)))]));
        break;
    case Kind::Refused:
        run.SetCallback([] { return hostRefusal; });
        break;
    case Kind::Busy:
        if (lock.Take() != guard::FileLock::Result::Taken)
            return QStringLiteral("the lock is not free: ") + lock.Reason();
        break;
    }
    const UpdateOutcome outcome = run.Run();
    ++counts[outcome.Text().section(QLatin1Char(' '), 0, 0)];
    return outcome.end == UpdateOutcome::End::Hung ? outcome.Text() : QString();
}

QString Cycles::Run(const QString& fault)
{
    const bool hasFirst =
        WithoutModes(kxtest::Snapshot(site.Application())) == WithoutModes(first.lines);
    // Mostly the other one; now and then there is nothing to do.
    Offer& offer = hasFirst == (random.bounded(6) == 0) ? first : second;
    offer.server.Behave();
    // What another version left is no beginning of this one.
    if (offered != &offer || random.bounded(2) == 0)
        kxtest::Remove(site.Download());
    offered = &offer;
    const ShortTimeouts timeouts(unitMs);
    QNetworkAccessManager own;
    QNetworkAccessManager* manager = random.bounded(2) == 0 ? &own : &lasting;
    static const Kind kinds[] = {Kind::Whole,   Kind::Whole,    Kind::CheckOnly, Kind::Failing,
                                 Kind::Failing, Kind::Canceled, Kind::Canceled,  Kind::Canceled,
                                 Kind::Deleted, Kind::Refused,  Kind::Busy,      Kind::Recovered};
    const Kind kind =
        fault.isEmpty() ? kinds[random.bounded(int(std::size(kinds)))] : Kind::Failing;
    QString problem;
    {
        // The installed version is not known: whatever is offered is another one.
        UpdateRun run(manager, site.Places(offer.server.Url(), QStringLiteral("0.1")));
        run.SetPatience(1000, patienceMs / 1000);
        problem = RunKind(kind, fault, run, offer);
    }
    if (!problem.isEmpty())
        return problem;
    // A swap that ended with its updater is mended at the next start.
    const guard::Recovery recovery = guard::Recover(site.Application());
    if (!recovery.IsWhole())
        return QStringLiteral("it is not recovered: ") + recovery.text;
    return WholeProblem();
}

ProcessFigures Cycles::Settle()
{
    lasting.clearConnectionCache();
    first.server.Behave();
    second.server.Behave();
    // Threads end, and the server sees that its clients have gone, in their own time.
    QTimer limit;
    limit.setSingleShot(true);
    limit.start(patienceMs);
    ProcessFigures now;
    do {
        QCoreApplication::processEvents();
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        now = ProcessFigures::Now();
    } while (limit.isActive() &&
             (now.threads > atRest.threads || now.descriptors > atRest.descriptors));
    return now;
}

/** What is compared: figures of the process, taken in equal distances once it is warm. */
class Growth
{
public:
    explicit Growth(const ProcessFigures& atRest) : atRest(atRest) {}

    void Add(int cycle, const ProcessFigures& figures)
    {
        cycles << cycle;
        samples << figures;
    }

    /** Descriptors and threads that are there too many, at any time. */
    QStringList HandleProblems() const;
    /** Memory that is, at the end. */
    QStringList MemoryProblems() const;
    void Report(campaign::Campaign& campaign) const;

private:
    qint64 MeanHeap(qsizetype from, qsizetype count) const;
    qint64 HeapGrowth() const;
    qint64 ResidentGrowth() const;
    qsizetype Quarter() const { return qMax<qsizetype>(1, samples.size() / 4); }

    const ProcessFigures atRest;
    QList<int> cycles;
    QList<ProcessFigures> samples;
};

qint64 Growth::MeanHeap(qsizetype from, qsizetype count) const
{
    qint64 sum = 0;
    for (qsizetype i = from; i < from + count; ++i)
        sum += samples.at(i).heap;
    return sum / count;
}

qint64 Growth::HeapGrowth() const
{
    return MeanHeap(samples.size() - Quarter(), Quarter()) - MeanHeap(0, Quarter());
}

qint64 Growth::ResidentGrowth() const
{
    return samples.last().resident - samples.first().resident;
}

QStringList Growth::HandleProblems() const
{
    QStringList problems;
    for (qsizetype i = 0; i < samples.size(); ++i) {
        const ProcessFigures& now = samples.at(i);
        if (now.descriptors > atRest.descriptors || now.threads > atRest.threads)
            problems << QStringLiteral("after %1 cycles %2; at rest it was %3")
                            .arg(QString::number(cycles.at(i)), now.Text(), atRest.Text());
    }
    return problems;
}

QStringList Growth::MemoryProblems() const
{
    QStringList problems;
    if (HeapGrowth() > mostHeapGrowth)
        problems << QStringLiteral("the heap has grown by %1 bytes").arg(HeapGrowth());
    // A sanitizer keeps what is freed for a while, and has no figure for the heap.
    if (samples.last().heap > 0 && ResidentGrowth() > mostResidentGrowth)
        problems
            << QStringLiteral("the resident memory has grown by %1 bytes").arg(ResidentGrowth());
    return problems;
}

void Growth::Report(campaign::Campaign& campaign) const
{
    campaign.Figure(QStringLiteral("at rest"), atRest.Text());
    campaign.Figure(QStringLiteral("cycles to get warm"), cycles.first());
    campaign.Figure(QStringLiteral("when warm"), samples.first().Text());
    campaign.Figure(QStringLiteral("at the end"), samples.last().Text());
    campaign.Figure(QStringLiteral("growth of the heap, bytes"), HeapGrowth());
    campaign.Figure(QStringLiteral("growth allowed, bytes"), mostHeapGrowth);
}

} // namespace

int main(int argc, char** argv)
{
    kxtest::CountEveryByte(argv);
    const QCoreApplication application(argc, argv);
    campaign::Campaign campaign(argc, argv);
    const int rounds = qMax(20, campaign.Given().Rounds(shortRounds, 1000));
    const int step = rounds / 20;
    Cycles cycles(campaign.Given().seed, campaign.SharedDirectory());
    const QStringList faults = ChaosPlan::AllFaults();
    Growth growth(cycles.AtRest());
    int done = 0;
    while (done < rounds && !campaign.IsEnough()) {
        const QString problem = cycles.Run(faults.value(done));
        if (!problem.isEmpty())
            campaign.Fail(campaign.Given().seed, QStringLiteral("cycle %1").arg(done), problem);
        ++done;
        if (done < rounds / 5 || done % step != 0)
            continue;
        growth.Add(done, cycles.Settle());
        if (!growth.HandleProblems().isEmpty())
            break;
    }
    const QStringList problems = growth.HandleProblems() + growth.MemoryProblems();
    if (!problems.isEmpty())
        campaign.Fail(campaign.Given().seed, QStringLiteral("the end"),
                      problems.join(QStringLiteral("\n    ")));
    campaign.Figure(QStringLiteral("cycles"), done);
    for (auto count = cycles.Counts().cbegin(); count != cycles.Counts().cend(); ++count)
        campaign.Figure(QStringLiteral("ended, ") + count.key().toLower(), count.value());
    growth.Report(campaign);
    return campaign.End();
}
