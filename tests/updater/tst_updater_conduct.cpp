#include "loopticker.h"
#include "updaterrig.h"
#include "wiringguard.h"

#include "retrydelay.h"

#include <kxcommon/errors.h>
#include <kxcommon/ifiledownload.h>
#include <kxupdater/errors.h>

#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QMetaMethod>
#include <QTest>
#include <QTimer>

#include <set>

#include <sys/stat.h>

using kxtest::ErrorLine;
using kxtest::FileRecord;
using kxtest::Reply;
using kxtest::Snapshot;
using kxtest::TestCallback;
using kxtest::TreeBuilder;
using kxtest::UpdaterRig;
using kxtest::WaitFor;

namespace {

/** What a host may call at any time. */
enum class Action {
    Check,
    Wait,
    Download,
    Install,
    Cancel,
    Finish,
    Getters,
    SameSetters,
    OtherSetters,
    VerifyLocalUpdate,
    NestedLoop, // as a host that shows a dialog does
    CancelFromNestedLoop,
    DeleteLater,
    DeleteFromNestedLoop, // while the dialog is open
    DeleteOutside,        // from a timer, as soon as the event loop comes round
};

struct ActionRow
{
    const char* name;
    Action action;
};

const ActionRow actions[] = {
    {"Check", Action::Check},
    {"Wait", Action::Wait},
    {"Download", Action::Download},
    {"Install", Action::Install},
    {"Cancel", Action::Cancel},
    {"Finish", Action::Finish},
    {"every getter", Action::Getters},
    {"every setter with the same value", Action::SameSetters},
    {"every setter with another value", Action::OtherSetters},
    {"VerifyLocalUpdate", Action::VerifyLocalUpdate},
    {"an event loop of its own", Action::NestedLoop},
    {"Cancel in an event loop of its own", Action::CancelFromNestedLoop},
    {"deleteLater", Action::DeleteLater},
    {"delete from outside", Action::DeleteOutside},
};

/** Whole ways of an updater, and what makes them go where they go. */
const char* const roads[] = {"update",
                             "actual",
                             "failed check",
                             "failed download",
                             "failed copy",
                             "rolled back install",
                             "refused install",
                             "given up",
                             "local verification",
                             "repair",
                             "canceled download",
                             "failure among others"};

QStringList PublicSignals()
{
    QStringList names;
    const QMetaObject& meta = updater::IUpdater::staticMetaObject;
    for (int i = meta.methodOffset(); i < meta.methodCount(); ++i) {
        if (meta.method(i).methodType() == QMetaMethod::Signal)
            names << QString::fromLatin1(meta.method(i).name());
    }
    return names;
}

QString NameOf(const QString& line)
{
    return line.left(line.indexOf('('));
}

/**
 * Drives an updater along a road, as a host does, and steps in at one point of it: the first time
 * that a signal comes in a state. The point is "STATE signal".
 */
class Journey : public QObject
{
public:
    Journey(const QString& road, const QString& point = {}, Action action = Action::Getters,
            bool early = true);
    ~Journey() override;

    void Run();
    /** No step of the driver is due, and the machine is in a state that it does not leave. */
    bool IsSettled() const;

    UpdaterRig rig;
    QStringList points; // in the order in which they came
    bool acted = false;
    bool deleted = false;
    QStringList afterwards; // signals after the deletion
    QStringList oldTree;
    QStringList newTree;
    QStringList outside;

private:
    void Prepare();
    void Connect();
    void OnSignal(const QString& line, bool isEarly);
    void Act();
    void Later(std::function<void()> step);
    void Drive(const QString& name);

    const QString road;
    const QString point;
    const Action action;
    const bool early;
    TestCallback callback;
    QString other;
    int due = 0;
    bool finishedOnce = false;
    bool checked = false;
    bool installed = false;
    bool stopped = false;
    bool verifying = false;
    bool isMet = false; // the point
    std::unique_ptr<kxtest::SignalTrace> late;
    QObject context; // of steps that are due
};

Journey::Journey(const QString& road, const QString& point, Action action, bool early)
    : road(road),
      point(point),
      action(action),
      early(early),
      callback(road == "refused install" ? 5 : 0)
{
    Prepare();
}

Journey::~Journey()
{
    late.reset();
}

void Journey::Prepare()
{
    TreeBuilder(rig.App())
        .File("bin/app", "old", 0755)
        .File("same", "same")
        .File("data/same2", "same")
        .File("data/gone", "gone")
        .Symlink("link", "bin/app");
    TreeBuilder tree;
    tree.File("bin/app", "new", 0755)
        .File("same", "same")
        .File("data/same2", "same")
        .File("data/added", "added")
        .Symlink("link", "bin/app")
        .Symlink("newlink", "same");
    if (road == "actual" || road == "local verification")
        rig.Publish("1.0", rig.App());
    else
        rig.Publish(road == "repair" ? "1.0" : "2.0", tree.Root());
    oldTree = Snapshot(rig.App());
    newTree = Snapshot(tree.Root());
    outside = Snapshot(rig.Outside());
    other = rig.Scratch("other");
    TreeBuilder(rig.Root()).File("app.old/stale", "s");
    if (road == "failed check")
        rig.server.SetDefaultReply(UpdaterRig::ManifestUrlPath("2.0"), Reply::Status(404));
    if (road == "failed download")
        rig.server.SetDefaultReply(UpdaterRig::FilePath("2.0", "data/added"), Reply::Status(404));
    if (road == "canceled download" || road == "failure among others")
        rig.server.SetDefaultReply(UpdaterRig::FilePath("2.0", "bin/app"), Reply::Hold());
    if (road == "failure among others")
        rig.server.SetDefaultReply(UpdaterRig::FilePath("2.0", "data/added"), Reply::Status(404));
    if (road == "failed copy")
        TreeBuilder(rig.Next()).Symlink("data", rig.Outside());
    if (road == "rolled back install") {
        // Something stands in the way of the new tree, so that there is something to remove.
        rig.AtState("MOVING", [this] {
            if (!QFile::exists(rig.App()))
                TreeBuilder(rig.App()).File("half/file", "h");
            mkfifo(QFile::encodeName(rig.Next() + "/fifo").constData(), 0644);
        });
        rig.AtState("REVERTING", [this] { kxtest::Remove(rig.Next() + "/fifo"); });
    }
    const QString manifest = rig.Scratch("x") + "/manifest.xml";
    kxtest::Write(manifest, kxtest::ManifestFor("demo", "http://127.0.0.1/", {},
                                                kxtest::ScanForManifest(rig.App()))
                                .toUtf8());
}

void Journey::Later(std::function<void()> step)
{
    ++due;
    QTimer::singleShot(0, &context, [this, step] {
        --due;
        if (rig.updater && !deleted)
            step();
    });
}

/** The host: goes on when the updater tells it that it can. */
void Journey::Drive(const QString& name)
{
    if (deleted)
        return;
    updater::Updater* updater = rig.updater;
    if (name == "waiting" && finishedOnce && !installed) {
        installed = true;
        Later([updater] { updater->Install(); });
    } else if (name == "available") {
        if (road == "given up")
            Later([updater] { updater->Wait(); });
        else
            Later([updater] { updater->Download(); });
    } else if (name == "downloading" && road == "canceled download") {
        Later([updater] { updater->Cancel(); });
    } else if (name == "actual") {
        Later([updater] { updater->Finish(); });
    } else if (name == "canceled") {
        // The end of the road.
    } else if (name == "finished" && !finishedOnce && road != "actual") {
        finishedOnce = true;
        Later([updater] { updater->Cancel(); });
    } else if (name == "waiting" && road == "given up" && checked && !stopped) {
        stopped = true;
        Later([updater] { updater->Cancel(); });
    }
}

void Journey::Act()
{
    acted = true;
    updater::Updater* updater = rig.updater;
    switch (action) {
    case Action::Check:
        updater->Check();
        break;
    case Action::Wait:
        updater->Wait();
        break;
    case Action::Download:
        updater->Download();
        break;
    case Action::Install:
        updater->Install();
        break;
    case Action::Cancel:
        updater->Cancel();
        break;
    case Action::Finish:
        updater->Finish();
        break;
    case Action::Getters:
        updater->URL();
        updater->DownloadPath();
        updater->CurrentVersion();
        updater->ServerVersion();
        updater->IsActual();
        updater->CheckInterval();
        updater->PackageName();
        updater->LocalPackagePath();
        updater->AppCallback();
        updater->ExecutablePath();
        updater->PackageXML();
        updater->BackupPath();
        break;
    case Action::SameSetters:
        updater->SetURL(rig.server.Url().toString().chopped(1));
        updater->SetDownloadPath(updater->DownloadPath());
        updater->SetCurrentVersion(updater->CurrentVersion());
        updater->SetCheckInterval(updater->CheckInterval());
        updater->SetPackageName(updater->PackageName());
        updater->SetLocalPackagePath(updater->LocalPackagePath());
        updater->SetAppCallback(updater->AppCallback());
        break;
    case Action::OtherSetters:
        updater->SetURL("http://127.0.0.1:1/other");
        updater->SetDownloadPath(other + "/next");
        updater->SetCurrentVersion("9.9");
        updater->SetCheckInterval(86400);
        updater->SetPackageName("other");
        updater->SetLocalPackagePath(other + "/app");
        updater->SetAppCallback(nullptr);
        break;
    case Action::VerifyLocalUpdate:
        updater->VerifyLocalUpdate(rig.App(), rig.Scratch("x") + "/manifest.xml");
        break;
    case Action::NestedLoop:
    case Action::CancelFromNestedLoop:
    case Action::DeleteFromNestedLoop: {
        QEventLoop loop;
        int rounds = 0;
        QTimer timer;
        connect(&timer, &QTimer::timeout, &loop, [&] {
            if (++rounds == 3 && action == Action::CancelFromNestedLoop)
                updater->Cancel();
            if (rounds == 3 && action == Action::DeleteFromNestedLoop)
                updater->deleteLater();
            if (rounds == 50)
                loop.quit();
        });
        timer.start(0);
        loop.exec();
        break;
    }
    case Action::DeleteLater:
        updater->deleteLater();
        break;
    case Action::DeleteOutside:
        ++due;
        QTimer::singleShot(0, &context, [this] {
            --due;
            delete rig.updater;
        });
        break;
    }
}

void Journey::OnSignal(const QString& line, bool isEarly)
{
    if (deleted) {
        afterwards << line;
        return;
    }
    const QString name = NameOf(line);
    static const QStringList all = PublicSignals();
    if (!all.contains(name))
        return;
    // The late listeners of an error are told when the machine has already moved on.
    if (!isEarly) {
        if (isMet && !acted && name == point.section(' ', 1))
            Act();
        return;
    }
    const QString here = rig.State() + ' ' + name;
    isMet = isMet || here == point;
    if (!points.contains(here))
        points << here;
    if (name == "checking")
        checked = true;
    if (here == point && !acted && early)
        Act();
    Drive(name);
}

void Journey::Connect()
{
    rig.trace->SetHook([this](const QString& line) { OnSignal(line, true); });
    // Again behind the machine's own connections, which come with each state.
    const auto connectLate = [this] {
        if (deleted)
            return;
        auto* trace = new kxtest::SignalTrace(rig.updater);
        trace->SetHook([this](const QString& line) { OnSignal(line, false); });
        if (late)
            late.release()->deleteLater();
        late.reset(trace);
    };
    connect(rig.updater, &updater::IUpdater::stateChanged, this, connectLate);
    connectLate();
    connect(rig.updater, &QObject::destroyed, this, [this] { deleted = true; });
}

bool Journey::IsSettled() const
{
    if (deleted)
        return due == 0;
    if (verifying)
        return false;
    static const QStringList rests{"WAITING", "AVAILABLE", "ACTUAL", "FAILED", "CANCELED"};
    return due == 0 && (rests.contains(rig.State()) || rig.HasStopped());
}

void Journey::Run()
{
    // The first entry of WAITING is a point like the others.
    bool started = false;
    rig.AtState("WAITING", [&] {
        if (!started)
            Connect();
        started = true;
    });
    rig.Start();
    rig.AtState("WAITING", {});
    if (!deleted) {
        rig.updater->SetAppCallback(&callback);
        if (road == "local verification") {
            rig.updater->VerifyLocalUpdate(rig.App(), rig.Scratch("x") + "/manifest.xml");
            verifying = true;
            connect(rig.updater, &updater::IUpdater::localUpdateVerificationFinished, this,
                    [this] { verifying = false; });
        } else {
            Later([this] { rig.updater->Check(); });
        }
    }
    for (int quiet = 0; quiet < 10;) {
        // A state of rest that lasts for some rounds of the loop.
        if (!WaitFor([this] { return IsSettled(); }))
            return;
        Later([] {});
        WaitFor([this] { return due == 0; });
        quiet = IsSettled() ? quiet + 1 : 0;
    }
}

} // namespace

/** What a host may do to an updater at any time, and what it can rely on meanwhile. */
class TestUpdaterConduct : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();

    void EverythingMayBeCalledFromInsideEverySignal_data();
    void EverythingMayBeCalledFromInsideEverySignal();
    void EverySignalIsMet();
    void DeletionInEveryWorkingStateEndsAllWork_data();
    void DeletionInEveryWorkingStateEndsAllWork();
    void DeletionByTheParentIsSilent();
    void DeletionEndsRunningVerifications();
    void ThreadsAndDescriptorsAreGivenBack();
    void TwoUpdatersDoNotMeet();
    void LeavingADownloadGivesOneError_data();
    void LeavingADownloadGivesOneError();
    void FailedTransferComesBeforeTheAbortOfTheOthers();
    void FailedOnlyTransferComesAlone();
    void EventLoopRunsWhileAWorkerIsHeldUp_data();
    void EventLoopRunsWhileAWorkerIsHeldUp();
    void CommandsWhileAWorkerIsHeldUpAreLost();
    void DeletionFromALoopInsideASignalIsSafe_data();
    void DeletionFromALoopInsideASignalIsSafe();
};

void TestUpdaterConduct::initTestCase()
{
    updater::internal::SetRetryDelay(1);
}

void TestUpdaterConduct::init()
{
    kxtest::FailOnWiringWarnings();
}

void TestUpdaterConduct::EverythingMayBeCalledFromInsideEverySignal_data()
{
    QTest::addColumn<QString>("road");
    QTest::addColumn<QString>("point");
    std::set<QString> seen;
    for (const char* road : roads) {
        Journey journey(road);
        journey.Run();
        for (const QString& point : journey.points) {
            // The way to the end of an assembly is the same on several roads.
            if (seen.insert(point).second || point.startsWith("FAILED") || point.endsWith(" error"))
                QTest::addRow("%s: %s", road, qPrintable(point)) << QString(road) << point;
        }
    }
}

void TestUpdaterConduct::EverythingMayBeCalledFromInsideEverySignal()
{
    QFETCH(QString, road);
    QFETCH(QString, point);
    // The machine itself listens to one of the signals: there it matters who is told first.
    const QList<bool> orders =
        point.endsWith(" error") ? QList<bool>{true, false} : QList<bool>{true};
    for (const bool early : orders) {
        for (const ActionRow& row : actions) {
            const QByteArray what =
                (QStringLiteral("%1 inside %2, %3").arg(row.name, point, early ? "early" : "late"))
                    .toUtf8();
            Journey journey(road, point, row.action, early);
            journey.Run();
            UpdaterRig& rig = journey.rig;
            QVERIFY2(journey.acted, what + ": the point was not reached");
            QVERIFY2(journey.IsSettled(), what + ": no state of rest");

            // The program is never lost: at its place, whole, or in the backup, whole.
            if (row.action != Action::OtherSetters) {
                const QStringList app = Snapshot(rig.App());
                QVERIFY2(app == journey.oldTree || app == journey.newTree ||
                             Snapshot(rig.Backup()) == journey.oldTree,
                         what + ": " + app.join('\n').toUtf8());
            }
            QVERIFY2(Snapshot(rig.Outside()) == journey.outside, what);
            QVERIFY2(!kxtest::Exists(rig.Root() + "/.app.kxnew"), what);
            const bool deletes =
                row.action == Action::DeleteLater || row.action == Action::DeleteOutside;
            QVERIFY2(journey.deleted == deletes, what);
            if (deletes) {
                QVERIFY2(!rig.updater, what);
                QVERIFY2(journey.afterwards.isEmpty(),
                         what + ": " + journey.afterwards.join(' ').toUtf8());
                continue;
            }

            // And the updater is as good as before.
            rig.server.SetDefaultReply(UpdaterRig::ManifestUrlPath("2.0"), Reply());
            rig.updater->SetURL(rig.server.Url().toString().chopped(1));
            rig.updater->SetPackageName("demo");
            rig.updater->SetLocalPackagePath(rig.App());
            rig.updater->SetDownloadPath(rig.Next());
            rig.trace->SetHook({});
            rig.updater->disconnect(&journey);
            rig.updater->Cancel();
            rig.updater->Wait();
            QVERIFY2(rig.Reach("WAITING"), what + ": " + rig.State().toUtf8());
            rig.updater->Check();
            QVERIFY2(rig.Reach({"AVAILABLE", "ACTUAL"}), what + ": " +
                                                             rig.States().join(' ').toUtf8() +
                                                             rig.Errors().join(' ').toUtf8());
        }
    }
}

void TestUpdaterConduct::EverySignalIsMet()
{
    // Or the test above would claim more than it tries.
    QStringList met;
    QStringList states;
    for (const char* road : roads) {
        Journey journey(road);
        journey.Run();
        for (const QString& point : journey.points) {
            met << point.section(' ', 1);
            states << point.section(' ', 0, 0);
        }
    }
    for (const QString& name : PublicSignals())
        QVERIFY2(met.contains(name), qPrintable(name));
    for (const char* state :
         {"WAITING",      "CHECKING",       "QUERYING",    "SCANNING",       "AVAILABLE",
          "ACTUAL",       "PREPARING",      "COPYING",     "DOWNLOADING",    "CREATINGSYMLINKS",
          "VERIFICATION", "INSTALLING",     "APPCALLBACK", "BACKUPREMOVING", "BACKUPING",
          "MOVING",       "BACKUPCLEARING", "REVERTING",   "RESTORING",      "FAILED",
          "CANCELED",     "SUCCESS"})
        QVERIFY2(states.contains(state), state);
}

void TestUpdaterConduct::DeletionInEveryWorkingStateEndsAllWork_data()
{
    QTest::addColumn<QString>("state");
    QTest::addColumn<bool>("later");
    for (const char* state :
         {"WAITING", "QUERYING", "SCANNING", "AVAILABLE", "COPYING", "DOWNLOADING", "VERIFICATION",
          "BACKUPREMOVING", "MOVING", "BACKUPCLEARING", "REVERTING", "CANCELED", "SUCCESS"}) {
        QTest::addRow("%s", state) << QString(state) << false;
        QTest::addRow("%s, later", state) << QString(state) << true;
    }
}

void TestUpdaterConduct::DeletionInEveryWorkingStateEndsAllWork()
{
    QFETCH(QString, state);
    QFETCH(bool, later);
    UpdaterRig rig;
    TreeBuilder app(rig.App());
    TreeBuilder tree;
    TreeBuilder stale(rig.Backup());
    for (int i = 0; i < 60; ++i) {
        app.File(QStringLiteral("many/%1").arg(i), "x");
        tree.File(QStringLiteral("many/%1").arg(i), "x");
        stale.File(QStringLiteral("many/%1").arg(i), "x");
    }
    // Long to hash, and so to scan and verify.
    app.Sparse("big", 16 << 20);
    tree.Sparse("big", 16 << 20).File("new", kxtest::RandomBytes(100000, 1));
    rig.Publish("2.0", tree.Root());
    if (state == "QUERYING")
        rig.server.SetDefaultReply("/packages/version.xml", Reply::Hold());
    if (state == "DOWNLOADING")
        rig.server.SetDefaultReply(UpdaterRig::FilePath("2.0", "new"), Reply::StallAfter(50000));
    if (state == "REVERTING") {
        rig.AtState("MOVING", [&] {
            TreeBuilder half(rig.App());
            for (int i = 0; i < 60; ++i)
                half.File(QStringLiteral("half/%1").arg(i), "x");
            mkfifo(QFile::encodeName(rig.Next() + "/fifo").constData(), 0644);
        });
    }
    rig.Start();
    const QStringList outside = Snapshot(rig.Outside());

    // The deletion comes in the first round of the loop after the entry of the state.
    bool gone = false;
    QStringList atTheEnd;
    QStringList afterwards;
    const QString last = "destroyed!";
    rig.log.SetHook([&](const kxtest::LogRecord& record) {
        if (record.text.endsWith(": " + last))
            atTheEnd << record.text;
    });
    rig.trace->SetHook([&](const QString& line) {
        if (!atTheEnd.isEmpty())
            afterwards << line;
    });
    const auto remove = [&] {
        if (later)
            rig.updater->deleteLater();
        else
            delete rig.updater;
        gone = true;
    };
    QObject context;
    rig.AtState(state, [&] { QTimer::singleShot(0, &context, remove); });
    if (state == "WAITING") {
        remove();
    } else {
        rig.updater->Check();
        if (state == "CANCELED")
            rig.updater->Cancel();
    }
    if (!gone && !QStringList{"QUERYING", "SCANNING", "AVAILABLE", "CANCELED"}.contains(state)) {
        QVERIFY(rig.Reach("AVAILABLE"));
        rig.updater->Download();
        if (!QStringList{"COPYING", "DOWNLOADING", "VERIFICATION", "SUCCESS"}.contains(state)) {
            QVERIFY(WaitFor([&] { return rig.HasStopped(); }));
            rig.updater->Cancel();
            QVERIFY(rig.Reach("WAITING"));
            rig.updater->Install();
        }
    }
    QVERIFY(WaitFor([&] { return gone && !rig.updater; }));
    QCOMPARE(atTheEnd.size(), 1);
    // A worker that was quicker than the loop has moved the machine on; that is fine as well.
    for (int i = 0; i < 20; ++i)
        QCoreApplication::processEvents();
    QCOMPARE(afterwards, QStringList());
    QCOMPARE(Snapshot(rig.Outside()), outside);
    QVERIFY(!kxtest::Exists(rig.Root() + "/.app.kxnew"));
    // Nobody works on: the trees stay as they are.
    const QStringList left = Snapshot(rig.Root());
    for (int i = 0; i < 20; ++i)
        QCoreApplication::processEvents();
    QCOMPARE(Snapshot(rig.Root()), left);
}

void TestUpdaterConduct::DeletionByTheParentIsSilent()
{
    UpdaterRig rig;
    TreeBuilder(rig.App()).File("same", "s");
    rig.PublishRecords("2.0", {FileRecord("new", "new")});
    rig.server.SetDefaultReply(UpdaterRig::FilePath("2.0", "new"), Reply::Hold());
    auto parent = std::make_unique<QObject>();
    updater::Updater* updater = rig.Make(parent.get());
    QCOMPARE(updater->parent(), parent.get());
    kxtest::SignalTrace trace(updater);
    QVERIFY(WaitFor([&] { return trace.Last() == "waiting()"; }));
    updater->Check();
    QVERIFY(WaitFor([&] { return trace.Last() == "available()"; }));
    updater->Download();
    QVERIFY(WaitFor([&] { return rig.server.StalledCount() == 1; }));
    trace.Clear();
    parent.reset();
    QCOMPARE(trace.Lines(), QStringList());
    for (int i = 0; i < 20; ++i)
        QCoreApplication::processEvents();
    QCOMPARE(trace.Lines(), QStringList());
}

void TestUpdaterConduct::DeletionEndsRunningVerifications()
{
    UpdaterRig rig;
    TreeBuilder(rig.App()).File("file", "f").Sparse("large", qint64(1) << 40); // takes for ever
    const QString manifest = rig.Scratch("x") + "/manifest.xml";
    kxtest::Write(
        manifest,
        kxtest::ManifestFor("demo", "http://127.0.0.1/", {}, {FileRecord("file", "f")}).toUtf8());
    rig.Start();
    const qsizetype threads = kxtest::Threads().size();
    for (int i = 0; i < 3; ++i)
        QVERIFY(rig.updater->VerifyLocalUpdate(rig.App(), manifest));
    QCOMPARE(kxtest::Threads().size(), threads + 3);
    rig.trace->Clear();
    delete rig.updater;
    QTRY_VERIFY_WITH_TIMEOUT(kxtest::Threads().size() <= threads, kxtest::patience);
    QCOMPARE(rig.trace->Lines(), QStringList());
}

void TestUpdaterConduct::ThreadsAndDescriptorsAreGivenBack()
{
    const auto journey = [](Action action, const QString& point) {
        Journey made("update", point, action);
        made.Run();
    };
    journey(Action::Getters, {}); // what the process keeps for good is there now
    const auto threads = [] { return kxtest::Threads().size(); };
    // Threads of a pool end by and by.
    const qsizetype before = threads();
    const int descriptors = kxtest::DescriptorCount();
    for (int round = 0; round < 3; ++round) {
        journey(Action::Getters, {});
        for (const char* point :
             {"SCANNING stateChanged", "COPYING stateChanged", "DOWNLOADING stateChanged",
              "VERIFICATION stateChanged", "APPCALLBACK stateChanged", "MOVING stateChanged"}) {
            journey(Action::Cancel, point);
            journey(Action::DeleteLater, point);
            journey(Action::DeleteOutside, point);
        }
    }
    QTRY_VERIFY_WITH_TIMEOUT(threads() <= before, kxtest::patience);
    QTRY_VERIFY_WITH_TIMEOUT(kxtest::DescriptorCount() <= descriptors, kxtest::patience);
}

void TestUpdaterConduct::TwoUpdatersDoNotMeet()
{
    Journey first("update");
    UpdaterRig second;
    TreeBuilder(second.App()).File("file", "old");
    TreeBuilder tree;
    tree.File("file", "newer").File("dir/other", "o");
    second.Publish("3.0", tree.Root());
    second.Start();
    second.updater->Check();
    // The first goes its whole way while the second is on its own.
    QTimer push;
    connect(&push, &QTimer::timeout, &push, [&] {
        if (second.State() == "AVAILABLE")
            second.updater->Download();
    });
    push.start(0);
    first.Run();
    QVERIFY(second.Reach("SUCCESS"));
    QVERIFY(second.Install());
    QCOMPARE(Snapshot(first.rig.App()), first.newTree);
    QCOMPARE(Snapshot(second.App()), Snapshot(tree.Root()));
    QCOMPARE(first.rig.Errors(), QStringList());
    QCOMPARE(second.Errors(), QStringList());
}

void TestUpdaterConduct::LeavingADownloadGivesOneError_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<bool>("started");
    for (const bool started : {true, false}) {
        for (const char* command : {"Cancel", "Wait"})
            QTest::addRow("%s, %s", command, started ? "data under way" : "no data yet")
                << command << started;
    }
}

void TestUpdaterConduct::LeavingADownloadGivesOneError()
{
    QFETCH(QString, command);
    QFETCH(bool, started);
    UpdaterRig rig;
    updater::FileList records;
    for (int i = 0; i < 10; ++i) {
        const QString name = QString::number(i);
        const QByteArray content = kxtest::RandomBytes(100000, static_cast<quint32>(i));
        records << FileRecord(name, content);
        rig.server.SetBody(UpdaterRig::FilePath("2.0", name), content);
        rig.server.SetDefaultReply(UpdaterRig::FilePath("2.0", name),
                                   started ? Reply::StallAfter(50000) : Reply::Hold());
    }
    rig.PublishRecords("2.0", records);
    rig.Start();
    QVERIFY(rig.Check());
    rig.updater->Download();
    QVERIFY(WaitFor([&] { return rig.server.StalledCount() == 4; }));
    rig.Forget();
    if (command == "Cancel")
        rig.updater->Cancel();
    else
        rig.updater->Wait();
    QVERIFY(rig.Reach(command == "Cancel" ? "CANCELED" : "WAITING"));
    for (int i = 0; i < 20; ++i)
        QCoreApplication::processEvents();
    QCOMPARE(rig.trace->Only({"error", "failed", "canceled", "waiting", "finished"}),
             QStringList({ErrorLine(updater::DownloadAborted, "User abort download!"),
                          command == "Cancel" ? QString("canceled()") : QString("waiting()")}));
}

void TestUpdaterConduct::FailedTransferComesBeforeTheAbortOfTheOthers()
{
    UpdaterRig rig;
    updater::FileList records{FileRecord("missing", "m")};
    for (int i = 0; i < 3; ++i) {
        const QString name = QString::number(i);
        records << FileRecord(name, "content");
        rig.server.SetDefaultReply(UpdaterRig::FilePath("2.0", name), Reply::Hold());
    }
    // The failure must not come before the others run.
    rig.server.Enqueue(UpdaterRig::FilePath("2.0", "missing"), Reply::Hold());
    rig.PublishRecords("2.0", records);
    rig.Start();
    QVERIFY(rig.Check());
    rig.Forget();
    rig.updater->Download();
    QVERIFY(WaitFor([&] { return rig.server.StalledCount() == 4; }));
    // All the held ones go on, and the missing one, a 404, is the only one that ends at once.
    for (int i = 0; i < 3; ++i)
        rig.server.SetDefaultReply(UpdaterRig::FilePath("2.0", QString::number(i)), Reply::Hold());
    rig.server.ReleaseStalled();
    QVERIFY(rig.Reach("FAILED"));
    for (int i = 0; i < 20; ++i)
        QCoreApplication::processEvents();
    const QStringList lines = rig.trace->Only({"error", "failed", "finished"});
    QVERIFY2(lines.size() >= 2, qPrintable(lines.join('\n')));
    QVERIFY2(lines.first().startsWith(QStringLiteral("error(%1, ").arg(common::DownloadStatus)),
             qPrintable(lines.join('\n')));
    QCOMPARE(lines.mid(1), QStringList({ErrorLine(updater::DownloadAborted, "User abort download!"),
                                        "failed()"}));
}

void TestUpdaterConduct::FailedOnlyTransferComesAlone()
{
    UpdaterRig rig;
    rig.PublishRecords("2.0", {FileRecord("missing", "m")});
    rig.Start();
    rig.Forget();
    QVERIFY(rig.Assemble("FAILED"));
    for (int i = 0; i < 20; ++i)
        QCoreApplication::processEvents();
    QCOMPARE(rig.Errors().size(), 1);
    QCOMPARE(rig.trace->CountOf("failed"), 1);
}

void TestUpdaterConduct::EventLoopRunsWhileAWorkerIsHeldUp_data()
{
    QTest::addColumn<QString>("state");
    QTest::newRow("scanning") << "SCANNING";
    QTest::newRow("copying") << "COPYING";
    QTest::newRow("verifying") << "VERIFICATION";
    QTest::newRow("removing a stale backup") << "BACKUPREMOVING";
    QTest::newRow("copying into place") << "MOVING";
    QTest::newRow("removing the backup") << "BACKUPCLEARING";
    QTest::newRow("removing half of a tree") << "REVERTING";
    QTest::newRow("host's callback") << "APPCALLBACK";
    QTest::newRow("hashing a present file") << "DOWNLOADING";
}

void TestUpdaterConduct::EventLoopRunsWhileAWorkerIsHeldUp()
{
    QFETCH(QString, state);
    kxtest::ThreadHold hold;
    bool caught = false;
    // A worker may be done before it can be stopped: then once more, with more for it to do.
    for (int amount = 150; !caught && amount <= 20000; amount *= 2) {
        UpdaterRig rig;
        TreeBuilder app(rig.App());
        TreeBuilder tree;
        TreeBuilder stale(rig.Backup());
        for (int i = 0; i < amount; ++i) {
            for (TreeBuilder* builder : {&app, &tree, &stale})
                builder->File(QStringLiteral("many/%1").arg(i), "x");
        }
        tree.Sparse("big", qint64(amount) << 16);
        if (state == "DOWNLOADING")
            TreeBuilder(rig.Next()).Sparse("big", qint64(amount) << 16);
        rig.Publish("2.0", tree.Root());
        if (state == "REVERTING") {
            rig.AtState("MOVING", [&] {
                TreeBuilder half(rig.App());
                for (int i = 0; i < amount; ++i)
                    half.File(QStringLiteral("half/%1").arg(i), "x");
                mkfifo(QFile::encodeName(rig.Next() + "/fifo").constData(), 0644);
            });
        }
        TestCallback callback(0, true);
        rig.Start();
        rig.updater->SetAppCallback(state == "APPCALLBACK" ? &callback : nullptr);

        QStringList threads;
        QObject context;
        rig.AtState(state, [&] {
            threads = kxtest::Threads();
            // The worker starts in the handler, after this.
            QTimer::singleShot(0, &context, [&] {
                if (rig.State() == state)
                    caught = state == "APPCALLBACK" || hold.Catch(threads);
            });
        });
        rig.updater->Check();
        if (state != "SCANNING") {
            QVERIFY(rig.Reach("AVAILABLE"));
            rig.updater->Download();
            if (state != "COPYING" && state != "VERIFICATION" && state != "DOWNLOADING") {
                QVERIFY(WaitFor([&] { return rig.HasStopped(); }));
                rig.updater->Cancel();
                QVERIFY(rig.Reach("WAITING"));
                rig.updater->Install();
            }
        }
        QVERIFY(rig.Reach(state.toLatin1().constData()));
        kxtest::LoopTicker ticker;
        QVERIFY(WaitFor([&] { return caught || rig.State() != state || ticker.Ticks() > 1000; }));
        if (rig.State() != state) {
            // It was over in the very moment of the stop.
            caught = false;
            hold.Release();
            continue;
        }
        if (!caught)
            continue;
        ticker.Reset();
        QVERIFY(WaitFor([&] { return ticker.Ticks() > 500; }));
        QCOMPARE(rig.State(), state);
        hold.Release();
        callback.latch.release();
        QVERIFY(rig.Reach({"AVAILABLE", "SUCCESS", "FAILED"}));
        QCOMPARE(rig.State() == "FAILED", state == "REVERTING");
        return;
    }
    QVERIFY2(caught, "no worker was caught at its work");
}

void TestUpdaterConduct::CommandsWhileAWorkerIsHeldUpAreLost()
{
    // The callback holds the install; what does not lead out of it has no effect.
    UpdaterRig rig;
    TreeBuilder(rig.App()).File("old", "o");
    TreeBuilder(rig.Next()).File("new", "n");
    TestCallback callback(0, true);
    rig.Start();
    rig.updater->SetAppCallback(&callback);
    rig.updater->Install();
    QVERIFY(rig.Reach("APPCALLBACK"));
    rig.Forget();
    rig.updater->Check();
    rig.updater->Download();
    rig.updater->Install();
    rig.updater->Finish();
    QCOMPARE(rig.State(), QString("APPCALLBACK"));
    callback.latch.release();
    QVERIFY(rig.Reach("SUCCESS"));
    QCOMPARE(rig.States(),
             QStringList({"BACKUPREMOVING", "BACKUPING", "MOVING", "BACKUPCLEARING", "SUCCESS"}));
    QCOMPARE(callback.calls.load(), 1);
    QCOMPARE(Snapshot(rig.App()), Snapshot(rig.Next()));
}

void TestUpdaterConduct::DeletionFromALoopInsideASignalIsSafe_data()
{
    EverythingMayBeCalledFromInsideEverySignal_data();
}

void TestUpdaterConduct::DeletionFromALoopInsideASignalIsSafe()
{
    // A host that asks its user from inside a signal, and is closed meanwhile.
    QFETCH(QString, road);
    QFETCH(QString, point);
    Journey journey(road, point, Action::DeleteFromNestedLoop);
    journey.Run();
    QVERIFY(journey.acted);
    QVERIFY(journey.deleted);
    QVERIFY(!journey.rig.updater);
    QCOMPARE(journey.afterwards, QStringList());
    const QStringList app = Snapshot(journey.rig.App());
    QVERIFY(app == journey.oldTree || app == journey.newTree ||
            Snapshot(journey.rig.Backup()) == journey.oldTree);
}

QTEST_GUILESS_MAIN(TestUpdaterConduct)
#include "tst_updater_conduct.moc"
