#include "allocationfailure.h"
#include "droppedrights.h"
#include "logcapture.h"
#include "loopticker.h"
#include "quietperiod.h"
#include "signaltrace.h"
#include "treebuilder.h"
#include "wiringguard.h"

#include "filescantask.h"

#include <kxupdater/filescanner.h>

#include <QMetaType>
#include <QRegularExpression>
#include <QTest>
#include <QThread>

#include <sys/stat.h>
#include <sys/types.h>

#include <memory>

using kxtest::TreeBuilder;
using updater::File;
using updater::FileList;
using updater::FileScanner;
using updater::FileScanTask;

namespace {

constexpr int waitMs = 60000;
// Hashing this takes minutes: a scan that must be ended is still running when it is.
constexpr qint64 endless = 256LL << 30;

QStringList TextOf(const FileList& files)
{
    QStringList lines;
    for (const File& file : files) {
        lines << QStringList{file.Name(), file.MD5(), QString::number(file.Size()),
                             file.PermissionsString(), file.SymlinkPath()}
                     .join('|');
    }
    return lines;
}

QStringList Sorted(QStringList lines)
{
    lines.sort();
    return lines;
}

QString FileLine(const QString& name, const QByteArray& bytes)
{
    return QStringLiteral("%1|%2|%3||")
        .arg(name, kxtest::MD5Of(bytes), QString::number(bytes.size()));
}

QString LinkLine(const QString& name, const QString& target)
{
    return QStringLiteral("%1|%2|%3||%4")
        .arg(name, kxtest::MD5Of(target.toUtf8()), QString::number(target.size()), target);
}

QString FailureLine(int code, const QString& root)
{
    return QStringLiteral("failed(%1, Scanning path '%2' failed with error '%1'!)")
        .arg(code)
        .arg(root);
}

struct Scan
{
    explicit Scan(const QString& root) : scanner(std::make_unique<FileScanner>(root)) {}

    QStringList Outcome()
    {
        if (!QTest::qWaitFor([this] { return !trace.Lines().isEmpty(); }, waitMs))
            return {"(nothing)"};
        return trace.Lines();
    }

    QStringList Run()
    {
        if (!scanner->Scan())
            return {"(not started)"};
        return Outcome();
    }

    // Waits until the walk has begun.
    bool Begun() const
    {
        return QTest::qWaitFor(
            [this] {
                return log.Contains("updater.filescan 6 Start scanning path '" + scanner->Path() +
                                    "'...");
            },
            waitMs);
    }

    kxtest::LogCapture log;
    std::unique_ptr<FileScanner> scanner;
    kxtest::SignalTrace trace{scanner.get()};
};

} // namespace

/** The scanner of directory trees. */
class TestFileScanner : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { kxtest::FailOnWiringWarnings(); }

    void TreeBecomesRecords();
    void MissingRootSucceedsWithEmptyList();
    void EmptyDirectoriesLeaveNoRecord();
    void HiddenEntriesAreSkipped();
    void LinksAreRecordedAndNeverFollowed_data();
    void LinksAreRecordedAndNeverFollowed();
    void LinkSizeCountsCharactersAndDigestBytes();
    void RootGivenThroughALinkIsScanned();
    void RootInOtherSpellingGivesTheSameNames_data();
    void RootInOtherSpellingGivesTheSameNames();
    void LargeFileIsHashedInPieces();
    void EmptyFileHasTheDigestOfNothing();
    void NamesKeepTheirLetters();
    void ResultIsDepthFirst();
    void UnreadableEntriesFailTheScan_data();
    void UnreadableEntriesFailTheScan();
    void SpecialFilesFailTheScanUnopened_data();
    void SpecialFilesFailTheScanUnopened();
    void ScanIsLoggedStepByStep();
    void FailureIsLogged();
    void WalkRunsInAThreadAndSignalsArriveInTheOwners();
    void SignalsNeverComeFromInsideScan();
    void EventLoopRunsDuringAScan();
    void FilesAreEmptyUntilTheScanSucceeds();
    void ScanCanBeRepeated();
    void SecondScanReplacesTheFirst();
    void SecondScanDropsAResultUnderWay_data();
    void SecondScanDropsAResultUnderWay();
    void RunningScanKeepsItsRoot();
    void ForcedAbortStopsTheWalk();
    void ForcedAbortInTheMiddleOfATreeStopsAtTheNextEntry();
    void UnforcedAbortWaitsForTheResult();
    void AbortWithoutScanDoesNothing();
    void AbortTwiceIsHarmless();
    void DeletionEndsTheScanSilently();
    void DeletionInsideASignalIsSafe_data();
    void DeletionInsideASignalIsSafe();
    void ScanFromInsideASignalStartsAnew_data();
    void ScanFromInsideASignalStartsAnew();
    void TaskThatCannotBeCreatedFails();
    void TaskWithoutThreadFails();
    void ScannerWithoutThreadFailsThroughTheQueue();
    void ListTypeIsRegisteredByTheFirstScan();
    void ManyScansLeaveNothingBehind();
    void PublishedMethodsAreInvokable();
};

void TestFileScanner::TreeBecomesRecords()
{
    TreeBuilder tree;
    tree.File("bin/app", "program", 0755)
        .File("readme.txt", "text", 0400)
        .File("bin/deep/er/x", "y")
        .Dir("empty")
        .Symlink("current", "bin/app")
        .Symlink("bin/up", "../readme.txt");
    Scan scan(tree.Root());
    QCOMPARE(scan.Run(), QStringList{"succesed()"});
    QCOMPARE(Sorted(TextOf(scan.scanner->Files())),
             Sorted({FileLine("bin/app", "program"), FileLine("readme.txt", "text"),
                     FileLine("bin/deep/er/x", "y"), LinkLine("current", "bin/app"),
                     LinkLine("bin/up", "../readme.txt")}));
}

void TestFileScanner::MissingRootSucceedsWithEmptyList()
{
    TreeBuilder tree;
    Scan scan(tree.Path("none"));
    QCOMPARE(scan.Run(), QStringList{"succesed()"});
    QVERIFY(scan.scanner->Files().isEmpty());
    QVERIFY(
        scan.log.Contains("updater.filescan 4 Path '" + tree.Path("none") + "' doesn't exists!"));
}

void TestFileScanner::EmptyDirectoriesLeaveNoRecord()
{
    TreeBuilder tree;
    tree.Dir("a/b/c").Dir("d");
    Scan scan(tree.Root());
    QCOMPARE(scan.Run(), QStringList{"succesed()"});
    QCOMPARE(TextOf(scan.scanner->Files()), QStringList{});
    tree.File("d/file", "x");
    scan.trace.Clear();
    QCOMPARE(scan.Run(), QStringList{"succesed()"});
    QCOMPARE(TextOf(scan.scanner->Files()), QStringList{FileLine("d/file", "x")});
}

void TestFileScanner::HiddenEntriesAreSkipped()
{
    TreeBuilder tree;
    tree.File(".hidden", "x")
        .File(".directory/file", "x")
        .Symlink(".link", "shown")
        .File("shown", "x")
        .File("dir/.inner", "x");
    Scan scan(tree.Root());
    QCOMPARE(scan.Run(), QStringList{"succesed()"});
    QCOMPARE(TextOf(scan.scanner->Files()), QStringList{FileLine("shown", "x")});
}

void TestFileScanner::LinksAreRecordedAndNeverFollowed_data()
{
    QTest::addColumn<QString>("link");
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("target");

    QTest::newRow("to a file") << "l"
                               << "dir/file"
                               << "dir/file";
    QTest::newRow("to a directory") << "l"
                                    << "dir"
                                    << "dir";
    QTest::newRow("to nothing") << "l"
                                << "missing/entry"
                                << "missing/entry";
    QTest::newRow("to itself") << "l"
                               << "l"
                               << "l";
    QTest::newRow("to its own directory") << "sub/l"
                                          << "."
                                          << ".";
    QTest::newRow("upwards") << "sub/l"
                             << "../dir/file"
                             << "../dir/file";
    QTest::newRow("out of the tree") << "l"
                                     << "../../elsewhere"
                                     << "../../elsewhere";
    QTest::newRow("through its own directory") << "l"
                                               << "./dir/file"
                                               << "dir/file";
    QTest::newRow("one character") << "l"
                                   << "x"
                                   << "x";
    QTest::newRow("blanks and letters")
        << "l" << QString::fromUtf8("größe 文件") << QString::fromUtf8("größe 文件");
    QTest::newRow("absolute, into the tree") << "sub/l"
                                             << "ROOT/dir/file"
                                             << "../dir/file";
}

void TestFileScanner::LinksAreRecordedAndNeverFollowed()
{
    QFETCH(QString, link);
    QFETCH(QString, text);
    QFETCH(QString, target);
    TreeBuilder tree;
    tree.File("dir/file", "x").Dir("sub").Symlink(link, text.replace("ROOT", tree.Root()));
    Scan scan(tree.Root());
    QCOMPARE(scan.Run(), QStringList{"succesed()"});
    QCOMPARE(Sorted(TextOf(scan.scanner->Files())),
             Sorted({FileLine("dir/file", "x"), LinkLine(link, target)}));
    QVERIFY2(scan.log.Contains(QStringLiteral("updater.filescan 7 Found symlink: '%1' -> '%2', "
                                              "size=%3, md5='%4'.")
                                   .arg(link, target)
                                   .arg(target.size())
                                   .arg(kxtest::MD5Of(target.toUtf8()))),
             qPrintable(scan.log.Lines().join('\n')));
}

void TestFileScanner::LinkSizeCountsCharactersAndDigestBytes()
{
    TreeBuilder tree;
    const QString target = QString::fromUtf8("ä🎉");
    tree.Symlink("l", target);
    Scan scan(tree.Root());
    QCOMPARE(scan.Run(), QStringList{"succesed()"});
    const File file = scan.scanner->Files().value(0);
    QCOMPARE(file.Size(), quint64(3));
    QCOMPARE(file.MD5(), kxtest::MD5Of("\xc3\xa4\xf0\x9f\x8e\x89"));
    QVERIFY(file.IsSymlink());
}

void TestFileScanner::RootGivenThroughALinkIsScanned()
{
    TreeBuilder tree;
    tree.File("real/dir/file", "x").Symlink("root", "real");
    Scan scan(tree.Path("root"));
    QCOMPARE(scan.Run(), QStringList{"succesed()"});
    QCOMPARE(TextOf(scan.scanner->Files()), QStringList{FileLine("dir/file", "x")});
}

void TestFileScanner::RootInOtherSpellingGivesTheSameNames_data()
{
    QTest::addColumn<QString>("suffix");

    QTest::newRow("separator at the end") << "/";
    QTest::newRow("two separators") << "//";
    QTest::newRow("own directory") << "/.";
    QTest::newRow("there and back") << "/dir/..";
}

void TestFileScanner::RootInOtherSpellingGivesTheSameNames()
{
    QFETCH(QString, suffix);
    TreeBuilder tree;
    tree.File("dir/file", "x").Symlink("dir/l", "file");
    Scan scan(tree.Root() + suffix);
    QCOMPARE(scan.Run(), QStringList{"succesed()"});
    QCOMPARE(Sorted(TextOf(scan.scanner->Files())),
             Sorted({FileLine("dir/file", "x"), LinkLine("dir/l", "file")}));
}

void TestFileScanner::LargeFileIsHashedInPieces()
{
    TreeBuilder tree;
    const QByteArray bytes = kxtest::RandomBytes(5'000'001, 1);
    tree.File("big", bytes);
    Scan scan(tree.Root());
    QCOMPARE(scan.Run(), QStringList{"succesed()"});
    QCOMPARE(TextOf(scan.scanner->Files()), QStringList{FileLine("big", bytes)});
}

void TestFileScanner::EmptyFileHasTheDigestOfNothing()
{
    TreeBuilder tree;
    tree.File("empty", {});
    Scan scan(tree.Root());
    QCOMPARE(scan.Run(), QStringList{"succesed()"});
    QCOMPARE(TextOf(scan.scanner->Files()),
             QStringList{"empty|d41d8cd98f00b204e9800998ecf8427e|0||"});
}

void TestFileScanner::NamesKeepTheirLetters()
{
    TreeBuilder tree;
    const QStringList names{"a b",   "A",   "a",    QString::fromUtf8("größe"),
                            "%1 %s", "'\"", "a\\b", QString::fromUtf8("dir 文/🎉")};
    QStringList expected;
    for (const QString& name : names) {
        tree.File(name, name.toUtf8());
        expected << FileLine(name, name.toUtf8());
    }
    Scan scan(tree.Root());
    QCOMPARE(scan.Run(), QStringList{"succesed()"});
    QCOMPARE(Sorted(TextOf(scan.scanner->Files())), Sorted(expected));
}

void TestFileScanner::ResultIsDepthFirst()
{
    TreeBuilder tree;
    for (int i = 0; i < 5; ++i) {
        tree.File(QStringLiteral("d%1/a").arg(i), "x").File(QStringLiteral("d%1/s/b").arg(i), "x");
        tree.File(QStringLiteral("f%1").arg(i), "x");
    }
    Scan scan(tree.Root());
    QCOMPARE(scan.Run(), QStringList{"succesed()"});
    QStringList tops;
    for (const File& file : scan.scanner->Files())
        tops << file.Name().section('/', 0, 0);
    QCOMPARE(tops.size(), 15);
    // What belongs to one entry of the root stands together.
    for (int i = 1; i < tops.size(); ++i)
        QVERIFY2(tops.at(i) == tops.at(i - 1) || !tops.mid(0, i).contains(tops.at(i)),
                 qPrintable(tops.join(' ')));
}

void TestFileScanner::UnreadableEntriesFailTheScan_data()
{
    QTest::addColumn<QString>("entry");
    QTest::addColumn<int>("mode");

    QTest::newRow("file") << "dir/sub/secret" << 0;
    QTest::newRow("file that may be written only") << "dir/sub/secret" << 0222;
    QTest::newRow("directory without rights") << "dir/sub" << 0;
    QTest::newRow("directory that cannot be listed") << "dir/sub" << 0311;
}

void TestFileScanner::UnreadableEntriesFailTheScan()
{
    QFETCH(QString, entry);
    QFETCH(int, mode);
    TreeBuilder tree;
    tree.File("a", "x").File("dir/sub/secret", "x").File("z", "x");
    kxtest::SetMode(tree.Root(), 0755);
    kxtest::SetMode(tree.Path(entry), mode);
    Scan scan(tree.Root());
    {
        const kxtest::DroppedRights rights;
        QCOMPARE(scan.Run(), QStringList{FailureLine(600302, tree.Root())});
    }
    QVERIFY(scan.scanner->Files().isEmpty());
    kxtest::SetMode(tree.Path(entry), 0755);
}

void TestFileScanner::SpecialFilesFailTheScanUnopened_data()
{
    QTest::addColumn<bool>("device");

    QTest::newRow("pipe") << false;
    QTest::newRow("device through a link is a link") << true;
}

void TestFileScanner::SpecialFilesFailTheScanUnopened()
{
    QFETCH(bool, device);
    TreeBuilder tree;
    if (device)
        tree.Symlink("special", "/dev/zero");
    else
        QCOMPARE(mkfifo(qPrintable(tree.Path("special")), 0644), 0);
    // A pipe that is opened has nobody at its other end: the scan would never come back.
    Scan scan(tree.Root());
    QCOMPARE(scan.Run(),
             QStringList{device ? QString("succesed()") : FailureLine(600302, tree.Root())});
}

void TestFileScanner::ScanIsLoggedStepByStep()
{
    TreeBuilder tree;
    tree.File("a", "x").File("b", "x");
    Scan scan(tree.Root());
    QCOMPARE(scan.Run(), QStringList{"succesed()"});
    QStringList lines = scan.log.Lines();
    lines.replaceInStrings(QRegularExpression("in \\d+ msec"), "in N msec");
    QCOMPARE(lines, (QStringList{"updater.filescan 7 Scan",
                                 "updater.filescan 6 Start scanning path '" + tree.Root() + "'...",
                                 "updater.filescan 6 Scanning path '" + tree.Root() +
                                     "' finished in N msec, found 2 files.",
                                 "updater.filescan 7 Scan finished. Found 2 files."}));
    QStringList functions;
    for (const kxtest::LogRecord& record : scan.log.Records())
        functions << record.function;
    QCOMPARE(functions,
             (QStringList{"updater::FileScanner::Scan", "updater::FileScanTask::run",
                          "updater::FileScanTask::run", "updater::FileScanner::OnSuccessed"}));
}

void TestFileScanner::FailureIsLogged()
{
    TreeBuilder tree;
    QCOMPARE(mkfifo(qPrintable(tree.Path("pipe")), 0644), 0);
    Scan scan(tree.Root());
    QCOMPARE(scan.Run(), QStringList{FailureLine(600302, tree.Root())});
    QCOMPARE(scan.log.Lines(),
             (QStringList{"updater.filescan 7 Scan",
                          "updater.filescan 6 Start scanning path '" + tree.Root() + "'...",
                          "updater.filescan 3 Scanning path '" + tree.Root() +
                              "' failed with error '600302'!"}));
}

void TestFileScanner::WalkRunsInAThreadAndSignalsArriveInTheOwners()
{
    TreeBuilder tree;
    tree.Symlink("l", "x");
    Scan scan(tree.Root());
    QThread* arriving = nullptr;
    connect(
        scan.scanner.get(), &FileScanner::succesed, scan.scanner.get(),
        [&] { arriving = QThread::currentThread(); }, Qt::DirectConnection);
    QCOMPARE(scan.Run(), QStringList{"succesed()"});
    QCOMPARE(arriving, QThread::currentThread());
    const Qt::HANDLE own = QThread::currentThreadId();
    for (const kxtest::LogRecord& record : scan.log.Records()) {
        const bool inTask = record.function.startsWith("updater::FileScanTask::");
        QCOMPARE(record.thread != own, inTask);
    }
}

void TestFileScanner::SignalsNeverComeFromInsideScan()
{
    TreeBuilder tree;
    Scan scan(tree.Path("none"));
    QVERIFY(scan.scanner->Scan());
    QCOMPARE(scan.trace.Lines(), QStringList{});
    scan.scanner->Abort(false);
    QCOMPARE(scan.trace.Lines(), QStringList{});
    QCOMPARE(scan.Outcome(), QStringList{"succesed()"});
}

void TestFileScanner::EventLoopRunsDuringAScan()
{
    TreeBuilder tree;
    tree.Sparse("big", endless);
    Scan scan(tree.Root());
    QVERIFY(scan.scanner->Scan());
    QVERIFY(scan.Begun());
    kxtest::LoopTicker ticker;
    QTRY_VERIFY_WITH_TIMEOUT(ticker.Ticks() > 100, waitMs);
    QCOMPARE(scan.trace.Lines(), QStringList{});
    scan.scanner->Abort(true);
}

void TestFileScanner::FilesAreEmptyUntilTheScanSucceeds()
{
    TreeBuilder tree;
    tree.File("a", "x");
    Scan scan(tree.Root());
    QVERIFY(scan.scanner->Files().isEmpty());
    QCOMPARE(scan.Run(), QStringList{"succesed()"});
    QCOMPARE(scan.scanner->Files().size(), 1);
    QVERIFY(scan.scanner->Scan());
    QVERIFY(scan.scanner->Files().isEmpty());
    QTRY_COMPARE_WITH_TIMEOUT(scan.scanner->Files().size(), 1, waitMs);
    // A failed scan leaves nothing of the one before.
    QCOMPARE(mkfifo(qPrintable(tree.Path("pipe")), 0644), 0);
    scan.trace.Clear();
    QCOMPARE(scan.Run(), QStringList{FailureLine(600302, tree.Root())});
    QVERIFY(scan.scanner->Files().isEmpty());
}

void TestFileScanner::ScanCanBeRepeated()
{
    TreeBuilder tree;
    Scan scan(tree.Root());
    for (int i = 0; i < 10; ++i) {
        tree.File(QString::number(i), "x");
        scan.trace.Clear();
        QCOMPARE(scan.Run(), QStringList{"succesed()"});
        QCOMPARE(scan.scanner->Files().size(), i + 1);
    }
}

void TestFileScanner::SecondScanReplacesTheFirst()
{
    TreeBuilder slow;
    slow.Sparse("big", endless);
    TreeBuilder quick;
    quick.File("a", "x");
    Scan scan(slow.Root());
    QVERIFY(scan.scanner->Scan());
    QVERIFY(scan.Begun());
    scan.scanner->SetPath(quick.Root());
    QVERIFY(scan.scanner->Scan());
    QVERIFY(scan.log.Contains("updater.filescan 7 Waiting for the completion of the scanning "
                              "thread..."));
    QVERIFY(scan.log.Contains("updater.filescan 7 Wait finished!"));
    QCOMPARE(scan.Outcome(), QStringList{"succesed()"});
    QCOMPARE(TextOf(scan.scanner->Files()), QStringList{FileLine("a", "x")});
    kxtest::PassTimersOf(20);
    QCOMPARE(scan.trace.Lines(), QStringList{"succesed()"});
}

void TestFileScanner::SecondScanDropsAResultUnderWay_data()
{
    QTest::addColumn<bool>("abort");
    QTest::addColumn<bool>("force");

    QTest::newRow("without Abort") << false << false;
    QTest::newRow("after Abort(false)") << true << false;
    QTest::newRow("after Abort(true)") << true << true;
}

void TestFileScanner::SecondScanDropsAResultUnderWay()
{
    QFETCH(bool, abort);
    QFETCH(bool, force);
    TreeBuilder first;
    first.File("a", "x");
    TreeBuilder second;
    second.File("b", "x").File("c", "x");
    Scan scan(first.Root());
    QVERIFY(scan.scanner->Scan());
    // The walk ends while the loop does not run, so its result waits in the queue.
    while (!scan.log.Lines().last().contains("found 1 files."))
        QThread::yieldCurrentThread();
    if (abort)
        scan.scanner->Abort(force);
    scan.scanner->SetPath(second.Root());
    QVERIFY(scan.scanner->Scan());
    QTRY_COMPARE_WITH_TIMEOUT(scan.scanner->Files().size(), 2, waitMs);
    kxtest::PassTimersOf(20);
    QCOMPARE(scan.trace.Lines(), QStringList{"succesed()"});
    QCOMPARE(scan.log.Count("updater.filescan 7 Scan finished. Found 1 files."), 0);
}

void TestFileScanner::RunningScanKeepsItsRoot()
{
    TreeBuilder tree;
    tree.File("a", "x");
    Scan scan(tree.Root());
    QVERIFY(scan.scanner->Scan());
    scan.scanner->SetPath("/elsewhere");
    QCOMPARE(scan.scanner->Path(), QString("/elsewhere"));
    QCOMPARE(scan.Outcome(), QStringList{"succesed()"});
    QCOMPARE(TextOf(scan.scanner->Files()), QStringList{FileLine("a", "x")});
}

void TestFileScanner::ForcedAbortStopsTheWalk()
{
    TreeBuilder tree;
    tree.Sparse("big", endless).Sparse("big2", endless);
    Scan scan(tree.Root());
    QVERIFY(scan.scanner->Scan());
    QVERIFY(scan.Begun());
    scan.scanner->Abort(true);
    // Abort() drops nothing: what the walk reported on its way out still comes.
    QCOMPARE(scan.Outcome(), QStringList{FailureLine(600303, tree.Root())});
    QVERIFY(scan.log.Contains("updater.filescan 7 user abort detected!"));
    QVERIFY(scan.log.Contains("updater.filescan 3 Scanning path '" + tree.Root() +
                              "' failed with error '600303'!"));
    QVERIFY(scan.scanner->Files().isEmpty());
}

void TestFileScanner::ForcedAbortInTheMiddleOfATreeStopsAtTheNextEntry()
{
    TreeBuilder tree;
    constexpr int count = 3000;
    for (int i = 0; i < count; ++i)
        tree.Symlink(QStringLiteral("d%1/l%2").arg(i % 50).arg(i), "target");
    Scan scan(tree.Root());
    QVERIFY(scan.scanner->Scan());
    while (scan.log.Records().size() < 10)
        QThread::yieldCurrentThread();
    scan.scanner->Abort(true);
    const QStringList outcome = scan.Outcome();
    // On a stalled machine the walk may win the race; it must never lose its result.
    if (outcome != QStringList{"succesed()"})
        QCOMPARE(outcome, QStringList{FailureLine(600303, tree.Root())});
    else
        QCOMPARE(scan.scanner->Files().size(), count);
}

void TestFileScanner::UnforcedAbortWaitsForTheResult()
{
    TreeBuilder tree;
    tree.Sparse("big", 200 << 20);
    Scan scan(tree.Root());
    QVERIFY(scan.scanner->Scan());
    scan.scanner->Abort(false);
    QVERIFY(scan.log.Lines().contains("updater.filescan 7 Wait finished!"));
    QCOMPARE(scan.trace.Lines(), QStringList{});
    QCOMPARE(scan.Outcome(), QStringList{"succesed()"});
    QCOMPARE(scan.scanner->Files().size(), 1);
}

void TestFileScanner::AbortWithoutScanDoesNothing()
{
    Scan scan("/nowhere");
    scan.scanner->Abort(true);
    scan.scanner->Abort(false);
    kxtest::PassTimersOf(20);
    QCOMPARE(scan.trace.Lines(), QStringList{});
    QCOMPARE(scan.log.Lines(), QStringList{});
}

void TestFileScanner::AbortTwiceIsHarmless()
{
    TreeBuilder tree;
    tree.Sparse("big", endless);
    Scan scan(tree.Root());
    QVERIFY(scan.scanner->Scan());
    QVERIFY(scan.Begun());
    scan.scanner->Abort(true);
    scan.scanner->Abort(true);
    QCOMPARE(scan.Outcome(), QStringList{FailureLine(600303, tree.Root())});
    kxtest::PassTimersOf(20);
    QCOMPARE(scan.trace.Lines().size(), 1);
}

void TestFileScanner::DeletionEndsTheScanSilently()
{
    TreeBuilder tree;
    tree.Sparse("big", endless);
    Scan scan(tree.Root());
    QVERIFY(scan.scanner->Scan());
    QVERIFY(scan.Begun());
    scan.scanner.reset();
    QVERIFY(scan.log.Contains("updater.filescan 7 Wait finished!"));
    kxtest::PassTimersOf(20);
    QCOMPARE(scan.trace.Lines(), QStringList{});
}

void TestFileScanner::DeletionInsideASignalIsSafe_data()
{
    QTest::addColumn<bool>("fails");

    QTest::newRow("succesed") << false;
    QTest::newRow("failed") << true;
}

void TestFileScanner::DeletionInsideASignalIsSafe()
{
    QFETCH(bool, fails);
    TreeBuilder tree;
    tree.File("a", "x");
    if (fails)
        QCOMPARE(mkfifo(qPrintable(tree.Path("pipe")), 0644), 0);
    Scan scan(tree.Root());
    scan.trace.SetHook([&](const QString&) { scan.scanner.reset(); });
    QVERIFY(scan.scanner->Scan());
    QCOMPARE(scan.Outcome().size(), 1);
    QVERIFY(!scan.scanner);
    kxtest::PassTimersOf(20);
    QCOMPARE(scan.trace.Lines().size(), 1);
}

void TestFileScanner::ScanFromInsideASignalStartsAnew_data()
{
    DeletionInsideASignalIsSafe_data();
}

void TestFileScanner::ScanFromInsideASignalStartsAnew()
{
    QFETCH(bool, fails);
    TreeBuilder tree;
    tree.File("a", "x");
    if (fails)
        QCOMPARE(mkfifo(qPrintable(tree.Path("pipe")), 0644), 0);
    Scan scan(tree.Root());
    scan.trace.SetHook([&](const QString&) {
        if (scan.trace.Lines().size() < 3)
            QVERIFY(scan.scanner->Scan());
    });
    QVERIFY(scan.scanner->Scan());
    const QString outcome = fails ? FailureLine(600302, tree.Root()) : QString("succesed()");
    QTRY_COMPARE_WITH_TIMEOUT(scan.trace.Lines(), (QStringList{outcome, outcome, outcome}), waitMs);
}

void TestFileScanner::TaskThatCannotBeCreatedFails()
{
    TreeBuilder tree;
    tree.File("a", "x");
    Scan scan(tree.Root());
    {
        auto failure = kxtest::AllocationFailure::Of<FileScanTask>();
        QVERIFY(!scan.scanner->Scan());
        QVERIFY(failure.Failures() > 0);
    }
    QCOMPARE(scan.trace.Lines(), QStringList{"failed(600301, Failed to create scan task!)"});
    QCOMPARE(scan.log.Lines(), (QStringList{"updater.filescan 7 Scan",
                                            "updater.filescan 2 Failed to create scan task!"}));
    scan.trace.Clear();
    QCOMPARE(scan.Run(), QStringList{"succesed()"});
}

void TestFileScanner::TaskWithoutThreadFails()
{
    kxtest::LogCapture log;
    std::unique_ptr<FileScanTask> task;
    {
        auto failure = kxtest::AllocationFailure::Of<QThread>();
        task = std::make_unique<FileScanTask>("/nowhere");
        QCOMPARE(failure.Failures(), 1);
    }
    QVERIFY(!task->Thread());
    kxtest::SignalTrace trace(task.get());
    task->Scan();
    QCOMPARE(trace.Lines(), QStringList{"failed(600304, Thread variable is NULL!)"});
    QCOMPARE(log.Lines(), QStringList{"updater.filescan 3 Thread variable is NULL!"});
    task->Abort(true);
}

void TestFileScanner::ScannerWithoutThreadFailsThroughTheQueue()
{
    TreeBuilder tree;
    tree.File("a", "x");
    Scan scan(tree.Root());
    {
        // Only the first one: what the scanner makes next may be of the same size.
        auto failure = kxtest::AllocationFailure::Of<QThread>(1, 1);
        QVERIFY(scan.scanner->Scan());
        QCOMPARE(failure.Failures(), 1);
    }
    QCOMPARE(scan.trace.Lines(), QStringList{});
    QCOMPARE(scan.Outcome(), QStringList{"failed(600304, Thread variable is NULL!)"});
    scan.trace.Clear();
    QCOMPARE(scan.Run(), QStringList{"succesed()"});
    QCOMPARE(scan.scanner->Files().size(), 1);
}

void TestFileScanner::ListTypeIsRegisteredByTheFirstScan()
{
    Scan scan("/nowhere");
    scan.scanner->Scan();
    const QMetaType type = QMetaType::fromName("updater::FileList");
    QVERIFY(type.isValid());
    QCOMPARE(type, QMetaType::fromType<FileList>());
    QCOMPARE(QMetaType::fromName("QList<updater::File>"), type);
    QCOMPARE(scan.Outcome(), QStringList{"succesed()"});
}

void TestFileScanner::ManyScansLeaveNothingBehind()
{
    TreeBuilder tree;
    for (int i = 0; i < 50; ++i)
        tree.File(QString::number(i), "x");
    Scan scan(tree.Root());
    for (int i = 0; i < 200; ++i) {
        QVERIFY(scan.scanner->Scan());
        if (i % 3 == 0)
            scan.scanner->Abort(i % 2);
        if (i % 7 == 0)
            QCoreApplication::processEvents();
    }
    scan.trace.Clear();
    QVERIFY(scan.scanner->Scan());
    QTRY_COMPARE_WITH_TIMEOUT(scan.scanner->Files().size(), 50, waitMs);
    kxtest::PassTimersOf(20);
    QCOMPARE(scan.trace.Lines(), QStringList{"succesed()"});
}

void TestFileScanner::PublishedMethodsAreInvokable()
{
    FileScanner scanner;
    QCOMPARE(scanner.Path(), QString());
    QCOMPARE(scanner.parent(), nullptr);
    const QMetaObject& meta = FileScanner::staticMetaObject;
    QStringList signatures;
    for (int i = meta.methodOffset(); i < meta.methodCount(); ++i)
        signatures << meta.method(i).methodSignature();
    QCOMPARE(signatures, (QStringList{"succesed()", "failed(int,QString)",
                                      "OnSuccessed(updater::FileList)", "Scan()", "Abort(bool)"}));
    TreeBuilder tree;
    tree.File("a", "x");
    scanner.SetPath(tree.Root());
    kxtest::SignalTrace trace(&scanner);
    bool started = false;
    QVERIFY(QMetaObject::invokeMethod(&scanner, "Scan", Q_RETURN_ARG(bool, started)));
    QVERIFY(started);
    QVERIFY(QMetaObject::invokeMethod(&scanner, "Abort", Q_ARG(bool, false)));
    QTRY_COMPARE_WITH_TIMEOUT(trace.Lines(), QStringList{"succesed()"}, waitMs);
}

QTEST_GUILESS_MAIN(TestFileScanner)
#include "tst_filescanner.moc"
