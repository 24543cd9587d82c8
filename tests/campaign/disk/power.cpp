// Writes down what an update does to the disk, and lays out what a power cut may leave of it, after
// each step, with what was not synced lost in several ways (crashstates.h). Recover() then has to
// leave the old or the new version, byte for byte. The same for a power cut while it recovers.
// At the end syncs are taken out of what was written down: that has to show.

#include "campaign.h"
#include "crashstates.h"
#include "nginxserver.h"
#include "treebuilder.h"
#include "updateround.h"
#include "workers.h"

#include <kxguard/recover.h>

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QMutex>
#include <QRandomGenerator>

#include <algorithm>
#include <atomic>

using campaign::CrashState;
using campaign::CrashStates;
using campaign::DiskModel;
using campaign::DiskStep;
using campaign::UpdateRound;
using Order = campaign::CrashStates::Order;

namespace {

QString S(const char* text)
{
    return QString::fromUtf8(text);
}

// Of one tree under one model; a long run checks what there is up to it.
constexpr size_t mostStates = 10000;

const char* NameOf(Order order)
{
    return order == Order::Journal ? "journal" : "directories";
}

/** What a program did, from where on, and what its directories were known as. */
struct Recording
{
    DiskModel start;
    std::vector<DiskStep> steps;
    QList<QPair<QByteArray, int>> identities; //!< of the directories beside the application
};

class PowerCampaign
{
public:
    PowerCampaign(campaign::Campaign& campaign, const UpdateRound& round, quint32 seed,
                  const QString& directory)
        : campaign(campaign), round(round), seed(seed), directory(directory)
    {
    }

    /** `sample`: how many states of each model; 0 for all. */
    void Run(int sample);

    struct Counts
    {
        std::atomic<int> checked{0};
        std::atomic<int> restored{0};
        std::atomic<int> finished{0};
        std::atomic<int> duringRecovery{0};
        std::atomic<int> nextUpdates{0};
        std::atomic<int> leftovers{0};
    };
    Counts counts[2]; // by order
    int distinct[2] = {0, 0};
    int steps = 0;
    int mutationsFound = 0;

private:
    QString Place(int thread) const { return directory + S("/place-%1").arg(thread); }
    bool Record(const QString& place, const campaign::TracedCommand& command, Recording* recording);
    enum class Extent { Application, All };
    void Lay(const Recording& recording, const DiskModel& state, const QString& place,
             Extent extent = Extent::Application) const;
    QString Recovered(const QString& place, Counts* count) const;
    void Check(const Recording& recording, const CrashStates& states, Order order, int sample);
    void CheckState(const Recording& recording, const CrashStates& states, const CrashState& state,
                    Order order, int item, int thread, bool isSample);
    void CheckRecovery(const QString& place, Order order, const QString& where, int thread);
    QString NextUpdateProblem(const QString& place) const;
    void Mutate(const Recording& recording);
    bool IsNoticed(const Recording& recording, const std::vector<DiskStep>& steps, Order order);
    void Fail(const QString& where, const QString& text);

    campaign::Campaign& campaign;
    const UpdateRound& round;
    const quint32 seed;
    const QString directory;
    QMutex mutex;
};

void PowerCampaign::Fail(const QString& where, const QString& text)
{
    const QMutexLocker locker(&mutex);
    campaign.Fail(seed, where, text);
}

bool PowerCampaign::Record(const QString& place, const campaign::TracedCommand& command,
                           Recording* recording)
{
    for (const QString& name : {S("app"), S("app.old"), S(".app.kxnew")}) {
        const QByteArray identity =
            campaign::DirectoryIdentity(UpdateRound::Parent(place) + u'/' + name);
        recording->identities.append({identity, -1});
    }
    campaign::DiskRecorder recorder(QFile::encodeName(place));
    const campaign::TracedEnd end = campaign::RunTraced(command, recorder);
    recording->start = recorder.Start();
    recording->steps = recorder.Steps();
    const char* const names[] = {"opt/app", "opt/app.old", "opt/.app.kxnew"};
    for (int i = 0; i < 3; ++i)
        recording->identities[i].second = recording->start.Find(names[i]);
    if (end.status != 0) {
        Fail(S("a whole run"), S("status %1: %2")
                                   .arg(end.status)
                                   .arg(QString::fromUtf8(kxtest::Read(place + S(".output")))));
        return false;
    }
    for (const QByteArray& call : recorder.Unknown())
        Fail(S("a whole run"), S("the model does not know the call ") + QString::fromUtf8(call));
    // What was written down is all that happened.
    const QString difference =
        campaign::Difference(recorder.End().Lines(0), kxtest::Snapshot(place));
    if (!difference.isEmpty())
        Fail(S("a whole run"), S("the model differs from the disk: ") + difference);
    return difference.isEmpty() && recorder.Unknown().isEmpty();
}

// Lays a state out on disk, with journals that know the directories that are made now.
void PowerCampaign::Lay(const Recording& recording, const DiskModel& state, const QString& place,
                        Extent extent) const
{
    kxtest::Remove(place);
    const int parent = state.Find("opt");
    if (extent == Extent::All) {
        state.WriteTo(0, QFile::encodeName(place));
    } else {
        // Nobody looks at the download, which is half of all.
        QDir().mkpath(place);
        state.WriteTo(parent, QFile::encodeName(UpdateRound::Parent(place)));
    }
    QList<QPair<QByteArray, QByteArray>> identities;
    const auto& names = state.inodes[size_t(parent)].names;
    for (auto name = names.cbegin(); name != names.cend(); ++name) {
        for (const auto& [identity, inode] : recording.identities) {
            if (inode == *name)
                identities.append(
                    {identity, campaign::DirectoryIdentity(UpdateRound::Parent(place) + u'/' +
                                                           QFile::decodeName(name.key()))});
        }
    }
    campaign::AdaptJournal(UpdateRound::Parent(place), identities);
}

// What is wrong after a recovery.
QString PowerCampaign::Recovered(const QString& place, Counts* count) const
{
    const guard::Recovery recovery = guard::Recover(UpdateRound::App(place));
    QString problem = round.WholeProblem(place);
    const bool isClean = problem.isEmpty() && round.NeighbourProblem(place, true).isEmpty();
    if (problem.isEmpty() && !isClean)
        problem = round.NeighbourProblem(place, false);
    if (problem.isEmpty() && !recovery.IsWhole())
        problem = S("the recovery says that nothing whole stands there");
    if (!problem.isEmpty())
        return problem + S("\n  recovery: ") + recovery.text;
    if (count) {
        ++count->checked;
        count->restored += recovery.state == guard::RecoveryState::Restored;
        count->finished += recovery.state == guard::RecoveryState::Finished;
        count->leftovers += !isClean;
    }
    return {};
}

QString PowerCampaign::NextUpdateProblem(const QString& place) const
{
    const campaign::TracedEnd end = campaign::RunPlain(round.Update(place));
    if (end.status != 0)
        return S("the next update ended with status %1, signal %2: %3")
            .arg(end.status)
            .arg(end.signal)
            .arg(QString::fromUtf8(kxtest::Read(place + S(".output"))));
    const QString problem = round.WholeProblem(place, {UpdateRound::State::New});
    return problem.isEmpty() ? round.NeighbourProblem(place, true) : problem;
}

void PowerCampaign::CheckState(const Recording& recording, const CrashStates& states,
                               const CrashState& state, Order order, int item, int thread,
                               bool isSample)
{
    const QString place = Place(thread);
    const DiskModel model = states.Build(state);
    const auto where = [&] { return S(NameOf(order)) + S(", ") + states.Describe(state); };
    Counts& count = counts[int(order)];
    const bool isUpdated = item % (isSample ? 20 : 50) == 0;
    Lay(recording, model, place, isUpdated ? Extent::All : Extent::Application);
    QString problem = Recovered(place, &count);
    if (!problem.isEmpty()) {
        Fail(where(), problem);
        return;
    }
    if (isUpdated) {
        ++count.nextUpdates;
        problem = NextUpdateProblem(place);
        if (!problem.isEmpty())
            Fail(where(), problem);
    }
    if (!isSample && item % 200 == 7) {
        Lay(recording, model, place);
        CheckRecovery(place, order, where(), thread);
    }
}

// The power fails again, in the middle of the recovery.
void PowerCampaign::CheckRecovery(const QString& place, Order order, const QString& where,
                                  int thread)
{
    Recording recording;
    if (!Record(place, round.Recovering(place), &recording) || recording.steps.empty())
        return;
    const CrashStates states(recording.start, recording.steps);
    for (const CrashState& state : states.Distinct(order, recording.start.Find("opt"), 2, seed)) {
        const QString again = directory + S("/again-%1").arg(thread);
        Lay(recording, states.Build(state), again);
        ++counts[int(order)].duringRecovery;
        const QString problem = Recovered(again, nullptr);
        if (!problem.isEmpty())
            Fail(S("power cut again: ") + states.Describe(state) + S("\n  first: ") + where,
                 problem);
        if (campaign.IsEnough())
            break;
    }
}

void PowerCampaign::Check(const Recording& recording, const CrashStates& states, Order order,
                          int sample)
{
    const bool isSample = sample > 0;
    // There are about as many choices as the square of the steps.
    const int share = isSample ? 1 + steps * steps / 4000 : 1;
    std::vector<CrashState> all =
        states.Distinct(order, recording.start.Find("opt"), isSample ? 1 : 10, seed, share);
    distinct[int(order)] += int(all.size());
    const size_t most = isSample ? size_t(sample) : mostStates;
    if (all.size() > most) {
        QRandomGenerator random(seed);
        std::shuffle(all.begin(), all.end(), random);
        all.resize(most);
    }
    campaign::InParallel(
        int(all.size()),
        [&](int item, int thread) {
            CheckState(recording, states, all[size_t(item)], order, item, thread, isSample);
        },
        [this] { return campaign.IsEnough(); });
}

bool PowerCampaign::IsNoticed(const Recording& recording, const std::vector<DiskStep>& left,
                              Order order)
{
    const CrashStates states(recording.start, left);
    std::vector<CrashState> all = states.Distinct(order, recording.start.Find("opt"), 0, seed, 10);
    // The swap is near the end.
    std::reverse(all.begin(), all.end());
    std::atomic<bool> isNoticed{false};
    campaign::InParallel(
        int(all.size()),
        [&](int item, int thread) {
            const QString place = Place(thread);
            Lay(recording, states.Build(all[size_t(item)]), place);
            if (!Recovered(place, nullptr).isEmpty())
                isNoticed = true;
        },
        [&] { return isNoticed.load(); });
    return isNoticed;
}

// Without these syncs an update is not safe, and a campaign that does not notice is worth nothing.
void PowerCampaign::Mutate(const Recording& recording)
{
    const int parent = recording.start.Find("opt");
    size_t placed = 0; // the step that puts the new version into place
    for (size_t i = 0; i < recording.steps.size(); ++i) {
        if (recording.steps[i].kind == DiskStep::Kind::Rename &&
            recording.steps[i].secondName == "app")
            placed = i;
    }
    std::vector<DiskStep> withoutTree;
    std::vector<DiskStep> withoutParent;
    for (size_t i = 0; i < recording.steps.size(); ++i) {
        const DiskStep& step = recording.steps[i];
        const bool isSync = !step.IsMetadata() && step.kind >= DiskStep::Kind::Sync;
        if (!isSync || !step.text.contains("/opt/.app.kxnew"))
            withoutTree.push_back(step);
        if (!isSync || step.inode != parent || i < placed)
            withoutParent.push_back(step);
    }
    const auto mustShow = [&](const QString& what, const std::vector<DiskStep>& left, Order order) {
        if (left.size() < recording.steps.size() && IsNoticed(recording, left, order))
            ++mutationsFound;
        else
            Fail(what, S("nothing was noticed under the model '%1'").arg(S(NameOf(order))));
    };
    mustShow(S("the new tree is not synced"), withoutTree, Order::Journal);
    mustShow(S("the new tree is not synced"), withoutTree, Order::Directories);
    mustShow(S("the directory is not synced before the backup goes"), withoutParent,
             Order::Directories);
}

void PowerCampaign::Run(int sample)
{
    Recording recording;
    bool isRecorded = false;
    campaign::InParallel(
        1,
        [&](int, int) {
            round.Lay(Place(0));
            isRecorded = Record(Place(0), round.Update(Place(0)), &recording);
        },
        [] { return false; }, 1);
    if (!isRecorded)
        return;
    steps = int(recording.steps.size());
    const CrashStates states(recording.start, recording.steps);
    Check(recording, states, Order::Journal, sample);
    Check(recording, states, Order::Directories, sample);
    Mutate(recording);
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

    const int rounds = options.Rounds(1, 2);
    qint64 steps = 0;
    qint64 mutations = 0;
    PowerCampaign::Counts sums[2];
    qint64 distinct[2] = {0, 0};
    const auto run = [&](quint32 seed, int entries, int sample) {
        const QString directory = campaign.NewDirectory();
        const UpdateRound round(directory, served, server.Url(), seed, entries);
        PowerCampaign one(campaign, round, seed, directory);
        one.Run(sample);
        steps += one.steps;
        mutations += one.mutationsFound;
        for (int order = 0; order < 2; ++order) {
            distinct[order] += one.distinct[order];
            sums[order].checked += one.counts[order].checked;
            sums[order].restored += one.counts[order].restored;
            sums[order].finished += one.counts[order].finished;
            sums[order].duringRecovery += one.counts[order].duringRecovery;
            sums[order].nextUpdates += one.counts[order].nextUpdates;
            sums[order].leftovers += one.counts[order].leftovers;
        }
    };
    // So many entries that the copy is brought to disk with its whole volume.
    if (options.isLong)
        run(options.seed + 500000, 280, 300);
    for (int number = 0; number < rounds && !campaign.IsEnough(); ++number)
        run(options.SeedOf(number), 30, options.isLong ? 0 : 300);
    campaign.Figure(S("trees"), rounds + (options.isLong ? 1 : 0));
    campaign.Figure(S("steps of the updates"), steps);
    for (const Order order : {Order::Journal, Order::Directories}) {
        const PowerCampaign::Counts& sum = sums[int(order)];
        const QString name = S(NameOf(order)) + S(", ");
        campaign.Figure(name + S("different states"), distinct[int(order)]);
        campaign.Figure(name + S("states checked"), sum.checked);
        campaign.Figure(name + S("old version put back"), sum.restored);
        campaign.Figure(name + S("new version finished"), sum.finished);
        campaign.Figure(name + S("something left for the next update"), sum.leftovers);
        campaign.Figure(name + S("next updates"), sum.nextUpdates);
        campaign.Figure(name + S("states during a recovery"), sum.duringRecovery);
    }
    campaign.Figure(S("missing syncs that were noticed"), mutations);
    return campaign.End();
}
