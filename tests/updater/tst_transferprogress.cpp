#include "quietperiod.h"
#include "transferrate.h"
#include "transfertuning.h"
#include "updaterrig.h"
#include "wiringguard.h"

#include <kxcommon/ifiledownload.h>
#include <kxupdater/errors.h>
#include <kxupdater/transferprogress.h>

#include <QElapsedTimer>
#include <QFile>
#include <QSignalSpy>
#include <QTest>

#include <limits>
#include <memory>
#include <thread>

using kxtest::FileRecord;
using kxtest::LinkRecord;
using kxtest::Reply;
using kxtest::TreeBuilder;
using kxtest::UpdaterRig;
using kxtest::WaitFor;
using updater::TransferProgress;
using updater::TransferRate;

namespace {

constexpr qint64 KiB = 1024;
constexpr qint64 MiB = 1024 * KiB;
#ifdef KX_SANITIZED
constexpr int manyFiles = 2000;
#else
constexpr int manyFiles = 20000;
#endif

/** All that one object tells, as one line: "bytes/total files/total speed left active...". */
QString Told(const TransferProgress& progress)
{
    QString line = QStringLiteral("%1/%2 bytes, %3/%4 files, %5 B/s, %6 s")
                       .arg(progress.BytesDone())
                       .arg(progress.BytesTotal())
                       .arg(progress.FilesDone())
                       .arg(progress.FilesTotal())
                       .arg(progress.BytesPerSecond())
                       .arg(progress.SecondsLeft());
    for (const TransferProgress::FileProgress& file : progress.ActiveFiles())
        line += QStringLiteral(", %1 %2/%3").arg(file.name).arg(file.done).arg(file.total);
    return line;
}

const QString nothing = QStringLiteral("0/0 bytes, 0/0 files, 0 B/s, -1 s");

/** What is told when nothing is under way. */
QString AtRest(qint64 bytes, qint64 bytesTotal, int files, int filesTotal)
{
    return QStringLiteral("%1/%2 bytes, %3/%4 files, 0 B/s, -1 s")
        .arg(bytes)
        .arg(bytesTotal)
        .arg(files)
        .arg(filesTotal);
}

/** An updater that another program has written. */
class ForeignUpdater : public updater::IUpdater
{
public:
    void SetURL(const QString&) override {}
    QString URL() const override { return {}; }
    void SetDownloadPath(const QString&) override {}
    QString DownloadPath() const override { return {}; }
    void SetCurrentVersion(const QString&) override {}
    QString CurrentVersion() const override { return {}; }
    QString ServerVersion() const override { return {}; }
    bool IsActual() const override { return false; }
    void SetCheckInterval(int) override {}
    int CheckInterval() const override { return 0; }
    void SetPackageName(const QString&) override {}
    QString PackageName() const override { return {}; }
    void SetLocalPackagePath(const QString&) override {}
    QString LocalPackagePath() const override { return {}; }
    void SetAppCallback(updater::AppCallbackFunction*) override {}
    updater::AppCallbackFunction* AppCallback() const override { return nullptr; }
    QString ExecutablePath() const override { return {}; }
    bool VerifyLocalUpdate(const QString&, const QString&) override { return false; }
    QString PackageXML() const override { return {}; }
    void Check() override {}
    void Wait() override {}
    void Download() override {}
    void Install() override {}
    void Cancel() override {}
    void Finish() override {}
};

} // namespace

/** Bytes, files and speed of a download, against a server with faults. */
class TestTransferProgress : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    // speed
    void SpeedNeedsHalfASecond();
    void SpeedIsThatOfTheLastSeconds();
    void SpeedOfASilentLineFallsToNothing();
    void SpeedOfRareLooksIsTheAverage();

    // figures
    void WholeStepIsCounted();
    void UnchangedFilesDoNotCount();
    void RunningTransfersAreListedInTheOrderOfTheirStart();
    void SpeedAndTimeAreToldWhileBytesCome();
    void ResumedBytesAreDoneButNotSpeed();
    void FileThatBeginsAgainGoesBack();
    void ReplyOfUnknownLengthHasATotal();
    void PresentFilesAreDone();
    void ManyFilesAreCountedOneByOne();
    void SizesThatDoNotFitTogetherDoNotOverflow();

    // steps
    void FailedStepKeepsItsFigures();
    void NextAssemblyBeginsAtNothing();
    void StepWithoutTransfersEndsOnce();
    void NothingNewIsNotTold();
    void ChangedNeverComesInsideASignalOfTheUpdater();
    void MadeLaterItKnowsWhatWas_data();
    void MadeLaterItKnowsWhatWas();
    void UpdatersDoNotMix();

    // lives
    void WithoutAnUpdaterOfOursNothingIsTold_data();
    void WithoutAnUpdaterOfOursNothingIsTold();
    void FiguresOutliveTheUpdater();
    void UpdaterMayOwnIt();
    void DeletionInsideChangedIsSafe_data();
    void DeletionInsideChangedIsSafe();
    void DeletionInsideASignalOfTheUpdaterIsSafe_data();
    void DeletionInsideASignalOfTheUpdaterIsSafe();

private:
    /** Publishes one file of random bytes; returns them. */
    QByteArray PublishFile(const QString& name, qint64 size);
    QString PathOf(const QString& name) const { return UpdaterRig::FilePath("2.0", name); }
    /** A rig in DOWNLOADING, with replies that are stalled. */
    void DownloadUntilStalled(int replies = 1);

    std::unique_ptr<UpdaterRig> rig;
};

void TestTransferProgress::init()
{
    kxtest::FailOnWiringWarnings();
    common::http::Tuning().firstPauseMs = 1;
    rig = std::make_unique<UpdaterRig>();
}

void TestTransferProgress::cleanup()
{
    rig.reset();
    common::http::Tuning() = common::http::TransferTuning();
}

QByteArray TestTransferProgress::PublishFile(const QString& name, qint64 size)
{
    const QByteArray content = kxtest::RandomBytes(size, 1);
    rig->server.SetBody(PathOf(name), content);
    rig->PublishRecords("2.0", {FileRecord(name, content)});
    return content;
}

void TestTransferProgress::DownloadUntilStalled(int replies)
{
    QVERIFY(rig->Check());
    rig->updater->Download();
    QTRY_COMPARE_WITH_TIMEOUT(rig->server.StalledCount(), replies, kxtest::patience);
}

void TestTransferProgress::SpeedNeedsHalfASecond()
{
    TransferRate rate;
    QCOMPARE(rate.BytesPerSecond(), 0u);
    rate.Add(1000, 0);
    rate.Add(1499, 1000);
    QCOMPARE(rate.BytesPerSecond(), 0u);
    rate.Add(1500, 1000);
    QCOMPARE(rate.BytesPerSecond(), 2000u);
    rate.Clear();
    QCOMPARE(rate.BytesPerSecond(), 0u);
}

void TestTransferProgress::SpeedIsThatOfTheLastSeconds()
{
    // 100 bytes in each tenth of a second for ten seconds, then 300.
    TransferRate rate;
    quint64 bytes = 0;
    qint64 time = 0;
    for (; time < 10000; time += 100, bytes += 100)
        rate.Add(time, bytes);
    rate.Add(time, bytes);
    QCOMPARE(rate.BytesPerSecond(), 1000u);
    for (int i = 0; i < 25; ++i)
        rate.Add(time += 100, bytes += 300);
    QCOMPARE(rate.BytesPerSecond(), 2000u); // half of the window
    for (int i = 0; i < 25; ++i)
        rate.Add(time += 100, bytes += 300);
    QCOMPARE(rate.BytesPerSecond(), 3000u);
}

void TestTransferProgress::SpeedOfASilentLineFallsToNothing()
{
    TransferRate rate;
    rate.Add(0, 0);
    rate.Add(1000, 5000);
    QCOMPARE(rate.BytesPerSecond(), 5000u);
    for (qint64 time = 1100; time <= 5000; time += 100)
        rate.Add(time, 5000);
    QCOMPARE(rate.BytesPerSecond(), 1000u);
    for (qint64 time = 5100; time <= 6000; time += 100)
        rate.Add(time, 5000);
    QCOMPARE(rate.BytesPerSecond(), 0u);
}

void TestTransferProgress::SpeedOfRareLooksIsTheAverage()
{
    // A host that held its event loop for a minute.
    TransferRate rate;
    rate.Add(0, 0);
    rate.Add(60000, 60000);
    QCOMPARE(rate.BytesPerSecond(), 1000u);
    rate.Add(60100, 60000);
    rate.Add(65100, 61000);
    QCOMPARE(rate.BytesPerSecond(), 200u);
}

void TestTransferProgress::WholeStepIsCounted()
{
    TreeBuilder tree;
    tree.File("a", "a").File("dir/empty", "").RandomFile("big", 2 * MiB, 1);
    rig->Publish("2.0", tree.Root());
    rig->Start();
    const TransferProgress progress(rig->updater);
    QSignalSpy changed(&progress, &TransferProgress::changed);
    QCOMPARE(Told(progress), nothing);
    QVERIFY(rig->Check());
    QCOMPARE(Told(progress), nothing);
    QString atEnd;
    rig->AtState("CREATINGSYMLINKS", [&] { atEnd = Told(progress); });
    QVERIFY(rig->Assemble());
    QCOMPARE(atEnd, AtRest(2 * MiB + 1, 2 * MiB + 1, 3, 3));
    QCOMPARE(Told(progress), atEnd);
    QTRY_VERIFY(!changed.isEmpty());

    // An install and a wait leave the figures alone.
    QVERIFY(rig->Install());
    QCOMPARE(Told(progress), atEnd);
}

void TestTransferProgress::UnchangedFilesDoNotCount()
{
    TreeBuilder(rig->App()).File("same", "unchanged").File("other", "old");
    TreeBuilder tree;
    tree.File("same", "unchanged").File("other", "newer").Symlink("link", "same");
    rig->Publish("2.0", tree.Root());
    rig->Start();
    const TransferProgress progress(rig->updater);
    QVERIFY(rig->Assemble());
    QCOMPARE(Told(progress), AtRest(5, 5, 1, 1));
}

void TestTransferProgress::RunningTransfersAreListedInTheOrderOfTheirStart()
{
    // Seven files, four at a time; the third one ends, and the fifth takes its turn as the last.
    updater::FileList records;
    QStringList names;
    for (const char* name : {"d/7", "a/1", "z/2", "c/3", "b/4", "e/5", "f/6"}) {
        const QByteArray content = kxtest::RandomBytes(100 * KiB, quint32(names.size()));
        names << QString::fromLatin1(name);
        records << FileRecord(names.last(), content);
        rig->server.SetBody(PathOf(names.last()), content);
        rig->server.SetDefaultReply(PathOf(names.last()), Reply::StallAfter(names.size() * KiB));
    }
    rig->PublishRecords("2.0", records);
    rig->Start();
    const TransferProgress progress(rig->updater);
    DownloadUntilStalled(4);

    // The order in which they are fetched is that of the requests.
    QStringList started;
    for (const QString& path : rig->FetchedFiles())
        started << path.mid(PathOf(QString()).size());
    QCOMPARE(started.size(), 4);
    const auto Line = [&](const QString& name) {
        return QStringLiteral("%1 %2/%3")
            .arg(name)
            .arg((names.indexOf(name) + 1) * KiB)
            .arg(100 * KiB);
    };
    const auto Active = [&] {
        QStringList lines;
        for (const TransferProgress::FileProgress& file : progress.ActiveFiles())
            lines << QStringLiteral("%1 %2/%3").arg(file.name).arg(file.done).arg(file.total);
        return lines;
    };
    QStringList expected;
    quint64 done = 0;
    for (const QString& name : started) {
        expected << Line(name);
        done += quint64(names.indexOf(name) + 1) * KiB;
    }
    QTRY_COMPARE_WITH_TIMEOUT(Active(), expected, kxtest::patience);
    QCOMPARE(progress.BytesDone(), done);
    QCOMPARE(progress.BytesTotal(), quint64(700 * KiB));
    QCOMPARE(progress.FilesDone(), 0);
    QCOMPARE(progress.FilesTotal(), 7);

    // All go on, and the next ones come in their places.
    for (const QString& name : names)
        rig->server.SetDefaultReply(PathOf(name), Reply());
    rig->server.ReleaseStalled();
    QVERIFY(rig->Reach("SUCCESS"));
    QCOMPARE(Told(progress), AtRest(700 * KiB, 700 * KiB, 7, 7));
}

void TestTransferProgress::SpeedAndTimeAreToldWhileBytesCome()
{
    PublishFile("big", 4 * MiB);
    rig->server.Enqueue(PathOf("big"), Reply::StallAfter(MiB));
    rig->Start();
    const TransferProgress progress(rig->updater);
    DownloadUntilStalled();
    QTRY_COMPARE_WITH_TIMEOUT(progress.BytesDone(), quint64(MiB), kxtest::patience);
    QTRY_VERIFY_WITH_TIMEOUT(progress.BytesPerSecond() > 0, kxtest::patience);
    const quint64 speed = progress.BytesPerSecond();
    QVERIFY2(speed <= quint64(2 * MiB), qPrintable(Told(progress))); // in half a second at least
    QCOMPARE(progress.SecondsLeft(), int((3 * MiB + qint64(speed) - 1) / qint64(speed)));
    rig->server.ReleaseStalled();
    QVERIFY(rig->Reach("SUCCESS"));
    QCOMPARE(Told(progress), AtRest(4 * MiB, 4 * MiB, 1, 1));
}

void TestTransferProgress::ResumedBytesAreDoneButNotSpeed()
{
    const QByteArray content = PublishFile("big", 8 * MiB);
    const QString partial = common::http::PartialFilePath(rig->Next() + "/big");
    TreeBuilder(rig->Next()).File(".big.kx.part", content.left(6 * MiB));
    QVERIFY(QFile::exists(partial));
    rig->server.Enqueue(PathOf("big"), Reply::StallAfter(64 * KiB));
    rig->Start();
    const TransferProgress progress(rig->updater);
    DownloadUntilStalled();
    QTRY_COMPARE_WITH_TIMEOUT(progress.BytesDone(), quint64(6 * MiB + 64 * KiB), kxtest::patience);
    QCOMPARE(rig->server.Requests(PathOf("big")).first().Header("Range"), "bytes=6291456-");
    QTRY_VERIFY_WITH_TIMEOUT(progress.BytesPerSecond() > 0, kxtest::patience);
    QVERIFY2(progress.BytesPerSecond() <= quint64(128 * KiB), qPrintable(Told(progress)));
    rig->server.ReleaseStalled();
    QVERIFY(rig->Reach("SUCCESS"));
    QCOMPARE(Told(progress), AtRest(8 * MiB, 8 * MiB, 1, 1));
}

void TestTransferProgress::FileThatBeginsAgainGoesBack()
{
    PublishFile("big", 3 * MiB);
    rig->server.SetRangeSupport(PathOf("big"), false);
    rig->server.Enqueue(PathOf("big"), Reply::StallAfter(2 * MiB));
    rig->server.SetDefaultReply(PathOf("big"), Reply::StallAfter(64 * KiB));
    rig->Start();
    const TransferProgress progress(rig->updater);
    quint64 most = 0;
    connect(&progress, &TransferProgress::changed, this,
            [&] { most = qMax(most, progress.BytesDone()); });
    DownloadUntilStalled();
    QTRY_COMPARE_WITH_TIMEOUT(progress.BytesDone(), quint64(2 * MiB), kxtest::patience);
    rig->server.Stop();
    QVERIFY(rig->server.Start());
    QTRY_COMPARE_WITH_TIMEOUT(progress.BytesDone(), quint64(64 * KiB), kxtest::patience);
    QTRY_COMPARE_WITH_TIMEOUT(rig->server.StalledCount(), 1, kxtest::patience);
    rig->server.ReleaseStalled();
    QVERIFY(rig->Reach("SUCCESS"));
    QCOMPARE(Told(progress), AtRest(3 * MiB, 3 * MiB, 1, 1));
    QVERIFY(most <= quint64(3 * MiB));
}

void TestTransferProgress::ReplyOfUnknownLengthHasATotal()
{
    PublishFile("big", 2 * MiB);
    Reply reply = Reply::StallAfter(MiB);
    reply.framing = Reply::Framing::UntilClose;
    rig->server.Enqueue(PathOf("big"), reply);
    rig->Start();
    const TransferProgress progress(rig->updater);
    DownloadUntilStalled();
    QTRY_COMPARE_WITH_TIMEOUT(progress.BytesDone(), quint64(MiB), kxtest::patience);
    QCOMPARE(progress.BytesTotal(), quint64(2 * MiB));
    QCOMPARE(progress.ActiveFiles().size(), 1);
    QCOMPARE(progress.ActiveFiles().first().total, quint64(2 * MiB));
    rig->server.ReleaseStalled();
    QVERIFY(rig->Reach("SUCCESS"));
    QCOMPARE(Told(progress), AtRest(2 * MiB, 2 * MiB, 1, 1));
}

void TestTransferProgress::PresentFilesAreDone()
{
    TreeBuilder tree;
    tree.RandomFile("present", MiB, 1).RandomFile("missing", 512 * KiB, 2);
    rig->Publish("2.0", tree.Root());
    TreeBuilder(rig->Next()).RandomFile("present", MiB, 1);
    rig->server.Enqueue(PathOf("missing"), Reply::StallAfter(KiB));
    rig->Start();
    const TransferProgress progress(rig->updater);
    DownloadUntilStalled();
    QTRY_COMPARE_WITH_TIMEOUT(progress.FilesDone(), 1, kxtest::patience);
    QTRY_COMPARE_WITH_TIMEOUT(progress.BytesDone(), quint64(MiB + KiB), kxtest::patience);
    QCOMPARE(progress.ActiveFiles().size(), 1);
    QCOMPARE(progress.ActiveFiles().first().name, QString("missing"));
    QTRY_VERIFY_WITH_TIMEOUT(progress.BytesPerSecond() > 0, kxtest::patience);
    QVERIFY2(progress.BytesPerSecond() <= quint64(2 * KiB), qPrintable(Told(progress)));
    rig->server.ReleaseStalled();
    QVERIFY(rig->Reach("SUCCESS"));
    QCOMPARE(Told(progress), AtRest(MiB + 512 * KiB, MiB + 512 * KiB, 2, 2));
}

void TestTransferProgress::ManyFilesAreCountedOneByOne()
{
    // Nearly all of them are there already; a server in this thread would take its time for more.
    constexpr int missing = 200;
    updater::FileList records;
    TreeBuilder next(rig->Next());
    quint64 bytes = 0;
    for (int i = 0; i < manyFiles; ++i) {
        const QString name = QStringLiteral("%1/%2").arg(i / 100).arg(i);
        const QByteArray content = QByteArray::number(i);
        bytes += quint64(content.size());
        records << FileRecord(name, content);
        if (i % (manyFiles / missing) == 0)
            rig->server.SetBody(PathOf(name), content);
        else
            next.File(name, content);
    }
    rig->PublishRecords("2.0", records);
    rig->Start();
    const TransferProgress progress(rig->updater);
    int files = 0;
    quint64 done = 0;
    bool backwards = false;
    int signalled = 0;
    connect(&progress, &TransferProgress::changed, this, [&] {
        ++signalled;
        backwards = backwards || progress.FilesDone() < files || progress.BytesDone() < done;
        files = progress.FilesDone();
        done = progress.BytesDone();
    });
    QVERIFY(rig->Check());
    QElapsedTimer clock;
    clock.start();
    QVERIFY(rig->Assemble());
    QCOMPARE(rig->FetchedFiles().size(), missing);
    QCOMPARE(Told(progress), AtRest(qint64(bytes), qint64(bytes), manyFiles, manyFiles));
    QVERIFY(!backwards);
    QVERIFY(signalled > 0);
    // Timers are late, and a twentieth of their time early; PREPARING and the end have one each.
    QVERIFY2(signalled <= clock.elapsed() / 90 + 3, qPrintable(QString::number(signalled)));
}

void TestTransferProgress::SizesThatDoNotFitTogetherDoNotOverflow()
{
    const quint64 largest = std::numeric_limits<quint64>::max();
    const QString md5 = kxtest::MD5Of("x");
    rig->PublishRecords("2.0", {updater::File("a", md5, largest, {}, {}),
                                updater::File("b", md5, largest - 5, {}, {})});
    for (const char* name : {"a", "b"})
        rig->server.SetDefaultReply(PathOf(name), Reply::Hold());
    rig->Start();
    const TransferProgress progress(rig->updater);
    DownloadUntilStalled(2);
    QCOMPARE(progress.BytesTotal(), largest);
    QCOMPARE(progress.BytesDone(), 0u);
    QCOMPARE(progress.SecondsLeft(), -1);
}

void TestTransferProgress::FailedStepKeepsItsFigures()
{
    TreeBuilder tree;
    tree.RandomFile("a/big", 2 * MiB, 1).File("bad", "bad").File("good", "good");
    rig->Publish("2.0", tree.Root());
    rig->server.SetDefaultReply(PathOf("a/big"), Reply::StallAfter(MiB));
    rig->server.SetDefaultReply(PathOf("bad"), Reply::Hold());
    rig->Start();
    const TransferProgress progress(rig->updater);
    DownloadUntilStalled(2);
    QTRY_COMPARE_WITH_TIMEOUT(progress.BytesDone(), quint64(MiB + 4), kxtest::patience);
    QTRY_COMPARE_WITH_TIMEOUT(progress.FilesDone(), 1, kxtest::patience);
    QTRY_VERIFY_WITH_TIMEOUT(progress.BytesPerSecond() > 0, kxtest::patience);
    QSignalSpy changed(&progress, &TransferProgress::changed);
    rig->AtState("CANCELED", [&] { changed.clear(); });
    rig->AtState("FAILED", [&] { changed.clear(); });
    rig->updater->Cancel();
    QVERIFY(rig->Reach("CANCELED"));
    QCOMPARE(Told(progress), AtRest(MiB + 4, 2 * MiB + 7, 1, 3));
    QTRY_COMPARE(changed.size(), 1);

    // Once more, and now one of them fails by itself.
    rig->server.SetDefaultReply(PathOf("bad"), Reply::Status(404));
    QVERIFY(rig->Assemble("FAILED"));
    QCOMPARE(progress.FilesTotal(), 3);
    QVERIFY(progress.FilesDone() < 3);
    QCOMPARE(progress.BytesTotal(), quint64(2 * MiB + 7));
    QVERIFY(progress.BytesDone() < quint64(2 * MiB + 7));
    QVERIFY(progress.ActiveFiles().isEmpty());
    QCOMPARE(progress.BytesPerSecond(), 0u);
    QCOMPARE(progress.SecondsLeft(), -1);
    QTRY_COMPARE(changed.size(), 1);
}

void TestTransferProgress::NextAssemblyBeginsAtNothing()
{
    TreeBuilder tree;
    tree.File("a", "a").File("b", "b");
    rig->Publish("2.0", tree.Root());
    rig->Start();
    const TransferProgress progress(rig->updater);
    QVERIFY(rig->Assemble());
    QCOMPARE(Told(progress), AtRest(2, 2, 2, 2));
    QVERIFY(WaitFor([&] { return rig->HasStopped(); }));
    rig->updater->Cancel();
    QVERIFY(rig->Reach("WAITING"));
    QVERIFY(rig->Check());
    QCOMPARE(Told(progress), AtRest(2, 2, 2, 2));
    QString before;
    rig->AtState("COPYING", [&] { before = Told(progress); });
    QVERIFY(rig->Assemble());
    QCOMPARE(before, nothing);
    QCOMPARE(Told(progress), AtRest(2, 2, 2, 2));
}

void TestTransferProgress::StepWithoutTransfersEndsOnce()
{
    TreeBuilder(rig->App()).File("same", "same");
    TreeBuilder tree;
    tree.File("same", "same").Symlink("link", "same");
    rig->Publish("2.0", tree.Root());
    rig->Start();
    const TransferProgress progress(rig->updater);
    QSignalSpy changed(&progress, &TransferProgress::changed);
    QVERIFY(rig->Assemble());
    QCOMPARE(Told(progress), nothing);
    QCOMPARE(changed.size(), 1);
}

void TestTransferProgress::NothingNewIsNotTold()
{
    PublishFile("big", MiB);
    rig->server.Enqueue(PathOf("big"), Reply::Hold());
    rig->Start();
    const TransferProgress progress(rig->updater);
    QSignalSpy changed(&progress, &TransferProgress::changed);
    DownloadUntilStalled();
    QTRY_COMPARE(changed.size(), 1); // there is a transfer
    QCOMPARE(Told(progress),
             QStringLiteral("0/1048576 bytes, 0/1 files, 0 B/s, -1 s, big 0/1048576"));
    kxtest::PassTimersOf(500);
    QCOMPARE(changed.size(), 1);
    QString last;
    connect(&progress, &TransferProgress::changed, this, [&] { last = Told(progress); });
    rig->server.ReleaseStalled();
    QVERIFY(rig->Reach("SUCCESS"));
    QTRY_COMPARE(last, AtRest(MiB, MiB, 1, 1));
    changed.clear();
    kxtest::PassTimersOf(300);
    QCOMPARE(changed.size(), 0);
}

void TestTransferProgress::ChangedNeverComesInsideASignalOfTheUpdater()
{
    TreeBuilder tree;
    for (int i = 0; i < 50; ++i)
        tree.File(QString::number(i), "x");
    rig->Publish("2.0", tree.Root());
    rig->Start();
    const TransferProgress progress(rig->updater);
    // One trace was connected before the object under test, the other one comes after it.
    kxtest::SignalTrace after(rig->updater);
    int depth = 0;
    bool inside = false;
    rig->trace->SetHook([&](const QString&) { ++depth; });
    after.SetHook([&](const QString&) { --depth; });
    connect(&progress, &TransferProgress::changed, this, [&] { inside = inside || depth != 0; });
    QSignalSpy changed(&progress, &TransferProgress::changed);
    QVERIFY(rig->Assemble());
    QTRY_VERIFY(!changed.isEmpty());
    QVERIFY(!inside);
    QCOMPARE(depth, 0);
}

void TestTransferProgress::MadeLaterItKnowsWhatWas_data()
{
    QTest::addColumn<QString>("state");
    QTest::newRow("inside downloading()") << "downloading()";
    QTest::newRow("after the first file") << "progress(50)";
    QTest::newRow("inside creatingSymlinks()") << "creatingSymlinks()";
    QTest::newRow("at the end") << "finished()";
}

void TestTransferProgress::MadeLaterItKnowsWhatWas()
{
    QFETCH(QString, state);
    TreeBuilder tree;
    tree.RandomFile("a", 100, 1).RandomFile("b", 200, 2);
    rig->Publish("2.0", tree.Root());
    rig->Start();
    std::unique_ptr<TransferProgress> progress;
    std::unique_ptr<QSignalSpy> changed;
    rig->trace->SetHook([&](const QString& line) {
        if (line != state || progress)
            return;
        progress = std::make_unique<TransferProgress>(rig->updater);
        changed = std::make_unique<QSignalSpy>(progress.get(), &TransferProgress::changed);
        if (state == QLatin1String("progress(50)")) {
            QCOMPARE(progress->FilesDone(), 1);
            QCOMPARE(progress->FilesTotal(), 2);
            QCOMPARE(progress->BytesTotal(), 300u);
        }
    });
    QVERIFY(rig->Assemble());
    QVERIFY(WaitFor([&] { return rig->HasStopped(); }));
    QVERIFY(progress);
    QCOMPARE(Told(*progress), AtRest(300, 300, 2, 2));
    const bool inTime = state == "downloading()" || state == "progress(50)";
    QTRY_COMPARE(changed->isEmpty(), !inTime);
}

void TestTransferProgress::UpdatersDoNotMix()
{
    UpdaterRig other;
    TreeBuilder tree;
    tree.RandomFile("mine", MiB, 1);
    rig->Publish("2.0", tree.Root());
    TreeBuilder otherTree;
    otherTree.RandomFile("theirs", 2 * MiB, 2).File("x", "x");
    other.Publish("2.0", otherTree.Root());
    rig->server.Enqueue(PathOf("mine"), Reply::StallAfter(KiB));
    other.server.Enqueue(PathOf("theirs"), Reply::StallAfter(3 * KiB));
    rig->Start();
    other.Start();
    const TransferProgress mine(rig->updater);
    const TransferProgress theirs(other.updater);
    const TransferProgress again(other.updater);
    DownloadUntilStalled();
    QVERIFY(other.Check());
    other.updater->Download();
    QTRY_COMPARE_WITH_TIMEOUT(other.server.StalledCount(), 1, kxtest::patience);
    QTRY_COMPARE_WITH_TIMEOUT(theirs.BytesDone(), quint64(3 * KiB + 1), kxtest::patience);
    // All bytes of the small file may be there before it is in its place.
    QTRY_COMPARE_WITH_TIMEOUT(theirs.FilesDone(), 1, kxtest::patience);
    QTRY_COMPARE_WITH_TIMEOUT(mine.BytesDone(), quint64(KiB), kxtest::patience);
    QCOMPARE(again.BytesDone(), theirs.BytesDone());
    QCOMPARE(mine.BytesTotal(), quint64(MiB));
    QCOMPARE(theirs.BytesTotal(), quint64(2 * MiB + 1));
    QCOMPARE(mine.ActiveFiles().size(), 1);
    QCOMPARE(mine.ActiveFiles().first().name, QString("mine"));
    QCOMPARE(theirs.ActiveFiles().size(), 1);
    QCOMPARE(theirs.ActiveFiles().first().name, QString("theirs"));
    rig->server.ReleaseStalled();
    QVERIFY(rig->Reach("SUCCESS"));
    QCOMPARE(Told(mine), AtRest(MiB, MiB, 1, 1));
    QCOMPARE(theirs.FilesDone(), 1);
    other.server.ReleaseStalled();
    QVERIFY(other.Reach("SUCCESS"));
    QCOMPARE(Told(theirs), AtRest(2 * MiB + 1, 2 * MiB + 1, 2, 2));
    QCOMPARE(Told(again), Told(theirs));
}

void TestTransferProgress::WithoutAnUpdaterOfOursNothingIsTold_data()
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<QString>("reason");
    QTest::newRow("none") << "none"
                          << "there is no updater";
    QTest::newRow("foreign") << "foreign"
                             << "the updater is not one of this library";
    QTest::newRow("other thread") << "thread"
                                  << "the updater lives on another thread";
}

void TestTransferProgress::WithoutAnUpdaterOfOursNothingIsTold()
{
    QFETCH(QString, kind);
    QFETCH(QString, reason);
    const QString line = "updater.download 4 Nothing will be told of transfers: " + reason + ".";
    TreeBuilder tree;
    tree.File("a", "a");
    rig->Publish("2.0", tree.Root());
    rig->Start();
    ForeignUpdater foreign;
    rig->log.Clear();
    if (kind == QLatin1String("thread")) {
        QString told;
        std::thread([&] {
            const TransferProgress progress(rig->updater);
            told = Told(progress);
        }).join();
        QCOMPARE(told, nothing);
        QCOMPARE(rig->log.Lines(), QStringList(line));
        return;
    }
    const bool none = kind == QLatin1String("none");
    const TransferProgress progress(none ? nullptr : &foreign);
    QCOMPARE(rig->log.Lines(), QStringList(line));
    QSignalSpy changed(&progress, &TransferProgress::changed);
    Q_EMIT foreign.stateChanged(QStringLiteral("DOWNLOADING"));
    Q_EMIT foreign.stateChanged(QStringLiteral("FAILED"));
    QVERIFY(rig->Assemble());
    QCOMPARE(Told(progress), nothing);
    QVERIFY(changed.isEmpty());
}

void TestTransferProgress::FiguresOutliveTheUpdater()
{
    PublishFile("big", 2 * MiB);
    rig->server.Enqueue(PathOf("big"), Reply::StallAfter(MiB));
    rig->Start();
    const TransferProgress progress(rig->updater);
    DownloadUntilStalled();
    QTRY_COMPARE_WITH_TIMEOUT(progress.BytesDone(), quint64(MiB), kxtest::patience);
    QTRY_VERIFY_WITH_TIMEOUT(progress.BytesPerSecond() > 0, kxtest::patience);
    rig->trace.reset();
    QSignalSpy changed(&progress, &TransferProgress::changed);
    delete rig->updater;
    QCOMPARE(Told(progress), AtRest(MiB, 2 * MiB, 0, 1));
    QVERIFY(changed.isEmpty());
    QTRY_COMPARE(changed.size(), 1);
    QCOMPARE(Told(progress), AtRest(MiB, 2 * MiB, 0, 1));
}

void TestTransferProgress::UpdaterMayOwnIt()
{
    PublishFile("big", 2 * MiB);
    rig->server.Enqueue(PathOf("big"), Reply::StallAfter(MiB));
    rig->Start();
    const QPointer<TransferProgress> progress(new TransferProgress(rig->updater, rig->updater));
    DownloadUntilStalled();
    QTRY_COMPARE_WITH_TIMEOUT(progress->BytesDone(), quint64(MiB), kxtest::patience);
    rig->trace.reset();
    delete rig->updater;
    QVERIFY(!progress);
}

void TestTransferProgress::DeletionInsideChangedIsSafe_data()
{
    QTest::addColumn<QString>("order");
    QTest::addColumn<bool>("atEnd");
    for (const char* order : {"progress", "updater", "progress, updater", "updater, progress",
                              "updater later, progress", "progress of several"}) {
        QTest::addRow("%s, under way", order) << QString::fromLatin1(order) << false;
        QTest::addRow("%s, at the end", order) << QString::fromLatin1(order) << true;
    }
}

void TestTransferProgress::DeletionInsideChangedIsSafe()
{
    QFETCH(QString, order);
    QFETCH(bool, atEnd);
    PublishFile("big", 2 * MiB);
    rig->server.Enqueue(PathOf("big"), Reply::StallAfter(MiB));
    rig->Start();
    QPointer<TransferProgress> progress(new TransferProgress(rig->updater));
    std::unique_ptr<TransferProgress> second;
    if (order == QLatin1String("progress of several"))
        second = std::make_unique<TransferProgress>(rig->updater);
    bool acted = false;
    connect(progress, &TransferProgress::changed, this, [&] {
        if (acted || (atEnd ? !progress->ActiveFiles().isEmpty() : progress->BytesDone() == 0))
            return;
        acted = true;
        rig->trace.reset();
        for (const QString& what : order.split(QStringLiteral(", "))) {
            if (what.startsWith(QLatin1String("progress")))
                delete progress;
            else if (what == QLatin1String("updater"))
                delete rig->updater;
            else
                rig->updater->deleteLater();
        }
    });
    DownloadUntilStalled();
    if (atEnd)
        rig->server.ReleaseStalled();
    QTRY_VERIFY_WITH_TIMEOUT(acted, kxtest::patience);
    if (order.contains(QLatin1String("updater")))
        QTRY_VERIFY(!rig->updater);
    else if (!atEnd)
        rig->updater->Cancel();
    QCOMPARE(!progress, order.contains(QLatin1String("progress")));
    if (second) {
        QTRY_VERIFY(second->ActiveFiles().isEmpty());
        QCOMPARE(second->BytesTotal(), quint64(2 * MiB));
    }
    // What was under way comes to its end.
    QTest::qWait(0);
    delete progress;
}

void TestTransferProgress::DeletionInsideASignalOfTheUpdaterIsSafe_data()
{
    QTest::addColumn<QString>("point");
    QTest::addColumn<QString>("order");
    const char* const points[] = {
        "prepairing()",  "stateChanged(DOWNLOADING)",      "downloading()",      "progress(50)",
        "progress(100)", "stateChanged(CREATINGSYMLINKS)", "creatingSymlinks()", "finished()"};
    for (const char* point : points) {
        for (const char* order : {"progress", "updater", "progress, updater", "updater, progress"})
            QTest::addRow("%s in %s", order, point)
                << QString::fromLatin1(point) << QString::fromLatin1(order);
    }
}

void TestTransferProgress::DeletionInsideASignalOfTheUpdaterIsSafe()
{
    QFETCH(QString, point);
    QFETCH(QString, order);
    TreeBuilder tree;
    tree.File("a", "a").File("b", "b");
    rig->Publish("2.0", tree.Root());
    rig->Start();
    QPointer<TransferProgress> progress(new TransferProgress(rig->updater));
    bool acted = false;
    rig->trace->SetHook([&](const QString& line) {
        if (acted || line != point)
            return;
        acted = true;
        for (const QString& what : order.split(QStringLiteral(", "))) {
            if (what == QLatin1String("progress"))
                delete progress;
            else
                rig->updater->deleteLater();
        }
    });
    QVERIFY(rig->Check());
    rig->updater->Download();
    QVERIFY(WaitFor([&] { return acted; }));
    if (order.contains(QLatin1String("updater")))
        QVERIFY(WaitFor([&] { return !rig->updater; }));
    else
        QVERIFY(WaitFor([&] { return rig->HasStopped(); }));
    QTest::qWait(0);
    delete progress;
}

QTEST_GUILESS_MAIN(TestTransferProgress)
#include "tst_transferprogress.moc"
