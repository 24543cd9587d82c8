#include "publishrun.h"
#include "treebuilder.h"

#include <QFile>
#include <QLockFile>
#include <QRegularExpression>
#include <QSysInfo>
#include <QTest>

#include <csignal>
#include <fcntl.h>
#include <functional>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

using kxtest::AddArguments;
using kxtest::PromoteArguments;
using kxtest::PublishResult;
using kxtest::RunPublish;
using kxtest::Snapshot;
using kxtest::TreeBuilder;
using kxtest::With;

using ChangeFunction = std::function<void(TreeBuilder&)>;
Q_DECLARE_METATYPE(ChangeFunction)

namespace {

QString S(const char* text)
{
    return QString::fromUtf8(text);
}

/**
 * A run of kxpublish that stands still between the listing and the copies: it has more warnings to
 * write than a pipe holds, and nobody reads them before Release().
 */
class HeldRun
{
public:
    /** Adds links to the tree that are warned of. */
    HeldRun(TreeBuilder& tree, const QString& pipePath, const QStringList& arguments)
    {
        for (int i = 0; i < 400; ++i)
            tree.Symlink(S("warned/%1").arg(i, 250, 10, QLatin1Char('0')), S("missing"));
        const QByteArray path = pipePath.toUtf8();
        ::mkfifo(path.constData(), 0644);
        pipe = ::open(path.constData(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
        kxtest::PreparePublish(process, arguments);
        process.setStandardErrorFile(pipePath);
        process.start();
    }
    ~HeldRun() { ::close(pipe); }

    /** True once the run writes its warnings. */
    bool IsHeld()
    {
        pollfd wait = {pipe, POLLIN, 0};
        return process.waitForStarted() && ::poll(&wait, 1, 120000) == 1;
    }
    void Interrupt() { ::kill(pid_t(process.processId()), SIGINT); }
    /** Lets the run go on to its end; its warnings are left out. */
    PublishResult Release()
    {
        QByteArray err;
        while (!process.waitForFinished(10) && process.error() == QProcess::Timedout)
            err += ReadAll();
        err += ReadAll();
        PublishResult result = kxtest::ResultOf(process, err);
        result.err = result.err.filter(QRegularExpression(S("^(?!warning: )")));
        return result;
    }

private:
    QByteArray ReadAll()
    {
        QByteArray bytes;
        char block[65536];
        for (ssize_t length; (length = ::read(pipe, block, sizeof block)) > 0;)
            bytes.append(block, length);
        return bytes;
    }

    QProcess process;
    int pipe = -1;
};

} // namespace

/** What kxpublish leaves on the server when it is stopped, fails or is disturbed. */
class TestKxpublishWrites : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void KillWhileCopyingShowsNothingAndNextRunFinishes();
    void KillWhileWritingTheManifestShowsNothingAndNextRunFinishes();
    void FailedWriteLeavesNothing();
    void UnwritableServerTreeIsNamed();
    void FailedRenameLeavesOldVersionsAlone();
    void InterruptLeavesNothing();
    void ChangedTreeIsRefused_data();
    void ChangedTreeIsRefused();
    void SecondWriterIsRefused();
    void LockOfADeadRunIsTakenOver();
    void LockFileThatWasNeverWrittenIsTakenOver();
    void WaitingRunGoesOnWhenTheOtherEnds();
    void WaitEnds();
    void InterruptEndsTheWait();
    void LeftoverThatIsALinkIsNotFollowed();
    void PromoteReplacesTheReplyInOneStep();
    void FailedPromoteLeavesTheReply();

private:
    QStringList Visible() const;
    void ExpectSameAsUndisturbed();

    std::unique_ptr<TreeBuilder> tree;
    std::unique_ptr<TreeBuilder> workshop;
    QString server;
    QStringList arguments;
};

void TestKxpublishWrites::init()
{
    QTest::failOnWarning(
        QRegularExpression(S("no such (signal|slot)"), QRegularExpression::CaseInsensitiveOption));
    tree = std::make_unique<TreeBuilder>();
    tree->File(S("app"), "program", 0755);
    workshop = std::make_unique<TreeBuilder>();
    server = workshop->Path(S("srv"));
    arguments = AddArguments(tree->Root(), server);
}

// The server tree without what no client ever asks for.
QStringList TestKxpublishWrites::Visible() const
{
    return Snapshot(server).filter(QRegularExpression(S("^(?!packages/\\.kxpublish)")));
}

// The second run of a disturbed pair ends with what one good run would have made.
void TestKxpublishWrites::ExpectSameAsUndisturbed()
{
    const PublishResult again = RunPublish(arguments);
    QCOMPARE(again.status, 0);
    const QString other = workshop->Path(S("undisturbed"));
    QCOMPARE(RunPublish(With(arguments, S("--out"), other)).status, 0);
    QCOMPARE(Snapshot(server), Snapshot(other));
}

void TestKxpublishWrites::KillWhileCopyingShowsNothingAndNextRunFinishes()
{
    tree->RandomFile(S("big"), 300000, 1).RandomFile(S("small"), 100, 2);
    const PublishResult killed = RunPublish(arguments, [] { kxtest::LimitFileSize(100000); });
    QCOMPARE(killed.status, -SIGXFSZ);
    QVERIFY(kxtest::Exists(server + S("/packages/.kxpublish/build/files/app")));
    QVERIFY(kxtest::Exists(server + S("/packages/.kxpublish/build/files/big")));
    QVERIFY(!kxtest::Exists(server + S("/packages/.kxpublish/build/index.xml")));
    QCOMPARE(Visible(), QStringList({S("packages dir 755")}));
    ExpectSameAsUndisturbed();
}

void TestKxpublishWrites::KillWhileWritingTheManifestShowsNothingAndNextRunFinishes()
{
    for (int i = 0; i < 600; ++i)
        tree->File(S("data/%1").arg(i, 100, 10, QLatin1Char('0')), "x");
    const PublishResult killed = RunPublish(arguments, [] { kxtest::LimitFileSize(50000); });
    QCOMPARE(killed.status, -SIGXFSZ);
    // Files come first, the manifest afterwards.
    QCOMPARE(Snapshot(server + S("/packages/.kxpublish/build/files/data")).size(), 600);
    QVERIFY(kxtest::Exists(server + S("/packages/.kxpublish/build/index.xml")));
    QCOMPARE(Visible(), QStringList({S("packages dir 755")}));
    ExpectSameAsUndisturbed();
}

void TestKxpublishWrites::FailedWriteLeavesNothing()
{
    tree->RandomFile(S("lib/big"), 300000, 1);
    const PublishResult failed = RunPublish(arguments, [] { kxtest::LimitFileSizeGently(100000); });
    QCOMPARE(failed.err, QStringList({S("cannot write '%1/packages/.kxpublish/build/files/lib/"
                                        "big': File too large")
                                          .arg(server)}));
    QCOMPARE(failed.status, 3);
    QCOMPARE(Snapshot(server), QStringList({S("(missing)")}));
    ExpectSameAsUndisturbed();
}

void TestKxpublishWrites::UnwritableServerTreeIsNamed()
{
    workshop->Dir(S("srv"), 0555);
    const PublishResult failed = RunPublish(arguments, kxtest::DropFileRights);
    QCOMPARE(
        failed.err,
        QStringList({S("cannot make the directory '%1/packages': Permission denied").arg(server)}));
    QCOMPARE(failed.status, 3);
    QCOMPARE(Snapshot(server), QStringList());
    kxtest::SetMode(server, 0755);
    ExpectSameAsUndisturbed();
}

void TestKxpublishWrites::FailedRenameLeavesOldVersionsAlone()
{
    QCOMPARE(RunPublish(With(arguments, S("--platform"), S("x86"))).status, 0);
    const QString parent = server + S("/packages/demo-app-v2.4.1/windows");
    kxtest::SetMode(parent, 0555);
    const QStringList before = Snapshot(server);
    const PublishResult failed = RunPublish(arguments, kxtest::DropFileRights);
    QCOMPARE(failed.err, QStringList({S("cannot rename '%1/packages/.kxpublish/build' to "
                                        "'%2/x64': Permission denied")
                                          .arg(server, parent)}));
    QCOMPARE(failed.status, 3);
    QCOMPARE(Snapshot(server), before);
    kxtest::SetMode(parent, 0755);
    QCOMPARE(RunPublish(arguments).status, 0);
    QVERIFY(kxtest::Exists(parent + S("/x64/index.xml")));
}

void TestKxpublishWrites::InterruptLeavesNothing()
{
    HeldRun run(*tree, workshop->Path(S("pipe")), arguments);
    QVERIFY(run.IsHeld());
    run.Interrupt();
    const PublishResult result = run.Release();
    QCOMPARE(result.err, QStringList({S("interrupted, nothing is published")}));
    QCOMPARE(result.status, 4);
    QCOMPARE(Snapshot(server), QStringList({S("(missing)")}));
}

void TestKxpublishWrites::ChangedTreeIsRefused_data()
{
    QTest::addColumn<ChangeFunction>("change");
    QTest::addColumn<QString>("message");

    const auto row = [](const char* name, const ChangeFunction& change, const QString& message) {
        QTest::newRow(name) << change << message;
    };
    row(
        "longer", [](TreeBuilder& tree) { tree.File(S("data"), "onetwo"); },
        S("'data': changed while it was published: it was written to or replaced"));
    row(
        "other bytes", [](TreeBuilder& tree) { tree.File(S("data"), "two"); },
        S("'data': changed while it was published: it was written to or replaced"));
    row(
        "other mode", [](TreeBuilder& tree) { kxtest::SetMode(tree.Path(S("data")), 0755); },
        S("'data': changed while it was published: it has another mode now"));
    row(
        "removed", [](TreeBuilder& tree) { tree.Remove(S("data")); },
        S("'data': changed while it was published: No such file or directory"));
    row(
        "a link now",
        [](TreeBuilder& tree) { tree.Remove(S("data")).Symlink(S("data"), S("app")); },
        S("'data': changed while it was published: Too many levels of symbolic links"));
    row(
        "a pipe now",
        [](TreeBuilder& tree) {
            tree.Remove(S("data"));
            ::mkfifo(tree.Path(S("data")).toUtf8().constData(), 0644);
        },
        S("'data': changed while it was published: not a regular file"));
    row(
        "other link",
        [](TreeBuilder& tree) { tree.Remove(S("link")).Symlink(S("link"), S("data")); },
        S("'link': changed while it was published: it is another link now"));
    row(
        "no link any more", [](TreeBuilder& tree) { tree.Remove(S("link")).File(S("link"), "x"); },
        S("'link': changed while it was published: it is another link now"));
}

void TestKxpublishWrites::ChangedTreeIsRefused()
{
    QFETCH(ChangeFunction, change);
    QFETCH(QString, message);
    tree->File(S("data"), "one").Symlink(S("link"), S("app"));
    HeldRun run(*tree, workshop->Path(S("pipe")), arguments);
    QVERIFY(run.IsHeld());
    change(*tree);
    const PublishResult result = run.Release();
    QCOMPARE(result.err, QStringList({message, S("refused, 1 problem")}));
    QCOMPARE(result.status, 1);
    QCOMPARE(Snapshot(server), QStringList({S("(missing)")}));
}

void TestKxpublishWrites::SecondWriterIsRefused()
{
    QCOMPARE(RunPublish(arguments).status, 0);
    const QString path = server + S("/packages/.kxpublish.lock");
    QLockFile lock(path);
    QVERIFY(lock.tryLock(0));
    const QStringList before = Snapshot(server);
    const QString expected = S("another run is writing: process %1 on '%2' holds '%3'")
                                 .arg(::getpid())
                                 .arg(QSysInfo::machineHostName(), path);
    const PublishResult add = RunPublish(With(arguments, S("--version"), S("3")));
    QCOMPARE(add.err, QStringList({expected}));
    QCOMPARE(add.status, 3);
    const PublishResult promote = RunPublish(PromoteArguments(S("2.4.1"), server));
    QCOMPARE(promote.err, QStringList({expected}));
    QCOMPARE(promote.status, 3);
    QCOMPARE(Snapshot(server), before);
}

void TestKxpublishWrites::LockOfADeadRunIsTakenOver()
{
    tree->RandomFile(S("big"), 300000, 1);
    QCOMPARE(RunPublish(arguments, [] { kxtest::LimitFileSize(100000); }).status, -SIGXFSZ);
    QVERIFY(kxtest::Exists(server + S("/packages/.kxpublish.lock")));
    QCOMPARE(RunPublish(arguments).status, 0);
    QVERIFY(!kxtest::Exists(server + S("/packages/.kxpublish.lock")));
}

void TestKxpublishWrites::LockFileThatWasNeverWrittenIsTakenOver()
{
    workshop->File(S("srv/packages/.kxpublish.lock"), "");
    QCOMPARE(RunPublish(arguments).status, 0);
    QVERIFY(!kxtest::Exists(server + S("/packages/.kxpublish.lock")));
}

void TestKxpublishWrites::WaitingRunGoesOnWhenTheOtherEnds()
{
    QCOMPARE(RunPublish(arguments).status, 0);
    QLockFile lock(server + S("/packages/.kxpublish.lock"));
    QVERIFY(lock.tryLock(0));
    const QString holder = S("process %1 on '%2' holds '%3/packages/.kxpublish.lock'")
                               .arg(::getpid())
                               .arg(QSysInfo::machineHostName(), server);
    QProcess add;
    kxtest::PreparePublish(add, With(arguments, S("--version"), S("3")) << S("--wait") << S("600"));
    add.start();
    QProcess promote;
    kxtest::PreparePublish(promote, PromoteArguments(S("2.4.1"), server)
                                        << S("--wait") << S("600"));
    promote.start();
    for (QProcess* process : {&add, &promote}) {
        process->setReadChannel(QProcess::StandardError);
        QTRY_VERIFY_WITH_TIMEOUT(process->waitForReadyRead(10) || process->canReadLine(), 60000);
        QCOMPARE(QString::fromUtf8(process->readLine()).trimmed(),
                 S("kxpublish: waiting for another run: ") + holder);
    }
    lock.unlock();
    for (QProcess* process : {&add, &promote}) {
        QVERIFY(process->waitForFinished(60000));
        QCOMPARE(process->exitCode(), 0);
    }
    QVERIFY(kxtest::Exists(server + S("/packages/demo-app-v3")));
    QVERIFY(kxtest::Exists(server + S("/packages/version.xml")));
}

void TestKxpublishWrites::WaitEnds()
{
    workshop->Dir(S("srv/packages"));
    QLockFile lock(server + S("/packages/.kxpublish.lock"));
    QVERIFY(lock.tryLock(0));
    const PublishResult result = RunPublish(arguments + QStringList{S("--wait"), S("1")});
    QCOMPARE(result.status, 3);
    QCOMPARE(result.err.size(), 2);
    QVERIFY(result.err.at(0).startsWith(S("waiting for another run: process ")));
    QVERIFY(result.err.at(1).startsWith(S("another run is writing: process ")));
}

void TestKxpublishWrites::InterruptEndsTheWait()
{
    workshop->Dir(S("srv/packages"));
    QLockFile lock(server + S("/packages/.kxpublish.lock"));
    QVERIFY(lock.tryLock(0));
    QProcess process;
    kxtest::PreparePublish(process, arguments + QStringList{S("--wait"), S("86400")});
    process.start();
    process.setReadChannel(QProcess::StandardError);
    QTRY_VERIFY_WITH_TIMEOUT(process.waitForReadyRead(10) || process.canReadLine(), 60000);
    ::kill(pid_t(process.processId()), SIGINT);
    QVERIFY(process.waitForFinished(60000));
    QCOMPARE(process.exitCode(), 4);
}

void TestKxpublishWrites::LeftoverThatIsALinkIsNotFollowed()
{
    workshop->File(S("precious/data"), "x")
        .Symlink(S("srv/packages/.kxpublish"), S("../../precious"));
    QCOMPARE(RunPublish(arguments).status, 0);
    QCOMPARE(kxtest::Read(workshop->Path(S("precious/data"))), QByteArray("x"));
    QCOMPARE(Snapshot(workshop->Path(S("precious"))).size(), 1);
    QVERIFY(!kxtest::Exists(server + S("/packages/.kxpublish")));
}

void TestKxpublishWrites::PromoteReplacesTheReplyInOneStep()
{
    QCOMPARE(RunPublish(arguments).status, 0);
    QCOMPARE(RunPublish(With(arguments, S("--version"), S("3"))).status, 0);
    QCOMPARE(RunPublish(PromoteArguments(S("2.4.1"), server)).status, 0);
    // Whoever has the old reply open keeps the whole of it.
    QFile reply(server + S("/packages/version.xml"));
    QVERIFY(reply.open(QIODevice::ReadOnly));
    QCOMPARE(RunPublish(PromoteArguments(S("3"), server)).status, 0);
    QVERIFY(reply.readAll().contains("<version>2.4.1</version>"));
    QVERIFY(kxtest::Read(reply.fileName()).contains("<version>3</version>"));
}

void TestKxpublishWrites::FailedPromoteLeavesTheReply()
{
    QCOMPARE(RunPublish(arguments).status, 0);
    workshop->File(S("srv/packages/version.xml/in the way"), "x");
    const QStringList before = Snapshot(server);
    const PublishResult failed = RunPublish(PromoteArguments(S("2.4.1"), server));
    QCOMPARE(failed.err, QStringList({S("cannot rename '%1/packages/.kxpublish/version.xml' to "
                                        "'%1/packages/version.xml': Is a directory")
                                          .arg(server)}));
    QCOMPARE(failed.status, 3);
    QCOMPARE(Snapshot(server), before);
}

QTEST_GUILESS_MAIN(TestKxpublishWrites)
#include "tst_kxpublish_writes.moc"
