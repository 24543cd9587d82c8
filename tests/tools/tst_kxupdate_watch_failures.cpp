#include "kxupdateprocess.h"
#include "treebuilder.h"
#include "updatesite.h"

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

/** What a watch tries again, and what it leaves alone. */
class TstKxupdateWatchFailures : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void VersionThatFailedTwiceIsLeftAlone();
    void VersionThatIsOfferedAgainAfterEachUpdateIsLeftAlone();
    void UnreachableServerDoesNotEndIt();
    void KilledAttemptCounts();
    void EarlierVersionIsNotFetched();

private:
    void Stop(KxupdateProcess& process);
};

void TstKxupdateWatchFailures::Stop(KxupdateProcess& process)
{
    process.Signal(SIGTERM);
    QVERIFY2(process.Wait(), process.Report());
    QVERIFY2(process.Status() == 0, process.Report());
}

void TstKxupdateWatchFailures::VersionThatFailedTwiceIsLeftAlone()
{
    UpdateSite site;
    site.Publish(v2);
    site.Install(v1);
    site.Server().SetDefaultReply(site.FilePath(v2, filter), kxtest::Reply::WrongBytes(10));
    KxupdateProcess first;
    first.Start(site.Command(QStringLiteral("update"), v1, Watching()));
    QVERIFY2(first.AwaitOutput(Result("server-failed")), first.Report());
    first.Signal(SIGKILL);
    first.Wait();

    // It is remembered across restarts.
    KxupdateProcess second;
    second.Start(site.Command(QStringLiteral("update"), v1, Watching()));
    QVERIFY2(second.AwaitOutput(Result("server-failed")), second.Report());
    const int requests = site.Server().RequestCount(site.FilePath(v2, filter));
    QVERIFY2(second.AwaitOutput(Result("refused"), 2), second.Report());
    QVERIFY2(second.Output().count(Result("server-failed")) == 1, second.Report());
    QCOMPARE(site.Server().RequestCount(site.FilePath(v2, filter)), requests);

    // The publisher corrects the version, with another manifest.
    site.Server().SetDefaultReply(site.FilePath(v2, filter), kxtest::Reply());
    kxtest::TreeBuilder(site.Tree(v2)).File(QStringLiteral("share/fix.txt"), "fixed");
    site.Publish(v2);
    QVERIFY2(second.AwaitOutput(Result("updated")), second.Report());
    QCOMPARE(site.Installed(), site.Published(v2));
    Stop(second);
    QVERIFY2(second.Errors().contains(QStringLiteral("has been tried 2 times")), second.Report());
}

void TstKxupdateWatchFailures::VersionThatIsOfferedAgainAfterEachUpdateIsLeftAlone()
{
    UpdateSite site;
    site.Publish(v2);
    site.Install(v2);
    // A program that writes into its own directory: always after an update, before the next check.
    site.Server().SetHandler(site.VersionPath(), [&site](const kxtest::Request&) {
        kxtest::TreeBuilder(site.App()).File(QStringLiteral("program.log"), "line\n");
        return kxtest::Reply::Body(
            kxtest::Read(site.Path(QStringLiteral("server")) + site.VersionPath()));
    });
    KxupdateProcess process;
    process.Start(site.Command(QStringLiteral("update"), v2, Watching()));
    QVERIFY2(process.AwaitOutput(Result("refused")), process.Report());
    QVERIFY2(process.Output().count(Result("repaired")) == 2, process.Report());
    QVERIFY2(process.Output().count(QStringLiteral("difference: unexpected program.log\n")) == 3,
             process.Report());
    Stop(process);

    // A run by hand tries, and clears the count.
    KxupdateProcess manual;
    QVERIFY2(manual.Run(site.Command(QStringLiteral("repair"), v2)), manual.Report());
    QCOMPARE(manual.Data(QStringLiteral("result")), QStringLiteral("repaired"));
    KxupdateProcess again;
    again.Start(site.Command(QStringLiteral("update"), v2, Watching("600")));
    QVERIFY2(again.AwaitOutput(Result("repaired")), again.Report());
    Stop(again);
}

void TstKxupdateWatchFailures::UnreachableServerDoesNotEndIt()
{
    UpdateSite site;
    site.Publish(v2);
    site.Install(v1);
    site.Server().Stop();
    KxupdateProcess process;
    process.Start(site.Command(QStringLiteral("update"), v1, Watching()));
    QVERIFY2(process.AwaitOutput(Result("server-failed")), process.Report());
    QVERIFY(site.Server().Start());
    QVERIFY2(process.AwaitOutput(Result("updated")), process.Report());
    Stop(process);
    QCOMPARE(site.Installed(), site.Published(v2));
}

void TstKxupdateWatchFailures::KilledAttemptCounts()
{
    UpdateSite site;
    site.Publish(v2);
    site.Install(v1);
    for (int i = 0; i < 2; ++i) {
        KxupdateProcess process;
        process.InterruptAt(QStringLiteral("VERIFICATION"), 1, SIGKILL);
        QVERIFY2(!process.Run(site.Command(QStringLiteral("update"), v1, Watching("600"))),
                 process.Report());
    }
    KxupdateProcess process;
    process.Start(site.Command(QStringLiteral("update"), v1, Watching("600")));
    QVERIFY2(process.AwaitOutput(Result("refused")), process.Report());
    Stop(process);
    QCOMPARE(site.Installed(), site.Published(v1));
}

void TstKxupdateWatchFailures::EarlierVersionIsNotFetched()
{
    UpdateSite site;
    site.Publish(v1);
    site.Install(v2);
    KxupdateProcess process;
    process.Start(site.Command(QStringLiteral("update"), v2, Watching()));
    QVERIFY2(process.AwaitOutput(Result("refused"), 3), process.Report());
    QCOMPARE(site.Server().RequestCount(site.FilePath(v1, filter)), 0);
    site.Publish(v2);
    QVERIFY2(process.AwaitOutput(Result("up-to-date")), process.Report());
    Stop(process);
}

QTEST_GUILESS_MAIN(TstKxupdateWatchFailures)
#include "tst_kxupdate_watch_failures.moc"
