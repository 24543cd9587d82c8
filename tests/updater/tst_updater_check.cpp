#include "allocationfailure.h"
#include "logcapture.h"
#include "manifest.h"
#include "quietperiod.h"
#include "updaterlines.h"
#include "updatersite.h"
#include "wiringguard.h"

#include <kxupdater/build.h>
#include <kxupdater/filescanner.h>
#include <kxupdater/package.h>

#include <QHashSeed>
#include <QSemaphore>
#include <QSignalSpy>
#include <QTest>

#include <functional>
#include <sys/stat.h>

using kxtest::BecameActual;
using kxtest::deleteTitle;
using kxtest::downloadTitle;
using kxtest::Entered;
using kxtest::Exited;
using kxtest::Listed;
using kxtest::NewVersion;
using kxtest::Repair;
using kxtest::Reply;
using kxtest::ShortRetries;
using kxtest::UntilScanned;
using kxtest::UpdaterSite;

namespace {

constexpr int waitMs = 60000;
updater::File WithDigest(const updater::File& file, const QString& digest)
{
    return updater::File(file.Name(), digest, file.Size(), file.PermissionsString(),
                         file.SymlinkPath());
}

QString WriteManifest(UpdaterSite& site, const QString& name, const updater::FileList& files,
                      const QString& package = "demo")
{
    site.base.File(name, kxtest::ManifestFor(package, "http://host/files", {}, files).toUtf8());
    return site.Path(name);
}

/** A host's callback that waits until the test lets it go. */
class HeldCallback : public updater::AppCallbackFunction
{
public:
    int Call(const QString&, const QString&) override
    {
        gate.acquire();
        return 0;
    }
    QSemaphore gate;
};

using Setup = std::function<void(UpdaterSite&)>;

} // namespace

class TestUpdaterCheck : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void CheckComparesTreeWithManifest_data();
    void CheckComparesTreeWithManifest();
    void VerdictComparesVersionTexts_data();
    void VerdictComparesVersionTexts();
    void ServerPackageMayBeEmpty_data();
    void ServerPackageMayBeEmpty();
    void GettersAnswerWhatTheCheckFound();
    void IsActualIsKeptUntilTheNextStep();
    void CheckFromAvailableStartsAgain();
    void ScanFailureFailsTheCheck();
    void DigestsInOtherLettersCountAsChangedForEverySeed();

    void VersionFailureIsNoCheckError_data();
    void VersionFailureIsNoCheckError();
    void ManifestFailureIsACheckErrorPerTry_data();
    void ManifestFailureIsACheckErrorPerTry();
    void CutCompressedManifestIsAskedForAgain_data();
    void CutCompressedManifestIsAskedForAgain();
    void FailedCheckCanBeRepeated();
    void StaleQueryMovesNothing_data();
    void StaleQueryMovesNothing();
    void AbandonedCheckDoesNotDisturbTheNext_data();
    void AbandonedCheckDoesNotDisturbTheNext();

    void VerifyRefusesBadManifests_data();
    void VerifyRefusesBadManifests();
    void VerifyAnswersWhetherTheDirectoryMatches_data();
    void VerifyAnswersWhetherTheDirectoryMatches();
    void VerifyReportsAFailedScan();
    void VerifyWithoutScannerIsSilent();
    void VerifyLeavesPackageAndMachineAlone();
    void VerifyRunsBesideACheck();
    void OverlappingVerificationsKeepTheirManifests();
    void VerificationSlotsWithoutScannerAnswerFalse();
    void DeletingTheUpdaterEndsVerifications();
    void DeletingTheUpdaterInsideTheAnswer();
};

void TestUpdaterCheck::init()
{
    kxtest::FailOnWiringWarnings();
}

void TestUpdaterCheck::cleanup()
{
    QHashSeed::resetRandomGlobalSeed();
}

void TestUpdaterCheck::CheckComparesTreeWithManifest_data()
{
    QTest::addColumn<Setup>("setup");
    QTest::addColumn<QStringList>("expected");
    const auto Row = [](const char* name, const Setup& setup, const QStringList& expected) {
        QTest::newRow(name) << setup << expected;
    };
    const QStringList changed = Repair();

    Row(
        "the same", [](UpdaterSite&) {}, BecameActual());
    Row(
        "one extra file", [](UpdaterSite& s) { s.base.File("app/extra", "x"); },
        Listed("SCANNING", deleteTitle, {"extra"}) + changed);
    Row(
        "one missing file", [](UpdaterSite& s) { s.base.Remove("app/bin/tool"); },
        Listed("SCANNING", downloadTitle, {"bin/tool"}) + changed);
    Row(
        "extra and missing: no delete list",
        [](UpdaterSite& s) { s.base.Remove("app/bin/tool").File("app/extra", "x"); },
        Listed("SCANNING", downloadTitle, {"bin/tool"}) + changed);
    Row(
        "another content of the same size",
        [](UpdaterSite& s) { s.base.File("app/program", "Program"); },
        Listed("SCANNING", downloadTitle, {"program"}) + changed);
    Row(
        "another size", [](UpdaterSite& s) { s.base.File("app/program", "program "); },
        Listed("SCANNING", downloadTitle, {"program"}) + changed);
    Row(
        "another name",
        [](UpdaterSite& s) { s.base.Remove("app/program").File("app/Program", "program"); },
        Listed("SCANNING", downloadTitle, {"program"}) + changed);
    Row(
        "another link target",
        [](UpdaterSite& s) { s.base.Remove("app/link").Symlink("app/link", "bin/tool"); },
        Listed("SCANNING", downloadTitle, {"link"}) + changed);
    Row(
        "a file in the place of a link",
        [](UpdaterSite& s) { s.base.Remove("app/link").File("app/link", "program"); },
        Listed("SCANNING", downloadTitle, {"link"}) + changed);
    Row(
        "other permissions", [](UpdaterSite& s) { kxtest::SetMode(s.Path("app/bin/tool"), 0600); },
        BecameActual());
    Row(
        "a hidden file", [](UpdaterSite& s) { s.base.File("app/.hidden", "x"); }, BecameActual());
    Row(
        "an empty directory", [](UpdaterSite& s) { s.base.Dir("app/empty"); }, BecameActual());
    Row(
        "no application directory", [](UpdaterSite& s) { s.base.Remove("app"); },
        Listed("SCANNING", downloadTitle, {"bin/tool", "link", "program"}) + changed);
    Row(
        "several missing", [](UpdaterSite& s) { s.base.Remove("app/bin/tool").Remove("app/link"); },
        Listed("SCANNING", downloadTitle, {"bin/tool", "link"}) + changed);
    Row(
        "the same digests in other letters",
        [](UpdaterSite& s) {
            updater::FileList files = kxtest::ScanForManifest(s.Path("fresh"));
            for (updater::File& file : files)
                file = WithDigest(file, file.MD5().toUpper());
            s.Publish("1.0", files);
        },
        Listed("SCANNING", downloadTitle, {"bin/tool", "link", "program"}) + changed);
    Row(
        "several extra", [](UpdaterSite& s) { s.base.File("app/y", "").Symlink("app/x", "y"); },
        Listed("SCANNING", deleteTitle, {"x", "y"}) + changed);
}

void TestUpdaterCheck::CheckComparesTreeWithManifest()
{
    QFETCH(Setup, setup);
    QFETCH(QStringList, expected);
    UpdaterSite site;
    for (const char* tree : {"app/", "fresh/"}) {
        site.base.File(QString(tree) + "program", "program")
            .File(QString(tree) + "bin/tool", "tool", 0755)
            .Symlink(QString(tree) + "link", "program");
    }
    site.Publish("1.0");
    setup(site);
    QVERIFY(site.Start());
    QVERIFY(site.Run("Check", expected.contains("available()") ? "AVAILABLE" : "ACTUAL"));
    QCOMPARE(site.journal.Steady(), UntilScanned("WAITING") + expected);
    QCOMPARE(site.updater->IsActual(), !expected.contains("available()"));
}

void TestUpdaterCheck::VerdictComparesVersionTexts_data()
{
    QTest::addColumn<QString>("installed");
    QTest::addColumn<QString>("offered");
    QTest::addColumn<bool>("same");
    QTest::newRow("newer") << "1.0"
                           << "2.0" << false;
    QTest::newRow("equal") << "1.0"
                           << "1.0" << true;
    QTest::newRow("equal as numbers only") << "1.0"
                                           << "1.0.0" << false;
    QTest::newRow("other letters") << "1.0-RC"
                                   << "1.0-rc" << false;
    QTest::newRow("older") << "3.0"
                           << "2.9" << false;
    QTest::newRow("none installed") << ""
                                    << "1.0" << false;
    QTest::newRow("a marker in the version") << "1.0"
                                             << "2.0-%1" << false;
}

void TestUpdaterCheck::VerdictComparesVersionTexts()
{
    QFETCH(QString, installed);
    QFETCH(QString, offered);
    QFETCH(bool, same);
    UpdaterSite site;
    site.base.File("app/a", "old").File("fresh/a", "new");
    site.Publish(offered);
    QVERIFY(site.Start());
    site.updater->SetCurrentVersion(installed);
    site.journal.Clear();
    QVERIFY(site.Run("Check", "AVAILABLE"));
    QCOMPARE(site.journal.Steady(), UntilScanned("WAITING") +
                                        Listed("SCANNING", downloadTitle, {"a"}) +
                                        (same ? Repair() : NewVersion(offered)));
    QCOMPARE(site.updater->ServerVersion(), offered);
}

void TestUpdaterCheck::ServerPackageMayBeEmpty_data()
{
    QTest::addColumn<QString>("manifest");
    QTest::newRow("no files") << kxtest::ManifestFor("demo", "http://host/files", "app", {});
    QTest::newRow("other packages only") << kxtest::ManifestFor(
        "other", "http://host/files", "app", {updater::File("a", "0", 1, {}, {})});
    QTest::newRow("no packages") << "<packages/>";
}

void TestUpdaterCheck::ServerPackageMayBeEmpty()
{
    QFETCH(QString, manifest);
    UpdaterSite site;
    site.base.File("app/a", "a").Dir("fresh");
    site.Publish("2.0");
    site.server.SetBody(site.ManifestPath("2.0"), manifest.toUtf8());
    QVERIFY(site.Start());
    QVERIFY(site.Run("Check", "ACTUAL"));
    QCOMPARE(site.journal.Steady(), UntilScanned("WAITING") +
                                        QStringList{"4 SCANNING: Server package is empty!"} +
                                        BecameActual());
    QVERIFY(site.updater->IsActual());
}

void TestUpdaterCheck::GettersAnswerWhatTheCheckFound()
{
    UpdaterSite site;
    site.base.File("fresh/bin/app", "new", 0755);
    const updater::FileList files = site.Publish("2.0", "bin/app");
    QVERIFY(site.Start());
    QCOMPARE(site.updater->URL(), site.server.Url(QString()).toString());
    QCOMPARE(site.updater->ServerVersion(), "");
    QCOMPARE(site.updater->PackageXML(), "");
    QVERIFY(site.Run("Check", "AVAILABLE"));
    QCOMPARE(site.updater->ServerVersion(), "2.0");
    QCOMPARE(site.updater->ExecutablePath(), site.Path("next/bin/app"));
    // What the client holds: after a check that is the manifest's URL.
    QCOMPARE(site.updater->URL(), site.server.Url(site.ManifestPath("2.0")).toString());

    updater::Package reader(nullptr, nullptr);
    reader.SetName("demo");
    reader.SetPackageXML(site.updater->PackageXML());
    QCOMPARE(reader.Files(), files);
    QCOMPARE(reader.ExecutableName(), "bin/app");
}

void TestUpdaterCheck::IsActualIsKeptUntilTheNextStep()
{
    UpdaterSite site;
    site.base.File("app/a", "a").File("fresh/a", "a");
    site.Publish("1.0");
    QVERIFY(site.Start());
    QVERIFY(site.Run("Check", "ACTUAL"));
    QVERIFY(site.updater->IsActual());
    QVERIFY(site.Run("Cancel", "CANCELED"));
    QVERIFY(site.updater->IsActual());
    QVERIFY(site.Run("Wait", "WAITING"));
    QVERIFY(!site.updater->IsActual());

    QVERIFY(site.Run("Check", "ACTUAL"));
    QVERIFY(site.updater->IsActual());
    // A check that finds changes does not set it, whatever it was.
    site.base.File("app/b", "b");
    QVERIFY(site.Run("Cancel", "CANCELED"));
    QVERIFY(site.Run("Check", "AVAILABLE"));
    QVERIFY(!site.updater->IsActual());

    site.base.Remove("app/b");
    QVERIFY(site.Run("Check", "ACTUAL"));
    QVERIFY(site.Run("Finish", "SUCCESS"));
    QVERIFY(site.updater->IsActual());
}

void TestUpdaterCheck::CheckFromAvailableStartsAgain()
{
    UpdaterSite site;
    site.base.File("fresh/a", "a");
    site.Publish("2.0");
    QVERIFY(site.Start());
    QVERIFY(site.Run("Check", "AVAILABLE"));
    site.journal.Clear();
    site.base.File("fresh/b", "b");
    site.Publish("3.0");
    QVERIFY(site.Run("Check", "AVAILABLE"));
    QStringList expected{"7 AVAILABLE: <<<--- CHECK", "check()"};
    expected += Exited({"AVAILABLE", "CHECKING"}) + Entered("CHECKING") + Entered("QUERYING");
    expected += QStringList{"packageReady()"} + Exited({"QUERYING"}) + Entered("SCANNING");
    expected += Listed("SCANNING", downloadTitle, {"a", "b"}) + NewVersion("3.0");
    QCOMPARE(site.journal.Steady(), expected);
}

void TestUpdaterCheck::ScanFailureFailsTheCheck()
{
    UpdaterSite site;
    site.base.File("fresh/a", "a").Dir("app");
    QCOMPARE(mkfifo(site.Path("app/pipe").toLocal8Bit().constData(), 0600), 0);
    site.Publish("2.0");
    QVERIFY(site.Start());
    QVERIFY(site.Run("Check", "FAILED"));
    QCOMPARE(site.journal.Steady(),
             UntilScanned("WAITING") +
                 QStringList{"error(600302, Scanning path '~/app' failed with error '600302'!)"} +
                 Exited({"SCANNING", "CHECKING"}) + Entered("FAILED"));
}

void TestUpdaterCheck::DigestsInOtherLettersCountAsChangedForEverySeed()
{
    UpdaterSite site;
    updater::FileList files;
    for (int i = 0; i < 6; ++i)
        site.base.RandomFile(QString("app/file%1").arg(i), 10, quint32(i));
    files = kxtest::ScanForManifest(site.Path("app"));
    const QString same = WriteManifest(site, "same.xml", files);
    for (updater::File& file : files)
        file = WithDigest(file, file.MD5().toUpper());
    const QString other = WriteManifest(site, "other.xml", files);
    QVERIFY(site.Start());

    // Were equality alone the key, a hashed set would find some of the pairs by chance.
    for (int seed = 0; seed < 100; ++seed) {
        if (seed == 0)
            QHashSeed::setDeterministicGlobalSeed();
        else
            QHashSeed::resetRandomGlobalSeed();
        for (const QString& manifest : {other, same}) {
            site.journal.Clear();
            QSignalSpy answers(site.updater.get(), SIGNAL(localUpdateVerificationFinished(bool)));
            QVERIFY(site.updater->VerifyLocalUpdate(site.Path("app"), manifest));
            QVERIFY(answers.wait(waitMs));
            QCOMPARE(answers.first().first().toBool(), manifest == same);
            // All six, not one by luck.
            const QStringList names{"file0", "file1", "file2", "file3", "file4", "file5"};
            QCOMPARE(site.journal.Steady(),
                     (manifest == same ? QStringList() : Listed("WAITING", downloadTitle, names)) +
                         QStringList{manifest == same ? "localUpdateVerificationFinished(true)"
                                                      : "localUpdateVerificationFinished(false)"});
        }
    }
}

void TestUpdaterCheck::VersionFailureIsNoCheckError_data()
{
    QTest::addColumn<QList<Reply>>("replies");
    QTest::addColumn<int>("code");
    const Reply broken = Reply::Body("<vers");
    const Reply status = Reply::Status(500);
    QTest::newRow("status") << QList<Reply>{status, status, status} << 610102;
    QTest::newRow("does not parse") << QList<Reply>{broken, broken, broken} << 600103;
    QTest::newRow("the last one counts")
        << QList<Reply>{status, Reply::TruncateAfter(5), broken} << 600103;
}

void TestUpdaterCheck::VersionFailureIsNoCheckError()
{
    QFETCH(QList<Reply>, replies);
    QFETCH(int, code);
    const ShortRetries shortRetries;
    UpdaterSite site;
    site.base.File("fresh/a", "a");
    site.Publish("2.0");
    QVERIFY(site.Start());
    for (const Reply& reply : replies)
        site.server.Enqueue(site.VersionPath(), reply);
    QVERIFY(site.Run("Check", "FAILED"));
    QCOMPARE(site.journal.Count("checkError()"), 0);
    QCOMPARE(site.journal.Beginning("error(").size(), 1);
    QVERIFY2(site.journal.Beginning(QString("error(%1, ").arg(code)).size() == 1,
             qPrintable(site.journal.Beginning("error(").join('\n')));
    QCOMPARE(site.journal.States(), (QStringList{"CHECKING", "QUERYING", "FAILED"}));
    QCOMPARE(site.server.RequestCount(), 3);
}

void TestUpdaterCheck::ManifestFailureIsACheckErrorPerTry_data()
{
    QTest::addColumn<QList<Reply>>("replies");
    QTest::addColumn<int>("checkErrors");
    QTest::addColumn<int>("code"); // 0: the check goes well
    const Reply broken = Reply::Body("<packages>");
    const Reply status = Reply::Status(404);
    QTest::newRow("one failure") << QList<Reply>{status} << 1 << 0;
    QTest::newRow("two failures") << QList<Reply>{status, Reply::TruncateAfter(5)} << 2 << 0;
    QTest::newRow("three failures") << QList<Reply>{status, status, status} << 3 << 610102;
    // The request went well then: only the end is told.
    QTest::newRow("does not parse") << QList<Reply>{broken, broken, broken} << 0 << 600202;
    QTest::newRow("one does not parse") << QList<Reply>{broken} << 0 << 0;
    QTest::newRow("mixed") << QList<Reply>{broken, status, broken} << 1 << 600202;
}

void TestUpdaterCheck::ManifestFailureIsACheckErrorPerTry()
{
    QFETCH(QList<Reply>, replies);
    QFETCH(int, checkErrors);
    QFETCH(int, code);
    const ShortRetries shortRetries;
    UpdaterSite site;
    site.base.File("fresh/a", "a");
    site.Publish("2.0");
    QVERIFY(site.Start());
    for (const Reply& reply : replies)
        site.server.Enqueue(site.ManifestPath("2.0"), reply);
    QVERIFY(site.Run("Check", code == 0 ? "AVAILABLE" : "FAILED"));
    QCOMPARE(site.journal.Count("checkError()"), checkErrors);
    QCOMPARE(site.journal.Beginning("error(").size(), code == 0 ? 0 : 1);
    if (code != 0)
        QCOMPARE(site.journal.Beginning(QString("error(%1, ").arg(code)).size(), 1);
    QCOMPARE(site.server.RequestCount(site.ManifestPath("2.0")),
             code == 0 ? int(replies.size()) + 1 : 3);
    QCOMPARE(site.server.RequestCount(site.VersionPath()), 1);
}

void TestUpdaterCheck::CutCompressedManifestIsAskedForAgain_data()
{
    QTest::addColumn<Reply::Framing>("framing");
    QTest::newRow("with its length") << Reply::Framing::Length;
    QTest::newRow("chunked") << Reply::Framing::Chunked;
    QTest::newRow("ended by the connection") << Reply::Framing::UntilClose;
}

// Qt may take such a reply for whole: half a list must not come of it.
void TestUpdaterCheck::CutCompressedManifestIsAskedForAgain()
{
    QFETCH(Reply::Framing, framing);
    const ShortRetries shortRetries;
    UpdaterSite site;
    for (int i = 0; i < 100; ++i)
        site.base.File(QStringLiteral("fresh/%1").arg(i), QByteArray::number(i));
    const updater::FileList files = site.Publish("2.0");
    const QString manifest =
        kxtest::ManifestFor("demo", site.server.Url("/files").toString(), {}, files);
    Reply whole = Reply::Body(qCompress(manifest.toUtf8()).mid(4));
    whole.headers.emplaceBack("Content-Encoding", "deflate");
    whole.framing = framing;
    Reply cut = whole;
    cut.fault = Reply::Fault::Truncate;
    cut.faultAt = whole.body->size() / 2;
    site.server.Enqueue(site.ManifestPath("2.0"), cut);
    site.server.Enqueue(site.ManifestPath("2.0"), whole);
    QVERIFY(site.Start());
    QVERIFY(site.Run("Check", "AVAILABLE"));
    QCOMPARE(site.server.RequestCount(site.ManifestPath("2.0")), 2);
    QCOMPARE(site.updater->PackageXML().count("<file "), 100);
}

void TestUpdaterCheck::FailedCheckCanBeRepeated()
{
    const ShortRetries shortRetries;
    UpdaterSite site;
    site.base.File("app/a", "a").File("fresh/a", "a");
    site.Publish("1.0");
    QVERIFY(site.Start());
    for (int i = 0; i < 3; ++i)
        site.server.Enqueue(site.ManifestPath("1.0"), Reply::Status(503));
    QVERIFY(site.Run("Check", "FAILED"));
    QVERIFY(site.Run("Check", "ACTUAL"));
}

// A query that is left behind: a reply is held, or a retry is due, when the host goes away.
struct Stale
{
    bool manifest = false; // the step that is in trouble: the manifest, or the version
    bool retry = false;    // a retry is due, or else the server says nothing
    QString leave;         // the command
};

static Stale FetchStale()
{
    QFETCH(bool, manifest);
    QFETCH(bool, retry);
    QFETCH(QString, leave);
    return {manifest, retry, leave};
}

static void AddStaleRows(const QStringList& thens)
{
    QTest::addColumn<bool>("manifest");
    QTest::addColumn<bool>("retry");
    QTest::addColumn<QString>("leave");
    QTest::addColumn<QString>("then");
    for (const bool manifest : {false, true}) {
        for (const bool retry : {false, true}) {
            for (const char* leave : {"Cancel", "Wait"}) {
                for (const QString& then : thens) {
                    QTest::addRow("%s %s, %s, %s", manifest ? "manifest" : "version",
                                  retry ? "to be tried again" : "stalls", leave, qPrintable(then))
                        << manifest << retry << leave << then;
                }
            }
        }
    }
}

constexpr int staleRetryMs = 40;

/** Starts a check of a site that offers 2.0, and leaves it in the middle. */
static bool LeaveStale(UpdaterSite& site, const Stale& stale)
{
    const QString path = stale.manifest ? site.ManifestPath("2.0") : site.VersionPath();
    Reply reply = Reply::Status(500);
    if (!stale.retry)
        reply.fault = Reply::Fault::Hold;
    site.server.Enqueue(path, reply);
    const auto leave = [&site, stale] {
        site.journal.Clear();
        site.Command(stale.leave);
    };
    const QString state = stale.leave == "Cancel" ? "CANCELED" : "WAITING";
    if (!stale.retry) {
        site.Command("Check");
        if (!QTest::qWaitFor([&] { return site.server.StalledCount() == 1; }, waitMs))
            return false;
        leave();
        return site.journal.State() == state;
    }
    // The line comes before the retry's timer starts: what it posts is handled before that fires.
    site.journal.SetLogHook([&site, leave](const QString& line) {
        if (line.endsWith("7 Retrying request by timer..."))
            QMetaObject::invokeMethod(site.updater.get(), leave, Qt::QueuedConnection);
    });
    const bool left = site.Run("Check", state);
    site.journal.SetLogHook({});
    return left;
}

void TestUpdaterCheck::StaleQueryMovesNothing_data()
{
    AddStaleRows({"Wait", "Install", "Download"});
}

void TestUpdaterCheck::StaleQueryMovesNothing()
{
    const Stale stale = FetchStale();
    QFETCH(QString, then);
    const ShortRetries shortRetries(staleRetryMs);
    HeldCallback callback;
    UpdaterSite site({"updater.core", "updater.version", "updater.package"});
    site.base.File("app/a", "old").File("fresh/a", "new");
    site.Publish("2.0");
    QVERIFY(site.Start());
    site.updater->SetAppCallback(&callback);
    QVERIFY(LeaveStale(site, stale));

    QStringList states{stale.leave == "Cancel" ? "CANCELED" : "WAITING"};
    QString state = "WAITING";
    if (then != "Download" && stale.leave == "Cancel") {
        QVERIFY(site.Run("Wait", "WAITING"));
        states << "WAITING";
    }
    if (then == "Install") {
        state = "APPCALLBACK";
        QVERIFY(site.Run("Install", state));
        states << "INSTALLING" << state;
    } else if (then == "Download") {
        state = "DOWNLOADING";
        site.server.Enqueue("/files/a", Reply::Hold());
        QVERIFY(site.Run("Check", "AVAILABLE"));
        QVERIFY(site.Run("Download", state));
        states << "CHECKING"
               << "QUERYING"
               << "SCANNING"
               << "AVAILABLE"
               << "PREPARING"
               << "COPYING" << state;
    }

    // From now on every answer is a failure, so that any query still under way would show.
    site.server.SetDefaultReply(site.VersionPath(), Reply::Status(500));
    site.server.SetDefaultReply(site.ManifestPath("2.0"), Reply::Status(500));
    const int requests = site.server.RequestCount();
    if (then != "Download")
        site.server.ReleaseStalled();
    for (int i = 0; i < 4; ++i)
        kxtest::PassTimersOf(staleRetryMs);
    QCOMPARE(site.journal.State(), state);
    QCOMPARE(site.journal.States(), states);
    QCOMPARE(site.journal.Beginning("error("), QStringList{});
    QCOMPARE(site.journal.Count("checkError()"), 0);
    const int sent = then == "Download" ? site.server.RequestCount("/files/a") : 0;
    QVERIFY(site.server.RequestCount() - requests <= sent);
    callback.gate.release();
    site.server.ReleaseStalled();
    if (then == "Download")
        QVERIFY(site.Run({}, "SUCCESS"));
    else if (then == "Install") // nothing was downloaded
        QVERIFY(site.Run({}, "FAILED"));
}

void TestUpdaterCheck::AbandonedCheckDoesNotDisturbTheNext_data()
{
    AddStaleRows({"Check"});
}

void TestUpdaterCheck::AbandonedCheckDoesNotDisturbTheNext()
{
    const Stale stale = FetchStale();
    const ShortRetries shortRetries(staleRetryMs);
    UpdaterSite site({"updater.core", "updater.version", "updater.package"});
    site.base.File("app/a", "old").File("fresh/a", "new");
    site.Publish("2.0");
    QVERIFY(site.Start());
    QVERIFY(LeaveStale(site, stale));
    site.journal.Clear();
    site.server.ClearRequests();
    QVERIFY(site.Run("Check", "AVAILABLE"));
    const auto Warnings = [&site] {
        return site.journal.Count(
            "package 4 Get package already started! This will reset current operation!");
    };
    // Leaving ends the requests, not the operation: the next one says so.
    QCOMPARE(Warnings(), 1);
    QCOMPARE(site.journal.Count("version 2 Request already running!"), 0);
    QCOMPARE(site.journal.Count("package 2 Request already running!"), 0);
    QCOMPARE(site.journal.Count("packageReady()"), 1);
    QCOMPARE(site.journal.Count("checkError()"), 0);
    QCOMPARE(site.journal.Beginning("error("), QStringList{});
    QCOMPARE(site.server.RequestCount(), 2);
    site.server.ReleaseStalled();
    for (int i = 0; i < 4; ++i)
        kxtest::PassTimersOf(staleRetryMs);
    QCOMPARE(site.journal.State(), "AVAILABLE");
    QCOMPARE(site.server.RequestCount(), 2);
    QVERIFY(site.Run("Check", "AVAILABLE"));
    QCOMPARE(Warnings(), 1);
}

void TestUpdaterCheck::VerifyRefusesBadManifests_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("line");
    const updater::FileList one{updater::File("a", "0", 1, {}, {})};
    const QString isEmpty = "Update XML package is empty!";
    const auto Manifest = [](const QString& package, const QString& url,
                             const updater::FileList& files) {
        return kxtest::ManifestFor(package, url, {}, files);
    };
    QTest::newRow("missing") << "none.xml" << QString() << "Update XML file not exists: ~/none.xml";
    QTest::newRow("empty name") << QString() << QString() << "Update XML file not exists: ";
    // As a directory it exists and cannot be opened, for root too.
    QTest::newRow("not to be opened")
        << "app" << QString() << "Failed to opem update XML file: ~/app ";
    QTest::newRow("empty file") << "m.xml"
                                << "" << isEmpty;
    QTest::newRow("no XML") << "m.xml"
                            << "a,1,2" << isEmpty;
    QTest::newRow("other root") << "m.xml"
                                << "<Packages/>" << isEmpty;
    QTest::newRow("no package") << "m.xml"
                                << "<packages/>" << isEmpty;
    QTest::newRow("no files") << "m.xml" << Manifest("demo", "http://h", {}) << isEmpty;
    QTest::newRow("other package") << "m.xml" << Manifest("Demo", "http://h", one) << isEmpty;
    QTest::newRow("no download URL") << "m.xml" << Manifest("demo", "", one) << isEmpty;
}

void TestUpdaterCheck::VerifyRefusesBadManifests()
{
    QFETCH(QString, name);
    QFETCH(QString, text);
    QFETCH(QString, line);
    UpdaterSite site;
    site.base.File("app/a", "a");
    if (!text.isNull())
        site.base.File(name, text.toUtf8());
    QVERIFY(site.Start());
    const QString path = name.isEmpty() ? QString() : site.Path(name);
    if (line.endsWith(' ') && !name.isEmpty()) {
        QFile file(path);
        QVERIFY(!file.open(QIODevice::ReadOnly));
        line += file.errorString();
    }
    QVERIFY(!site.updater->VerifyLocalUpdate(site.Path("app"), path));
    QCoreApplication::processEvents();
    QCOMPARE(site.journal.Lines(), QStringList{"3 WAITING: " + line});
}

void TestUpdaterCheck::VerifyAnswersWhetherTheDirectoryMatches_data()
{
    QTest::addColumn<Setup>("setup");
    QTest::addColumn<QStringList>("lines");
    QTest::newRow("good") << Setup([](UpdaterSite&) {}) << QStringList{};
    QTest::newRow("hidden file beside")
        << Setup([](UpdaterSite& s) { s.base.File("app/.h", ""); }) << QStringList{};
    QTest::newRow("other rights") << Setup([](UpdaterSite& s) {
        kxtest::SetMode(s.Path("app/a"), 0444);
    }) << QStringList{};
    QTest::newRow("changed") << Setup([](UpdaterSite& s) { s.base.File("app/a", "b"); })
                             << Listed("WAITING", downloadTitle, {"a"});
    QTest::newRow("missing") << Setup([](UpdaterSite& s) { s.base.Remove("app/ä/é x"); })
                             << Listed("WAITING", downloadTitle, {"ä/é x"});
    QTest::newRow("extra") << Setup([](UpdaterSite& s) { s.base.File("app/c/d", ""); })
                           << Listed("WAITING", deleteTitle, {"c/d"});
    QTest::newRow("link elsewhere")
        << Setup([](UpdaterSite& s) { s.base.Remove("app/l").Symlink("app/l", "b"); })
        << Listed("WAITING", downloadTitle, {"l"});
    QTest::newRow("no directory") << Setup([](UpdaterSite& s) { s.base.Remove("app"); })
                                  << Listed("WAITING", downloadTitle, {"a", "l", "ä/é x"});
}

void TestUpdaterCheck::VerifyAnswersWhetherTheDirectoryMatches()
{
    QFETCH(Setup, setup);
    QFETCH(QStringList, lines);
    UpdaterSite site;
    site.base.File("app/a", "a").File("app/ä/é x", "x").Symlink("app/l", "a");
    const QString manifest =
        WriteManifest(site, "m.xml", kxtest::ScanForManifest(site.Path("app")));
    setup(site);
    QVERIFY(site.Start());
    QVERIFY(site.updater->VerifyLocalUpdate(site.Path("app"), manifest));
    // Never from inside the call.
    QCOMPARE(site.journal.Lines(), QStringList{});
    const QString answer =
        QString("localUpdateVerificationFinished(%1)").arg(lines.isEmpty() ? "true" : "false");
    QTRY_COMPARE_WITH_TIMEOUT(site.journal.Beginning("localUpdate").size(), 1, waitMs);
    kxtest::PassTimersOf(0);
    QCOMPARE(site.journal.Steady(), lines + QStringList{answer});
    QVERIFY(!site.updater->findChild<updater::FileScanner*>());
}

void TestUpdaterCheck::VerifyReportsAFailedScan()
{
    UpdaterSite site;
    site.base.File("app/a", "a");
    const QString manifest =
        WriteManifest(site, "m.xml", kxtest::ScanForManifest(site.Path("app")));
    QCOMPARE(mkfifo(site.Path("app/pipe").toLocal8Bit().constData(), 0600), 0);
    QVERIFY(site.Start());
    QVERIFY(site.updater->VerifyLocalUpdate(site.Path("app"), manifest));
    QTRY_VERIFY_WITH_TIMEOUT(site.journal.Contains("localUpdateVerificationFinished(false)"),
                             waitMs);
    QCOMPARE(site.journal.Lines(),
             (QStringList{"3 WAITING: File scanner failed with error 600302: Scanning path '~/app' "
                          "failed with error '600302'!",
                          "localUpdateVerificationFinished(false)"}));
}

void TestUpdaterCheck::VerifyWithoutScannerIsSilent()
{
    UpdaterSite site;
    site.base.File("app/a", "a");
    const QString manifest =
        WriteManifest(site, "m.xml", kxtest::ScanForManifest(site.Path("app")));
    QVERIFY(site.Start());
    {
        const auto failure = kxtest::AllocationFailure::Of<updater::FileScanner>();
        QVERIFY(!site.updater->VerifyLocalUpdate(site.Path("app"), manifest));
        QCOMPARE(failure.Failures(), 1);
    }
    kxtest::PassTimersOf(0);
    QCOMPARE(site.journal.Lines(), QStringList{});
    QVERIFY(site.updater->VerifyLocalUpdate(site.Path("app"), manifest));
    QTRY_COMPARE_WITH_TIMEOUT(site.journal.Lines(),
                              QStringList{"localUpdateVerificationFinished(true)"}, waitMs);
}

void TestUpdaterCheck::VerifyLeavesPackageAndMachineAlone()
{
    UpdaterSite site;
    site.base.File("app/a", "a").File("fresh/a", "new");
    site.Publish("2.0", "run");
    QVERIFY(site.Start());
    QVERIFY(site.Run("Check", "AVAILABLE"));
    const QString xml = site.updater->PackageXML();
    const QString manifest =
        WriteManifest(site, "m.xml", kxtest::ScanForManifest(site.Path("app")));
    site.journal.Clear();
    QVERIFY(site.updater->VerifyLocalUpdate(site.Path("app"), manifest));
    QTRY_COMPARE_WITH_TIMEOUT(site.journal.Lines(),
                              QStringList{"localUpdateVerificationFinished(true)"}, waitMs);
    QCOMPARE(site.updater->PackageXML(), xml);
    QCOMPARE(site.updater->ServerVersion(), "2.0");
    QCOMPARE(site.updater->ExecutablePath(), site.Path("next/run"));
    QVERIFY(!site.updater->IsActual());
    // The plan of the check stands: the new file is fetched, nothing is copied.
    QVERIFY(site.Run("Download", "SUCCESS"));
    QCOMPARE(kxtest::Read(site.Path("next/a")), "new");
}

void TestUpdaterCheck::VerifyRunsBesideACheck()
{
    UpdaterSite site;
    site.base.File("app/a", "a").File("fresh/a", "a");
    site.Publish("1.0");
    const QString manifest =
        WriteManifest(site, "m.xml", {updater::File("b", kxtest::MD5Of("b"), 1, {}, {})});
    QVERIFY(site.Start());
    int started = 0;
    site.journal.SetHook([&](const QString& line) {
        if (line == "stateChanged(SCANNING)" || line == "stateChanged(QUERYING)")
            started += site.updater->VerifyLocalUpdate(site.Path("app"), manifest);
    });
    QVERIFY(site.Run("Check", "ACTUAL"));
    QCOMPARE(started, 2);
    QTRY_COMPARE_WITH_TIMEOUT(site.journal.Count("localUpdateVerificationFinished(false)"), 2,
                              waitMs);
    QVERIFY(site.updater->IsActual());
}

void TestUpdaterCheck::OverlappingVerificationsKeepTheirManifests()
{
    UpdaterSite site;
    for (int i = 0; i < 200; ++i)
        site.base.File(QString("big/%1").arg(i), QByteArray::number(i));
    site.base.File("small/a", "a");
    const QString big = WriteManifest(site, "b.xml", kxtest::ScanForManifest(site.Path("big")));
    const QString small = WriteManifest(site, "s.xml", kxtest::ScanForManifest(site.Path("small")));
    QVERIFY(site.Start());
    const auto Answers = [&site] { return site.journal.Beginning("localUpdate").size(); };

    // Right pairs, in both orders: every answer is yes.
    for (const bool bigFirst : {true, false}) {
        site.journal.Clear();
        const QStringList names =
            bigFirst ? QStringList{"big", "small"} : QStringList{"small", "big"};
        for (const QString& name : names) {
            QVERIFY(site.updater->VerifyLocalUpdate(site.Path(name), name == "big" ? big : small));
        }
        QTRY_COMPARE_WITH_TIMEOUT(Answers(), 2, waitMs);
        QCOMPARE(site.journal.Lines(), (QStringList{"localUpdateVerificationFinished(true)",
                                                    "localUpdateVerificationFinished(true)"}));
    }

    // Wrong pairs: every answer is no.
    site.journal.Clear();
    QVERIFY(site.updater->VerifyLocalUpdate(site.Path("big"), small));
    QVERIFY(site.updater->VerifyLocalUpdate(site.Path("small"), big));
    QTRY_COMPARE_WITH_TIMEOUT(Answers(), 2, waitMs);
    QCOMPARE(site.journal.Count("localUpdateVerificationFinished(false)"), 2);

    // A refused one takes nothing from one that runs.
    site.journal.Clear();
    QVERIFY(site.updater->VerifyLocalUpdate(site.Path("big"), big));
    QVERIFY(!site.updater->VerifyLocalUpdate(site.Path("small"), site.Path("none.xml")));
    QTRY_COMPARE_WITH_TIMEOUT(Answers(), 1, waitMs);
    QCOMPARE(site.journal.Count("localUpdateVerificationFinished(true)"), 1);
}

void TestUpdaterCheck::VerificationSlotsWithoutScannerAnswerFalse()
{
    UpdaterSite site;
    QVERIFY(site.Start());
    site.updater->OnVerifyLocalUpdateScanFinished();
    site.updater->OnVerifyLocalUpdateScanFailed(7, "why");
    QCOMPARE(site.journal.Lines(), (QStringList{"localUpdateVerificationFinished(false)",
                                                "3 WAITING: File scanner failed with error 7: why",
                                                "localUpdateVerificationFinished(false)"}));
}

void TestUpdaterCheck::DeletingTheUpdaterEndsVerifications()
{
    UpdaterSite site({"updater.core", "updater.filescan"});
    for (int i = 0; i < 100; ++i)
        site.base.File(QString("app/%1").arg(i), "x");
    site.base.Sparse("app/sparse", qint64(1) << 30);
    const QString manifest =
        WriteManifest(site, "m.xml", {updater::File("b", kxtest::MD5Of("b"), 1, {}, {})});
    QVERIFY(site.Start());
    for (int i = 0; i < 3; ++i)
        QVERIFY(site.updater->VerifyLocalUpdate(site.Path("app"), manifest));
    site.updater.reset();
    // Nothing scans any more, and nothing answers.
    const auto Started = [&site] {
        return site.journal.Count("filescan 6 Start scanning path '~/app'...");
    };
    const int started = Started();
    kxtest::PassTimersOf(50);
    QCOMPARE(Started(), started);
    QCOMPARE(site.journal.Beginning("localUpdate"), QStringList{});
}

void TestUpdaterCheck::DeletingTheUpdaterInsideTheAnswer()
{
    UpdaterSite site;
    site.base.File("app/a", "a");
    const QString manifest =
        WriteManifest(site, "m.xml", kxtest::ScanForManifest(site.Path("app")));
    QVERIFY(site.Start());
    QPointer<updater::Updater> updater = site.updater.get();
    for (int i = 0; i < 2; ++i)
        QVERIFY(site.updater->VerifyLocalUpdate(site.Path("app"), manifest));
    site.journal.SetHook([&](const QString& line) {
        if (line.startsWith("localUpdate") && site.updater)
            site.updater.release()->deleteLater();
    });
    QTRY_VERIFY_WITH_TIMEOUT(!updater, waitMs);
}

QTEST_GUILESS_MAIN(TestUpdaterCheck)
#include "tst_updater_check.moc"
