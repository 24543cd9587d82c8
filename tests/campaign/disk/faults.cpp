// Lets each call of an update that touches the disk fail, with each error that it can have, and
// looks at what the update makes of it: it ends, by itself, and says what is the case; after
// Recover() the application is byte for byte as before, or whole and new; nothing else is touched.
// A part of the runs has a fault that does not go away again.

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

#include <algorithm>
#include <atomic>
#include <cerrno>

#include <sys/syscall.h>

using campaign::DiskCall;
using campaign::TracedEnd;
using campaign::UpdateRound;
using campaign::Verdict;

namespace {

QString S(const char* text)
{
    return QString::fromUtf8(text);
}

struct Error
{
    int number;
    const char* name;
};

constexpr Error errors[] = {
    {EIO, "EIO"}, {ENOSPC, "ENOSPC"}, {EACCES, "EACCES"}, {EMFILE, "EMFILE"}, {EXDEV, "EXDEV"}};

bool IsOpen(const DiskCall& call)
{
    return call.number == SYS_open || call.number == SYS_openat || call.number == SYS_openat2 ||
           call.number == SYS_creat;
}

// Whether the system may answer the call with the error.
bool IsPossible(const DiskCall& call, int error)
{
    switch (error) {
    case ENOSPC: // a file system that copies on writing needs space for removing, too
        return call.kind != DiskCall::Kind::Look;
    case EMFILE:
        return IsOpen(call);
    case EACCES:
        return IsOpen(call) || call.hasPath;
    case EXDEV:
        return !call.secondPath.isEmpty() || call.number == SYS_copy_file_range ||
               call.number == SYS_ioctl;
    default:
        return true;
    }
}

/** Lets the call `at` fail, or all possible ones from it on. Those that are stopped at have the
 *  numbers from 1 on. */
class Saboteur : public campaign::DiskWatcher
{
public:
    int at = 0;
    int error = 0;
    bool isLasting = false;
    std::vector<DiskCall> calls;

    Verdict Enter(const DiskCall& call) override
    {
        calls.push_back(call);
        const int number = int(calls.size());
        const bool isHit = isLasting ? at > 0 && number >= at : number == at;
        if (!isHit || !IsPossible(call, error))
            return {};
        if (hit.isEmpty())
            hit = QString::fromUtf8(call.Text());
        return {Verdict::What::Fail, error};
    }

    bool WantsResults() const override { return false; }

    QString hit; // the first call that failed
};

struct Point
{
    int call; //!< of all
    int at;   //!< of those with the same name, or of all when the fault stays
    long name;
    Error error;
    bool isLasting;
};

class FaultCampaign
{
public:
    FaultCampaign(campaign::Campaign& campaign, const UpdateRound& round, quint32 seed,
                  const QString& directory)
        : campaign(campaign), round(round), seed(seed), directory(directory)
    {
    }

    void Run(bool isLong, int sample);

    int calls = 0;
    std::atomic<int> faults{0};
    std::atomic<int> lasting{0};
    std::atomic<int> refused{0};
    std::atomic<int> succeeded{0};
    std::atomic<int> backToOld{0};
    std::atomic<int> onToNew{0};
    std::atomic<int> missed{0};

private:
    QString Place(int thread) const { return directory + S("/place-%1").arg(thread); }
    std::vector<Point> Points();
    void Sabotage(const Point& point, int thread);
    QString Problem(const QString& place, const TracedEnd& end);
    void Fail(const QString& where, const QString& text);

    campaign::Campaign& campaign;
    const UpdateRound& round;
    const quint32 seed;
    const QString directory;
    QMutex mutex;
};

void FaultCampaign::Fail(const QString& where, const QString& text)
{
    const QMutexLocker locker(&mutex);
    campaign.Fail(seed, where, text);
}

std::vector<Point> FaultCampaign::Points()
{
    const QString place = Place(0);
    round.Lay(place);
    Saboteur whole;
    campaign::TracedCommand command = round.Update(place);
    command.withLooks = true;
    const TracedEnd end = campaign::RunTraced(command, whole);
    const QString problem = round.WholeProblem(place, {UpdateRound::State::New});
    if (end.status != 0 || !problem.isEmpty()) {
        Fail(S("a whole run"), S("status %1: ").arg(end.status) + problem);
        return {};
    }
    calls = int(whole.calls.size());
    std::vector<Point> points;
    QHash<long, int> counts;
    for (int at = 1; at <= calls; ++at) {
        const long name = whole.calls[size_t(at) - 1].number;
        const int same = ++counts[name];
        for (const Error& error : errors) {
            if (!IsPossible(whole.calls[size_t(at) - 1], error.number))
                continue;
            points.push_back({at, same, name, error, false});
            // Full disks and broken ones stay so.
            const bool canLast = error.number == EIO || error.number == ENOSPC;
            if (canLast && at % 10 == 0)
                points.push_back({at, at, -1, error, true});
        }
    }
    return points;
}

void FaultCampaign::Sabotage(const Point& point, int thread)
{
    const QString place = Place(thread);
    round.Lay(place);
    Saboteur saboteur;
    saboteur.at = point.at;
    saboteur.error = point.error.number;
    saboteur.isLasting = point.isLasting;
    campaign::TracedCommand command = round.Update(place);
    command.withLooks = true;
    // Stopping at all the others would take most of the time.
    command.only = point.name;
    const TracedEnd end = campaign::RunTraced(command, saboteur);
    ++(point.isLasting ? lasting : faults);
    // Data arrives in other pieces each time, and the call is another one.
    missed += saboteur.hit.isEmpty();
    const QString where = S("call %1 %2, %3 %4")
                              .arg(point.call)
                              .arg(point.isLasting ? S("and all behind it") : S("alone"),
                                   S(point.error.name), saboteur.hit);
    const QString problem = Problem(place, end);
    if (!problem.isEmpty())
        Fail(where, problem + S("\n  the update said: ") +
                        QString::fromUtf8(kxtest::Read(place + S(".output"))).simplified());
}

QString FaultCampaign::Problem(const QString& place, const TracedEnd& end)
{
    if (end.IsTimeout())
        return S("the update does not end");
    if (end.signal != 0)
        return S("the update crashed with signal %1").arg(end.signal);
    QString problem = round.NeighbourProblem(place, false);
    if (!problem.isEmpty())
        return problem;
    if (end.status == 0) {
        ++succeeded;
        problem = round.WholeProblem(place, {UpdateRound::State::New});
        if (!problem.isEmpty())
            return S("success, but ") + problem;
    } else if (end.status == 1) {
        ++refused;
        if (!QString::fromUtf8(kxtest::Read(place + S(".output"))).contains(S("error ")))
            return S("the update failed without an error");
    } else {
        return S("status %1").arg(end.status);
    }
    const guard::Recovery recovery = guard::Recover(UpdateRound::App(place));
    problem = round.WholeProblem(place);
    if (problem.isEmpty())
        problem = round.NeighbourProblem(place, false);
    if (problem.isEmpty() && !recovery.IsWhole())
        problem = S("the recovery says that nothing whole stands there");
    if (!problem.isEmpty())
        return problem + S("\n  recovery: ") + recovery.text;
    ++(round.StateOf(place) == UpdateRound::State::Old ? backToOld : onToNew);
    return {};
}

void FaultCampaign::Run(bool isLong, int sample)
{
    std::vector<Point> points;
    // Not on this thread, which has the web server for a child.
    campaign::InParallel(
        1, [&](int, int) { points = Points(); }, [] { return false; }, 1);
    if (!isLong) {
        QRandomGenerator random(seed);
        std::shuffle(points.begin(), points.end(), random);
        points.resize(std::min<size_t>(points.size(), size_t(sample)));
    }
    campaign::InParallel(
        int(points.size()), [&](int item, int thread) { Sabotage(points[size_t(item)], thread); },
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

    const int rounds = options.Rounds(1, 1);
    qint64 calls = 0;
    qint64 faults = 0;
    qint64 lasting = 0;
    qint64 missed = 0;
    qint64 refused = 0;
    qint64 succeeded = 0;
    qint64 backToOld = 0;
    qint64 onToNew = 0;
    for (int number = 0; number < rounds && !campaign.IsEnough(); ++number) {
        const quint32 seed = options.SeedOf(number);
        const QString directory = campaign.NewDirectory();
        const UpdateRound round(directory, served, server.Url(), seed);
        FaultCampaign one(campaign, round, seed, directory);
        one.Run(options.isLong, 150);
        calls += one.calls;
        faults += one.faults;
        lasting += one.lasting;
        missed += one.missed;
        refused += one.refused;
        succeeded += one.succeeded;
        backToOld += one.backToOld;
        onToNew += one.onToNew;
    }
    campaign.Figure(S("trees"), rounds);
    campaign.Figure(S("calls of the updates on the disk"), calls);
    campaign.Figure(S("faults"), faults);
    campaign.Figure(S("faults that stay"), lasting);
    campaign.Figure(S("runs in which nothing failed"), missed);
    campaign.Figure(S("updates that failed"), refused);
    campaign.Figure(S("updates that succeeded all the same"), succeeded);
    campaign.Figure(S("then the old version"), backToOld);
    campaign.Figure(S("then the new version"), onToNew);
    return campaign.End();
}
