#include "kxupdateprocess.h"
#include "treebuilder.h"
#include "updatesite.h"

#include <QSignalSpy>
#include <QTest>

#include <csignal>

namespace {

const QString v1 = QStringLiteral("1.0");
const QString v2 = QStringLiteral("2.0");
const QString filter = QStringLiteral("lib/filter.bin");

QStringList Watching(const char* interval = "1")
{
    return {QStringLiteral("--watch"), QStringLiteral("--interval"), QLatin1String(interval)};
}

QString Result(const char* word)
{
    return QStringLiteral("result: %1\n").arg(QLatin1String(word));
}

} // namespace

/** kxupdate --watch: stays, and does the right thing round by round. */
class TstKxupdateWatch : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void UpdateFollowsTheServer();
    void CheckOnlyReports();
    void NetworkFailuresAreNotHeldAgainstAVersion();
    void DirectoriesAreFreeBetweenTheRounds();
    void DirectoriesInUseAreTriedAgain();
    void UselessDirectoriesEndItAtOnce();
    void InterruptEndsItWithoutAnError_data();
    void InterruptEndsItWithoutAnError();
    void InterruptInTheSwapFinishesIt();

private:
    void Stop(KxupdateProcess& process, int number = SIGTERM);
};

void TstKxupdateWatch::Stop(KxupdateProcess& process, int number)
{
    process.Signal(number);
    QVERIFY2(process.Wait(), process.Report());
    QVERIFY2(process.Status() == 0, process.Report());
}

void TstKxupdateWatch::UpdateFollowsTheServer()
{
    UpdateSite site;
    site.Publish(v2);
    site.Install(v1);
    site.WriteConfig(v1, "allow-downgrade = yes\n");
    KxupdateProcess process;
    process.Start(site.Configured(QStringLiteral("update"), Watching()));
    QVERIFY2(process.AwaitOutput(Result("updated")), process.Report());
    QCOMPARE(site.Installed(), site.Published(v2));
    QVERIFY2(process.AwaitOutput(Result("up-to-date")), process.Report());
    QVERIFY(kxtest::Read(site.Config()).contains("version =\t2.0"));

    site.Publish(v1);
    QVERIFY2(process.AwaitOutput(Result("updated"), 2), process.Report());
    QCOMPARE(site.Installed(), site.Published(v1));
    Stop(process);
    QVERIFY(kxtest::Read(site.Config()).contains("version =\t1.0"));
    // The version that it installed is the current one of the next round.
    QVERIFY2(process.Output().contains(
                 QStringLiteral("installed: 2.0\nserver: 1.0\nverdict: available\n")),
             process.Report());
    QVERIFY2(process.Output().startsWith(
                 QStringLiteral("installed: 1.0\nserver: 2.0\nverdict: available\nresult: updated\n"
                                "installed: 2.0\nserver: 2.0\nverdict: up-to-date\n"
                                "result: up-to-date\n")),
             process.Report());
    QVERIFY(!process.Errors().contains(QStringLiteral("Error")));
}

void TstKxupdateWatch::CheckOnlyReports()
{
    UpdateSite site;
    site.Publish(v2);
    site.Install(v1);
    const QStringList before = kxtest::Snapshot(site.Path(QStringLiteral(".")));
    KxupdateProcess process;
    process.Start(site.Command(QStringLiteral("check"), v1, Watching()));
    QVERIFY2(process.AwaitOutput(Result("available"), 2), process.Report());
    QCOMPARE(kxtest::Snapshot(site.Path(QStringLiteral("."))), before);
    Stop(process, SIGINT);
}

void TstKxupdateWatch::NetworkFailuresAreNotHeldAgainstAVersion()
{
    UpdateSite site;
    site.Publish(v2);
    site.Install(v1);
    site.Server().SetDefaultReply(site.FilePath(v2, filter), kxtest::Reply::Status(503));
    KxupdateProcess process;
    process.Start(site.Command(QStringLiteral("update"), v1, Watching()));
    QVERIFY2(process.AwaitOutput(Result("server-failed"), 2), process.Report());
    site.Server().SetDefaultReply(site.FilePath(v2, filter), kxtest::Reply());
    QVERIFY2(process.AwaitOutput(Result("updated")), process.Report());
    Stop(process);
    QCOMPARE(site.Installed(), site.Published(v2));
    QVERIFY2(!process.Output().contains(Result("refused")), process.Report());
}

void TstKxupdateWatch::DirectoriesAreFreeBetweenTheRounds()
{
    UpdateSite site;
    site.Publish(v1);
    site.Install(v1);
    site.WriteConfig(v1);
    KxupdateProcess watch;
    watch.Start(site.Configured(QStringLiteral("update"), Watching("2")));
    QVERIFY2(watch.AwaitOutput(Result("up-to-date")), watch.Report());
    site.Publish(v2);
    // Either of them updates, and the other one finds that out.
    KxupdateProcess manual;
    QVERIFY2(manual.Run(site.Configured(QStringLiteral("update"))), manual.Report());
    QVERIFY2(manual.Status() == 0 || manual.Status() == 3, manual.Report());
    QVERIFY2(
        watch.AwaitOutput(QStringLiteral("installed: 2.0\nserver: 2.0\nverdict: up-to-date\n")),
        watch.Report());
    Stop(watch);
    QCOMPARE(site.Installed(), site.Published(v2));
}

void TstKxupdateWatch::DirectoriesInUseAreTriedAgain()
{
    UpdateSite site;
    site.Publish(v2);
    site.Install(v1);
    site.Server().Enqueue(site.FilePath(v2, filter), kxtest::Reply::StallAfter(1000));
    QSignalSpy stalled(&site.Server(), SIGNAL(stalled(QString)));
    KxupdateProcess first;
    first.Start(site.Command(QStringLiteral("update")));
    QTRY_VERIFY_WITH_TIMEOUT(stalled.count() == 1, 60000);
    KxupdateProcess watch;
    watch.Start(site.Command(QStringLiteral("update"), v1, Watching()));
    QVERIFY2(watch.AwaitOutput(Result("refused"), 2), watch.Report());
    site.Server().ReleaseStalled();
    QVERIFY2(first.Wait(), first.Report());
    QVERIFY2(watch.AwaitOutput(Result("up-to-date")), watch.Report());
    Stop(watch);
    QVERIFY2(watch.Errors().contains(QStringLiteral("Another kxupdate")), watch.Report());
    QCOMPARE(site.Installed(), site.Published(v2));
}

void TstKxupdateWatch::UselessDirectoriesEndItAtOnce()
{
    UpdateSite site;
    site.Publish(v2);
    kxtest::TreeBuilder(site.Next()).File(QStringLiteral("precious"), "mine");
    KxupdateProcess process;
    QVERIFY2(process.Run(site.Command(QStringLiteral("update"), v1, Watching())), process.Report());
    QVERIFY2(process.Status() == 3, process.Report());
    QCOMPARE(process.Output(), Result("refused"));
    QCOMPARE(site.Server().RequestCount(), 0);
}

void TstKxupdateWatch::InterruptEndsItWithoutAnError_data()
{
    QTest::addColumn<QString>("where");
    QTest::newRow("while the version is fetched") << "version";
    QTest::newRow("while a file is fetched") << "file";
}

void TstKxupdateWatch::InterruptEndsItWithoutAnError()
{
    QFETCH(QString, where);
    UpdateSite site;
    site.Publish(v2);
    site.Install(v1);
    site.Server().SetDefaultReply(
        where == QLatin1String("file") ? site.FilePath(v2, filter) : site.VersionPath(),
        where == QLatin1String("file") ? kxtest::Reply::StallAfter(100) : kxtest::Reply::Hold());
    QSignalSpy stalled(&site.Server(), SIGNAL(stalled(QString)));
    KxupdateProcess process;
    process.Start(site.Command(QStringLiteral("update"), v1, Watching("600")));
    QTRY_VERIFY_WITH_TIMEOUT(stalled.count() == 1, 60000);
    Stop(process);
    QVERIFY2(process.Output().endsWith(Result("canceled")), process.Report());
    QCOMPARE(site.Installed(), site.Published(v1));

    // Three of these are no failures of the version.
    QVERIFY(!kxtest::Read(site.Next() + QStringLiteral(".kxupdate.state")).contains("attempts: 1"));
}

void TstKxupdateWatch::InterruptInTheSwapFinishesIt()
{
    UpdateSite site;
    site.Publish(v2);
    site.Install(v1);
    KxupdateProcess process;
    process.InterruptAt(QStringLiteral("  MOVING"), 2, SIGTERM); // not BACKUPREMOVING
    QVERIFY2(process.Run(site.Command(QStringLiteral("update"), v1, Watching("600"))),
             process.Report());
    QVERIFY2(process.Status() == 0, process.Report());
    QVERIFY2(process.Output().endsWith(Result("updated")), process.Report());
    QCOMPARE(site.Installed(), site.Published(v2));
    QVERIFY(!kxtest::Exists(site.Backup()));
}

QTEST_GUILESS_MAIN(TstKxupdateWatch)
#include "tst_kxupdate_watch.moc"
