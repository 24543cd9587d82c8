#include "allocationfailure.h"
#include "logcapture.h"
#include "loopticker.h"
#include "manifest.h"
#include "signaltrace.h"
#include "treebuilder.h"

#include <QTest>
#include <QThread>

#include <memory>
#include <new>

KX_LOG_CATEGORY("test.support")

namespace {

constexpr int waitMs = 30000;

class Sender : public QObject
{
    Q_OBJECT

Q_SIGNALS:
    void plain();
    void pair(int number, const QString& text);
    void flag(bool value);
};

} // namespace

/** The helpers are trusted by every other test, so they are tested first. */
class TestSupport : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void SnapshotTellsEveryKindOfEntry();
    void SnapshotOfAMissingRootIsOneLine();
    void RandomBytesDependOnTheSeedAlone();
    void RemoveDoesNotFollowALink();
    void LogCaptureRecordsAndPutsThePreviousLoggerBack();
    void LogCaptureAcceptsThreads();
    void SignalTraceRecordsEverySignalInOrder();
    void SignalTraceRunsTheHookInsideTheEmit();
    void ManifestListsTreeAsPublished();
    void LoopTickerCountsRoundsOfTheLoop();
    void AllocationsFailAsPlanned();
    void AllocationsOfOtherThreadsDoNotFail();
};

void TestSupport::SnapshotTellsEveryKindOfEntry()
{
    kxtest::TreeBuilder tree;
    tree.File("bin/app", "program", 0755)
        .File(".hidden", "")
        .Dir("empty", 0700)
        .Symlink("link", "bin/app")
        .Symlink("dangling", "nowhere")
        .Symlink("loop", ".")
        .Sparse("big", 1 << 20);
    const QStringList expected{
        ".hidden file 644 0 d41d8cd98f00b204e9800998ecf8427e",
        "big file 644 1048576 b6d81b360a5672d80c27430f39153e2c",
        "bin dir 755",
        "bin/app file 755 7 " + kxtest::MD5Of("program"),
        "dangling link nowhere",
        "empty dir 700",
        "link link bin/app",
        "loop link .",
    };
    QCOMPARE(kxtest::Snapshot(tree.Root()), expected);
}

void TestSupport::SnapshotOfAMissingRootIsOneLine()
{
    kxtest::TreeBuilder tree;
    QCOMPARE(kxtest::Snapshot(tree.Path("none")), QStringList{"(missing)"});
    QCOMPARE(kxtest::Snapshot(tree.Root()), QStringList{});
}

void TestSupport::RandomBytesDependOnTheSeedAlone()
{
    QCOMPARE(kxtest::RandomBytes(1001, 7), kxtest::RandomBytes(1001, 7));
    QVERIFY(kxtest::RandomBytes(1001, 7) != kxtest::RandomBytes(1001, 8));
    QCOMPARE(kxtest::RandomBytes(1001, 7).size(), 1001);
}

void TestSupport::RemoveDoesNotFollowALink()
{
    kxtest::TreeBuilder tree;
    tree.File("kept/file", "x").Symlink("link", "kept").Remove("link");
    QCOMPARE(kxtest::Read(tree.Path("kept/file")), QByteArray("x"));
    QVERIFY(!kxtest::Exists(tree.Path("link")));
}

void TestSupport::LogCaptureRecordsAndPutsThePreviousLoggerBack()
{
    QVERIFY(!common::logger::GetLogger());
    {
        kxtest::LogCapture outer;
        {
            kxtest::LogCapture inner;
            KX_LOG(Warning) << "inner " << 1;
            QCOMPARE(inner.Lines(), QStringList{"test.support 4 inner 1"});
            QCOMPARE(inner.Last().thread, QThread::currentThreadId());
        }
        KX_LOG(Info) << "outer";
        QCOMPARE(outer.Lines("test.support"), QStringList{"6 outer"});
        outer.Clear();
        QVERIFY(!outer.Contains("test.support 6 outer"));
    }
    QVERIFY(!common::logger::GetLogger());
}

void TestSupport::LogCaptureAcceptsThreads()
{
    kxtest::LogCapture log;
    std::vector<std::unique_ptr<QThread>> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back(QThread::create([] {
            for (int n = 0; n < 250; ++n)
                KX_LOG(Debug) << "line";
        }));
        threads.back()->start();
    }
    for (const auto& thread : threads)
        QVERIFY(thread->wait());
    QCOMPARE(log.Count("test.support 7 line"), 1000);
}

void TestSupport::SignalTraceRecordsEverySignalInOrder()
{
    Sender sender;
    kxtest::SignalTrace trace(&sender);
    Q_EMIT sender.pair(5, "five");
    Q_EMIT sender.plain();
    Q_EMIT sender.flag(true);
    Q_EMIT sender.plain();
    QCOMPARE(trace.Lines(), (QStringList{"pair(5, five)", "plain()", "flag(true)", "plain()"}));
    QCOMPARE(trace.Only({"plain"}), (QStringList{"plain()", "plain()"}));
    QCOMPARE(trace.Without({"plain", "flag"}), QStringList{"pair(5, five)"});
    QCOMPARE(trace.CountOf("plain"), 2);
    trace.Clear();
    QCOMPARE(trace.Lines(), QStringList{});
}

void TestSupport::SignalTraceRunsTheHookInsideTheEmit()
{
    Sender sender;
    kxtest::SignalTrace trace(&sender);
    trace.SetHook([&](const QString& line) {
        if (line == "plain()")
            Q_EMIT sender.flag(false);
    });
    Q_EMIT sender.plain();
    QCOMPARE(trace.Lines(), (QStringList{"plain()", "flag(false)"}));
}

void TestSupport::ManifestListsTreeAsPublished()
{
    kxtest::TreeBuilder tree;
    tree.File("bin/a<b", "x", 0755).Symlink("bin/l", "../lib/./core").File(".hidden", "h");
    const updater::FileList files = kxtest::ScanForManifest(tree.Root());
    QCOMPARE(kxtest::ManifestFor("p", "u?a&b", "e", files),
             QString("<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
                     "<packages>\n"
                     " <package name=\"p\">\n"
                     "  <build DownloadURL=\"u?a&#38;b\" PostExec=\"e\">\n"
                     "   <file name=\"bin/a&#60;b\" md5=\"%1\" size=\"1\""
                     " permissions=\"-rwxr-xr-x\" symlink=\"\"/>\n"
                     "   <file name=\"bin/l\" md5=\"%2\" size=\"11\" permissions=\"\""
                     " symlink=\"../lib/core\"/>\n"
                     "  </build>\n"
                     " </package>\n"
                     "</packages>\n")
                 .arg(kxtest::MD5Of("x"), kxtest::MD5Of("../lib/core")));
}

void TestSupport::LoopTickerCountsRoundsOfTheLoop()
{
    kxtest::LoopTicker ticker;
    QTRY_VERIFY_WITH_TIMEOUT(ticker.Ticks() > 10, waitMs);
    ticker.Reset();
    QCOMPARE(ticker.Ticks(), 0);
}

void TestSupport::AllocationsFailAsPlanned()
{
    using Block = std::array<char, 4321>;
    const auto allocate = [] { return std::unique_ptr<Block>(new (std::nothrow) Block); };
    {
        auto failure = kxtest::AllocationFailure::Of<Block>(2, 1);
        QVERIFY(allocate());
        QVERIFY(!allocate());
        QVERIFY(allocate());
        QCOMPARE(failure.Failures(), 1);
        QVERIFY(std::unique_ptr<int>(new (std::nothrow) int));
    }
    kxtest::AllocationFailure all(4000, 5000);
    QVERIFY(!allocate());
    QVERIFY(!allocate());
    all.Disarm();
    QVERIFY(allocate());
}

void TestSupport::AllocationsOfOtherThreadsDoNotFail()
{
    kxtest::AllocationFailure all;
    bool allocated = false;
    const std::unique_ptr<QThread> thread(QThread::create([&] {
        const std::unique_ptr<int> number(new (std::nothrow) int);
        allocated = number != nullptr;
    }));
    thread->start();
    QVERIFY(thread->wait());
    QVERIFY(allocated);
    QCOMPARE(all.Failures(), 0);
}

QTEST_GUILESS_MAIN(TestSupport)
#include "tst_testsupport.moc"
