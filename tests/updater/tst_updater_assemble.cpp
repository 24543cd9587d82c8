#include "allocationfailure.h"
#include "updaterrig.h"
#include "wiringguard.h"

#include "retrydelay.h"

#include <kxcommon/errors.h>
#include <kxcommon/filecopier.h>
#include <kxcommon/ifiledownload.h>
#include <kxupdater/downloader.h>
#include <kxupdater/errors.h>
#include <kxupdater/filescanner.h>
#include <kxupdater/package.h>

#include <QDir>
#include <QFile>
#include <QScopeGuard>
#include <QTest>

#include <algorithm>
#include <optional>

#include <unistd.h>

using kxtest::ErrorLine;
using kxtest::FileRecord;
using kxtest::LinkRecord;
using kxtest::LinkText;
using kxtest::MD5Of;
using kxtest::Read;
using kxtest::Reply;
using kxtest::Snapshot;
using kxtest::TreeBuilder;
using kxtest::UpdaterRig;

namespace {

QStringList PartialsBelow(const QString& root)
{
    QStringList partials;
    for (const QString& line : Snapshot(root)) {
        if (line.contains(QLatin1String(".kx.part ")))
            partials << line;
    }
    return partials;
}

QString Partial(const QString& destination)
{
    return common::http::PartialFilePath(destination);
}

} // namespace

/** The assembly of a new version: PREPARING to VERIFICATION. */
class TestUpdaterAssemble : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();

    // plan
    void NothingOnDiskMatchesSoEverythingIsDownloaded();
    void OnlyLinksDifferSoNothingIsDownloaded();
    void PlanIsLoggedInFourLines();
    void EmptyPlanIsLoggedAndTheStatesStillRun();
    void DigestInAnotherCaseIsFetchedAndNeverVerified();
    void RecordListedTwiceIsFetchedOnce();

    // copying
    void EqualLinkOnDiskIsCopiedAsLink();
    void CopyKeepsModes();
    void FileThatVanishesBeforeItsCopyFails();
    void CopierThatCannotBeMadeFails();
    void CutCopyIsMadeAgain();
    void CopyThatCannotBeWrittenFails();

    // downloading
    void RightFileIsNotFetchedAgain();
    void WrongFileIsFetchedAgain();
    void PermissionsOfTheManifestAreApplied();
    void FailedDownloadPassesItsCodeAndKeepsTheRest();
    void DownloaderThatCannotBeMadeFails();
    void CutRunIsResumed();
    void DownloadThatCannotBeWrittenFails();
    void NameThatIsTooLongFails();
    void TwoUpdatersDoNotShareATransfer();

    // links
    void OccupiedLinkPathIsCleared_data();
    void OccupiedLinkPathIsCleared();
    void LinkPathThatCannotBeClearedFails();
    void LinkWithoutDirectoryFails();
    void LinkThatCannotBeMadeFails();
    void LinksMakeTheirDirectories();

    // verification
    void StrayEntryFailsTheVerification_data();
    void StrayEntryFailsTheVerification();
    void ScannerThatCannotBeMadeFails();
    void ErrorLeavesWhatIsAssembled();

    // partial downloads
    void StalePartialsAreRemoved();
    void StalePartialIsRemovedWithNothingToDownload();
    void PartialBesideARightFileDoesNotStay();
    void WrongPartialIsThrownAway();
    void PartialsOutsideAreNotRemoved();
    void PartialsBelowALinkedDownloadDirectoryAreRemoved();
    void PartialIsNeverInstalled();
    void VerificationWaitsForTheRemovalOfPartials();
    void RemovalOfPartialsMayEndInALoopBeforeTheVerification();

    // names from the server
    void BadNameIsNeverDownloaded_data();
    void BadNameIsNeverDownloaded();
    void BadNameIsNeverLinked_data();
    void BadNameIsNeverLinked();
    void BadNameIsNeverCopied_data();
    void BadNameIsNeverCopied();
    void LeadingSlashesAreIgnored();
    void LinkOfTheSamePackageIsNotWrittenThrough();
    void LinkOfAnEarlierVersionIsNotWrittenThrough();
    void StrayLinkInTheDownloadDirectoryIsNotWrittenThrough_data();
    void StrayLinkInTheDownloadDirectoryIsNotWrittenThrough();
    void LinkAtTheDestinationIsReplaced_data();
    void LinkAtTheDestinationIsReplaced();
    void EmptyDownloadPathWritesNothing_data();
    void EmptyDownloadPathWritesNothing();

private:
    void ApplicationWith(const char* content);
    void FailsOutsideIntact(const QStringList& errors);

    std::unique_ptr<UpdaterRig> rig;
};

void TestUpdaterAssemble::initTestCase()
{
    updater::internal::SetRetryDelay(1);
}

void TestUpdaterAssemble::init()
{
    kxtest::FailOnWiringWarnings();
    rig = std::make_unique<UpdaterRig>();
}

void TestUpdaterAssemble::cleanup()
{
    rig.reset();
}

/** An application that differs from every package in the file "old". */
void TestUpdaterAssemble::ApplicationWith(const char* content)
{
    TreeBuilder(rig->App()).File("same", "same").File("old", content);
}

void TestUpdaterAssemble::NothingOnDiskMatchesSoEverythingIsDownloaded()
{
    ApplicationWith("old");
    TreeBuilder tree;
    tree.File("one", "first").File("dir/two", "second").File("dir/deep/three", "");
    rig->Publish("2.0", tree.Root());
    rig->Start();
    const QStringList before = rig->Surroundings();

    QVERIFY(rig->Check());
    rig->Forget();
    QVERIFY(rig->Assemble());

    QVERIFY(rig->Logged("6 COPYING: No files need to be copied!"));
    QStringList fetched = rig->FetchedFiles();
    fetched.sort();
    QCOMPARE(fetched, QStringList({UpdaterRig::FilePath("2.0", "dir/deep/three"),
                                   UpdaterRig::FilePath("2.0", "dir/two"),
                                   UpdaterRig::FilePath("2.0", "one")}));
    QCOMPARE(rig->States(), QStringList({"PREPARING", "COPYING", "DOWNLOADING", "CREATINGSYMLINKS",
                                         "VERIFICATION", "SUCCESS"}));
    QVERIFY(rig->Logged("6 VERIFICATION: Verification successfully completed."));
    QCOMPARE(Snapshot(rig->Next()), Snapshot(tree.Root()));
    QCOMPARE(rig->Surroundings(), before);
    QCOMPARE(rig->Errors(), QStringList());
}

void TestUpdaterAssemble::OnlyLinksDifferSoNothingIsDownloaded()
{
    TreeBuilder(rig->App()).File("one", "1").File("dir/two", "2").Symlink("kept", "one");
    TreeBuilder tree;
    tree.File("one", "1").File("dir/two", "2").Symlink("kept", "one").Symlink("new", "dir/two");
    rig->Publish("2.0", tree.Root());
    rig->Start();
    QVERIFY(rig->Assemble());

    QVERIFY(rig->Logged("6 DOWNLOADING: No files need be download!"));
    QCOMPARE(rig->FetchedFiles(), QStringList());
    QVERIFY(rig->Logged(QStringLiteral("7 CREATINGSYMLINKS: Successfully created symlink '%1' --> "
                                       "'dir/two'!")
                            .arg(rig->Next() + "/new")));
    QCOMPARE(Snapshot(rig->Next()), Snapshot(tree.Root()));
}

void TestUpdaterAssemble::PlanIsLoggedInFourLines()
{
    TreeBuilder(rig->App())
        .File("same1", "1")
        .File("same2", "2")
        .Symlink("samelink", "same1")
        .File("changed", "old")
        .File("gone", "g");
    TreeBuilder tree;
    tree.File("same1", "1")
        .File("same2", "2")
        .Symlink("samelink", "same1")
        .File("changed", "new")
        .File("added", "a")
        .Symlink("newlink", "added");
    rig->Publish("2.0", tree.Root());
    rig->Start();
    QVERIFY(rig->Assemble());

    QStringList plan;
    for (const QString& line : rig->Log()) {
        if (line.contains("PREPARING: ") && !line.startsWith('7'))
            plan << line;
    }
    QCOMPARE(plan, QStringList({"6 PREPARING: 3 will be copied from local package.",
                                "6 PREPARING: 2 will be downloaded from server.",
                                "6 PREPARING: 1 symlinks will be created.",
                                "6 PREPARING: 2 will be deleted after update."}));
    // Nothing is deleted one by one.
    QVERIFY(QFile::exists(rig->App() + "/gone"));
    QVERIFY(!QFile::exists(rig->Next() + "/gone"));
}

void TestUpdaterAssemble::EmptyPlanIsLoggedAndTheStatesStillRun()
{
    ApplicationWith("old");
    rig->PublishRecords("2.0", {FileRecord("new", "new")});
    rig->Start();
    QVERIFY(rig->Check());
    // The only way to an empty plan: the package loses its files after the check.
    auto* package = rig->updater->findChild<updater::Package*>();
    QVERIFY(package);
    package->SetPackageXML(kxtest::ManifestFor("demo", "http://127.0.0.1/files", {}, {}));
    rig->Forget();
    QVERIFY(rig->Assemble());

    QCOMPARE(rig->States(), QStringList({"PREPARING", "COPYING", "DOWNLOADING", "CREATINGSYMLINKS",
                                         "VERIFICATION", "SUCCESS"}));
    QStringList lines;
    for (const QString& line : rig->Log()) {
        if (!line.startsWith('7'))
            lines << line;
    }
    QCOMPARE(lines,
             QStringList({"6 PREPARING: 0 will be copied from local package.",
                          "6 PREPARING: 0 will be downloaded from server.",
                          "6 PREPARING: 0 symlinks will be created.",
                          "6 PREPARING: 2 will be deleted after update.",
                          "2 PREPARING: Nothing to do!!!", "6 COPYING: No files need to be copied!",
                          "6 DOWNLOADING: No files need be download!",
                          "6 CREATINGSYMLINKS: No symlinks to be created!",
                          "4 VERIFICATION: Server package is empty!",
                          "6 VERIFICATION: Verification successfully completed."}));
    QCOMPARE(rig->Errors(), QStringList());
}

void TestUpdaterAssemble::DigestInAnotherCaseIsFetchedAndNeverVerified()
{
    TreeBuilder(rig->App()).File("file", "content");
    const updater::File record("file", MD5Of("content").toUpper(), 7, "-rw-r--r--", {});
    rig->PublishRecords("2.0", {record});
    rig->server.SetBody(UpdaterRig::FilePath("2.0", "file"), "content");
    rig->Start();
    QVERIFY(rig->Assemble("FAILED"));

    QVERIFY(rig->Logged("6 PREPARING: 0 will be copied from local package."));
    QVERIFY(rig->Logged("6 PREPARING: 1 will be downloaded from server."));
    QCOMPARE(rig->FetchedFiles().size(), 1);
    QCOMPARE(rig->Errors(),
             QStringList(ErrorLine(updater::VerificationFailed, "Verification failed")));
}

void TestUpdaterAssemble::RecordListedTwiceIsFetchedOnce()
{
    rig->PublishRecords("2.0", {FileRecord("file", "content"), FileRecord("file", "content")});
    rig->server.SetBody(UpdaterRig::FilePath("2.0", "file"), "content");
    rig->Start();
    QVERIFY(rig->Assemble());
    QCOMPARE(rig->FetchedFiles().size(), 1);
}

void TestUpdaterAssemble::EqualLinkOnDiskIsCopiedAsLink()
{
    TreeBuilder(rig->App())
        .File("target", "t")
        .Symlink("link", "target")
        .Symlink("dangling", "nowhere")
        .Symlink("todir", "dir")
        .File("dir/inner", "i");
    TreeBuilder tree;
    tree.File("target", "t")
        .Symlink("link", "target")
        .Symlink("dangling", "nowhere")
        .Symlink("todir", "dir")
        .File("dir/inner", "i")
        .File("new", "n");
    rig->Publish("2.0", tree.Root());
    rig->Start();
    QVERIFY(rig->Assemble());

    QCOMPARE(LinkText(rig->Next() + "/link"), QString("target"));
    QCOMPARE(Snapshot(rig->Next()), Snapshot(tree.Root()));
    QVERIFY(rig->Logged("6 CREATINGSYMLINKS: No symlinks to be created!"));
}

void TestUpdaterAssemble::CopyKeepsModes()
{
    const QList<int> modes{0755, 0644, 0600, 0444, 0700};
    TreeBuilder app(rig->App());
    TreeBuilder tree;
    for (const int mode : modes) {
        app.File(QString::number(mode, 8), "content", mode);
        tree.File(QString::number(mode, 8), "content", mode);
    }
    tree.File("new", "n");
    rig->Publish("2.0", tree.Root());
    rig->Start();
    QVERIFY(rig->Assemble());
    for (const int mode : modes)
        QCOMPARE(kxtest::Mode(rig->Next() + '/' + QString::number(mode, 8)), mode);
}

void TestUpdaterAssemble::FileThatVanishesBeforeItsCopyFails()
{
    ApplicationWith("old");
    rig->PublishRecords("2.0", {FileRecord("same", "same"), FileRecord("new", "new")});
    rig->Start();
    QVERIFY(rig->Check());
    kxtest::Remove(rig->App() + "/same");
    QVERIFY(rig->Assemble("FAILED"));

    QCOMPARE(rig->Errors().size(), 1);
    QVERIFY2(rig->Errors().first().startsWith(
                 QStringLiteral("error(%1, ").arg(common::CopySourceMissing)),
             qPrintable(rig->Errors().first()));
    QVERIFY2(rig->Errors().first().contains(rig->App() + "/same"),
             qPrintable(rig->Errors().first()));
    QVERIFY(!rig->States().contains("DOWNLOADING"));
}

void TestUpdaterAssemble::CopierThatCannotBeMadeFails()
{
    ApplicationWith("old");
    rig->PublishRecords("2.0", {FileRecord("same", "same"), FileRecord("new", "new")});
    std::optional<kxtest::AllocationFailure> failure;
    rig->AtState("COPYING", [&] { failure.emplace(sizeof(common::FileCopier)); });
    rig->AtState("FAILED", [&] { failure.reset(); });
    rig->Start();
    QVERIFY(rig->Assemble("FAILED"));

    QCOMPARE(rig->Errors(),
             QStringList(ErrorLine(updater::CopierMissing, "Failed to create copier!")));
    QVERIFY(rig->Logged("2 COPYING: Failed to create copier!"));
}

void TestUpdaterAssemble::CutCopyIsMadeAgain()
{
    TreeBuilder app(rig->App());
    TreeBuilder tree;
    for (int i = 0; i < 1000; ++i) {
        app.File(QStringLiteral("dir/%1").arg(i), "content");
        tree.File(QStringLiteral("dir/%1").arg(i), "content");
    }
    app.RandomFile("large", 4 << 20, 1);
    tree.RandomFile("large", 4 << 20, 1).File("new", "new");
    rig->Publish("2.0", tree.Root());
    rig->Start();
    const QStringList before = rig->Surroundings();
    for (int cut = 0; cut < 5; ++cut) {
        QVERIFY(rig->Check());
        rig->updater->Download();
        QVERIFY(rig->Reach("COPYING"));
        for (int rounds = 0; rounds < cut; ++rounds)
            QCoreApplication::processEvents();
        rig->updater->Cancel();
        QCOMPARE(rig->State(), QString("CANCELED"));
    }
    QVERIFY(rig->Assemble());
    QCOMPARE(Snapshot(rig->Next()), Snapshot(tree.Root()));
    QCOMPARE(rig->Surroundings(), before);
}

void TestUpdaterAssemble::CopyThatCannotBeWrittenFails()
{
    TreeBuilder(rig->App()).RandomFile("large", 3 << 20, 1);
    TreeBuilder tree;
    tree.RandomFile("large", 3 << 20, 1).File("new", "new");
    rig->Publish("2.0", tree.Root());
    std::optional<kxtest::FileSizeLimit> limit;
    rig->AtState("COPYING", [&] { limit.emplace(1 << 20); });
    rig->AtState("FAILED", [&] { limit.reset(); });
    rig->Start();
    const QStringList before = rig->Surroundings();
    QVERIFY(rig->Assemble("FAILED"));
    QCOMPARE(rig->Errors().size(), 1);
    QVERIFY2(rig->Errors().first().startsWith(QStringLiteral("error(%1, ").arg(common::CopyWrite)),
             qPrintable(rig->Errors().first()));
    QVERIFY2(rig->Errors().first().contains("large"), qPrintable(rig->Errors().first()));
    QVERIFY(!QFile::exists(rig->Next() + "/large"));
    QCOMPARE(rig->Surroundings(), before);

    rig->AtState("COPYING", {});
    QVERIFY(rig->Assemble());
    QCOMPARE(Snapshot(rig->Next()), Snapshot(tree.Root()));
}

void TestUpdaterAssemble::RightFileIsNotFetchedAgain()
{
    TreeBuilder tree;
    tree.File("present", "right", 0755).File("missing", "fetched");
    rig->Publish("2.0", tree.Root());
    TreeBuilder(rig->Next()).File("present", "right", 0600);
    rig->Start();
    QVERIFY(rig->Assemble());

    QCOMPARE(rig->FetchedFiles(), QStringList(UpdaterRig::FilePath("2.0", "missing")));
    QCOMPARE(Snapshot(rig->Next()), Snapshot(tree.Root()));

    // And once more, with all of it there.
    rig->Forget();
    rig->updater->Cancel();
    QVERIFY(rig->Reach("WAITING"));
    QVERIFY(rig->Assemble());
    QCOMPARE(rig->FetchedFiles(), QStringList());
}

void TestUpdaterAssemble::WrongFileIsFetchedAgain()
{
    TreeBuilder tree;
    tree.File("one", "right");
    rig->Publish("2.0", tree.Root());
    TreeBuilder(rig->Next()).File("one", "wrong");
    rig->Start();
    QVERIFY(rig->Assemble());
    QCOMPARE(rig->FetchedFiles(), QStringList(UpdaterRig::FilePath("2.0", "one")));
    QCOMPARE(Read(rig->Next() + "/one"), QByteArray("right"));
}

void TestUpdaterAssemble::PermissionsOfTheManifestAreApplied()
{
    TreeBuilder tree;
    tree.File("a", "a", 0755).File("b", "b", 0644).File("c", "c", 0600).File("d", "d", 0444);
    rig->Publish("2.0", tree.Root());
    rig->Start();
    QVERIFY(rig->Assemble());
    QCOMPARE(Snapshot(rig->Next()), Snapshot(tree.Root()));
}

void TestUpdaterAssemble::FailedDownloadPassesItsCodeAndKeepsTheRest()
{
    TreeBuilder(rig->App()).File("same", "same");
    rig->PublishRecords("2.0", {FileRecord("same", "same"), FileRecord("missing", "x")});
    rig->Start();
    const QStringList before = rig->Surroundings();
    QVERIFY(rig->Assemble("FAILED"));

    QCOMPARE(rig->Errors().size(), 1);
    const QString error = rig->Errors().first();
    QVERIFY2(error.startsWith(QStringLiteral("error(%1, ").arg(common::DownloadStatus)),
             qPrintable(error));
    QVERIFY2(error.contains(UpdaterRig::FilePath("2.0", "missing")) && error.contains("404"),
             qPrintable(error));
    QCOMPARE(rig->trace->Only({"failed", "finished"}), QStringList("failed()"));
    QCOMPARE(Read(rig->Next() + "/same"), QByteArray("same"));
    QCOMPARE(rig->Surroundings(), before);
}

void TestUpdaterAssemble::DownloaderThatCannotBeMadeFails()
{
    rig->PublishRecords("2.0", {FileRecord("new", "new")});
    std::optional<kxtest::AllocationFailure> failure;
    rig->AtState("DOWNLOADING", [&] {
        failure.emplace(sizeof(updater::Downloader), sizeof(updater::Downloader));
    });
    rig->AtState("FAILED", [&] { failure.reset(); });
    rig->Start();
    QVERIFY(rig->Assemble("FAILED"));

    QCOMPARE(rig->Errors(),
             QStringList(ErrorLine(updater::DownloaderMissing, "Failed to create downloader!")));
    QVERIFY(rig->Logged("2 DOWNLOADING: Failed to create downloader!"));
}

void TestUpdaterAssemble::CutRunIsResumed()
{
    const QByteArray content = kxtest::RandomBytes(3 << 20, 1);
    const QString path = UpdaterRig::FilePath("2.0", "dir/big");
    rig->PublishRecords("2.0", {FileRecord("dir/big", content)});
    rig->server.SetBody(path, content);
    rig->server.Enqueue(path, Reply::StallAfter(2 << 20));
    rig->Start();
    QVERIFY(rig->Check());
    rig->updater->Download();
    const QString partial = Partial(rig->Next() + "/dir/big");
    QTRY_VERIFY_WITH_TIMEOUT(rig->server.StalledCount() == 1, kxtest::patience);
    QTRY_VERIFY_WITH_TIMEOUT(QFileInfo(partial).size() > 0, kxtest::patience);
    rig->updater->Cancel();
    QVERIFY(rig->Reach("CANCELED"));
    QCOMPARE(rig->Errors(),
             QStringList(ErrorLine(updater::DownloadAborted, "User abort download!")));
    const qint64 kept = QFileInfo(partial).size();
    QVERIFY(kept > 0);
    QVERIFY(!QFile::exists(rig->Next() + "/dir/big"));

    rig->Forget();
    QVERIFY(rig->Assemble());
    QCOMPARE(rig->server.RequestCount(path), 1);
    const kxtest::Request request = rig->server.Requests(path).first();
    QCOMPARE(request.Header("Range"), "bytes=" + QByteArray::number(kept) + "-");
    QVERIFY(!request.HasHeader("If-Range"));
    QCOMPARE(Read(rig->Next() + "/dir/big"), content);
    QCOMPARE(PartialsBelow(rig->Next()), QStringList());
}

void TestUpdaterAssemble::DownloadThatCannotBeWrittenFails()
{
    TreeBuilder tree;
    tree.RandomFile("large", 3 << 20, 1);
    rig->Publish("2.0", tree.Root());
    std::optional<kxtest::FileSizeLimit> limit;
    rig->AtState("DOWNLOADING", [&] { limit.emplace(1 << 20); });
    rig->AtState("FAILED", [&] { limit.reset(); });
    rig->Start();
    QVERIFY(rig->Assemble("FAILED"));
    QCOMPARE(rig->Errors().size(), 1);
    QVERIFY2(
        rig->Errors().first().startsWith(QStringLiteral("error(%1, ").arg(common::DownloadWrite)),
        qPrintable(rig->Errors().first()));
    QVERIFY(!QFile::exists(rig->Next() + "/large"));

    rig->AtState("DOWNLOADING", {});
    QVERIFY(rig->Assemble());
    QCOMPARE(Snapshot(rig->Next()), Snapshot(tree.Root()));
}

void TestUpdaterAssemble::NameThatIsTooLongFails()
{
    const QString name = "dir/" + QString(256, 'n');
    rig->PublishRecords("2.0", {FileRecord(name, "content")});
    rig->server.SetBody(UpdaterRig::FilePath("2.0", name), "content");
    rig->Start();
    const QStringList before = rig->Surroundings();
    QVERIFY(rig->Assemble("FAILED"));
    QCOMPARE(rig->Errors().size(), 1);
    QVERIFY2(rig->Errors().first().contains(name), qPrintable(rig->Errors().first()));
    QCOMPARE(Snapshot(rig->Next()).filter("nnn"), PartialsBelow(rig->Next()));
    QCOMPARE(rig->Surroundings(), before);
}

void TestUpdaterAssemble::TwoUpdatersDoNotShareATransfer()
{
    const QByteArray content = kxtest::RandomBytes(200000, 1);
    const QString path = UpdaterRig::FilePath("2.0", "file");
    rig->PublishRecords("2.0", {FileRecord("file", content)});
    rig->server.SetBody(path, content);
    rig->server.Enqueue(path, Reply::StallAfter(100000));
    rig->Start();
    QVERIFY(rig->Check());
    rig->updater->Download();
    QVERIFY(kxtest::WaitFor([&] { return rig->server.StalledCount() == 1; }));

    const std::unique_ptr<updater::Updater> second(rig->Make());
    kxtest::SignalTrace trace(second.get());
    QVERIFY(kxtest::WaitFor([&] { return trace.Last() == "waiting()"; }));
    second->Check();
    QVERIFY(kxtest::WaitFor([&] { return trace.Last() == "available()"; }));
    second->Download();
    QVERIFY(kxtest::WaitFor([&] { return trace.Last() == "failed()"; }));
    const QStringList errors = trace.Only({"error"});
    QCOMPARE(errors.size(), 1);
    QVERIFY2(errors.first().startsWith(QStringLiteral("error(%1, ").arg(common::DownloadBusy)),
             qPrintable(errors.first()));

    rig->server.ReleaseStalled();
    QVERIFY(rig->Reach({"SUCCESS", "FAILED"}));
    QCOMPARE(rig->Errors(), QStringList());
    QCOMPARE(Read(rig->Next() + "/file"), content);
    QCOMPARE(PartialsBelow(rig->Next()), QStringList());
}

void TestUpdaterAssemble::OccupiedLinkPathIsCleared_data()
{
    QTest::addColumn<QString>("occupant");
    QTest::newRow("regular file") << "file";
    QTest::newRow("dangling link") << "dangling";
    QTest::newRow("link to a directory") << "directory";
    QTest::newRow("link to a file") << "link";
    QTest::newRow("the very same link") << "same";
}

void TestUpdaterAssemble::OccupiedLinkPathIsCleared()
{
    QFETCH(QString, occupant);
    TreeBuilder tree;
    tree.File("target", "t").Symlink("link", "target");
    rig->Publish("2.0", tree.Root());
    TreeBuilder next(rig->Next());
    if (occupant == "file")
        next.File("link", "in the way");
    else if (occupant == "dangling")
        next.Symlink("link", "nowhere");
    else if (occupant == "directory")
        next.Symlink("link", rig->Outside());
    else if (occupant == "link")
        next.Symlink("link", rig->Outside() + "/bystander");
    else
        next.Symlink("link", "target");
    rig->Start();
    const QStringList before = rig->Surroundings();
    QVERIFY(rig->Assemble());

    const QString path = rig->Next() + "/link";
    const qsizetype warning = rig->Log().indexOf(
        QStringLiteral("4 CREATINGSYMLINKS: '%1' already exists. Trying to remove before "
                       "creating symlink...")
            .arg(path));
    const qsizetype success = rig->Log().indexOf(
        QStringLiteral("7 CREATINGSYMLINKS: Successfully created symlink '%1' --> 'target'!")
            .arg(path));
    QVERIFY(warning >= 0);
    QVERIFY(success > warning);
    QCOMPARE(Snapshot(rig->Next()), Snapshot(tree.Root()));
    QCOMPARE(rig->Surroundings(), before);
}

void TestUpdaterAssemble::LinkPathThatCannotBeClearedFails()
{
    rig->PublishRecords("2.0", {LinkRecord("link", "target")});
    TreeBuilder(rig->Next()).File("link/inside", "a directory that is not empty");
    rig->Start();
    QVERIFY(rig->Assemble("FAILED"));

    const QString path = rig->Next() + "/link";
    const QString text = QStringLiteral("Cannot remove '%1'!").arg(path);
    QCOMPARE(rig->Errors(), QStringList(ErrorLine(updater::SymlinkFailed, text)));
    QVERIFY(rig->Logged(QStringLiteral("4 CREATINGSYMLINKS: '%1' already exists. Trying to remove "
                                       "before creating symlink...")
                            .arg(path)));
    QVERIFY2(rig->Log().filter(text).isEmpty(), "this text is not logged");
    QCOMPARE(rig->trace->CountOf("creatingSymlinksComplete"), 0);
    QVERIFY(QFile::exists(path + "/inside"));
}

void TestUpdaterAssemble::LinkWithoutDirectoryFails()
{
    rig->PublishRecords("2.0", {LinkRecord("dir/link", "target")});
    TreeBuilder(rig->Next()).File("dir", "a file where a directory should be");
    rig->Start();
    QVERIFY(rig->Assemble("FAILED"));

    const QString text =
        QStringLiteral("Cannot create path to '%1'").arg(rig->Next() + "/dir/link");
    QCOMPARE(rig->Errors(), QStringList(ErrorLine(updater::SymlinkFailed, text)));
    QVERIFY(rig->Logged("3 CREATINGSYMLINKS: " + text));
    QCOMPARE(rig->trace->CountOf("creatingSymlinksComplete"), 0);
    QCOMPARE(Read(rig->Next() + "/dir"), QByteArray("a file where a directory should be"));
}

void TestUpdaterAssemble::LinkThatCannotBeMadeFails()
{
    const QString target(5000, 'x'); // longer than a path can be
    rig->PublishRecords("2.0", {LinkRecord("dir/link", target)});
    rig->Start();
    QVERIFY(rig->Assemble("FAILED"));

    const QString text = QStringLiteral("Cannot create symlink '%1' -> '%2'!")
                             .arg(rig->Next() + "/dir/link", target);
    QCOMPARE(rig->Errors(), QStringList(ErrorLine(updater::SymlinkFailed, text)));
    QVERIFY(rig->Logged("3 CREATINGSYMLINKS: " + text));
    QCOMPARE(rig->trace->CountOf("creatingSymlinksComplete"), 0);
}

void TestUpdaterAssemble::LinksMakeTheirDirectories()
{
    TreeBuilder tree;
    tree.Symlink("a/b/c/link", "../../target").Symlink("d/e", "f");
    rig->Publish("2.0", tree.Root());
    rig->Start();
    QVERIFY(rig->Assemble());
    QCOMPARE(LinkText(rig->Next() + "/a/b/c/link"), QString("../../target"));
    QCOMPARE(Snapshot(rig->Next()), Snapshot(tree.Root()));
}

void TestUpdaterAssemble::StrayEntryFailsTheVerification_data()
{
    QTest::addColumn<QString>("stray");
    QTest::newRow("file") << "file";
    QTest::newRow("file in a directory") << "dir/file";
    QTest::newRow("link to a directory outside") << "link";
    QTest::newRow("dangling link") << "dangling";
}

void TestUpdaterAssemble::StrayEntryFailsTheVerification()
{
    QFETCH(QString, stray);
    TreeBuilder tree;
    tree.File("file1", "1");
    rig->Publish("2.0", tree.Root());
    TreeBuilder next(rig->Next());
    if (stray == "link")
        next.Symlink(stray, rig->Outside());
    else if (stray == "dangling")
        next.Symlink(stray, "nowhere");
    else
        next.File(stray, "stray");
    rig->Start();
    const QStringList before = rig->Surroundings();
    QVERIFY(rig->Assemble("FAILED"));

    QCOMPARE(rig->Errors(),
             QStringList(ErrorLine(updater::VerificationFailed, "Verification failed")));
    QVERIFY2(rig->Log().filter("Verification failed").isEmpty(), "this text is not logged");
    const QString rule = "7 VERIFICATION: " + QString(46, '-');
    const QStringList lines = rig->Log();
    const qsizetype title = lines.indexOf("7 VERIFICATION: This files must be deleted:");
    QVERIFY(title > 0);
    QCOMPARE(lines.mid(title - 1, 4),
             QStringList({rule, "7 VERIFICATION: This files must be deleted:",
                          QStringLiteral("7 VERIFICATION:       * '%1'").arg(stray), rule}));
    QCOMPARE(rig->Surroundings(), before);
}

void TestUpdaterAssemble::ScannerThatCannotBeMadeFails()
{
    rig->PublishRecords("2.0", {FileRecord("new", "new")});
    rig->server.SetBody(UpdaterRig::FilePath("2.0", "new"), "new");
    std::optional<kxtest::AllocationFailure> failure;
    rig->AtState("VERIFICATION", [&] {
        failure.emplace(sizeof(updater::FileScanner), sizeof(updater::FileScanner));
    });
    rig->AtState("FAILED", [&] { failure.reset(); });
    rig->Start();
    QVERIFY(rig->Assemble("FAILED"));

    const QString text = "Failed to create verification file scanner!";
    QCOMPARE(rig->Errors(), QStringList(ErrorLine(updater::ScannerMissing, text)));
    QVERIFY(rig->Logged("2 VERIFICATION: " + text));
}

void TestUpdaterAssemble::ErrorLeavesWhatIsAssembled()
{
    ApplicationWith("old");
    rig->PublishRecords("2.0", {FileRecord("same", "same"), FileRecord("new", "new"),
                                LinkRecord("blocked/link", "t")});
    rig->server.SetBody(UpdaterRig::FilePath("2.0", "new"), "new");
    TreeBuilder(rig->Next()).File("blocked", "");
    rig->Start();
    const QStringList before = rig->Surroundings();
    QVERIFY(rig->Assemble("FAILED"));
    QCOMPARE(Read(rig->Next() + "/same"), QByteArray("same"));
    QCOMPARE(Read(rig->Next() + "/new"), QByteArray("new"));
    QCOMPARE(rig->Surroundings(), before);
}

void TestUpdaterAssemble::StalePartialsAreRemoved()
{
    TreeBuilder(rig->App()).File("same", "same");
    TreeBuilder tree;
    tree.File("same", "same").File("new", "new").File("dir/new", "new2");
    rig->Publish("2.0", tree.Root());
    TreeBuilder next(rig->Next());
    const QString longName(255, 'n');
    for (const QString& name :
         {QString("gone"), QString("same"), QString("dir/gone"), QString("a/b/c/gone"),
          QString(".hidden/gone"), longName, QString("empty/x")})
        next.File(QDir(rig->Next()).relativeFilePath(Partial(next.Path(name))), "stale", 0400);
    next.File(".hidden/kept", "a hidden file that nobody made stays");
    QCOMPARE(PartialsBelow(rig->Next()).size(), 7);

    QStringList atScan;
    rig->log.SetHook([&](const kxtest::LogRecord& record) {
        if (record.text == QStringLiteral("Start scanning path '%1'...").arg(rig->Next()))
            atScan = PartialsBelow(rig->Next());
    });
    rig->Start();
    QVERIFY(rig->Assemble());
    rig->log.SetHook({});
    QCOMPARE(atScan, QStringList());
    QCOMPARE(PartialsBelow(rig->Next()), QStringList());
    QVERIFY(QFile::exists(rig->Next() + "/.hidden/kept"));
}

void TestUpdaterAssemble::StalePartialIsRemovedWithNothingToDownload()
{
    TreeBuilder(rig->App()).File("same", "same").Symlink("kept", "same");
    TreeBuilder tree;
    tree.File("same", "same").Symlink("link", "same").Symlink("kept", "same");
    rig->Publish("2.0", tree.Root());
    TreeBuilder(rig->Next())
        .File(".link.kx.part", "stale")
        .File(".same.kx.part", "stale")
        .File(".kept.kx.part", "stale");
    QVERIFY(common::http::IsPartialFileName(".link.kx.part"));
    rig->Start();
    QVERIFY(rig->Assemble());
    QCOMPARE(Snapshot(rig->Next()), Snapshot(tree.Root()));
}

void TestUpdaterAssemble::PartialBesideARightFileDoesNotStay()
{
    TreeBuilder tree;
    tree.File("present", "right").File("other", "other");
    rig->Publish("2.0", tree.Root());
    TreeBuilder(rig->Next()).File("present", "right").File(".present.kx.part", "rig");
    rig->Start();
    QVERIFY(rig->Assemble());
    QCOMPARE(rig->FetchedFiles(), QStringList(UpdaterRig::FilePath("2.0", "other")));
    QCOMPARE(Snapshot(rig->Next()), Snapshot(tree.Root()));
}

void TestUpdaterAssemble::WrongPartialIsThrownAway()
{
    TreeBuilder tree;
    tree.File("file", "the right content");
    rig->Publish("2.0", tree.Root());
    TreeBuilder(rig->Next()).File(".file.kx.part", "another");
    rig->Start();
    QVERIFY(rig->Assemble());
    QCOMPARE(rig->server.RequestCount(UpdaterRig::FilePath("2.0", "file")), 2);
    QCOMPARE(Snapshot(rig->Next()), Snapshot(tree.Root()));
}

void TestUpdaterAssemble::PartialsOutsideAreNotRemoved()
{
    TreeBuilder(rig->Outside()).File(".bystander.kx.part", "keep").File("dir/.x.kx.part", "keep");
    TreeBuilder(rig->App()).File(".same.kx.part", "keep");
    TreeBuilder tree;
    tree.File("new", "new");
    rig->Publish("2.0", tree.Root());
    TreeBuilder(rig->Next())
        .Symlink("link", rig->Outside())
        .Symlink(".hidden", rig->Outside() + "/dir")
        .Symlink(".linked.kx.part", rig->Outside() + "/bystander");
    rig->Start();
    const QStringList before = rig->Surroundings();
    QVERIFY(rig->Assemble("FAILED")); // the stray link
    QCOMPARE(rig->Surroundings(), before);
}

void TestUpdaterAssemble::PartialsBelowALinkedDownloadDirectoryAreRemoved()
{
    const QString real = rig->Scratch("real");
    TreeBuilder(rig->Root()).Symlink("next", real);
    TreeBuilder(real).File(".gone.kx.part", "stale").File("dir/.gone.kx.part", "stale");
    TreeBuilder tree;
    tree.File("new", "new").File("dir/new", "new2");
    rig->Publish("2.0", tree.Root());
    rig->Start();
    QVERIFY(rig->Assemble());
    QCOMPARE(Snapshot(real), Snapshot(tree.Root()));
    QCOMPARE(LinkText(rig->Next()), real);
}

void TestUpdaterAssemble::PartialIsNeverInstalled()
{
    ApplicationWith("old");
    TreeBuilder tree;
    tree.File("same", "same").File("new", "new");
    rig->Publish("2.0", tree.Root());
    TreeBuilder(rig->Next()).File("dir/.gone.kx.part", "stale").File(".same.kx.part", "stale");
    rig->Start();
    QVERIFY(rig->Assemble());
    QVERIFY(rig->Install());
    QCOMPARE(PartialsBelow(rig->App()), QStringList());
    QCOMPARE(Read(rig->App() + "/new"), QByteArray("new"));
}

void TestUpdaterAssemble::VerificationWaitsForTheRemovalOfPartials()
{
    TreeBuilder(rig->App()).File("same", "same");
    TreeBuilder tree;
    tree.File("same", "same").Symlink("link", "same");
    rig->Publish("2.0", tree.Root());
    TreeBuilder next(rig->Next());
    rig->Start();

    // The removal may be over before it can be stopped: then once more, with more to remove.
    kxtest::ThreadHold hold;
    bool caught = false;
    int stale = 2000;
    for (int attempt = 0; attempt < 8 && !caught; ++attempt, stale += 2000) {
        for (int i = 0; i < stale; ++i)
            next.File(QStringLiteral("dir/.f%1.kx.part").arg(i), "");
        if (rig->State() == "SUCCESS") {
            rig->updater->Cancel();
            QVERIFY(rig->Reach("WAITING"));
        }
        QVERIFY(rig->Check());
        QStringList threads;
        rig->AtState("PREPARING", [&] { threads = kxtest::Threads(); });
        // The plan is made, the removal has begun, no copier is made yet.
        rig->AtState("COPYING", [&] { caught = hold.Catch(threads); });
        rig->Forget();
        rig->updater->Download();
        if (!caught || PartialsBelow(rig->Next()).isEmpty()) {
            caught = false;
            hold.Release();
            QVERIFY(rig->Reach("SUCCESS"));
            continue;
        }
    }
    QVERIFY(caught);
    QVERIFY(rig->Reach("VERIFICATION"));
    int rounds = 0;
    QTimer timer;
    connect(&timer, &QTimer::timeout, this, [&] { ++rounds; });
    timer.start(0);
    QTRY_VERIFY_WITH_TIMEOUT(rounds > 500, kxtest::patience);
    QCOMPARE(rig->State(), QString("VERIFICATION"));
    QVERIFY(!PartialsBelow(rig->Next()).isEmpty());
    const QString scan = QStringLiteral("Start scanning path '%1'...").arg(rig->Next());
    QVERIFY(rig->log.Lines("updater.filescan").filter(scan).isEmpty());

    hold.Release();
    QVERIFY(rig->Reach("SUCCESS"));
    QCOMPARE(rig->log.Lines("updater.filescan").filter(scan).size(), 1);
    QCOMPARE(PartialsBelow(rig->Next()), QStringList());
    QVERIFY(QFile::exists(rig->Next() + "/same"));
}

void TestUpdaterAssemble::RemovalOfPartialsMayEndInALoopBeforeTheVerification()
{
    // Nothing to copy or to fetch: the machine goes from PREPARING to VERIFICATION in one go, so
    // that the end of the removal can only be told in the loop that is opened there.
    TreeBuilder tree;
    tree.Symlink("link", "nowhere");
    rig->Publish("2.0", tree.Root());
    rig->Start();
    QVERIFY(rig->Check());
    QStringList threads;
    bool ended = false;
    rig->AtState("PREPARING", [&] { threads = kxtest::Threads(); });
    rig->AtState("VERIFICATION", [&] {
        ended = kxtest::WaitFor([&] {
            const QStringList now = kxtest::Threads();
            return std::all_of(now.cbegin(), now.cend(),
                               [&](const QString& thread) { return threads.contains(thread); });
        });
        for (int round = 0; round < 100; ++round)
            QCoreApplication::processEvents();
    });
    rig->updater->Download();
    QVERIFY(rig->Reach("SUCCESS"));
    QVERIFY(ended);
}

namespace {

void BadNames()
{
    QTest::addColumn<QString>("name");
    QTest::newRow("parent directory") << "../evil";
    QTest::newRow("parent of a parent") << "../../evil";
    QTest::newRow("parent inside the name") << "dir/../../evil";
    QTest::newRow("parent that stays inside") << "dir/../evil";
    QTest::newRow("parent at the end") << "dir/..";
    QTest::newRow("only a parent") << "..";
    QTest::newRow("only a dot") << ".";
    QTest::newRow("into the application") << "../app/evil";
    QTest::newRow("into the backup") << "../app.old/evil";
    QTest::newRow("over a bystander") << "../outside/bystander";
    QTest::newRow("drive letter") << "C:/evil";
    QTest::newRow("drive letter without a slash") << "c:evil";
    QTest::newRow("drive letter with a backslash") << "C:\\evil";
    QTest::newRow("parent with a backslash") << "..\\evil";
    QTest::newRow("backslash") << "dir\\evil";
    QTest::newRow("network share") << "\\\\server\\share\\evil";
    QTest::newRow("line feed") << "dir/ev\nil";
    QTest::newRow("carriage return") << "ev\ril";
    QTest::newRow("tabulator") << "ev\til";
    QTest::newRow("delete character") << QString("ev") + QChar(0x7f) + "il";
    QTest::newRow("control character beyond ASCII") << QString("ev") + QChar(0x85) + "il";
    QTest::newRow("empty name") << "";
    QTest::newRow("separator at the end") << "evil/";
}

} // namespace

/** The assembly ends in these errors, and nothing outside the download directory has changed. */
void TestUpdaterAssemble::FailsOutsideIntact(const QStringList& errors)
{
    const QStringList before = rig->Surroundings();
    const QStringList beside = QDir(rig->Root() + "/..").entryList(QDir::AllEntries | QDir::Hidden);
    QVERIFY(rig->Check());
    rig->server.ClearRequests();
    QVERIFY(rig->Assemble("FAILED"));
    QCOMPARE(rig->Surroundings(), before);
    QCOMPARE(QDir(rig->Root() + "/..").entryList(QDir::AllEntries | QDir::Hidden), beside);
    QCOMPARE(rig->Errors(), errors);

    // The next try must do no better.
    QVERIFY(rig->Assemble("FAILED"));
    QCOMPARE(rig->Surroundings(), before);
}

void TestUpdaterAssemble::BadNameIsNeverDownloaded_data()
{
    BadNames();
}

void TestUpdaterAssemble::BadNameIsNeverDownloaded()
{
    QFETCH(QString, name);
    TreeBuilder(rig->Root()).File("app.old/stale", "s");
    ApplicationWith("old");
    // An empty name is written as a slash: the parser takes leading slashes away.
    updater::FileList records{FileRecord(name.isEmpty() ? QString("/") : name, "evil")};
    rig->PublishRecords("2.0", records);
    rig->Start();
    FailsOutsideIntact(
        {ErrorLine(updater::DownloadStartFailed, "Failed to create file download request.")});
    if (QTest::currentTestFailed())
        return;
    QCOMPARE(rig->FetchedFiles(), QStringList());
    const QString line = QStringLiteral("2 Can't start download file '%1'!").arg(name);
    QVERIFY2(rig->log.Lines("updater.download").contains(line),
             qPrintable(rig->log.Lines("updater.download").join('\n')));
    QVERIFY(!rig->States().contains("CREATINGSYMLINKS"));
}

void TestUpdaterAssemble::BadNameIsNeverLinked_data()
{
    BadNames();
}

void TestUpdaterAssemble::BadNameIsNeverLinked()
{
    QFETCH(QString, name);
    TreeBuilder(rig->Root()).File("app.old/stale", "s");
    ApplicationWith("old");
    rig->PublishRecords("2.0", {LinkRecord(name.isEmpty() ? QString("/") : name, "outside")});
    rig->Start();
    const QString text = QStringLiteral("Cannot create path to '%1'").arg(rig->Next() + '/' + name);
    FailsOutsideIntact({ErrorLine(updater::SymlinkFailed, text)});
    if (QTest::currentTestFailed())
        return;
    QVERIFY2(rig->Logged("3 CREATINGSYMLINKS: " + text), qPrintable(rig->Log().join('\n')));
    QCOMPARE(Snapshot(rig->Next()).filter("outside"), QStringList());
}

void TestUpdaterAssemble::BadNameIsNeverCopied_data()
{
    // What a scan can find on disk.
    QTest::addColumn<QString>("name");
    QTest::newRow("backslash") << "dir\\evil";
    QTest::newRow("line feed") << "dir/ev\nil";
    QTest::newRow("tabulator") << "ev\til";
    QTest::newRow("delete character") << QString("ev") + QChar(0x7f) + "il";
    QTest::newRow("drive letter") << "C:/evil";
    QTest::newRow("drive letter without a slash") << "c:evil";
}

void TestUpdaterAssemble::BadNameIsNeverCopied()
{
    QFETCH(QString, name);
    TreeBuilder(rig->App()).File(name, "evil");
    rig->PublishRecords("2.0", {FileRecord(name, "evil"), FileRecord("new", "new")});
    rig->server.SetBody(UpdaterRig::FilePath("2.0", "new"), "new");
    rig->Start();
    const QStringList before = rig->Surroundings();
    QVERIFY(rig->Assemble("FAILED"));
    QCOMPARE(rig->Errors().size(), 1);
    QVERIFY2(
        rig->Errors().first().startsWith(QStringLiteral("error(%1, ").arg(common::CopyConfinement)),
        qPrintable(rig->Errors().first()));
    QCOMPARE(rig->Surroundings(), before);
    QCOMPARE(Snapshot(rig->Next()).filter("evil"), QStringList());
}

void TestUpdaterAssemble::LeadingSlashesAreIgnored()
{
    rig->PublishRecords("2.0", {FileRecord("/etc/kxtest", "a"), FileRecord("///kxtest2", "b")});
    rig->server.SetBody(UpdaterRig::FilePath("2.0", "etc/kxtest"), "a");
    rig->server.SetBody(UpdaterRig::FilePath("2.0", "kxtest2"), "b");
    rig->Start();
    const QStringList before = rig->Surroundings();
    QVERIFY(rig->Assemble());
    QCOMPARE(Read(rig->Next() + "/etc/kxtest"), QByteArray("a"));
    QCOMPARE(Read(rig->Next() + "/kxtest2"), QByteArray("b"));
    QVERIFY(!kxtest::Exists("/etc/kxtest"));
    QVERIFY(!kxtest::Exists("/kxtest2"));
    QCOMPARE(rig->Surroundings(), before);
}

void TestUpdaterAssemble::LinkOfTheSamePackageIsNotWrittenThrough()
{
    // A file and a link below a link: the order of the links is that of a hash.
    rig->PublishRecords("2.0", {LinkRecord("dir", "../outside"), LinkRecord("dir/link", "x"),
                                LinkRecord("other", "../outside"), LinkRecord("other/link", "x")});
    rig->Start();
    const QStringList before = rig->Surroundings();
    QVERIFY(rig->Assemble("FAILED"));
    QCOMPARE(rig->Surroundings(), before);
    QCOMPARE(rig->Errors().size(), 1);
    QVERIFY(rig->Errors().first().startsWith(
        QStringLiteral("error(%1, Cannot ").arg(updater::SymlinkFailed)));

    rig->PublishRecords("2.1", {LinkRecord("dir2", "../outside"), FileRecord("dir2/evil", "e")});
    rig->server.SetBody(UpdaterRig::FilePath("2.1", "dir2/evil"), "e");
    kxtest::Remove(rig->Next());
    rig->Forget();
    QVERIFY(rig->Assemble("FAILED"));
    QCOMPARE(rig->Surroundings(), before);
    QCOMPARE(rig->Errors(), QStringList(ErrorLine(
                                updater::SymlinkFailed,
                                QStringLiteral("Cannot remove '%1'!").arg(rig->Next() + "/dir2"))));
}

void TestUpdaterAssemble::LinkOfAnEarlierVersionIsNotWrittenThrough()
{
    // Version 2 places a link, version 3 lists it unchanged and a file below it.
    rig->PublishRecords("2.0", {LinkRecord("dir", "../outside"), FileRecord("file", "f")});
    rig->server.SetBody(UpdaterRig::FilePath("2.0", "file"), "f");
    rig->Start();
    const QStringList outside = Snapshot(rig->Outside());
    QVERIFY(rig->Assemble());
    QVERIFY(rig->Install());
    QCOMPARE(LinkText(rig->App() + "/dir"), QString("../outside"));

    const QStringList before = rig->Surroundings();
    for (const bool emptied : {false, true}) {
        if (emptied)
            kxtest::Remove(rig->Next());
        rig->PublishRecords("3.0", {LinkRecord("dir", "../outside"), FileRecord("file", "f"),
                                    FileRecord("dir/evil", "e")});
        rig->server.SetBody(UpdaterRig::FilePath("3.0", "dir/evil"), "e");
        if (rig->State() == "SUCCESS")
            rig->updater->Cancel();
        QVERIFY(kxtest::WaitFor([&] { return rig->State() != "SUCCESS"; }));
        rig->Forget();
        QVERIFY(rig->Assemble("FAILED"));
        QCOMPARE(rig->Errors(), QStringList(ErrorLine(updater::DownloadStartFailed,
                                                      "Failed to create file download request.")));
        QVERIFY(
            rig->log.Lines("updater.download").contains("2 Can't start download file 'dir/evil'!"));
        QCOMPARE(rig->FetchedFiles(), QStringList());
        QCOMPARE(rig->Surroundings(), before);
        QCOMPARE(Snapshot(rig->Outside()), outside);
    }

    // The same with a link below the link.
    rig->PublishRecords("4.0", {LinkRecord("dir", "../outside"), FileRecord("file", "f"),
                                LinkRecord("dir/evil", "e")});
    rig->Forget();
    QVERIFY(rig->Assemble("FAILED"));
    const QString text =
        QStringLiteral("Cannot create path to '%1'").arg(rig->Next() + "/dir/evil");
    QCOMPARE(rig->Errors(), QStringList(ErrorLine(updater::SymlinkFailed, text)));
    QCOMPARE(rig->Surroundings(), before);
    QCOMPARE(Snapshot(rig->Outside()), outside);
}

void TestUpdaterAssemble::StrayLinkInTheDownloadDirectoryIsNotWrittenThrough_data()
{
    QTest::addColumn<QString>("kind");
    QTest::newRow("by a download") << "download";
    QTest::newRow("by a copy") << "copy";
    QTest::newRow("by the copy of a link") << "copylink";
    QTest::newRow("by a new link") << "link";
}

void TestUpdaterAssemble::StrayLinkInTheDownloadDirectoryIsNotWrittenThrough()
{
    QFETCH(QString, kind);
    TreeBuilder app(rig->App());
    updater::FileList records{FileRecord("new", "new")};
    QString error;
    if (kind == "download") {
        records = {FileRecord("dir/evil", "e")};
        error = QStringLiteral("error(%1, ").arg(updater::DownloadStartFailed);
    } else if (kind == "copy") {
        app.File("dir/evil", "e");
        records << FileRecord("dir/evil", "e");
        error = QStringLiteral("error(%1, ").arg(common::CopyConfinement);
    } else if (kind == "copylink") {
        app.Symlink("dir/evil", "e");
        records << LinkRecord("dir/evil", "e");
        error = QStringLiteral("error(%1, ").arg(common::CopyConfinement);
    } else {
        records = {LinkRecord("dir/evil", "e")};
        error = QStringLiteral("error(%1, ").arg(updater::SymlinkFailed);
    }
    rig->PublishRecords("2.0", records);
    rig->server.SetBody(UpdaterRig::FilePath("2.0", "dir/evil"), "e");
    rig->server.SetBody(UpdaterRig::FilePath("2.0", "new"), "new");
    TreeBuilder(rig->Next()).Symlink("dir", rig->Outside());
    rig->Start();
    const QStringList before = rig->Surroundings();
    QVERIFY(rig->Assemble("FAILED"));
    QCOMPARE(rig->Errors().size(), 1);
    QVERIFY2(rig->Errors().first().startsWith(error), qPrintable(rig->Errors().first()));
    QCOMPARE(rig->Surroundings(), before);
}

void TestUpdaterAssemble::LinkAtTheDestinationIsReplaced_data()
{
    QTest::addColumn<bool>("copied");
    QTest::newRow("by a download") << false;
    QTest::newRow("by a copy") << true;
}

void TestUpdaterAssemble::LinkAtTheDestinationIsReplaced()
{
    QFETCH(bool, copied);
    TreeBuilder(rig->App()).File("other", "o");
    if (copied)
        TreeBuilder(rig->App()).File("file", "right");
    TreeBuilder tree;
    tree.File("file", "right").File("extra", "x");
    rig->Publish("2.0", tree.Root());
    // To a file with the right content, so that only a look at the link itself tells.
    TreeBuilder(rig->Outside()).File("right", "right");
    TreeBuilder(rig->Next())
        .Symlink("file", rig->Outside() + "/right")
        .Symlink(".extra.kx.part", rig->Outside() + "/bystander");
    rig->Start();
    const QStringList before = rig->Surroundings();
    QVERIFY(rig->Assemble());
    QCOMPARE(rig->Surroundings(), before);
    QCOMPARE(Snapshot(rig->Next()), Snapshot(tree.Root()));
}

void TestUpdaterAssemble::EmptyDownloadPathWritesNothing_data()
{
    QTest::addColumn<QString>("kind");
    QTest::newRow("download") << "download";
    QTest::newRow("copy") << "copy";
    QTest::newRow("link") << "link";
    QTest::newRow("nothing to do") << "nothing";
}

void TestUpdaterAssemble::EmptyDownloadPathWritesNothing()
{
    QFETCH(QString, kind);
    const QString name = QStringLiteral("kxtest-%1-%2/file").arg(getpid()).arg(kind);
    TreeBuilder app(rig->App());
    updater::FileList records;
    if (kind == "download") {
        records << FileRecord(name, "e");
    } else if (kind == "copy") {
        app.File(name, "e");
        records << FileRecord(name, "e") << FileRecord("kxtest-new", "new");
    } else if (kind == "link") {
        records << LinkRecord(name, "e");
    } else {
        records << FileRecord("kxtest-new", "new");
    }
    rig->PublishRecords("2.0", records);
    rig->server.SetBody(UpdaterRig::FilePath("2.0", name), "e");
    rig->Start();
    rig->updater->SetDownloadPath({});
    const QStringList before = rig->Surroundings();
    const QString was = QDir::currentPath();
    const QString here = rig->Scratch("here");
    QVERIFY(QDir::setCurrent(here));
    const auto back = qScopeGuard([&] { QDir::setCurrent(was); });
    QVERIFY(rig->Check());
    if (kind == "nothing") {
        auto* package = rig->updater->findChild<updater::Package*>();
        package->SetPackageXML(kxtest::ManifestFor("demo", "http://127.0.0.1/files", {}, {}));
    }
    QVERIFY(rig->Assemble("FAILED"));
    QVERIFY(!rig->Errors().isEmpty());
    for (const QString& path : {name.section('/', 0, 0), QString("kxtest-new")})
        QVERIFY2(!kxtest::Exists('/' + path), qPrintable(path));
    QCOMPARE(Snapshot(here), QStringList());
    QCOMPARE(rig->FetchedFiles(), QStringList());
    QCOMPARE(rig->Surroundings(), before);
}

QTEST_GUILESS_MAIN(TestUpdaterAssemble)
#include "tst_updater_assemble.moc"
