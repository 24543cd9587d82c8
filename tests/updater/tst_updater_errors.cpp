#include "allocationfailure.h"
#include "appcallback.h"
#include "fakeservices.h"
#include "filescantask.h"
#include "manifest.h"
#include "treebuilder.h"
#include "updater.h"
#include "updaterjournal.h"
#include "wiringguard.h"

#include <kxcommon/filecopier.h>
#include <kxcommon/fileremover.h>
#include <kxupdater/downloader.h>
#include <kxupdater/filescanner.h>
#include <kxupdater/package.h>
#include <kxupdater/version.h>

#include <QNetworkAccessManager>
#include <QStateMachine>
#include <QTest>
#include <QThread>

#include <functional>
#include <memory>
#include <optional>

using kxtest::AllocationFailure;
using kxtest::Entered;
using kxtest::Exited;
using kxtest::FakeServices;
using kxtest::Journal;

namespace {

constexpr int waitMs = 60000;

/**
 * An updater between directories "app" and "next", whose server is made of fakes: package "demo",
 * version 2.0, the files given to Offer(). Downloads end well, with the file's name as content.
 */
struct Bench
{
    Bench()
        : journal({QStringLiteral("updater.core"), QStringLiteral("updater.filescan"),
                   QStringLiteral("updater.download"), QStringLiteral("updater.version"),
                   QStringLiteral("updater.package")})
    {
        FakeServices::Reset();
        journal.Mask(base.Root(), QStringLiteral("~"));
    }

    void Offer(const updater::FileList& files)
    {
        FakeServices::Answer("/version.xml", {FakeServices::Body(kxtest::VersionReply("2.0"))});
        FakeServices::Answer(
            "/index.xml",
            {FakeServices::Body(kxtest::ManifestFor("demo", "http://server/files", {}, files))});
    }

    void Make(QNetworkAccessManager* networkManager)
    {
        updater = std::make_unique<updater::Updater>(networkManager, nullptr);
        updater->SetURL("http://server");
        updater->SetPackageName("demo");
        updater->SetCurrentVersion("1.0");
        updater->SetLocalPackagePath(base.Path("app"));
        updater->SetDownloadPath(base.Path("next"));
        journal.Trace(updater.get());
        journal.SetHook([this](const QString& line) {
            static const QString change = "stateChanged(";
            if (!line.startsWith(change))
                return;
            failure.reset();
            if (line == change + failAt + ')') {
                journal.Clear();
                if (arm)
                    arm(*this);
            }
            if (onState)
                onState(*this, line.mid(change.size()).chopped(1));
        });
    }

    bool Run(const QString& command, const QString& state)
    {
        if (!command.isEmpty())
            QMetaObject::invokeMethod(updater.get(), qPrintable(command), Qt::DirectConnection);
        const bool reached = QTest::qWaitFor(
            [&] {
                for (kxtest::FakeDownload* download : FakeServices::RunningDownloads()) {
                    const QString path = download->FilePath();
                    kxtest::TreeBuilder(base.Path("next"))
                        .File(path.section("/next/", 1), path.section('/', -1).toUtf8());
                    download->Complete();
                }
                return journal.State() == state &&
                       (state != "SUCCESS" || !kxtest::MachineOf(*updater)->isRunning());
            },
            waitMs);
        if (!reached)
            qWarning("stuck in %s", qPrintable(journal.State()));
        return reached;
    }

    kxtest::TreeBuilder base;
    QNetworkAccessManager manager;
    Journal journal;
    std::optional<AllocationFailure> failure; // until the next state
    QString failAt;                           // the journal begins when this state is entered
    std::function<void(Bench&)> arm;          // then
    std::function<void(Bench&, const QString& state)> onState;
    std::unique_ptr<updater::Updater> updater;
};

updater::File Record(const QString& name)
{
    const QByteArray content = name.section('/', -1).toUtf8();
    return updater::File(name, kxtest::MD5Of(content), quint64(content.size()), "-rw-r--r--", {});
}

updater::File Link(const QString& name, const QString& target)
{
    return updater::File(name, kxtest::MD5Of(target.toUtf8()), quint64(target.size()), {}, target);
}

template <typename T>
std::function<void(Bench&)> Refuse(int first = 1)
{
    return [first](Bench& bench) { bench.failure.emplace(sizeof(T), sizeof(T), first, 1); };
}

QStringList Failed(const QStringList& left)
{
    return Exited(left) + Entered("FAILED");
}

/** What follows a failed MOVING when the application directory is not there. */
QStringList RolledBack()
{
    return Exited({"MOVING"}) + Entered("REVERTING") +
           QStringList{"7 REVERTING: Nothing to remove in '~/app'!", "revertingComplete()"} +
           Exited({"REVERTING"}) + Entered("RESTORING") +
           QStringList{"3 RESTORING: Update failed! Restored from '~/app.old'!",
                       "error(600410, Update failed! Restored from '~/app.old'!)"} +
           Failed({"RESTORING", "INSTALLING"});
}

enum Road { CheckRoad, DownloadRoad, InstallRoad };
using Action = std::function<void(Bench&)>;
using StateAction = std::function<void(Bench&, const QString&)>;

} // namespace

Q_DECLARE_METATYPE(Road)

class TestUpdaterErrors : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void FailureIsLoggedAndLeadsWhereTheTableSays_data();
    void FailureIsLoggedAndLeadsWhereTheTableSays();
    void LinkThatCannotBeMadeFails();
    void ClientsThatAreMissing_data();
    void ClientsThatAreMissing();
    void QueriesThatFail_data();
    void QueriesThatFail();
    void ManifestRequestWithoutItsRequest();
    void RollbackLeavesTheOldTree_data();
    void RollbackLeavesTheOldTree();
};

void TestUpdaterErrors::init()
{
    kxtest::FailOnWiringWarnings();
}

void TestUpdaterErrors::cleanup()
{
    FakeServices::Reset();
}

void TestUpdaterErrors::FailureIsLoggedAndLeadsWhereTheTableSays_data()
{
    QTest::addColumn<Road>("road");
    QTest::addColumn<QString>("state");
    QTest::addColumn<Action>("arm");
    QTest::addColumn<StateAction>("onState");
    QTest::addColumn<QStringList>("expected");
    // `expected`: all from the entry of `state` on, its own stateChanged() excluded.
    const auto Row = [](const char* name, Road road, const QString& state, const Action& arm,
                        const QStringList& expected, const StateAction& onState = {}) {
        QTest::newRow(name) << road << state << arm << onState << expected;
    };
    const QStringList check{"CHECKING"};
    const QString noScanner = "Failed to create file scanner!";
    const QString noVerifier = "Failed to create verification file scanner!";
    const QString noCopier = "Failed to create copier!";
    const QString noDownloader = "Failed to create downloader!";
    const QString noRemover = "Failed to create remover!";

    Row("600401 while checking", CheckRoad, "SCANNING", Refuse<updater::FileScanner>(),
        QStringList{"2 SCANNING: " + noScanner, "error(600401, " + noScanner + ")"} +
            Failed({"SCANNING", "CHECKING"}));
    const QStringList noTask{"filescan 2 Failed to create scan task!",
                             "error(600301, Failed to create scan task!)"};
    const QStringList noThread{"filescan 3 Thread variable is NULL!",
                               "error(600304, Thread variable is NULL!)"};
    Row("600301 while checking", CheckRoad, "SCANNING", Refuse<updater::FileScanTask>(),
        noTask + Failed({"SCANNING", "CHECKING"}));
    Row("600304 while checking", CheckRoad, "SCANNING", Refuse<QThread>(),
        noThread + Failed({"SCANNING", "CHECKING"}));

    Row("600402 while copying", DownloadRoad, "COPYING", Refuse<common::FileCopier>(),
        QStringList{"copying()", "2 COPYING: " + noCopier, "error(600402, " + noCopier + ")"} +
            Failed({"COPYING", "PREPARING"}));
    Row("600404", DownloadRoad, "DOWNLOADING", Refuse<updater::Downloader>(),
        QStringList{"downloading()", "2 DOWNLOADING: " + noDownloader,
                    "error(600404, " + noDownloader + ")"} +
            Failed({"DOWNLOADING", "PREPARING"}));
    const QStringList configured{
        "downloading()",
        "download 6 created, maximum downloads: 4.",
        "download 7 Setting download path '~/next'.",
        "download 7 Setting URL 'http://server/files'.",
        "download 7 Sending download requests...",
    };
    Row(
        "600500 without a transfer", DownloadRoad, "DOWNLOADING",
        [](Bench&) { FakeServices::createDownloads = false; },
        configured +
            QStringList{"download 2 Failed to create file download for file 'new'.",
                        "error(600500, Failed to create file download request.)"} +
            Failed({"DOWNLOADING", "PREPARING"}));
    Row(
        "600500 when the transfer does not start", DownloadRoad, "DOWNLOADING",
        [](Bench&) { FakeServices::refusedDownload = "new"; },
        configured +
            QStringList{"download 6 Trying to start download file 'new'...",
                        "download 2 Can't start download file 'new'!",
                        "error(600500, Failed to create file download request.)"} +
            Failed({"DOWNLOADING", "PREPARING"}));
    const QString link = "~/next/links/link";
    Row(
        "600408, no path", DownloadRoad, "CREATINGSYMLINKS",
        [](Bench& b) { b.base.File("next/links", "in the way"); },
        QStringList{"creatingSymlinks()",
                    "3 CREATINGSYMLINKS: Cannot create path to '" + link + "'",
                    "error(600408, Cannot create path to '" + link + "')"} +
            Failed({"CREATINGSYMLINKS", "PREPARING"}));
    Row(
        "600408, no removal", DownloadRoad, "CREATINGSYMLINKS",
        [](Bench& b) { b.base.Dir("next/links/link/below"); },
        QStringList{"creatingSymlinks()",
                    "4 CREATINGSYMLINKS: '" + link +
                        "' already exists. Trying to remove before creating symlink...",
                    "error(600408, Cannot remove '" + link + "'!)"} +
            Failed({"CREATINGSYMLINKS", "PREPARING"}));
    Row(
        "600405, a stray file", DownloadRoad, "VERIFICATION",
        [](Bench& b) { b.base.File("next/stray", ""); },
        QStringList{
            "verification()", "7 VERIFICATION: " + QString(46, '-'),
            "7 VERIFICATION: This files must be deleted:", "7 VERIFICATION:       * 'stray'",
            "7 VERIFICATION: " + QString(46, '-'), "error(600405, Verification failed)"} +
            Failed({"VERIFICATION", "PREPARING"}));
    Row("600401 while verifying", DownloadRoad, "VERIFICATION", Refuse<updater::FileScanner>(),
        QStringList{"verification()", "2 VERIFICATION: " + noVerifier,
                    "error(600401, " + noVerifier + ")"} +
            Failed({"VERIFICATION", "PREPARING"}));
    Row("600301 while verifying", DownloadRoad, "VERIFICATION", Refuse<updater::FileScanTask>(),
        QStringList{"verification()"} + noTask + Failed({"VERIFICATION", "PREPARING"}));
    Row("600304 while verifying", DownloadRoad, "VERIFICATION", Refuse<QThread>(),
        QStringList{"verification()"} + noThread + Failed({"VERIFICATION", "PREPARING"}));

    Row("600406", InstallRoad, "APPCALLBACK", Refuse<updater::AppCallback>(),
        QStringList{"2 APPCALLBACK: Failed to create application callback thread!",
                    "error(600406, Application callback failed!)"} +
            Failed({"APPCALLBACK", "INSTALLING"}));
    Row(
        "600403 at a stale backup", InstallRoad, "BACKUPREMOVING",
        [](Bench& b) {
            b.base.File("app.old/stale", "");
            Refuse<common::FileRemover>()(b);
        },
        QStringList{"2 BACKUPREMOVING: " + noRemover, "error(600403, " + noRemover + ")"} +
            Failed({"BACKUPREMOVING", "INSTALLING"}));
    const QString there = "Backup directory '~/app.old' already exists!";
    Row(
        "600407, a backup", InstallRoad, "BACKUPING", [](Bench& b) { b.base.Dir("app.old"); },
        QStringList{"3 BACKUPING: " + there, "error(600407, " + there + ")"} +
            Failed({"BACKUPING", "INSTALLING"}));
    const QString noRename = "Cannot rename directory '~/app' to '~/app.old'!";
    Row(
        "600407, a file in the way", InstallRoad, "BACKUPING",
        [](Bench& b) { b.base.File("app.old", ""); },
        QStringList{"3 BACKUPING: " + noRename, "error(600407, " + noRename + ")"} +
            Failed({"BACKUPING", "INSTALLING"}));
    const QStringList movingFailed{"2 MOVING: " + noCopier, "error(600402, " + noCopier + ")"};
    Row("600402 while moving", InstallRoad, "MOVING", Refuse<common::FileCopier>(),
        movingFailed + RolledBack());
    Row("600403 at the backup just made", InstallRoad, "BACKUPCLEARING",
        Refuse<common::FileRemover>(),
        QStringList{"2 BACKUPCLEARING: " + noRemover, "error(600403, " + noRemover + ")",
                    "7 BACKUPCLEARING: exited state BACKUPCLEARING", "progress(100)",
                    "7 BACKUPCLEARING: exited state INSTALLING"} +
            Entered("SUCCESS") + QStringList{"finished()"});
    Row("600403 while reverting", InstallRoad, "MOVING", Refuse<common::FileCopier>(),
        movingFailed + Exited({"MOVING"}) + Entered("REVERTING") +
            QStringList{"2 REVERTING: " + noRemover, "error(600403, " + noRemover + ")"} +
            Failed({"REVERTING", "INSTALLING"}),
        [](Bench& b, const QString& state) {
            if (state != "REVERTING")
                return;
            b.base.File("app/half", "");
            Refuse<common::FileRemover>()(b);
        });
    const QStringList toRestoring =
        movingFailed + Exited({"MOVING"}) + Entered("REVERTING") +
        QStringList{"7 REVERTING: Nothing to remove in '~/app'!", "revertingComplete()"} +
        Exited({"REVERTING"}) + Entered("RESTORING");
    const QString cannot = "Cannot restore! Local package directory '~/app' already exists!";
    Row("600409, the directory is there", InstallRoad, "MOVING", Refuse<common::FileCopier>(),
        toRestoring + QStringList{"3 RESTORING: " + cannot, "error(600409, " + cannot + ")"} +
            Failed({"RESTORING", "INSTALLING"}),
        [](Bench& b, const QString& state) {
            if (state == "RESTORING")
                b.base.Dir("app");
        });
    const QString noWayBack = "Cannot rename directory '~/app.old' to '~/app'!";
    Row("600409, the backup is gone", InstallRoad, "MOVING", Refuse<common::FileCopier>(),
        toRestoring + QStringList{"3 RESTORING: " + noWayBack, "error(600409, " + noWayBack + ")"} +
            Failed({"RESTORING", "INSTALLING"}),
        [](Bench& b, const QString& state) {
            if (state == "RESTORING")
                b.base.Remove("app.old");
        });
}

void TestUpdaterErrors::FailureIsLoggedAndLeadsWhereTheTableSays()
{
    QFETCH(Road, road);
    QFETCH(QString, state);
    QFETCH(Action, arm);
    QFETCH(StateAction, onState);
    QFETCH(QStringList, expected);
    Bench bench;
    bench.base.File("app/old", "old").Dir("next");
    bench.Offer({Record("old"), Record("new"), Link("links/link", "../old")});
    bench.failAt = state;
    bench.arm = arm;
    bench.onState = onState;
    bench.Make(&bench.manager);
    QVERIFY(bench.Run({}, "WAITING"));
    const QString end = expected.last() == "finished()" ? "SUCCESS" : "FAILED";
    if (road == CheckRoad) {
        QVERIFY(bench.Run("Check", end));
    } else if (road == DownloadRoad) {
        QVERIFY(bench.Run("Check", "AVAILABLE"));
        QVERIFY(bench.Run("Download", end));
    } else {
        bench.base.File("next/new", "new");
        QVERIFY(bench.Run("Install", end));
    }

    QStringList lines;
    for (const QString& line : bench.journal.Steady()) {
        // Of the scanner only the failures: the rest depends on its thread's luck.
        if (!line.startsWith("filescan 6") && !line.startsWith("filescan 7"))
            lines << line;
    }
    QCOMPARE(lines, expected);
    QCOMPARE(kxtest::MachineOf(*bench.updater)->isRunning(), end == "FAILED");
    bench.journal.SetHook({});
    // It can go on from there.
    if (end == "FAILED") {
        FakeServices::Reset();
        QVERIFY(bench.Run("Wait", "WAITING"));
    }
}

void TestUpdaterErrors::LinkThatCannotBeMadeFails()
{
    // Longer than the system takes.
    const QString target(5000, 'x');
    Bench bench;
    bench.base.Dir("next");
    bench.Offer({Link("1", "ok"), Link("2", target), Link("3", "ok")});
    bench.failAt = "CREATINGSYMLINKS";
    bench.Make(&bench.manager);
    QVERIFY(bench.Run({}, "WAITING"));
    QVERIFY(bench.Run("Check", "AVAILABLE"));
    QVERIFY(bench.Run("Download", "FAILED"));
    const QString text = "Cannot create symlink '~/next/2' -> '" + target + "'!";
    QStringList lines = bench.journal.Lines();
    // The order of the list is open; none is made after the failure.
    QCOMPARE(lines.takeFirst(), "creatingSymlinks()");
    const int made = int(kxtest::Snapshot(bench.base.Path("next")).size());
    for (int i = 0; i < made; ++i) {
        const QString line = lines.takeFirst();
        QVERIFY(line == "7 CREATINGSYMLINKS: Successfully created symlink '~/next/1' --> 'ok'!" ||
                line == "7 CREATINGSYMLINKS: Successfully created symlink '~/next/3' --> 'ok'!");
    }
    QCOMPARE(lines, (QStringList{"3 CREATINGSYMLINKS: " + text, "error(600408, " + text + ")"} +
                     Failed({"CREATINGSYMLINKS", "PREPARING"})));
}

void TestUpdaterErrors::ClientsThatAreMissing_data()
{
    QTest::addColumn<int>("missing");
    QTest::addColumn<QStringList>("expected");
    QTest::newRow("600400") << 0
                            << QStringList{"2 QUERYING: Package is not created!",
                                           "error(600400, Package is not created!)"};
    const QString noVersion = "Version request is not created!";
    QTest::newRow("600104") << 1
                            << QStringList{"package 7 Getting package info...",
                                           "package 2 " + noVersion,
                                           "package 3 Getting package failed with error 600104, '" +
                                               noVersion + "'!",
                                           "error(600104, " + noVersion + ")"};
    const QString noRequest = "Request is not created!";
    QTest::newRow("600100") << 2
                            << QStringList{"package 7 Getting package info...",
                                           "version 7 Sending version request...",
                                           "version 2 " + noRequest,
                                           "package 3 Version request failed!",
                                           "package 3 Getting package failed with error 600100, '" +
                                               noRequest + "'!",
                                           "error(600100, " + noRequest + ")"};
}

void TestUpdaterErrors::ClientsThatAreMissing()
{
    QFETCH(int, missing);
    QFETCH(QStringList, expected);
    Bench bench;
    bench.failAt = "QUERYING";
    if (missing == 0)
        bench.failure.emplace(sizeof(updater::Package), sizeof(updater::Package));
    else if (missing == 1)
        bench.failure.emplace(sizeof(updater::Version), sizeof(updater::Version));
    bench.Make(missing == 2 ? nullptr : &bench.manager);
    if (bench.failure)
        QCOMPARE(bench.failure->Failures(), 1);
    bench.failure.reset();
    QVERIFY(bench.Run({}, "WAITING"));
    // Synchronously: nobody has to be asked.
    bench.updater->Check();
    QCOMPARE(bench.journal.Lines(), expected + Failed({"QUERYING", "CHECKING"}));
    QCOMPARE(bench.updater->ServerVersion(), "");
    QCOMPARE(bench.updater->PackageXML(), "");
    bench.journal.Clear();
    bench.updater->Check();
    QVERIFY(bench.journal.Contains(expected.last()));
    QCOMPARE(bench.journal.State(), "FAILED");
}

void TestUpdaterErrors::QueriesThatFail_data()
{
    QTest::addColumn<QString>("step");
    QTest::addColumn<QStringList>("expected");
    QTest::newRow("600102")
        << "/version.xml"
        << QStringList{"version 2 Failed to send request!", "package 3 Version request failed!",
                       "package 3 Getting package failed with error 600102, 'Failed to send "
                       "request!'!",
                       "error(600102, Failed to send request!)"};
    QTest::newRow("600201")
        << "/index.xml"
        << QStringList{"package 2 Failed to send request!",
                       "package 3 Getting package failed with error 600201, 'Failed to send "
                       "request!'!",
                       "error(600201, Failed to send request!)"};
}

void TestUpdaterErrors::QueriesThatFail()
{
    QFETCH(QString, step);
    QFETCH(QStringList, expected);
    Bench bench;
    if (step == "/index.xml")
        FakeServices::Answer("/version.xml", {FakeServices::Body(kxtest::VersionReply("2.0"))});
    FakeServices::Answer(step, {{FakeServices::Reply::Refusal, {}, 0}});
    bench.failAt = "QUERYING";
    bench.Make(&bench.manager);
    QVERIFY(bench.Run({}, "WAITING"));
    QVERIFY(bench.Run("Check", "FAILED"));
    const QStringList lines = bench.journal.Lines();
    QCOMPARE(lines.mid(lines.indexOf(expected.first())),
             expected + Failed({"QUERYING", "CHECKING"}));
    QCOMPARE(bench.journal.Count("checkError()"), 0);
}

void TestUpdaterErrors::ManifestRequestWithoutItsRequest()
{
    Bench bench;
    FakeServices::Answer("/version.xml", {FakeServices::Body(kxtest::VersionReply("2.0"))});
    FakeServices::createRequests = false;
    // The package's own request is made first; the version query's comes after it.
    bench.journal.SetLogHook([](const QString& line) {
        if (line == "package 2 Failed to create request!")
            FakeServices::createRequests = true;
    });
    bench.failAt = "QUERYING";
    bench.Make(&bench.manager);
    QCOMPARE(FakeServices::requests.size(), 1);
    QVERIFY(bench.Run({}, "WAITING"));
    QVERIFY(bench.Run("Check", "FAILED"));
    const QStringList lines = bench.journal.Lines();
    QCOMPARE(
        lines.mid(lines.indexOf("package 7 Version on server '2.0'.")),
        (QStringList{"package 7 Version on server '2.0'.", "package 7 Sending version request...",
                     "package 2 Request is not created!",
                     "package 3 Getting package failed with error 600200, 'Request is not "
                     "created!'!",
                     "error(600200, Request is not created!)"} +
         Failed({"QUERYING", "CHECKING"})));
    QCOMPARE(bench.updater->URL(), "");
}

void TestUpdaterErrors::RollbackLeavesTheOldTree_data()
{
    QTest::addColumn<QString>("leftAt");
    QTest::addColumn<QStringList>("app");
    QTest::addColumn<QStringList>("backup");
    const QStringList none{"(missing)"};
    const QStringList old{"old file 644 3 " + kxtest::MD5Of("old")};
    const QStringList half{"half file 644 0 " + kxtest::MD5Of("")};
    QTest::newRow("restored") << "" << old << none;
    QTest::newRow("reverting fails") << "REVERTING" << half << old;
    QTest::newRow("restoring fails") << "RESTORING" << half << old;
}

void TestUpdaterErrors::RollbackLeavesTheOldTree()
{
    QFETCH(QString, leftAt);
    QFETCH(QStringList, app);
    QFETCH(QStringList, backup);
    Bench bench;
    bench.base.File("app/old", "old").File("next/new", "new");
    const QStringList next = kxtest::Snapshot(bench.base.Path("next"));
    bench.failAt = "MOVING";
    bench.arm = Refuse<common::FileCopier>();
    bench.onState = [leftAt](Bench& b, const QString& state) {
        if (state != leftAt)
            return;
        b.base.File("app/half", "");
        Refuse<common::FileRemover>()(b);
    };
    bench.Make(&bench.manager);
    QVERIFY(bench.Run({}, "WAITING"));
    QVERIFY(bench.Run("Install", "FAILED"));
    QCOMPARE(kxtest::Snapshot(bench.base.Path("app")), app);
    QCOMPARE(kxtest::Snapshot(bench.base.Path("app.old")), backup);
    QCOMPARE(kxtest::Snapshot(bench.base.Path("next")), next);
    QVERIFY(!kxtest::Exists(bench.base.Path(".app.kxnew")));
}

QTEST_GUILESS_MAIN(TestUpdaterErrors)
#include "tst_updater_errors.moc"
