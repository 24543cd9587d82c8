#include "kxupdateprocess.h"
#include "treebuilder.h"
#include "updatesite.h"

#include <kxcommon/ifiledownload.h>

#include <QSignalSpy>
#include <QTest>

#include <csignal>

namespace {

const QString v1 = QStringLiteral("1.0");
const QString v2 = QStringLiteral("2.0");
const QString filter = QStringLiteral("lib/filter.bin");

} // namespace

/** Servers that fail, users who give up, and swaps that go wrong: the program survives. */
class TstKxupdateFailures : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void ServerFailureIsExplained_data();
    void ServerFailureIsExplained();
    void ServerKilledInTheTransferIsGoneOnWithLater();
    void PackageMissingFromTheManifestIsNotUpToDate();
    void PackageThatCannotBeVerifiedNamesTheFile();

    void InterruptEndsTheCommand_data();
    void InterruptEndsTheCommand();
    void InterruptInTheSwapFinishesIt_data();
    void InterruptInTheSwapFinishesIt();
    void KilledProcessIsRepairedByTheNextOne_data();
    void KilledProcessIsRepairedByTheNextOne();
    void KilledProcessLeavesTheConfigurationWhole();
    void InterruptAfterTheResultChangesNothing();
    void InterruptBetweenTheStepsEndsTheCommand_data();
    void InterruptBetweenTheStepsEndsTheCommand();

    void FailedSwapPutsTheOldVersionBack();
    void FailedFirstInstallLeavesNothing();
    void FailedSwapIsRepeatable();
};

void TstKxupdateFailures::ServerFailureIsExplained_data()
{
    QTest::addColumn<QString>("failure");
    QTest::addColumn<QString>("message");
    QTest::addColumn<QString>("hint");
    QTest::newRow("nobody listens") << "refused"
                                    << "61010"
                                    << "Is the network up";
    QTest::newRow("wrong address") << "no version"
                                   << "version.xml"
                                   << "Is --url right?";
    QTest::newRow("wrong package") << "no manifest"
                                   << "index.xml"
                                   << "Is --package right?";
    QTest::newRow("not an update server") << "not a version"
                                          << "600103"
                                          << "Is --url right";
    QTest::newRow("file missing") << "no file"
                                  << "404"
                                  << "does not have";
    QTest::newRow("file corrupted") << "wrong bytes"
                                    << "filter.bin"
                                    << "another file";
    QTest::newRow("file too short") << "short"
                                    << "filter.bin"
                                    << "";
}

void TstKxupdateFailures::ServerFailureIsExplained()
{
    QFETCH(QString, failure);
    QFETCH(QString, message);
    QFETCH(QString, hint);
    UpdateSite site;
    site.Publish(v2);
    site.Install(v1);
    kxtest::HttpTestServer& server = site.Server();
    if (failure == QLatin1String("refused"))
        server.Stop();
    else if (failure == QLatin1String("no version"))
        server.SetDefaultReply(site.VersionPath(), kxtest::Reply::Status(404));
    else if (failure == QLatin1String("no manifest"))
        server.SetDefaultReply(site.ManifestPath(v2), kxtest::Reply::Status(404));
    else if (failure == QLatin1String("not a version"))
        server.SetDefaultReply(site.VersionPath(), kxtest::Reply::Body("<html>Log in</html>"));
    else if (failure == QLatin1String("no file"))
        server.SetDefaultReply(site.FilePath(v2, filter), kxtest::Reply::Status(404));
    else if (failure == QLatin1String("wrong bytes"))
        server.SetDefaultReply(site.FilePath(v2, filter), kxtest::Reply::WrongBytes(10));
    else
        server.SetDefaultReply(site.FilePath(v2, filter), kxtest::Reply::Body("short"));

    KxupdateProcess process;
    QVERIFY2(process.Run(site.Command(QStringLiteral("update"))), process.Report());
    QVERIFY2(process.Status() == 6, process.Report());
    QCOMPARE(process.Data(QStringLiteral("result")), QStringLiteral("server-failed"));
    QVERIFY2(process.Errors().contains(message), process.Report());
    QVERIFY2(process.Errors().contains(hint), process.Report());
    QCOMPARE(process.Errors().count(QStringLiteral("Error 6")), 1);
    QCOMPARE(site.Installed(), site.Published(v1));
    QVERIFY(!kxtest::Exists(site.Backup()));
}

void TstKxupdateFailures::ServerKilledInTheTransferIsGoneOnWithLater()
{
    UpdateSite site;
    site.Publish(v2);
    site.Install(v1);
    site.Server().Enqueue(site.FilePath(v2, filter), kxtest::Reply::StallAfter(60000));
    QSignalSpy stalled(&site.Server(), SIGNAL(stalled(QString)));
    KxupdateProcess process;
    process.Start(site.Command(QStringLiteral("update")));
    QTRY_VERIFY_WITH_TIMEOUT(stalled.count() == 1, 60000);
    site.Server().Stop();
    QVERIFY2(process.Wait(), process.Report());
    QVERIFY2(process.Status() == 6, process.Report());
    QVERIFY2(process.Errors().contains(QStringLiteral("The application is untouched.")),
             process.Report());
    QCOMPARE(site.Installed(), site.Published(v1));

    QVERIFY(site.Server().Start());
    site.Server().ClearRequests();
    KxupdateProcess again;
    QVERIFY2(again.Run(site.Command(QStringLiteral("update"))), again.Report());
    QVERIFY2(again.Status() == 0, again.Report());
    QCOMPARE(site.Installed(), site.Published(v2));
    const auto requests = site.Server().Requests(site.FilePath(v2, filter));
    QCOMPARE(requests.size(), 1);
    QVERIFY(requests.first().HasHeader("Range"));
}

void TstKxupdateFailures::PackageMissingFromTheManifestIsNotUpToDate()
{
    UpdateSite site;
    site.Publish(v2);
    site.Install(v1);
    site.Server().SetDefaultReply(site.ManifestPath(v2), kxtest::Reply::Body("<packages/>"));
    KxupdateProcess process;
    QVERIFY2(process.Run(site.Command(QStringLiteral("check"))), process.Report());
    QVERIFY2(process.Status() == 6, process.Report());
    QVERIFY2(process.Errors().contains(QStringLiteral("lists no files of the package 'hello'")),
             process.Report());
}

void TstKxupdateFailures::PackageThatCannotBeVerifiedNamesTheFile()
{
    UpdateSite site;
    site.Publish(v2);
    site.Install(v1);
    // A transfer takes digests in either case, a comparison letter for letter.
    const QString path = site.Path(QStringLiteral("server")) + site.ManifestPath(v2);
    const QByteArray digest =
        kxtest::MD5OfFile(site.Tree(v2) + QStringLiteral("/share/new.txt")).toLatin1();
    QVERIFY(digest != digest.toUpper());
    kxtest::Write(path, kxtest::Read(path).replace(digest, digest.toUpper()));

    KxupdateProcess process;
    QVERIFY2(process.Run(site.Command(QStringLiteral("update"))), process.Report());
    QVERIFY2(process.Status() == 5, process.Report());
    QCOMPARE(process.Data(QStringLiteral("difference")), QStringLiteral("changed share/new.txt"));
    QVERIFY2(process.Errors().contains(QStringLiteral("Error 600405")), process.Report());
    QCOMPARE(site.Installed(), site.Published(v1));
}

void TstKxupdateFailures::InterruptEndsTheCommand_data()
{
    QTest::addColumn<QString>("where");
    QTest::addColumn<int>("signal");
    for (const auto& [name, number] : {std::pair{"Ctrl-C", SIGINT}, std::pair{"kill", SIGTERM},
                                       std::pair{"terminal closed", SIGHUP}}) {
        for (const QString& where : QStringList{"version", "manifest", "file"})
            QTest::addRow("%s while the %s is fetched", name, qPrintable(where)) << where << number;
    }
}

void TstKxupdateFailures::InterruptEndsTheCommand()
{
    QFETCH(QString, where);
    QFETCH(int, signal);
    UpdateSite site;
    site.Publish(v2);
    site.Install(v1);
    // Stalled for good: nothing but the interrupt ends the wait.
    const QString path = where == QLatin1String("version")    ? site.VersionPath()
                         : where == QLatin1String("manifest") ? site.ManifestPath(v2)
                                                              : site.FilePath(v2, filter);
    site.Server().SetDefaultReply(path, where == QLatin1String("version")
                                            ? kxtest::Reply::Hold()
                                            : kxtest::Reply::StallAfter(100));
    QSignalSpy stalled(&site.Server(), SIGNAL(stalled(QString)));

    KxupdateProcess process;
    process.Start(site.Command(QStringLiteral("update")));
    QTRY_VERIFY_WITH_TIMEOUT(stalled.count() == 1, 60000);
    process.Signal(signal);
    process.Signal(signal);
    QVERIFY2(process.Wait(), process.Report());
    QVERIFY2(process.Status() == 4, process.Report());
    QCOMPARE(process.Data(QStringLiteral("result")), QStringLiteral("canceled"));
    QVERIFY2(process.Errors().contains(QStringLiteral("Canceled; the application is untouched.")),
             process.Report());
    QVERIFY2(!process.Errors().contains(QStringLiteral("Error")), process.Report());
    QCOMPARE(site.Installed(), site.Published(v1));

    site.Server().SetDefaultReply(path, kxtest::Reply());
    KxupdateProcess again;
    QVERIFY2(again.Run(site.Command(QStringLiteral("update"))), again.Report());
    QVERIFY2(again.Status() == 0, again.Report());
    QCOMPARE(site.Installed(), site.Published(v2));
}

void TstKxupdateFailures::InterruptInTheSwapFinishesIt_data()
{
    QTest::addColumn<QString>("state");
    QTest::addColumn<int>("times");
    for (const QString& state :
         QStringList{"BACKUPREMOVING", "BACKUPING", "MOVING", "BACKUPCLEARING"}) {
        for (const int times : {1, 2})
            QTest::addRow("%s, Ctrl-C %d times", qPrintable(state), times) << state << times;
    }
}

void TstKxupdateFailures::InterruptInTheSwapFinishesIt()
{
    QFETCH(QString, state);
    QFETCH(int, times);
    UpdateSite site;
    site.Publish(v2);
    site.Install(v1);
    UpdateSite::CopyTree(site.Tree(v1), site.Backup()); // a stale backup to remove
    KxupdateProcess process;
    process.InterruptAt(QStringLiteral("  ") + state, times, SIGINT); // not as the end of another
    QVERIFY2(process.Run(site.Command(QStringLiteral("update"))), process.Report());
    QVERIFY2(process.Status() == 0, process.Report());
    QCOMPARE(process.Data(QStringLiteral("result")), QStringLiteral("updated"));
    QVERIFY2(!process.Errors().contains(QStringLiteral("Cancel")), process.Report());
    QCOMPARE(site.Installed(), site.Published(v2));
    QVERIFY(!kxtest::Exists(site.Backup()));
}

void TstKxupdateFailures::KilledProcessIsRepairedByTheNextOne_data()
{
    QTest::addColumn<QString>("state");
    for (const char* state :
         {"DOWNLOADING", "VERIFICATION", "BACKUPREMOVING", "BACKUPING", "MOVING", "BACKUPCLEARING"})
        QTest::newRow(state) << state;
}

void TstKxupdateFailures::KilledProcessIsRepairedByTheNextOne()
{
    QFETCH(QString, state);
    UpdateSite site;
    site.Publish(v2);
    site.Install(v1);
    KxupdateProcess process;
    process.InterruptAt(QStringLiteral("  ") + state, 1, SIGKILL);
    QVERIFY2(!process.Run(site.Command(QStringLiteral("update"))), process.Report());
    // One whole version is there, in its place or beside it.
    const QStringList left =
        kxtest::Exists(site.App()) ? site.Installed() : kxtest::Snapshot(site.Backup());
    QCOMPARE(left, site.Published(state == QLatin1String("BACKUPCLEARING") ? v2 : v1));

    KxupdateProcess again;
    QVERIFY2(again.Run(site.Command(QStringLiteral("update"))), again.Report());
    QVERIFY2(again.Status() == 0, again.Report());
    QCOMPARE(site.Installed(), site.Published(v2));
}

void TstKxupdateFailures::KilledProcessLeavesTheConfigurationWhole()
{
    UpdateSite site;
    site.Publish(v2);
    site.Install(v1);
    site.WriteConfig(v1);
    const QByteArray before = kxtest::Read(site.Config());
    KxupdateProcess process;
    process.InterruptAt(QStringLiteral("BACKUPCLEARING"), 1, SIGKILL);
    QVERIFY2(!process.Run(site.Configured(QStringLiteral("update"))), process.Report());
    QCOMPARE(site.Installed(), site.Published(v2));
    QCOMPARE(kxtest::Read(site.Config()), before);

    KxupdateProcess again;
    QVERIFY2(again.Run(site.Configured(QStringLiteral("update"))), again.Report());
    QVERIFY2(again.Status() == 0, again.Report());
    QCOMPARE(kxtest::Read(site.Config()), QByteArray(before).replace("1.0", "2.0"));
}

void TstKxupdateFailures::InterruptAfterTheResultChangesNothing()
{
    UpdateSite site;
    site.Publish(v2);
    site.Install(v1);
    KxupdateProcess process;
    // The first thing that the end of the updater logs.
    process.InterruptAt(QStringLiteral("SUCCESS: destroyed!"), 1, SIGTERM);
    QVERIFY2(
        process.Run(site.Command(QStringLiteral("update"), v1, {QStringLiteral("--log-level=7")})),
        process.Report());
    QCOMPARE(process.Data(QStringLiteral("result")), QStringLiteral("updated"));
    QVERIFY2(process.Errors().contains(QStringLiteral("SUCCESS: destroyed!")), process.Report());
    QVERIFY2(process.Status() == 0, process.Report());
}

void TstKxupdateFailures::InterruptBetweenTheStepsEndsTheCommand_data()
{
    QTest::addColumn<QString>("text");
    QTest::newRow("as the check begins") << "Checking";
    QTest::newRow("in the scan") << "SCANNING";
    QTest::newRow("with an update found") << "is available";
    QTest::newRow("before the download") << "PREPARING";
    QTest::newRow("in the verification") << "VERIFICATION";
    QTest::newRow("with the download complete") << "is complete in";
    QTest::newRow("in the second verification") << "Verifying";
}

void TstKxupdateFailures::InterruptBetweenTheStepsEndsTheCommand()
{
    QFETCH(QString, text);
    UpdateSite site;
    site.Publish(v2);
    site.Install(v1);
    KxupdateProcess process;
    process.InterruptAt(text, 1, SIGINT);
    QVERIFY2(process.Run(site.Command(QStringLiteral("update"))), process.Report());
    // Where the signal is handled is a race that either side may win, but never half.
    if (process.Status() == 4) {
        QCOMPARE(site.Installed(), site.Published(v1));
    } else {
        QVERIFY2(process.Status() == 0, process.Report());
        QCOMPARE(site.Installed(), site.Published(v2));
    }
    QVERIFY(!kxtest::Exists(site.Backup()));
}

void TstKxupdateFailures::FailedSwapPutsTheOldVersionBack()
{
    UpdateSite site;
    site.Publish(v2);
    site.Install(v1);
    KxupdateProcess download;
    QVERIFY2(download.Run(site.Command(QStringLiteral("download"))), download.Report());
    KxupdateProcess process;
    process.LimitFileSize(50000);
    QVERIFY2(process.Run(site.Command(QStringLiteral("install"))), process.Report());
    QVERIFY2(process.Status() == 7, process.Report());
    QCOMPARE(process.Data(QStringLiteral("result")), QStringLiteral("rolled-back"));
    QVERIFY2(process.Errors().contains(QStringLiteral("Error 600410")), process.Report());
    QVERIFY2(process.Errors().contains(QStringLiteral("The old version is back")),
             process.Report());
    QCOMPARE(site.Installed(), site.Published(v1));
    QVERIFY(!kxtest::Exists(site.Backup()));
}

void TstKxupdateFailures::FailedFirstInstallLeavesNothing()
{
    UpdateSite site;
    site.Publish(v2);
    KxupdateProcess download;
    QVERIFY2(download.Run(site.Command(QStringLiteral("download"))), download.Report());
    KxupdateProcess process;
    process.LimitFileSize(50000);
    QVERIFY2(process.Run(site.Command(QStringLiteral("install"))), process.Report());
    QVERIFY2(process.Status() == 1, process.Report());
    QVERIFY2(process.Errors().contains(QStringLiteral("nothing is installed")), process.Report());
    QVERIFY(!kxtest::Exists(site.App()));
    QVERIFY(!kxtest::Exists(site.Backup()));
}

void TstKxupdateFailures::FailedSwapIsRepeatable()
{
    UpdateSite site;
    site.Publish(v2);
    site.Install(v1);
    KxupdateProcess download;
    QVERIFY2(download.Run(site.Command(QStringLiteral("download"))), download.Report());
    KxupdateProcess failing;
    failing.LimitFileSize(50000);
    QVERIFY2(failing.Run(site.Command(QStringLiteral("install"))), failing.Report());
    QCOMPARE(failing.Status(), 7);
    KxupdateProcess again;
    QVERIFY2(again.Run(site.Command(QStringLiteral("install"))), again.Report());
    QVERIFY2(again.Status() == 0, again.Report());
    QCOMPARE(site.Installed(), site.Published(v2));
}

QTEST_GUILESS_MAIN(TstKxupdateFailures)
#include "tst_kxupdate_failures.moc"
