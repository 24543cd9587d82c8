#include "filepath.h"
#include "filerun.h"
#include "fileworker.h"
#include "loopticker.h"
#include "stephook.h"
#include "treebuilder.h"
#include "wiringguard.h"

#include <kxcommon/errors.h>
#include <kxcommon/filecopier.h>
#include <kxcommon/fileremover.h>

#include <QElapsedTimer>
#include <QFile>
#include <QPointer>
#include <QSignalSpy>
#include <QTest>

#include <cerrno>
#include <cstdio>
#include <limits>

using common::FileCopier;
using common::FileRemover;
using common::fileops::Step;
using kxtest::FileRun;
using kxtest::TreeBuilder;

namespace {

constexpr int patience = 60000;

// All signals of one object, counted.
struct Spies
{
    QSignalSpy succeeded;
    QSignalSpy failed;
    QSignalSpy progress;

    explicit Spies(QObject* object)
        : succeeded(object, SIGNAL(succesed())),
          failed(object, SIGNAL(failed(int, const QString&))),
          progress(object, SIGNAL(progress(int, int)))
    {
    }
    int Count() const { return succeeded.count() + failed.count() + progress.count(); }
};

void HandleEverything()
{
    QCoreApplication::sendPostedEvents();
    QCoreApplication::processEvents();
}

// Waits without handling events, so that nothing is delivered meanwhile.
template <typename Condition>
bool WaitBlind(Condition condition)
{
    QElapsedTimer timer;
    timer.start();
    while (!condition()) {
        if (timer.hasExpired(patience))
            return false;
        QThread::yieldCurrentThread();
    }
    return true;
}

void FillSource(TreeBuilder& tree)
{
    for (int i = 0; i < 20; ++i)
        tree.RandomFile(QStringLiteral("in/d%1/f%2").arg(i % 5).arg(i), 10000, quint32(i));
}

} // namespace

class TestFileWorker : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void init() { kxtest::FailOnWiringWarnings(); }

    void ProgressIsScaled_data();
    void ProgressIsScaled();
    void ScaledProgressNeverGoesBack_data();
    void ScaledProgressNeverGoesBack();
    void SumsStopAtTheLargestNumber();
    void PathsAreSplit_data();
    void PathsAreSplit();
    void HiddenNamesFitAndDiffer();
    void SecondStartIsRefusedAndChangesNothing();
    void QueueIsClosedByTheStart();
    void ThreadThatCannotStartIsReportedLater();
    void ProgressIsThrottled();
    void LastProgressComesBeforeTheOutcome();
    void ProgressEndsAtTheTotalWhenTheSourceChanges_data();
    void ProgressEndsAtTheTotalWhenTheSourceChanges();
    void EventLoopRunsWhileTheWorkerIsHeld_data();
    void EventLoopRunsWhileTheWorkerIsHeld();
    void NoThreadIsLeft();
    void RunsInTheThreadOfItsOwner();
    void DeletionDuringARunLeavesNothing_data();
    void DeletionDuringARunLeavesNothing();
    void DeletionEndsTheRunWithinAFile();
    void DeletionBeforeDeliveryIsSilent();
    void DeletionRightAfterTheStartIsSilent();
    void DeletionInsideASignalIsSafe_data();
    void DeletionInsideASignalIsSafe();
    void DeletedWithoutARun();
};

void TestFileWorker::ProgressIsScaled_data()
{
    constexpr int largest = std::numeric_limits<int>::max();
    constexpr quint64 huge = std::numeric_limits<quint64>::max();
    QTest::addColumn<quint64>("done");
    QTest::addColumn<quint64>("total");
    QTest::addColumn<int>("scaledDone");
    QTest::addColumn<int>("scaledTotal");
    QTest::newRow("nothing to do") << quint64(0) << quint64(0) << 1 << 1;
    QTest::newRow("begin") << quint64(0) << quint64(5) << 0 << 5;
    QTest::newRow("small") << quint64(3) << quint64(5) << 3 << 5;
    QTest::newRow("beyond the total") << quint64(9) << quint64(5) << 5 << 5;
    QTest::newRow("largest int") << quint64(largest) << quint64(largest) << largest << largest;
    QTest::newRow("one more") << quint64(largest) + 1 << quint64(largest) + 1 << 0x40000000
                              << 0x40000000;
    QTest::newRow("odd, half way")
        << quint64(5000000001) / 2 << quint64(5000000001) << 625000000 << 1250000000;
    QTest::newRow("odd, begin") << quint64(1) << quint64(5000000001) << 0 << 1250000000;
    QTest::newRow("2^63") << (quint64(1) << 62) << (quint64(1) << 63) << 0x20000000 << 0x40000000;
    QTest::newRow("2^63 + 1") << (quint64(1) << 63) + 1 << (quint64(1) << 63) + 1 << 0x40000000
                              << 0x40000000;
    QTest::newRow("largest") << huge << huge << largest << largest;
}

void TestFileWorker::ProgressIsScaled()
{
    QFETCH(const quint64, done);
    QFETCH(const quint64, total);
    const auto [scaledDone, scaledTotal] = common::ScaleProgress(done, total);
    QTEST(scaledDone, "scaledDone");
    QTEST(scaledTotal, "scaledTotal");
}

void TestFileWorker::ScaledProgressNeverGoesBack_data()
{
    QTest::addColumn<quint64>("total");
    for (const quint64 total :
         {quint64(1), quint64(7), quint64(0x7fffffff), quint64(0x80000001), quint64(0xffffffff),
          (quint64(1) << 40) + 7, (quint64(1) << 63) + 12345, ~quint64(0)})
        QTest::addRow("%llu", static_cast<unsigned long long>(total)) << total;
}

void TestFileWorker::ScaledProgressNeverGoesBack()
{
    QFETCH(const quint64, total);
    int before = 0;
    const quint64 step = qMax<quint64>(1, total / 9973);
    for (quint64 done = 0; total - done >= step; done += step) {
        const auto [scaledDone, scaledTotal] = common::ScaleProgress(done, total);
        QVERIFY(scaledDone >= before);
        QVERIFY(scaledTotal >= scaledDone);
        QVERIFY(scaledTotal >= 1);
        QCOMPARE(scaledTotal, common::ScaleProgress(0, total).second);
        before = scaledDone;
    }
    const auto [last, end] = common::ScaleProgress(total, total);
    QCOMPARE(last, end);
}

void TestFileWorker::SumsStopAtTheLargestNumber()
{
    const quint64 largest = ~quint64(0);
    QCOMPARE(common::AddSaturated(1, 2), quint64(3));
    QCOMPARE(common::AddSaturated(largest, 1), largest);
    QCOMPARE(common::AddSaturated(largest - 5, 5), largest);
    QCOMPARE(common::AddSaturated(largest / 2 + 9, largest / 2 + 9), largest);
}

void TestFileWorker::PathsAreSplit_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("parent");
    QTest::addColumn<QString>("name");
    QTest::newRow("plain") << "/a/b"
                           << "/a/"
                           << "b";
    QTest::newRow("separators at the end") << "/a/b///"
                                           << "/a/"
                                           << "b";
    QTest::newRow("dots at the end") << "/a/b/././"
                                     << "/a/"
                                     << "b";
    QTest::newRow("hidden name") << "/a/.b"
                                 << "/a/"
                                 << ".b";
    QTest::newRow("name of dots") << "/a/..."
                                  << "/a/"
                                  << "...";
    QTest::newRow("name that ends in a dot") << "/a/b./"
                                             << "/a/"
                                             << "b.";
    QTest::newRow("in the root") << "/a"
                                 << "/"
                                 << "a";
    QTest::newRow("root") << "/"
                          << "/"
                          << "";
    QTest::newRow("root, many spellings") << "//./"
                                          << "/"
                                          << "";
    QTest::newRow("up at the end") << "/a/../"
                                   << "/a/.."
                                   << "";
    QTest::newRow("up in the middle") << "/a/../b"
                                      << "/a/../"
                                      << "b";
    QTest::newRow("empty") << ""
                           << ""
                           << "";
    QTest::newRow("relative") << "a"
                              << "."
                              << "a";
}

void TestFileWorker::PathsAreSplit()
{
    QFETCH(const QString, path);
    const common::SplitPath split = common::Split(path);
    QTEST(common::FromNative(split.parent), "parent");
    QTEST(common::FromNative(split.name), "name");
}

void TestFileWorker::HiddenNamesFitAndDiffer()
{
    QCOMPARE(common::HiddenName("app", ".kxnew"), std::string(".app.kxnew"));
    QCOMPARE(common::HiddenName(std::string(248, 'a'), ".kxnew").size(), size_t(255));
    const std::string one = common::HiddenName(std::string(254, 'a') + "1", ".kxnew");
    const std::string two = common::HiddenName(std::string(254, 'a') + "2", ".kxnew");
    QCOMPARE(one.size(), size_t(255));
    QCOMPARE(two.size(), size_t(255));
    QVERIFY(one != two);
    QVERIFY(one.substr(one.size() - 6) == ".kxnew");
    std::string umlauts;
    for (int i = 0; i < 127; ++i)
        umlauts += "\u00e4";
    const std::string cut = common::HiddenName(umlauts, ".kx.part");
    QVERIFY(cut.size() <= 255);
    QCOMPARE(QString::fromStdString(cut).toUtf8().toStdString(), cut);
    QVERIFY(!QString::fromStdString(cut).contains(QChar::ReplacementCharacter));
}

void TestFileWorker::SecondStartIsRefusedAndChangesNothing()
{
    TreeBuilder tree;
    FillSource(tree);
    FileCopier copier;
    copier.AddDirectory(tree.Path("in"), tree.Path("out"));
    kxtest::StepGate gate(Step::Entry);
    Spies spies(&copier);
    QVERIFY(copier.Copy());
    QVERIFY(!copier.Copy());
    QVERIFY(WaitBlind([&] { return gate.IsHeld(); }));
    QVERIFY(!copier.Copy());
    QCOMPARE(spies.Count(), 0);
    gate.Release();
    QTRY_COMPARE_WITH_TIMEOUT(spies.succeeded.count(), 1, patience);
    QVERIFY(!copier.Copy());
    HandleEverything();
    QCOMPARE(spies.succeeded.count(), 1);
    QCOMPARE(spies.failed.count(), 0);
    QCOMPARE(kxtest::Snapshot(tree.Path("out")), kxtest::Snapshot(tree.Path("in")));

    FileRemover remover;
    remover.AddDirectory(tree.Path("out"));
    QVERIFY(remover.Remove());
    QVERIFY(!remover.Remove());
    Spies removal(&remover);
    QTRY_COMPARE_WITH_TIMEOUT(removal.succeeded.count(), 1, patience);
    QVERIFY(!remover.Remove());
    HandleEverything();
    QCOMPARE(removal.succeeded.count(), 1);
}

void TestFileWorker::QueueIsClosedByTheStart()
{
    TreeBuilder tree;
    tree.File("a", "x").Dir("d");
    FileCopier copier;
    FileRemover remover;
    Spies copied(&copier);
    Spies removed(&remover);
    copier.Copy();
    copier.AddFile(tree.Path("a"), tree.Path("b"));
    copier.SetDestinationRoot(tree.Path("d"));
    remover.Remove();
    remover.AddDirectory(tree.Path("d"));
    QTRY_COMPARE_WITH_TIMEOUT(copied.succeeded.count(), 1, patience);
    QTRY_COMPARE_WITH_TIMEOUT(removed.succeeded.count(), 1, patience);
    QVERIFY(!kxtest::Exists(tree.Path("b")));
    QVERIFY(kxtest::Exists(tree.Path("d")));
}

void TestFileWorker::ThreadThatCannotStartIsReportedLater()
{
    const kxtest::StepHook hook([](Step step) { return step == Step::Start ? EAGAIN : 0; });
    FileCopier copier;
    const FileRun copied = kxtest::RunToEnd(copier, &FileCopier::Copy);
    QVERIFY2(copied.HasFailed(common::CopyStart), qPrintable(copied.Line()));
    QVERIFY(!copied.isFromInside);
    QVERIFY(copied.text.contains("Resource temporarily unavailable"));
    FileRemover remover;
    const FileRun removed = kxtest::RunToEnd(remover, &FileRemover::Remove);
    QVERIFY2(removed.HasFailed(common::RemoveStart), qPrintable(removed.Line()));
    QVERIFY(!removed.isFromInside);
}

void TestFileWorker::ProgressIsThrottled()
{
    TreeBuilder tree;
    for (int i = 0; i < 3000; ++i)
        tree.File(QStringLiteral("in/d%1/f%2").arg(i % 30).arg(i), "x");
    QElapsedTimer timer;
    timer.start();
    FileCopier copier;
    copier.AddDirectory(tree.Path("in"), tree.Path("out"));
    const FileRun copied = kxtest::RunToEnd(copier, &FileCopier::Copy);
    QVERIFY2(copied.IsGood(), qPrintable(copied.Line()));
    QVERIFY(kxtest::IsSound(copied.progress));
    // One each 20 ms, and the last one.
    QVERIFY(copied.progress.size() <= timer.elapsed() / 20 + 2);
    timer.restart();
    FileRemover remover;
    remover.AddDirectory(tree.Path("out"));
    const FileRun removed = kxtest::RunToEnd(remover, &FileRemover::Remove);
    QVERIFY2(removed.IsGood(), qPrintable(removed.Line()));
    QVERIFY(kxtest::IsSound(removed.progress));
    QVERIFY(removed.progress.size() <= timer.elapsed() / 20 + 2);
}

void TestFileWorker::LastProgressComesBeforeTheOutcome()
{
    TreeBuilder tree;
    FillSource(tree);
    FileCopier copier;
    copier.AddDirectory(tree.Path("in"), tree.Path("out"));
    QStringList order;
    connect(&copier, &FileCopier::progress, this, [&](int done, int total) {
        order << (done == total ? QStringLiteral("end") : QStringLiteral("part"));
    });
    connect(&copier, &FileCopier::succesed, this, [&] { order << QStringLiteral("succesed"); });
    QVERIFY(copier.Copy());
    QTRY_VERIFY_WITH_TIMEOUT(order.contains("succesed"), patience);
    QVERIFY(order.size() >= 2);
    QCOMPARE(order.mid(order.size() - 2), QStringList({"end", "succesed"}));
    QCOMPARE(order.count("end"), 1);
}

void TestFileWorker::ProgressEndsAtTheTotalWhenTheSourceChanges_data()
{
    QTest::addColumn<qint64>("size");
    QTest::newRow("shorter") << qint64(3);
    QTest::newRow("longer") << qint64(3000000);
}

void TestFileWorker::ProgressEndsAtTheTotalWhenTheSourceChanges()
{
    QFETCH(const qint64, size);
    TreeBuilder tree;
    FillSource(tree);
    std::atomic<int> steps{0};
    const kxtest::StepHook hook([&](Step step) {
        if (step != Step::Entry || ++steps != 1)
            return 0;
        for (int i = 0; i < 20; ++i)
            QFile::resize(tree.Path(QStringLiteral("in/d%1/f%2").arg(i % 5).arg(i)), size);
        return 0;
    });
    FileCopier copier;
    copier.AddDirectory(tree.Path("in"), tree.Path("out"));
    const FileRun run = kxtest::RunToEnd(copier, &FileCopier::Copy);
    QVERIFY2(run.IsGood(), qPrintable(run.Line()));
    QVERIFY(kxtest::IsSound(run.progress));
    QCOMPARE(kxtest::Snapshot(tree.Path("out")), kxtest::Snapshot(tree.Path("in")));
}

void TestFileWorker::EventLoopRunsWhileTheWorkerIsHeld_data()
{
    QTest::addColumn<bool>("isRemoval");
    QTest::addColumn<int>("step");
    QTest::newRow("copy, at an entry") << false << int(Step::Entry);
    QTest::newRow("copy, within a file") << false << int(Step::Block);
    QTest::newRow("copy, bringing to disk") << false << int(Step::Sync);
    QTest::newRow("copy, putting into place") << false << int(Step::Place);
    QTest::newRow("removal") << true << int(Step::Entry);
}

void TestFileWorker::EventLoopRunsWhileTheWorkerIsHeld()
{
    QFETCH(const bool, isRemoval);
    QFETCH(const int, step);
    TreeBuilder tree;
    FillSource(tree);
    FileCopier copier;
    FileRemover remover;
    copier.AddDirectory(tree.Path("in"), tree.Path("out"));
    remover.AddDirectory(tree.Path("in"));
    kxtest::StepGate gate(static_cast<Step>(step));
    Spies spies(isRemoval ? static_cast<QObject*>(&remover) : &copier);
    QVERIFY(isRemoval ? remover.Remove() : copier.Copy());
    QTRY_VERIFY_WITH_TIMEOUT(gate.IsHeld(), patience);
    kxtest::LoopTicker ticker;
    QTRY_VERIFY_WITH_TIMEOUT(ticker.Ticks() > 100, patience);
    QVERIFY(gate.IsHeld());
    QCOMPARE(spies.succeeded.count(), 0);
    gate.Release();
    QTRY_COMPARE_WITH_TIMEOUT(spies.succeeded.count(), 1, patience);
}

void TestFileWorker::NoThreadIsLeft()
{
    TreeBuilder tree;
    FillSource(tree);
    HandleEverything();
    const int before = kxtest::ThreadCount();
    FileCopier copier;
    copier.AddDirectory(tree.Path("in"), tree.Path("out"));
    bool isOne = false;
    {
        kxtest::StepGate gate(Step::Entry);
        Spies spies(&copier);
        QVERIFY(copier.Copy());
        QVERIFY(WaitBlind([&] { return gate.IsHeld(); }));
        isOne = kxtest::ThreadCount() == before + 1;
        gate.Release();
        QTRY_COMPARE_WITH_TIMEOUT(spies.succeeded.count(), 1, patience);
    }
    QVERIFY(isOne);
    // While the copier still lives.
    QTRY_COMPARE_WITH_TIMEOUT(kxtest::ThreadCount(), before, patience);
}

void TestFileWorker::RunsInTheThreadOfItsOwner()
{
    TreeBuilder tree;
    FillSource(tree);
    FileRun run;
    std::unique_ptr<QThread> owner(QThread::create([&] {
        FileCopier copier;
        copier.AddDirectory(tree.Path("in"), tree.Path("out"));
        run = kxtest::RunToEnd(copier, &FileCopier::Copy);
    }));
    owner->start();
    QVERIFY(owner->wait());
    QVERIFY2(run.IsGood(), qPrintable(run.Line()));
    QVERIFY(!run.isElsewhere);
    QVERIFY(!run.isFromInside);
}

void TestFileWorker::DeletionDuringARunLeavesNothing_data()
{
    QTest::addColumn<int>("step");
    QTest::newRow("at an entry") << int(Step::Entry);
    QTest::newRow("within a file") << int(Step::Block);
    QTest::newRow("keeping attributes") << int(Step::Attributes);
    QTest::newRow("bringing to disk") << int(Step::Sync);
    QTest::newRow("before putting into place") << int(Step::Place);
    QTest::newRow("after putting into place") << int(Step::Placed);
}

void TestFileWorker::DeletionDuringARunLeavesNothing()
{
    QFETCH(const int, step);
    TreeBuilder tree;
    FillSource(tree);
    HandleEverything();
    const int threads = kxtest::ThreadCount();
    {
        kxtest::StepGate gate(static_cast<Step>(step));
        auto copier = std::make_unique<FileCopier>();
        copier->AddDirectory(tree.Path("in"), tree.Path("out"));
        Spies spies(copier.get());
        QVERIFY(copier->Copy());
        QVERIFY(WaitBlind([&] { return gate.IsHeld(); }));
        gate.ReleaseSoon();
        copier.reset();
        HandleEverything();
        QCOMPARE(spies.Count(), 0);
    }
    QTRY_COMPARE_WITH_TIMEOUT(kxtest::ThreadCount(), threads, patience);
    QVERIFY(!kxtest::Exists(tree.Path(".out.kxnew")));
    if (kxtest::Exists(tree.Path("out")))
        QCOMPARE(kxtest::Snapshot(tree.Path("out")), kxtest::Snapshot(tree.Path("in")));
    if (static_cast<Step>(step) == Step::Placed)
        QVERIFY(kxtest::Exists(tree.Path("out")));
}

void TestFileWorker::DeletionEndsTheRunWithinAFile()
{
    // A file that grows whenever a block of it was copied has no end.
    constexpr int manyBlocks = 50000;
    TreeBuilder tree;
    tree.File("in/endless", QByteArray(4096, 'x'));
    std::FILE* const source = std::fopen(qPrintable(tree.Path("in/endless")), "ab");
    QVERIFY(source);
    std::atomic<int> blocks{0};
    {
        const kxtest::StepHook hook([&](Step step) {
            if (step == Step::Block && ++blocks < manyBlocks) {
                std::fwrite("0123456789abcdef", 1, 16, source);
                std::fflush(source);
            }
            return 0;
        });
        auto copier = std::make_unique<FileCopier>();
        copier->AddDirectory(tree.Path("in"), tree.Path("out"));
        QVERIFY(copier->Copy());
        QVERIFY(WaitBlind([&] { return blocks > 10; }));
        copier.reset();
    }
    std::fclose(source);
    QVERIFY(blocks < manyBlocks);
    QCOMPARE(kxtest::Snapshot(tree.Root()).size(), 2);
}

void TestFileWorker::DeletionBeforeDeliveryIsSilent()
{
    TreeBuilder tree;
    FillSource(tree);
    HandleEverything();
    std::atomic<bool> isPlaced{false};
    const kxtest::StepHook hook([&](Step step) {
        isPlaced = isPlaced || step == Step::Placed;
        return 0;
    });
    auto copier = std::make_unique<FileCopier>();
    copier->AddDirectory(tree.Path("in"), tree.Path("out"));
    Spies spies(copier.get());
    QVERIFY(copier->Copy());
    // The thread ends after it has posted its outcome.
    QVERIFY(WaitBlind([&] { return isPlaced.load(); }));
    copier.reset();
    HandleEverything();
    QCOMPARE(spies.Count(), 0);
    QCOMPARE(kxtest::Snapshot(tree.Path("out")), kxtest::Snapshot(tree.Path("in")));
}

void TestFileWorker::DeletionRightAfterTheStartIsSilent()
{
    TreeBuilder tree;
    FillSource(tree);
    for (int i = 0; i < 20; ++i) {
        auto copier = std::make_unique<FileCopier>();
        auto remover = std::make_unique<FileRemover>();
        copier->AddDirectory(tree.Path("in"), tree.Path("out"));
        remover->AddDirectory(tree.Path("other"));
        Spies copied(copier.get());
        Spies removed(remover.get());
        QVERIFY(copier->Copy());
        QVERIFY(remover->Remove());
        copier.reset();
        remover.reset();
        HandleEverything();
        QCOMPARE(copied.Count(), 0);
        QCOMPARE(removed.Count(), 0);
        QVERIFY(!kxtest::Exists(tree.Path(".out.kxnew")));
        kxtest::Remove(tree.Path("out"));
    }
}

void TestFileWorker::DeletionInsideASignalIsSafe_data()
{
    QTest::addColumn<bool>("isRemoval");
    QTest::addColumn<QByteArray>("signal");
    const QByteArray progress = SIGNAL(progress(int, int));
    const QByteArray succeeded = SIGNAL(succesed());
    const QByteArray failed = SIGNAL(failed(int, const QString&));
    for (const bool isRemoval : {false, true}) {
        const char* what = isRemoval ? "removal" : "copy";
        QTest::addRow("%s, progress", what) << isRemoval << progress;
        QTest::addRow("%s, succesed", what) << isRemoval << succeeded;
        QTest::addRow("%s, failed", what) << isRemoval << failed;
    }
}

namespace {

class Deleter : public QObject
{
    Q_OBJECT
public:
    explicit Deleter(QObject* object) : victim(object) {}
    int calls = 0;

public Q_SLOTS:
    void Delete()
    {
        ++calls;
        delete victim.data();
    }

private:
    QPointer<QObject> victim;
};

} // namespace

void TestFileWorker::DeletionInsideASignalIsSafe()
{
    QFETCH(const bool, isRemoval);
    QFETCH(const QByteArray, signal);
    TreeBuilder tree;
    FillSource(tree);
    tree.File("file", "x");
    auto* copier = new FileCopier;
    auto* remover = new FileRemover;
    const bool isFailing = signal.contains("failed");
    copier->AddDirectory(tree.Path(isFailing ? "none" : "in"), tree.Path("out"));
    remover->AddDirectory(tree.Path(isFailing ? "file" : "in"));
    QObject* const victim = isRemoval ? static_cast<QObject*>(remover) : copier;
    Deleter deleter(victim);
    Spies spies(victim);
    connect(victim, signal.constData(), &deleter, SLOT(Delete()));
    QVERIFY(isRemoval ? remover->Remove() : copier->Copy());
    QTRY_COMPARE_WITH_TIMEOUT(deleter.calls, 1, patience);
    const int count = spies.Count();
    HandleEverything();
    QCOMPARE(spies.Count(), count);
    if (signal.contains("progress"))
        QCOMPARE(spies.succeeded.count() + spies.failed.count(), 0);
    QVERIFY(!kxtest::Exists(tree.Path(".out.kxnew")));
    delete (isRemoval ? static_cast<QObject*>(copier) : remover);
}

void TestFileWorker::DeletedWithoutARun()
{
    FileCopier copier;
    copier.AddFile("/a", "/b");
    FileRemover remover;
    remover.AddDirectory("/nowhere");
}

QTEST_GUILESS_MAIN(TestFileWorker)
#include "tst_fileworker.moc"
