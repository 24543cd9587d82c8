#include "crashstates.h"

#include <QCryptographicHash>
#include <QRandomGenerator>
#include <QSet>

#include <algorithm>

namespace campaign {
namespace {

using Kind = DiskStep::Kind;
using Type = DiskModel::Type;
using Data = CrashState::Data;

QByteArray Survivor(const QByteArray& synced, const QByteArray& full, Data data)
{
    switch (data) {
    case Data::None:
        return synced;
    case Data::Zeros:
        return synced + QByteArray(std::max<qsizetype>(0, full.size() - synced.size()), '\0');
    case Data::Cut:
        return full.left((synced.size() + full.size()) / 2);
    default:
        return full;
    }
}

} // namespace

/** Keeps the states that differ from those before. */
class CrashStates::Collector
{
public:
    Collector(const CrashStates& states, int inode, quint32 seed, int share)
        : states(states), inode(inode), random(seed), share(quint32(share))
    {
    }

    /** Whether the next choice is looked at: to be asked before it is made. */
    bool IsWanted() { return share <= 1 || random.bounded(share) == 0; }

    void Add(const CrashState& state)
    {
        const QByteArray fingerprint = states.Fingerprint(state, inode);
        if (seen.contains(fingerprint))
            return;
        seen.insert(fingerprint);
        distinct.push_back(state);
    }

    /** With each fate of the data. */
    void AddEach(CrashState state)
    {
        for (const Data data : {Data::None, Data::Zeros, Data::Cut, Data::All, Data::Mixed}) {
            state.data = data;
            Add(state);
        }
    }

    std::vector<CrashState> Taken() { return std::move(distinct); }

private:
    const CrashStates& states;
    const int inode;
    QRandomGenerator random;
    const quint32 share;
    QSet<QByteArray> seen;
    std::vector<CrashState> distinct;
};

CrashStates::CrashStates(const DiskModel& start_, std::vector<DiskStep> steps_)
    : start(start_), steps(std::move(steps_))
{
    inodeCount = int(start.inodes.size());
    for (const DiskStep& step : steps)
        inodeCount = std::max(inodeCount, step.inode + 1);
    DiskModel now = start;
    now.inodes.resize(size_t(inodeCount));
    first.resize(size_t(inodeCount));
    names.resize(size_t(inodeCount));
    modes.resize(size_t(inodeCount));
    contents.resize(size_t(inodeCount));
    syncs.resize(size_t(inodeCount));
    for (size_t inode = 0; inode < size_t(inodeCount); ++inode) {
        first[inode] = now.inodes[inode];
        names[inode].push_back({0, now.inodes[inode].names});
        modes[inode].push_back({0, now.inodes[inode].mode});
        contents[inode].push_back({0, now.inodes[inode].bytes});
        syncs[inode].push_back(0);
    }
    std::vector<int> touched(size_t(inodeCount), 0);
    int metadata = 0; // up to which it is on disk
    durable.push_back(0);
    for (size_t i = 0; i < steps.size(); ++i) {
        const DiskStep& step = steps[i];
        const int time = int(i) + 1;
        const size_t inode = size_t(std::max(0, step.inode));
        now.Apply(step);
        const auto noteNames = [&](int directory) {
            names[size_t(directory)].push_back({time, now.inodes[size_t(directory)].names});
            touched[size_t(directory)] = time;
        };
        switch (step.kind) {
        case Kind::Make:
            first[inode] = now.inodes[inode];
            // Where its name is, an entry has at least the mode that it was made with.
            modes[inode] = {{0, step.mode}};
            touched[inode] = time;
            noteNames(step.directory);
            break;
        case Kind::Link:
        case Kind::Unlink:
            touched[inode] = time;
            noteNames(step.directory);
            break;
        case Kind::Rename:
            noteNames(step.directory);
            if (step.secondDirectory != step.directory)
                noteNames(step.secondDirectory);
            break;
        case Kind::Mode:
            modes[inode].push_back({time, step.mode});
            touched[inode] = time;
            break;
        case Kind::Write:
        case Kind::Resize:
            contents[inode].push_back({time, now.inodes[inode].bytes});
            break;
        case Kind::Sync:
            syncs[inode].push_back(time);
            metadata = std::max(metadata, touched[inode]);
            break;
        case Kind::SyncAll:
            for (std::vector<int>& times : syncs)
                times.push_back(time);
            metadata = time;
            break;
        }
        durable.push_back(metadata);
    }
}

// The last sync of the inode in the first `time` steps.
int CrashStates::SyncTime(int inode, int time) const
{
    const std::vector<int>& times = syncs[size_t(inode)];
    return *(std::upper_bound(times.begin(), times.end(), time) - 1);
}

CrashStates::Fate CrashStates::FateOf(const CrashState& state, int inode) const
{
    const auto& history = contents[size_t(inode)];
    Fate fate;
    fate.synced = IndexAt(history, SyncTime(inode, state.steps));
    fate.full = IndexAt(history, state.steps);
    fate.data = state.data;
    if (fate.data == Data::Mixed)
        fate.data = Data((state.seed + quint32(inode)) * 2654435761U >> 30);
    if (fate.full == fate.synced)
        fate.data = Data::All;
    return fate;
}

// Equal for equal trees, but for contents that come out the same in different ways.
QByteArray CrashStates::Fingerprint(const CrashState& state, int inode) const
{
    QCryptographicHash hash(QCryptographicHash::Md5);
    const auto add = [&](const auto& self, int number) -> void {
        const size_t i = size_t(number);
        quint64 numbers[] = {quint64(number), 0, 0, 0};
        if (first[i].type != Type::Link)
            numbers[1] = quint64(modes[i][IndexAt(modes[i], state.modeTimes[i])].second);
        if (first[i].type == Type::File) {
            const Fate fate = FateOf(state, number);
            numbers[2] = quint64(fate.data);
            numbers[3] = fate.data == Data::All    ? fate.full
                         : fate.data == Data::None ? fate.synced
                                                   : (fate.full << 32) + fate.synced;
        }
        hash.addData(QByteArrayView(reinterpret_cast<const char*>(numbers), sizeof numbers));
        if (first[i].type != Type::Directory)
            return;
        const auto& entries = names[i][IndexAt(names[i], state.nameTimes[i])].second;
        for (auto entry = entries.cbegin(); entry != entries.cend(); ++entry) {
            hash.addData(entry.key());
            self(self, *entry);
        }
        hash.addData("/");
    };
    add(add, inode);
    return hash.result();
}

DiskModel CrashStates::Build(const CrashState& state) const
{
    DiskModel model;
    model.inodes.resize(size_t(inodeCount));
    for (int number = 0; number < inodeCount; ++number) {
        const size_t i = size_t(number);
        DiskModel::Inode& inode = model.inodes[i];
        inode.type = first[i].type;
        inode.mode = modes[i][IndexAt(modes[i], state.modeTimes[i])].second;
        if (inode.type == Type::Directory) {
            inode.names = names[i][IndexAt(names[i], state.nameTimes[i])].second;
            continue;
        }
        if (inode.type == Type::Link) {
            inode.bytes = first[i].bytes;
            continue;
        }
        const Fate fate = FateOf(state, number);
        inode.bytes =
            Survivor(contents[i][fate.synced].second, contents[i][fate.full].second, fate.data);
    }
    return model;
}

void CrashStates::AddJournal(Collector* collector) const
{
    CrashState state;
    for (int time = 0; time <= int(steps.size()); ++time) {
        state.steps = time;
        state.seed = quint32(time) * 1000;
        for (int reached = durable[size_t(time)]; reached <= time; ++reached) {
            // Behind a step that is no metadata it is the same.
            if (reached > durable[size_t(time)] && !steps[size_t(reached) - 1].IsMetadata())
                continue;
            if (!collector->IsWanted())
                continue;
            state.nameTimes.assign(size_t(inodeCount), reached);
            state.modeTimes = state.nameTimes;
            collector->AddEach(state);
        }
    }
}

void CrashStates::AddDirectories(int inode, int random, quint32 seed, Collector* collector) const
{
    QRandomGenerator generator(seed);
    for (int time = 0; time <= int(steps.size()); ++time) {
        CrashState early;
        early.steps = time;
        early.seed = seed + quint32(time) * 1000;
        std::vector<int> open; // directories with changes that are not synced
        for (int number = 0; number < inodeCount; ++number) {
            early.nameTimes.push_back(SyncTime(number, time));
            const auto& history = names[size_t(number)];
            if (IndexAt(history, time) != IndexAt(history, early.nameTimes.back()))
                open.push_back(number);
        }
        early.modeTimes = early.nameTimes;
        CrashState late = early;
        late.nameTimes.assign(size_t(inodeCount), time);
        late.modeTimes = late.nameTimes;
        CrashState lateNames = late;
        lateNames.modeTimes = early.modeTimes;
        for (const CrashState* ends : {&lateNames, &early, &late}) {
            if (collector->IsWanted())
                collector->AddEach(*ends);
        }
        for (const CrashState* others : {&early, &late}) {
            for (const int directory : open) {
                const int from = early.nameTimes[size_t(directory)];
                for (const auto& [at, ignored] : names[size_t(directory)]) {
                    const bool isEnd = at > from && IndexAt(names[size_t(directory)], time) ==
                                                        IndexAt(names[size_t(directory)], at);
                    const bool isBegin = at <= from;
                    // Of most directories only the two ends, of the watched one everything.
                    if (at > time || (directory != inode && !isEnd && !isBegin))
                        continue;
                    if (!collector->IsWanted())
                        continue;
                    CrashState state = *others;
                    state.nameTimes[size_t(directory)] = std::max(at, from);
                    collector->AddEach(state);
                }
            }
        }
        for (int i = 0; i < random && !open.empty() && collector->IsWanted(); ++i) {
            CrashState state = late;
            state.seed += quint32(i);
            for (const int directory : open) {
                const int from = early.nameTimes[size_t(directory)];
                state.nameTimes[size_t(directory)] =
                    from + int(generator.bounded(quint32(time - from + 1)));
            }
            for (size_t number = 0; number < size_t(inodeCount); ++number) {
                if (generator.bounded(2))
                    state.modeTimes[number] = early.modeTimes[number];
            }
            state.data = Data(generator.bounded(5));
            collector->Add(state);
        }
    }
}

std::vector<CrashState> CrashStates::Distinct(Order order, int inode, int random, quint32 seed,
                                              int share) const
{
    Collector collector(*this, inode, seed, share);
    if (order == Order::Journal)
        AddJournal(&collector);
    else
        AddDirectories(inode, random, seed, &collector);
    return collector.Taken();
}

QString CrashStates::Describe(const CrashState& state, int count) const
{
    static const char* const data[] = {"none", "zeros", "half", "all", "mixed"};
    QString text = QStringLiteral("after %1 of %2 steps; data that is not synced: %3")
                       .arg(state.steps)
                       .arg(steps.size())
                       .arg(QLatin1String(data[int(state.data)]));
    for (int i = std::max(0, state.steps - count); i < state.steps; ++i) {
        const DiskStep& step = steps[size_t(i)];
        bool isLost = false;
        if (step.kind == Kind::Mode)
            isLost = state.modeTimes[size_t(step.inode)] <= i;
        else if (step.IsMetadata())
            isLost = state.nameTimes[size_t(step.directory)] <= i;
        text += QStringLiteral("\n    %1 %2 %3")
                    .arg(i + 1)
                    .arg(isLost ? QStringLiteral("LOST") : QStringLiteral("    "),
                         QString::fromUtf8(step.text));
    }
    return text;
}

} // namespace campaign
