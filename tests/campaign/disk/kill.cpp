// Kills an update at each of its system calls that change the disk, before the call and after it,
// and looks at what Recover() makes of the rest:
//   - the application is byte for byte the old or the new version,
//   - a second recovery changes nothing,
//   - the next update comes through, and nothing is left beside the application.
// The same for an update whose swap fails and is taken back, and for a recovery that is killed.

#include "campaign.h"
#include "nginxserver.h"
#include "treebuilder.h"
#include "updateround.h"
#include "workers.h"

#include <kxguard/recover.h>

#include <QCoreApplication>
#include <QHash>
#include <QMutex>
#include <QRandomGenerator>
#include <QSet>

#include <algorithm>
#include <atomic>
#include <cerrno>

using campaign::DiskCall;
using campaign::TracedCommand;
using campaign::TracedEnd;
using campaign::UpdateRound;
using campaign::Verdict;

namespace {

QString S(const char* text)
{
    return QString::fromUtf8(text);
}

/** Counts the calls, and acts on one or two of them. Calls have the numbers from 1 on. */
class Stopper : public campaign::DiskWatcher
{
public:
    int killAt = 0;
    bool isAfter = false;
    int failAt = 0;
    int error = 0;
    std::vector<DiskCall> calls;

    Verdict Enter(const DiskCall& call) override
    {
        if (call.kind == DiskCall::Kind::Look)
            return {};
        calls.push_back(call);
        const int number = int(calls.size());
        if (number == killAt)
            return {isAfter ? Verdict::What::KillAfter : Verdict::What::KillBefore, 0};
        if (number == failAt)
            return {Verdict::What::Fail, error};
        return {};
    }

    QString Last() const
    {
        return calls.empty() ? S("the beginning") : QString::fromUtf8(calls.back().Text());
    }
};

/** A moment of a run. */
struct Point
{
    int killAt;
    bool isAfter;
    int failAt = 0;
    int error = 0;
    bool isTool = false; //!< kxupdate instead of the small program
};

class KillCampaign
{
public:
    KillCampaign(campaign::Campaign& campaign, const UpdateRound& round, quint32 seed,
                 const QString& directory)
        : campaign(campaign), round(round), seed(seed), directory(directory)
    {
    }

    void Run(bool isLong, int sample);

private:
    QString Place(int thread) const { return directory + S("/place-%1").arg(thread); }
    bool Record(Stopper* stopper, const QString& place, const TracedCommand& command);
    void AddPoints(std::vector<Point>* points, int from, int count, int failAt, int error) const;
    std::vector<Point> AllPoints();
    std::vector<Point> ToolPoints();
    std::vector<Point> RollbackPoints(const std::vector<DiskCall>& calls);
    void Kill(const Point& point, int thread);
    void CheckRecovered(const QString& place, const QString& where);
    void CheckNextUpdate(const TracedCommand& update, const QString& place, const QString& where);
    void KillRecovery(const QString& killed, int thread, const QString& where);
    void Fail(const QString& where, const QString& text);

    campaign::Campaign& campaign;
    const UpdateRound& round;
    const quint32 seed;
    const QString directory;
    QMutex mutex;
    QSet<QByteArray> recoveredStates; // guarded by mutex
    bool isEachRecoveryKilled = false;

public:
    std::atomic<int> kills{0};
    std::atomic<int> rollbackKills{0};
    std::atomic<int> toolKills{0};
    std::atomic<int> recoveries{0};
    std::atomic<int> recoveryKills{0};
    std::atomic<int> late{0};
    std::atomic<int> backToOld{0};
    std::atomic<int> onToNew{0};
    int calls = 0;
};

void KillCampaign::Fail(const QString& where, const QString& text)
{
    const QMutexLocker locker(&mutex);
    campaign.Fail(seed, where, text);
}

// A whole run, without a kill.
bool KillCampaign::Record(Stopper* stopper, const QString& place, const TracedCommand& command)
{
    const TracedEnd end = campaign::RunTraced(command, *stopper);
    if (end.status == (stopper->failAt ? 1 : 0))
        return true;
    Fail(S("a whole run"), S("status %1, signal %2: %3")
                               .arg(end.status)
                               .arg(end.signal)
                               .arg(QString::fromUtf8(kxtest::Read(place + S(".output")))));
    return false;
}

void KillCampaign::AddPoints(std::vector<Point>* points, int from, int count, int failAt,
                             int error) const
{
    for (int number = from; number <= count; ++number) {
        points->push_back({number, false, failAt, error});
        points->push_back({number, true, failAt, error});
    }
}

std::vector<Point> KillCampaign::AllPoints()
{
    const QString place = Place(0);
    round.Lay(place);
    Stopper whole;
    if (!Record(&whole, place, round.Update(place)))
        return {};
    const QString problem =
        round.WholeProblem(place, {UpdateRound::State::New}) + round.NeighbourProblem(place, true);
    if (!problem.isEmpty()) {
        Fail(S("a whole run"), problem);
        return {};
    }
    calls = int(whole.calls.size());
    std::vector<Point> points;
    AddPoints(&points, 1, calls, 0, 0);
    const std::vector<Point> rollback = RollbackPoints(whole.calls);
    points.insert(points.end(), rollback.begin(), rollback.end());
    const std::vector<Point> tool = ToolPoints();
    points.insert(points.end(), tool.begin(), tool.end());
    return points;
}

// The tool does the same and a little more: one call in five.
std::vector<Point> KillCampaign::ToolPoints()
{
    const QString place = Place(0);
    round.Lay(place);
    Stopper whole;
    if (!Record(&whole, place, round.UpdateWithTool(place)))
        return {};
    std::vector<Point> points;
    for (int number = 1; number <= int(whole.calls.size()); ++number) {
        if (number % 5 == 0)
            points.push_back({number, number % 2 == 0, 0, 0, true});
    }
    return points;
}

// The way back: a call of the swap fails, so that the updater removes what it has begun and puts
// the old version back; killed at each of the calls that follow.
std::vector<Point> KillCampaign::RollbackPoints(const std::vector<DiskCall>& all)
{
    const QString place = Place(0);
    const QByteArray fresh = "/opt/.app.kxnew";
    std::vector<int> inside;
    int placed = 0;
    for (size_t i = 0; i < all.size(); ++i) {
        const bool isFresh = all[i].path.contains(fresh);
        if (isFresh && all[i].secondPath.endsWith("/opt/app"))
            placed = int(i) + 1;
        else if (isFresh)
            inside.push_back(int(i) + 1);
    }
    std::vector<Point> points;
    if (inside.empty() || placed == 0) {
        Fail(S("a whole run"), S("no call of the swap was seen"));
        return points;
    }
    // The first, the middle and the last call on the copy, its placing, and the sync behind that,
    // after which the new version stands and has to go again.
    for (const int failAt :
         {inside.front(), inside[inside.size() / 2], inside.back(), placed, placed + 1}) {
        round.Lay(place);
        Stopper failed;
        failed.failAt = failAt;
        failed.error = ENOSPC;
        if (!Record(&failed, place, round.Update(place)))
            continue;
        const QString problem = round.WholeProblem(place, {UpdateRound::State::Old});
        if (!problem.isEmpty())
            Fail(S("a swap that fails at call %1").arg(failAt), problem);
        AddPoints(&points, failAt + 1, int(failed.calls.size()), failAt, ENOSPC);
    }
    return points;
}

void KillCampaign::Kill(const Point& point, int thread)
{
    const QString place = Place(thread);
    round.Lay(place);
    Stopper stopper;
    stopper.killAt = point.killAt;
    stopper.isAfter = point.isAfter;
    stopper.failAt = point.failAt;
    stopper.error = point.error;
    const TracedCommand update = point.isTool ? round.UpdateWithTool(place) : round.Update(place);
    const TracedEnd end = campaign::RunTraced(update, stopper);
    QString where = S("%1 call %2, %3")
                        .arg(point.isAfter ? S("after") : S("before"))
                        .arg(point.killAt)
                        .arg(stopper.Last());
    if (point.failAt > 0)
        where += S(" (call %1 failed)").arg(point.failAt);
    if (point.isTool)
        where += S(" (kxupdate)");
    ++(point.isTool ? toolKills : point.failAt > 0 ? rollbackKills : kills);
    if (!end.isKilled) {
        // Data arrives in other pieces each time: this run had fewer calls.
        ++late;
        if (end.status != (point.failAt > 0 ? 1 : 0))
            Fail(where, S("was not killed and ended with %1").arg(end.status));
    }
    const QString neighbours = round.NeighbourProblem(place, false);
    if (!neighbours.isEmpty())
        Fail(where, neighbours);
    if (isEachRecoveryKilled)
        KillRecovery(place, thread, where);
    CheckRecovered(place, where);
    CheckNextUpdate(update, place, where);
}

void KillCampaign::CheckRecovered(const QString& place, const QString& where)
{
    const guard::Recovery recovery = guard::Recover(UpdateRound::App(place));
    ++recoveries;
    QString problem = round.WholeProblem(place);
    if (problem.isEmpty())
        problem = round.NeighbourProblem(place, false);
    if (problem.isEmpty() && !recovery.IsWhole())
        problem = S("the recovery says that nothing whole stands there");
    if (!problem.isEmpty()) {
        Fail(where, problem + S("\n  recovery: ") + recovery.text);
        return;
    }
    ++(round.StateOf(place) == UpdateRound::State::Old ? backToOld : onToNew);
    const QStringList before = kxtest::Snapshot(UpdateRound::Parent(place));
    const guard::Recovery second = guard::Recover(UpdateRound::App(place));
    if (second.state != guard::RecoveryState::Whole)
        Fail(where, S("a second recovery found something to do: ") + second.text);
    const QString difference =
        campaign::Difference(kxtest::Snapshot(UpdateRound::Parent(place)), before);
    if (!difference.isEmpty())
        Fail(where, S("a second recovery changed something: ") + difference);
}

void KillCampaign::CheckNextUpdate(const TracedCommand& update, const QString& place,
                                   const QString& where)
{
    const TracedEnd end = campaign::RunPlain(update);
    QString problem;
    if (end.status != 0)
        problem = S("the next update ended with status %1, signal %2: %3")
                      .arg(end.status)
                      .arg(end.signal)
                      .arg(QString::fromUtf8(kxtest::Read(place + S(".output"))));
    if (problem.isEmpty())
        problem = round.WholeProblem(place, {UpdateRound::State::New});
    if (problem.isEmpty())
        problem = round.NeighbourProblem(place, true);
    if (!problem.isEmpty())
        Fail(where + S(", after the next update"), problem);
}

// Kills the recovery of what a kill has left, at each of its own calls. That is for one in six of
// the states that do not look the same.
void KillCampaign::KillRecovery(const QString& killed, int thread, const QString& where)
{
    const QByteArray look = kxtest::Snapshot(UpdateRound::Parent(killed)).join(u'\n').toUtf8();
    {
        const QMutexLocker locker(&mutex);
        if (recoveredStates.contains(look))
            return;
        recoveredStates.insert(look);
        if (recoveredStates.size() % 6 != 1)
            return;
    }
    const QString place = directory + S("/again-%1").arg(thread);
    for (int killAt = 1;; ++killAt) {
        bool isKilled = false;
        for (const bool isAfter : {false, true}) {
            kxtest::Remove(place);
            campaign::CopyPlace(killed, place);
            Stopper stopper;
            stopper.killAt = killAt;
            stopper.isAfter = isAfter;
            isKilled = campaign::RunTraced(round.Recovering(place), stopper).isKilled;
            if (!isKilled)
                break;
            ++recoveryKills;
            CheckRecovered(place, S("%1; recovery killed %2 call %3, %4")
                                      .arg(where, isAfter ? S("after") : S("before"))
                                      .arg(killAt)
                                      .arg(stopper.Last()));
        }
        if (!isKilled || campaign.IsEnough())
            break;
    }
    kxtest::Remove(place);
}

void KillCampaign::Run(bool isLong, int sample)
{
    std::vector<Point> points;
    // Not on this thread, which has the web server for a child.
    campaign::InParallel(
        1, [&](int, int) { points = AllPoints(); }, [] { return false; }, 1);
    if (!isLong) {
        QRandomGenerator random(seed);
        std::shuffle(points.begin(), points.end(), random);
        points.resize(std::min<size_t>(points.size(), size_t(sample)));
    }
    isEachRecoveryKilled = isLong;
    campaign::InParallel(
        int(points.size()), [&](int item, int thread) { Kill(points[size_t(item)], thread); },
        [this] { return campaign.IsEnough(); });
}

} // namespace

int main(int argc, char** argv)
{
    const QCoreApplication app(argc, argv);
    campaign::Campaign campaign(argc, argv);
    const campaign::Options& options = campaign.Given();
    const QString served = campaign.SharedDirectory();
    kxtest::NginxServer server(served);
    if (!server.Start())
        qFatal("no web server: %s", qPrintable(server.Error()));

    qint64 calls = 0;
    qint64 kills = 0;
    qint64 rollbackKills = 0;
    qint64 toolKills = 0;
    qint64 recoveryKills = 0;
    qint64 recoveries = 0;
    qint64 backToOld = 0;
    qint64 onToNew = 0;
    qint64 late = 0;
    const int rounds = options.Rounds(1, 2);
    for (int number = 0; number < rounds && !campaign.IsEnough(); ++number) {
        const quint32 seed = options.SeedOf(number);
        const QString directory = campaign.NewDirectory();
        const UpdateRound round(directory, served, server.Url(), seed);
        KillCampaign one(campaign, round, seed, directory);
        one.Run(options.isLong, 200);
        calls += one.calls;
        kills += one.kills;
        rollbackKills += one.rollbackKills;
        toolKills += one.toolKills;
        recoveryKills += one.recoveryKills;
        recoveries += one.recoveries;
        backToOld += one.backToOld;
        onToNew += one.onToNew;
        late += one.late;
    }
    campaign.Figure(S("trees"), rounds);
    campaign.Figure(S("calls of the updates that change the disk"), calls);
    campaign.Figure(S("updates killed"), kills);
    campaign.Figure(S("failing swaps killed"), rollbackKills);
    campaign.Figure(S("updates with kxupdate killed"), toolKills);
    campaign.Figure(S("recoveries killed"), recoveryKills);
    campaign.Figure(S("runs that ended before their kill"), late);
    campaign.Figure(S("recoveries checked"), recoveries);
    campaign.Figure(S("recovered to the old version"), backToOld);
    campaign.Figure(S("recovered to the new version"), onToNew);
    return campaign.End();
}
