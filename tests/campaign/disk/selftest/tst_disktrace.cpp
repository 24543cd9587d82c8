#include "crashstates.h"
#include "diskmodel.h"
#include "disktrace.h"
#include "treebuilder.h"
#include "wiringguard.h"

#include <QFile>
#include <QSet>
#include <QTest>

#include <csignal>

using campaign::CrashState;
using campaign::CrashStates;
using campaign::DiskCall;
using campaign::DiskModel;
using campaign::DiskStep;
using campaign::TracedEnd;
using campaign::Verdict;
using kxtest::Snapshot;
using kxtest::TreeBuilder;

namespace {

QString S(const char* text)
{
    return QString::fromUtf8(text);
}

class OneVerdict : public campaign::DiskWatcher
{
public:
    int at = 0;
    Verdict verdict;
    QStringList names;

    Verdict Enter(const DiskCall& call) override
    {
        names << QString::fromLatin1(call.name);
        return int(names.size()) == at ? verdict : Verdict();
    }
};

QStringList calls()
{
    return {S("mkdir"),   S("openat"), S("write"),    S("fchmod"), S("fsync"), S("rename"),
            S("symlink"), S("link"),   S("truncate"), S("unlink"), S("fsync")};
}

TracedEnd Run(const TreeBuilder& place, campaign::DiskWatcher& watcher, long only = -1)
{
    campaign::TracedCommand command;
    command.program = KX_DISK_CALLS;
    command.arguments = {QFile::encodeName(place.Root())};
    command.output = QFile::encodeName(place.Root() + S(".output"));
    command.root = QFile::encodeName(place.Root());
    command.only = only;
    const TracedEnd end = campaign::RunTraced(command, watcher);
    kxtest::Remove(place.Root() + S(".output"));
    return end;
}

QSet<QStringList> StatesOf(CrashStates::Order order, const DiskModel& start,
                           const std::vector<DiskStep>& steps)
{
    const CrashStates states(start, steps);
    QSet<QStringList> trees;
    for (const CrashState& state : states.Distinct(order, 0, 0, 1))
        trees << states.Build(state).Lines(0);
    return trees;
}

} // namespace

class TestDiskTrace : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { kxtest::FailOnWiringWarnings(); }
    void EveryCallBelowTheRootIsSeen();
    void OnlyCallsOfOneKindAreSeen();
    void KillComesBeforeTheCallOrAfterIt();
    void FailedCallIsNotMade();
    void SwallowedCallIsNotMadeAndSucceeds();
    void ModelIsWhatStandsOnDisk();
    void UnsyncedDataMayBeLost();
    void SyncedDataIsNotLost();
    void JournalKeepsTheOrderOfChanges();
    void DirectoriesKeepNoOrderBetweenThem();
};

void TestDiskTrace::EveryCallBelowTheRootIsSeen()
{
    const TreeBuilder place;
    kxtest::Write(place.Path(S("kept")), "x");
    OneVerdict watcher;
    const TracedEnd end = Run(place, watcher);
    QCOMPARE(end.status, 0);
    QVERIFY(!end.isKilled);
    QCOMPARE(watcher.names, calls());
}

void TestDiskTrace::OnlyCallsOfOneKindAreSeen()
{
    const TreeBuilder place;
    kxtest::Write(place.Path(S("kept")), "x");
    OneVerdict watcher;
    QCOMPARE(Run(place, watcher, 74).status, 0); // fsync
    QCOMPARE(watcher.names, QStringList({S("fsync"), S("fsync")}));
}

void TestDiskTrace::KillComesBeforeTheCallOrAfterIt()
{
    for (int at = 1; at <= calls().size(); ++at) {
        QStringList before;
        for (const auto what : {Verdict::What::KillBefore, Verdict::What::KillAfter}) {
            const TreeBuilder place;
            kxtest::Write(place.Path(S("kept")), "x");
            OneVerdict watcher;
            watcher.at = at;
            watcher.verdict.what = what;
            const TracedEnd end = Run(place, watcher);
            QVERIFY(end.isKilled);
            QCOMPARE(watcher.names, calls().mid(0, at));
            const QStringList tree = Snapshot(place.Root());
            const bool isSync = calls().at(at - 1) == S("fsync");
            if (what == Verdict::What::KillBefore)
                before = tree;
            else
                QCOMPARE(tree == before, isSync);
        }
    }
}

void TestDiskTrace::FailedCallIsNotMade()
{
    for (int at = 1; at <= calls().size(); ++at) {
        const TreeBuilder place;
        kxtest::Write(place.Path(S("kept")), "x");
        OneVerdict watcher;
        watcher.at = at;
        watcher.verdict = {Verdict::What::Fail, EDQUOT};
        QCOMPARE(Run(place, watcher).status, EDQUOT);
        QCOMPARE(watcher.names, calls().mid(0, at));
    }
}

void TestDiskTrace::SwallowedCallIsNotMadeAndSucceeds()
{
    const TreeBuilder place;
    kxtest::Write(place.Path(S("kept")), "x");
    OneVerdict watcher;
    watcher.at = 10; // unlink
    watcher.verdict.what = Verdict::What::Swallow;
    QCOMPARE(Run(place, watcher).status, 0);
    QCOMPARE(watcher.names, calls());
    QVERIFY(kxtest::Exists(place.Path(S("kept"))));
}

void TestDiskTrace::ModelIsWhatStandsOnDisk()
{
    const TreeBuilder place;
    kxtest::Write(place.Path(S("kept")), "x");
    campaign::DiskRecorder recorder(QFile::encodeName(place.Root()));
    QCOMPARE(Run(place, recorder).status, 0);
    QCOMPARE(recorder.Unknown(), QList<QByteArray>());
    QCOMPARE(recorder.Steps().size(), size_t(calls().size()));
    QCOMPARE(recorder.End().Lines(0), Snapshot(place.Root()));
    const QString copy = place.Path(S("copy"));
    recorder.End().WriteTo(0, QFile::encodeName(copy));
    QCOMPARE(Snapshot(copy), recorder.End().Lines(0));
}

namespace {

/** A root directory, with a directory "d" in it. */
DiskModel TwoDirectories()
{
    DiskModel model;
    model.inodes.resize(2);
    for (DiskModel::Inode& inode : model.inodes) {
        inode.type = DiskModel::Type::Directory;
        inode.mode = 0755;
    }
    model.inodes[0].names.insert("d", 1);
    return model;
}

DiskStep Make(int inode, int directory, const char* name)
{
    DiskStep step;
    step.kind = DiskStep::Kind::Make;
    step.inode = inode;
    step.directory = directory;
    step.name = name;
    step.mode = 0644;
    return step;
}

DiskStep WriteTo(int inode, const char* bytes)
{
    DiskStep step;
    step.kind = DiskStep::Kind::Write;
    step.inode = inode;
    step.bytes = bytes;
    return step;
}

DiskStep Sync(int inode)
{
    DiskStep step;
    step.inode = inode;
    return step;
}

QStringList Tree(const QList<QPair<QString, QByteArray>>& files)
{
    QStringList lines{S("d dir 755")};
    for (const auto& [name, bytes] : files)
        lines << S("%1 file 644 %2 %3").arg(name).arg(bytes.size()).arg(kxtest::MD5Of(bytes));
    lines.sort();
    return lines;
}

} // namespace

void TestDiskTrace::UnsyncedDataMayBeLost()
{
    for (const auto order : {CrashStates::Order::Journal, CrashStates::Order::Directories}) {
        const QSet<QStringList> trees =
            StatesOf(order, TwoDirectories(), {Make(2, 0, "a"), WriteTo(2, "data")});
        QCOMPARE(trees, (QSet<QStringList>{Tree({}), Tree({{S("a"), ""}}),
                                           Tree({{S("a"), QByteArray(4, '\0')}}),
                                           Tree({{S("a"), "da"}}), Tree({{S("a"), "data"}})}));
    }
}

void TestDiskTrace::SyncedDataIsNotLost()
{
    // What has the later file was left after the syncs.
    for (const auto order : {CrashStates::Order::Journal, CrashStates::Order::Directories}) {
        const auto after = [&](const std::vector<DiskStep>& syncs) {
            std::vector<DiskStep> steps{Make(2, 0, "a"), WriteTo(2, "data")};
            steps.insert(steps.end(), syncs.begin(), syncs.end());
            steps.push_back(Make(3, 0, "later"));
            QSet<QStringList> trees;
            for (const QStringList& tree : StatesOf(order, TwoDirectories(), steps)) {
                if (tree.join(u' ').contains(S("later")))
                    trees << tree;
            }
            return trees;
        };
        const QSet<QStringList> whole{Tree({{S("a"), "data"}, {S("later"), ""}})};
        QCOMPARE(after({Sync(2), Sync(0)}), whole);
        QCOMPARE(after({Sync(2)}), whole);
        QCOMPARE(after({Sync(0)}).size(), 4);
        DiskStep all;
        all.kind = DiskStep::Kind::SyncAll;
        QCOMPARE(after({all}), whole);
    }
}

void TestDiskTrace::JournalKeepsTheOrderOfChanges()
{
    const QSet<QStringList> trees =
        StatesOf(CrashStates::Order::Journal, TwoDirectories(), {Make(2, 0, "a"), Make(3, 1, "b")});
    QCOMPARE(trees, (QSet<QStringList>{Tree({}), Tree({{S("a"), ""}}),
                                       Tree({{S("a"), ""}, {S("d/b"), ""}})}));
}

void TestDiskTrace::DirectoriesKeepNoOrderBetweenThem()
{
    const QSet<QStringList> trees = StatesOf(CrashStates::Order::Directories, TwoDirectories(),
                                             {Make(2, 0, "a"), Make(3, 1, "b"), Make(4, 0, "c")});
    const QByteArray none;
    QVERIFY(trees.contains(Tree({{S("d/b"), none}})));
    QVERIFY(trees.contains(Tree({{S("a"), none}, {S("c"), none}})));
    // Within one directory they do.
    for (const QStringList& tree : trees)
        QVERIFY(!tree.join(u' ').contains(S("c file")) || tree.join(u' ').contains(S("a file")));
    // A sync of one directory is none of the other.
    const QSet<QStringList> synced = StatesOf(CrashStates::Order::Directories, TwoDirectories(),
                                              {Make(2, 0, "a"), Make(3, 1, "b"), Sync(1)});
    QVERIFY(synced.contains(Tree({{S("d/b"), none}})));
    // What a directory has synced stays.
    std::vector<DiskStep> steps{Make(2, 0, "a"), Sync(0), Make(3, 1, "b")};
    for (const QStringList& tree :
         StatesOf(CrashStates::Order::Directories, TwoDirectories(), steps))
        QVERIFY(!tree.join(u' ').contains(S("d/b")) || tree.join(u' ').contains(S("a file")));
}

QTEST_GUILESS_MAIN(TestDiskTrace)
#include "tst_disktrace.moc"
