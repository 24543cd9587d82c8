#include "droppedrights.h"
#include "fileops.h"
#include "filerun.h"
#include "stephook.h"
#include "treebuilder.h"
#include "wiringguard.h"

#include <kxcommon/errors.h>
#include <kxcommon/filecopier.h>

#include <QDir>
#include <QFileInfo>
#include <QTest>

#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <filesystem>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

using common::FileCopier;
using common::fileops::Step;
using kxtest::FileRun;
using kxtest::TreeBuilder;

namespace {

FileRun CopyDirectory(const QString& source, const QString& destination)
{
    FileCopier copier;
    copier.AddDirectory(source, destination);
    return kxtest::RunToEnd(copier, &FileCopier::Copy);
}

std::filesystem::file_time_type Time(const QString& path)
{
    return std::filesystem::last_write_time(path.toStdString());
}

void SetOldTime(const QString& path)
{
    std::filesystem::last_write_time(path.toStdString(), Time(path) - std::chrono::hours(1000) +
                                                             std::chrono::nanoseconds(123456789));
}

void FillSource(TreeBuilder& tree)
{
    tree.File("in/.hidden/.x", "h").RandomFile("in/big", 400000, 1).File("in/bin/app", "a", 0755);
    tree.File("in/empty", {}).Dir("in/none").Symlink("in/bin/link", "app");
    tree.Symlink("in/dangling", "no/where").Symlink("in/abs", "/usr");
    tree.Symlink("in/none/up", "../..").File("in/ro/f", "r", 0444);
}

} // namespace

class TestCopyTree : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void init() { kxtest::FailOnWiringWarnings(); }

    void TreeIsCopied_data();
    void TreeIsCopied();
    void ModesAndTimesAreKept();
    void SetIdBitsStayWithTheirOwner();
    void ReadOnlyDirectoriesAreCopied();
    void EmptyTreeIsCopied();
    void SourceMayBeALink();
    void DestinationIsAbsentUntilItIsWhole();
    void LeftoverOfAnEarlierRunIsRemoved_data();
    void LeftoverOfAnEarlierRunIsRemoved();
    void FailureLeavesNothing_data();
    void FailureLeavesNothing();
    void NothingIsReplacedThatCameMeanwhile();
    void EverythingIsBroughtToDisk();
    void ManyEntriesAreBroughtToDiskAtOnce();
    void FileAndLinkAtDestinationAreReplaced();
    void BadSourceIsAFailure_data();
    void BadSourceIsAFailure();
    void BadDestinationIsAFailure_data();
    void BadDestinationIsAFailure();
    void SpecialFilesAreFailuresAndNotOpened();
    void OverlapIsAFailure_data();
    void OverlapIsAFailure();
    void NeighboursAreNoOverlap();
    void ExistingDirectoryIsCopiedInto();
    void ExistingLinksAreReplacedAndNotFollowed();
    void DirectoryInTheWayOfAFileIsAFailure();
    void ReadOnlyDestinationDirectoriesAreCopiedInto();
    void HiddenNamesOfTheSourceSurviveAMerge();
    void SourceDirectorySwappedForALinkIsNotFollowed();
    void FullDiskLeavesNothing();
    void UnreadableSourceIsAFailureWithAReason();
    void KilledRunLeavesDestinationAbsentOrWhole_data();
    void KilledRunLeavesDestinationAbsentOrWhole();
    void NamesOfAllKindsAreKept();
    void PathsLongerThanOneCallTakes();
    void ManySmallFiles();
};

void TestCopyTree::TreeIsCopied_data()
{
    QTest::addColumn<QString>("source");
    QTest::addColumn<QString>("destination");
    QTest::newRow("plain") << "in"
                           << "out";
    QTest::newRow("separators at the end") << "in//"
                                           << "out///";
    QTest::newRow("dots at the end") << "in/."
                                     << "out/./";
    QTest::newRow("missing parents") << "in"
                                     << "x/y/z/out";
    QTest::newRow("uncleaned") << "in/../in"
                               << "in//..//out";
    QTest::newRow("name of 255 bytes") << "in" << QString(255, 'n');
}

void TestCopyTree::TreeIsCopied()
{
    QFETCH(const QString, source);
    QFETCH(const QString, destination);
    for (const bool isRoot : {true, false}) {
        std::unique_ptr<kxtest::DroppedRights> dropped;
        if (!isRoot)
            dropped = std::make_unique<kxtest::DroppedRights>();
        TreeBuilder tree;
        FillSource(tree);
        const mode_t mask = umask(027);
        const FileRun run = CopyDirectory(tree.Path(source), tree.Path(destination));
        umask(mask);
        QVERIFY2(run.IsGood(), qPrintable(run.Line()));
        QVERIFY(kxtest::IsSound(run.progress));
        QVERIFY(!run.isFromInside);
        QVERIFY(!run.isElsewhere);
        QCOMPARE(kxtest::Snapshot(tree.Path(destination)), kxtest::Snapshot(tree.Path("in")));
        const QString parent = QFileInfo(QDir::cleanPath(tree.Path(destination))).path();
        const QStringList all =
            QDir(parent).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot);
        QVERIFY2(all.filter("kxnew").isEmpty(), qPrintable(all.join(' ')));
    }
}

void TestCopyTree::ModesAndTimesAreKept()
{
    TreeBuilder tree;
    QStringList names;
    for (const int mode : {0700, 0755, 0775, 0777, 0711, 0500, 0555}) {
        const QString name = QStringLiteral("in/d%1").arg(mode, 0, 8);
        tree.File(name + "/f", "x", mode).Dir(name, mode);
        names << name << name + "/f";
    }
    names << "in";
    for (const QString& name : names)
        SetOldTime(tree.Path(name));
    kxtest::SetMode(tree.Path("in"), 0751);
    const mode_t mask = umask(077);
    const FileRun run = CopyDirectory(tree.Path("in"), tree.Path("out"));
    umask(mask);
    QVERIFY2(run.IsGood(), qPrintable(run.Line()));
    for (const QString& name : names) {
        const QString copy = "out" + name.mid(2);
        QCOMPARE(kxtest::Mode(tree.Path(copy)), kxtest::Mode(tree.Path(name)));
        QVERIFY2(Time(tree.Path(copy)) == Time(tree.Path(name)), qPrintable(name));
    }
}

void TestCopyTree::SetIdBitsStayWithTheirOwner()
{
    TreeBuilder tree;
    tree.File("in/helper", "x");
    kxtest::SetMode(tree.Path("in/helper"), 06755);
    FileRun run = CopyDirectory(tree.Path("in"), tree.Path("out"));
    QVERIFY2(run.IsGood(), qPrintable(run.Line()));
    QCOMPARE(kxtest::Mode(tree.Path("out/helper")), 06755);
    // Another user's copy must not give away the rights of that user.
    if (geteuid() == 0) {
        kxtest::SetMode(tree.Root(), 0777);
        const kxtest::DroppedRights dropped;
        run = CopyDirectory(tree.Path("in"), tree.Path("foreign"));
        QVERIFY2(run.IsGood(), qPrintable(run.Line()));
        QCOMPARE(kxtest::Mode(tree.Path("foreign/helper")), 0755);
    }
}

void TestCopyTree::ReadOnlyDirectoriesAreCopied()
{
    const kxtest::DroppedRights dropped;
    TreeBuilder tree;
    tree.File("in/a/b/f", "x", 0400).Dir("in/a/b", 0555).Dir("in/a", 0500).Dir("in", 0555);
    SetOldTime(tree.Path("in/a/b"));
    const FileRun run = CopyDirectory(tree.Path("in"), tree.Path("out"));
    QVERIFY2(run.IsGood(), qPrintable(run.Line()));
    QCOMPARE(kxtest::Snapshot(tree.Path("out")), kxtest::Snapshot(tree.Path("in")));
    QCOMPARE(kxtest::Mode(tree.Path("out")), 0555);
    QVERIFY(Time(tree.Path("out/a/b")) == Time(tree.Path("in/a/b")));
    for (const char* name : {"in", "in/a", "in/a/b", "out", "out/a", "out/a/b"})
        kxtest::SetMode(tree.Path(name), 0755);
}

void TestCopyTree::EmptyTreeIsCopied()
{
    TreeBuilder tree;
    tree.Dir("in", 0700);
    const FileRun run = CopyDirectory(tree.Path("in"), tree.Path("out"));
    QVERIFY2(run.IsGood(), qPrintable(run.Line()));
    QVERIFY(kxtest::IsSound(run.progress));
    QCOMPARE(kxtest::Mode(tree.Path("out")), 0700);
    QVERIFY(kxtest::Snapshot(tree.Path("out")).isEmpty());
}

void TestCopyTree::SourceMayBeALink()
{
    TreeBuilder tree;
    FillSource(tree);
    tree.Symlink("link", "in");
    const FileRun run = CopyDirectory(tree.Path("link"), tree.Path("out"));
    QVERIFY2(run.IsGood(), qPrintable(run.Line()));
    QVERIFY(!QFileInfo(tree.Path("out")).isSymLink());
    QCOMPARE(kxtest::Snapshot(tree.Path("out")), kxtest::Snapshot(tree.Path("in")));
}

void TestCopyTree::DestinationIsAbsentUntilItIsWhole()
{
    TreeBuilder tree;
    FillSource(tree);
    const QStringList whole = kxtest::Snapshot(tree.Path("in"));
    std::atomic<int> looks{0};
    std::atomic<bool> isPlaced{false};
    std::atomic<bool> wasWrong{false};
    const kxtest::StepHook hook([&](Step step) {
        if (step == Step::Start)
            return 0;
        ++looks;
        isPlaced = isPlaced || step == Step::Placed;
        if (isPlaced)
            wasWrong = wasWrong || kxtest::Snapshot(tree.Path("out")) != whole;
        else
            wasWrong = wasWrong || kxtest::Exists(tree.Path("out")) ||
                       !kxtest::Exists(tree.Path(".out.kxnew"));
        return 0;
    });
    const FileRun run = CopyDirectory(tree.Path("in"), tree.Path("out"));
    QVERIFY2(run.IsGood(), qPrintable(run.Line()));
    QVERIFY(looks > 20);
    QVERIFY(!wasWrong);
    QVERIFY(!kxtest::Exists(tree.Path(".out.kxnew")));
}

void TestCopyTree::LeftoverOfAnEarlierRunIsRemoved_data()
{
    QTest::addColumn<QString>("kind");
    QTest::newRow("tree") << "tree";
    QTest::newRow("read-only tree") << "read-only";
    QTest::newRow("file") << "file";
    QTest::newRow("link") << "link";
}

void TestCopyTree::LeftoverOfAnEarlierRunIsRemoved()
{
    QFETCH(const QString, kind);
    const kxtest::DroppedRights dropped;
    TreeBuilder tree;
    FillSource(tree);
    tree.File("outside/x", "x");
    if (kind == "file")
        tree.File(".out.kxnew", "x");
    else if (kind == "link")
        tree.Symlink(".out.kxnew", "outside");
    else
        tree.File(".out.kxnew/stale/f", "x");
    if (kind == "read-only")
        tree.Dir(".out.kxnew/stale", 0500).Dir(".out.kxnew", 0500);
    const FileRun run = CopyDirectory(tree.Path("in"), tree.Path("out"));
    QVERIFY2(run.IsGood(), qPrintable(run.Line()));
    QCOMPARE(kxtest::Snapshot(tree.Path("out")), kxtest::Snapshot(tree.Path("in")));
    QVERIFY(!kxtest::Exists(tree.Path(".out.kxnew")));
    QVERIFY(kxtest::Exists(tree.Path("outside/x")));
}

void TestCopyTree::FailureLeavesNothing_data()
{
    QTest::addColumn<int>("step");
    QTest::addColumn<int>("nth");
    QTest::addColumn<int>("number");
    QTest::addColumn<int>("code");
    QTest::newRow("entry") << int(Step::Entry) << 3 << EIO << int(common::CopyWrite);
    QTest::newRow("block") << int(Step::Block) << 2 << EIO << int(common::CopyWrite);
    QTest::newRow("full") << int(Step::Block) << 3 << ENOSPC << int(common::CopyNoSpace);
    QTest::newRow("quota") << int(Step::Block) << 3 << EDQUOT << int(common::CopyNoSpace);
    QTest::newRow("full at the end") << int(Step::Sync) << 4 << ENOSPC << int(common::CopyNoSpace);
    QTest::newRow("attributes") << int(Step::Attributes) << 4 << EPERM
                                << int(common::CopyAttributes);
    QTest::newRow("disk error") << int(Step::Sync) << 2 << EIO << int(common::CopySync);
    QTest::newRow("place") << int(Step::Place) << 1 << EACCES << int(common::CopyPlace);
}

void TestCopyTree::FailureLeavesNothing()
{
    QFETCH(const int, step);
    QFETCH(const int, nth);
    QFETCH(const int, number);
    QFETCH(const int, code);
    TreeBuilder tree;
    FillSource(tree);
    const QStringList before = kxtest::Snapshot(tree.Root());
    const kxtest::StepHook hook(kxtest::StepHook::Failing(static_cast<Step>(step), nth, number));
    const FileRun run = CopyDirectory(tree.Path("in"), tree.Path("out"));
    QVERIFY2(run.HasFailed(code), qPrintable(run.Line()));
    QVERIFY(run.text.contains(tree.Path("in")));
    QVERIFY(run.text.contains(tree.Path("out")));
    QVERIFY2(run.text.contains(qt_error_string(number)), qPrintable(run.text));
    QCOMPARE(kxtest::Snapshot(tree.Root()), before);
}

void TestCopyTree::NothingIsReplacedThatCameMeanwhile()
{
    TreeBuilder tree;
    FillSource(tree);
    for (const char* kind : {"directory", "file", "link"}) {
        const kxtest::StepHook hook([&](Step step) {
            if (step != Step::Place)
                return 0;
            if (qstrcmp(kind, "directory") == 0)
                tree.Dir("out");
            else if (qstrcmp(kind, "file") == 0)
                tree.File("out", "x");
            else
                tree.Symlink("out", "nowhere");
            return 0;
        });
        const FileRun run = CopyDirectory(tree.Path("in"), tree.Path("out"));
        QVERIFY2(run.HasFailed(common::CopyPlace), qPrintable(run.Line()));
        QVERIFY(kxtest::Exists(tree.Path("out")));
        QVERIFY(!kxtest::Exists(tree.Path("out/big")));
        QVERIFY(!kxtest::Exists(tree.Path(".out.kxnew")));
        tree.Remove("out");
    }
}

void TestCopyTree::EverythingIsBroughtToDisk()
{
    TreeBuilder tree;
    tree.File("in/a", "x").File("in/d/b", "y").Dir("in/e").Symlink("in/l", "a");
    std::atomic<int> before{0};
    std::atomic<int> after{0};
    std::atomic<bool> isPlaced{false};
    const kxtest::StepHook hook([&](Step step) {
        isPlaced = isPlaced || step == Step::Placed;
        if (step == Step::Sync)
            ++(isPlaced ? after : before);
        return 0;
    });
    FileRun run = CopyDirectory(tree.Path("in"), tree.Path("out"));
    QVERIFY2(run.IsGood(), qPrintable(run.Line()));
    // Two files and three directories before, the parent after.
    QCOMPARE(before.load(), 5);
    QCOMPARE(after.load(), 1);

    // Parents that were made have an entry in a parent of their own.
    before = after = 0;
    isPlaced = false;
    run = CopyDirectory(tree.Path("in"), tree.Path("x/y/out"));
    QVERIFY2(run.IsGood(), qPrintable(run.Line()));
    QCOMPARE(after.load(), 3);
}

void TestCopyTree::ManyEntriesAreBroughtToDiskAtOnce()
{
    TreeBuilder tree;
    for (int i = 0; i < 300; ++i)
        tree.File(QStringLiteral("in/f%1").arg(i), "x");
    common::fileops::Directory directory;
    QVERIFY(!directory.Open(tree.Root().toStdString()));
    const int expected = directory.CanSyncVolume() ? 1 : 301;
    std::atomic<int> syncs{0};
    const kxtest::StepHook hook([&](Step step) {
        syncs += step == Step::Sync;
        return 0;
    });
    const FileRun run = CopyDirectory(tree.Path("in"), tree.Path("out"));
    QVERIFY2(run.IsGood(), qPrintable(run.Line()));
    QVERIFY(kxtest::IsSound(run.progress));
    QCOMPARE(syncs.load(), expected + 1);
}

void TestCopyTree::FileAndLinkAtDestinationAreReplaced()
{
    TreeBuilder tree;
    FillSource(tree);
    tree.File("file", "x").File("outside/x", "y").Symlink("dirlink", "outside");
    tree.Symlink("dangling", "nowhere");
    for (const char* name : {"file", "dirlink/", "dangling"}) {
        const FileRun run = CopyDirectory(tree.Path("in"), tree.Path(name));
        QVERIFY2(run.IsGood(), qPrintable(run.Line()));
        QCOMPARE(kxtest::Snapshot(tree.Path(name)), kxtest::Snapshot(tree.Path("in")));
        QVERIFY(!QFileInfo(QDir::cleanPath(tree.Path(name))).isSymLink());
    }
    QCOMPARE(kxtest::Snapshot(tree.Path("outside")).size(), 1);
    QVERIFY(!kxtest::Exists(tree.Path("nowhere")));
}

void TestCopyTree::BadSourceIsAFailure_data()
{
    QTest::addColumn<QString>("source");
    QTest::addColumn<int>("code");
    QTest::newRow("missing") << "none" << int(common::CopySourceMissing);
    QTest::newRow("missing parent") << "none/none" << int(common::CopySourceMissing);
    QTest::newRow("below a file") << "file/none" << int(common::CopySourceMissing);
    QTest::newRow("dangling link") << "dangling" << int(common::CopySourceMissing);
    QTest::newRow("plain file") << "file" << int(common::CopyRead);
    QTest::newRow("plain file with separator") << "file/" << int(common::CopyRead);
    QTest::newRow("fifo") << "fifo" << int(common::CopySpecialFile);
    QTest::newRow("null character")
        << QStringLiteral("in") + QChar(0) + QStringLiteral("x") << int(common::CopySourceMissing);
}

void TestCopyTree::BadSourceIsAFailure()
{
    QFETCH(const QString, source);
    QFETCH(const int, code);
    TreeBuilder tree;
    tree.File("file", "x").Symlink("dangling", "nowhere").Dir("in");
    QCOMPARE(mkfifo(qPrintable(tree.Path("fifo")), 0600), 0);
    const QStringList before = kxtest::Snapshot(tree.Root());
    for (const char* destination : {"out", "new/out"}) {
        const FileRun run = CopyDirectory(tree.Path(source), tree.Path(destination));
        QVERIFY2(run.HasFailed(code), qPrintable(run.Line()));
        QVERIFY(!run.isFromInside);
        QCOMPARE(kxtest::Snapshot(tree.Root()), before);
    }
    const FileRun empty = CopyDirectory({}, tree.Path("out"));
    QVERIFY2(empty.HasFailed(common::CopySourceMissing), qPrintable(empty.Line()));
}

void TestCopyTree::BadDestinationIsAFailure_data()
{
    QTest::addColumn<QString>("destination");
    QTest::addColumn<int>("code");
    QTest::newRow("below a file") << "file/out" << int(common::CopyCreateDirectory);
    QTest::newRow("ends in ..") << "other/.." << int(common::CopyWrite);
    QTest::newRow("fifo") << "fifo" << int(common::CopyReplace);
    QTest::newRow("name too long") << QString(256, 'n') << int(common::CopyWrite);
    QTest::newRow("null character")
        << QStringLiteral("out") + QChar(0) + QStringLiteral("x") << int(common::CopyWrite);
}

void TestCopyTree::BadDestinationIsAFailure()
{
    QFETCH(const QString, destination);
    QFETCH(const int, code);
    TreeBuilder tree;
    FillSource(tree);
    tree.File("file", "x").Dir("other");
    QCOMPARE(mkfifo(qPrintable(tree.Path("fifo")), 0600), 0);
    const QStringList before = kxtest::Snapshot(tree.Root());
    const FileRun run = CopyDirectory(tree.Path("in"), tree.Path(destination));
    QVERIFY2(run.HasFailed(code), qPrintable(run.Line()));
    QCOMPARE(kxtest::Snapshot(tree.Root()), before);
    const FileRun empty = CopyDirectory(tree.Path("in"), {});
    QVERIFY2(empty.HasFailed(common::CopyWrite), qPrintable(empty.Line()));
}

void TestCopyTree::SpecialFilesAreFailuresAndNotOpened()
{
    TreeBuilder tree;
    tree.File("in/a", "x").Dir("in/d");
    const QString fifo = tree.Path("in/d/fifo");
    QCOMPARE(mkfifo(qPrintable(fifo), 0600), 0);
    const int watch = inotify_init1(IN_NONBLOCK);
    inotify_add_watch(watch, qPrintable(fifo), IN_OPEN);
    const FileRun run = CopyDirectory(tree.Path("in"), tree.Path("out"));
    char buffer[4096];
    const bool wasOpened = read(watch, buffer, sizeof(buffer)) > 0;
    close(watch);
    QVERIFY2(run.HasFailed(common::CopySpecialFile), qPrintable(run.Line()));
    QVERIFY(run.text.contains(fifo));
    QVERIFY(!wasOpened);
    QVERIFY(!kxtest::Exists(tree.Path("out")));
    QVERIFY(!kxtest::Exists(tree.Path(".out.kxnew")));
}

void TestCopyTree::OverlapIsAFailure_data()
{
    QTest::addColumn<QString>("source");
    QTest::addColumn<QString>("destination");
    QTest::newRow("same") << "in"
                          << "in";
    QTest::newRow("same, other spelling") << "in"
                                          << "x/../in/";
    QTest::newRow("same, through a link") << "in"
                                          << "self/in";
    QTest::newRow("link to the source") << "in"
                                        << "inlink";
    QTest::newRow("destination inside") << "in"
                                        << "in/bin/out";
    QTest::newRow("destination inside, parents missing") << "in"
                                                         << "in/a/b/c/out";
    QTest::newRow("destination inside, through a link") << "in"
                                                        << "self/in/out";
    QTest::newRow("destination inside, through a link deep down") << "in"
                                                                  << "deep/out";
    QTest::newRow("destination inside a linked source") << "inlink"
                                                        << "in/out";
    QTest::newRow("source inside") << "in/bin"
                                   << "in";
    QTest::newRow("source inside, through a link") << "deep"
                                                   << "in";
    QTest::newRow("source inside the hidden sibling") << ".out.kxnew/sub"
                                                      << "out";
    QTest::newRow("source is the hidden sibling") << ".out.kxnew"
                                                  << "out";
}

void TestCopyTree::OverlapIsAFailure()
{
    QFETCH(const QString, source);
    QFETCH(const QString, destination);
    TreeBuilder tree;
    FillSource(tree);
    tree.Dir("x").Symlink("self", ".").Symlink("inlink", "in").Symlink("deep", "in/bin");
    tree.File(".out.kxnew/sub/f", "x");
    const QStringList before = kxtest::Snapshot(tree.Root());
    const FileRun run = CopyDirectory(tree.Path(source), tree.Path(destination));
    QVERIFY2(run.HasFailed(common::CopyOverlap), qPrintable(run.Line()));
    QCOMPARE(kxtest::Snapshot(tree.Root()), before);
}

void TestCopyTree::NeighboursAreNoOverlap()
{
    TreeBuilder tree;
    FillSource(tree);
    for (const char* name : {"in2", "i", "in.old", ".in"}) {
        const FileRun run = CopyDirectory(tree.Path("in"), tree.Path(name));
        QVERIFY2(run.IsGood(), qPrintable(run.Line()));
        QCOMPARE(kxtest::Snapshot(tree.Path(name)), kxtest::Snapshot(tree.Path("in")));
    }
}

void TestCopyTree::ExistingDirectoryIsCopiedInto()
{
    TreeBuilder tree;
    FillSource(tree);
    tree.File("out/kept", "k").File("out/bin/kept", "k").File("out/bin/app", "old", 0400);
    tree.File("out/.hidden", "file in the way of a directory").Dir("out/none", 0700);
    tree.File("out/abs", "file in the way of a link");
    const FileRun run = CopyDirectory(tree.Path("in"), tree.Path("out/"));
    QVERIFY2(run.IsGood(), qPrintable(run.Line()));
    QVERIFY(kxtest::IsSound(run.progress));
    QStringList expected = kxtest::Snapshot(tree.Path("in"));
    for (const QString& line : kxtest::Snapshot(tree.Path("out"))) {
        if (line.contains("kept"))
            expected << line;
    }
    expected.sort();
    QCOMPARE(expected.size(), kxtest::Snapshot(tree.Path("in")).size() + 2);
    QCOMPARE(kxtest::Snapshot(tree.Path("out")), expected);
}

void TestCopyTree::ExistingLinksAreReplacedAndNotFollowed()
{
    TreeBuilder tree;
    tree.File("in/d/x", "new").File("in/f", "new").Symlink("in/l", "text");
    tree.File("outside/x", "old").File("outside/f", "old");
    tree.Symlink("out/d", "../outside").Symlink("out/f", "../outside/f");
    tree.Symlink("out/l", "../outside");
    const QStringList before = kxtest::Snapshot(tree.Path("outside"));
    const FileRun run = CopyDirectory(tree.Path("in"), tree.Path("out"));
    QVERIFY2(run.IsGood(), qPrintable(run.Line()));
    QCOMPARE(kxtest::Snapshot(tree.Path("out")), kxtest::Snapshot(tree.Path("in")));
    QCOMPARE(kxtest::Snapshot(tree.Path("outside")), before);
}

void TestCopyTree::DirectoryInTheWayOfAFileIsAFailure()
{
    TreeBuilder tree;
    tree.File("in/f", "new").Dir("out/f");
    FileRun run = CopyDirectory(tree.Path("in"), tree.Path("out"));
    QVERIFY2(run.HasFailed(common::CopyReplace), qPrintable(run.Line()));
    QVERIFY(QFileInfo(tree.Path("out/f")).isDir());
    tree.Remove("in/f").Symlink("in/f", "text");
    run = CopyDirectory(tree.Path("in"), tree.Path("out"));
    QVERIFY2(run.HasFailed(common::CopyReplace), qPrintable(run.Line()));
    QVERIFY(QFileInfo(tree.Path("out/f")).isDir());
}

void TestCopyTree::ReadOnlyDestinationDirectoriesAreCopiedInto()
{
    const kxtest::DroppedRights dropped;
    TreeBuilder tree;
    tree.File("in/d/f", "new").Dir("in/d", 0555).File("out/d/f", "old");
    tree.Dir("out/d", 0500).Dir("out", 0755);
    FileRun run = CopyDirectory(tree.Path("in"), tree.Path("out"));
    QVERIFY2(run.IsGood(), qPrintable(run.Line()));
    QCOMPARE(kxtest::Snapshot(tree.Path("out")), kxtest::Snapshot(tree.Path("in")));
    tree.Dir("out", 0000);
    run = CopyDirectory(tree.Path("in"), tree.Path("out"));
    QVERIFY2(run.IsGood(), qPrintable(run.Line()));
    QCOMPARE(kxtest::Snapshot(tree.Path("out")), kxtest::Snapshot(tree.Path("in")));
    kxtest::SetMode(tree.Path("in/d"), 0755);
    kxtest::SetMode(tree.Path("out/d"), 0755);
}

void TestCopyTree::HiddenNamesOfTheSourceSurviveAMerge()
{
    TreeBuilder tree;
    tree.Dir("out")
        .File("in/f", "f")
        .File("in/.f.kx.part", "p")
        .File("in/..f.kx.part.kx.part", "q");
    const FileRun run = CopyDirectory(tree.Path("in"), tree.Path("out"));
    QVERIFY2(run.IsGood(), qPrintable(run.Line()));
    QCOMPARE(kxtest::Snapshot(tree.Path("out")), kxtest::Snapshot(tree.Path("in")));
}

void TestCopyTree::SourceDirectorySwappedForALinkIsNotFollowed()
{
    TreeBuilder tree;
    tree.File("outside/secret", "s");
    for (const char* name : {"in/a/f", "in/b/f", "in/c/f"})
        tree.File(name, "x");
    std::atomic<int> steps{0};
    const kxtest::StepHook hook([&](Step step) {
        if (step != Step::Entry || ++steps != 1)
            return 0;
        for (const char* name : {"a", "b", "c"}) {
            const QString path = tree.Path(QStringLiteral("in/") + name);
            std::filesystem::rename(path.toStdString(), tree.Path(name).toStdString());
            std::filesystem::create_directory_symlink("../outside", path.toStdString());
        }
        return 0;
    });
    const FileRun run = CopyDirectory(tree.Path("in"), tree.Path("out"));
    QCOMPARE(run.succeeded + run.failures, 1);
    for (const char* name : {"a", "b", "c"}) {
        const QString copy = tree.Path(QStringLiteral("out/") + name);
        QVERIFY(!QFileInfo(copy).isDir() || QFileInfo(copy).isSymLink() ||
                !kxtest::Exists(copy + "/secret"));
    }
}

void TestCopyTree::FullDiskLeavesNothing()
{
    TreeBuilder tree;
    tree.Dir("disk", 0777);
    for (int i = 0; i < 40; ++i)
        tree.RandomFile(QStringLiteral("in/d%1/f").arg(i), 50000, quint32(i));
    const QString output = kxtest::RunChild({"--small-disk", tree.Path("disk"), "1048576",
                                             "copydir", tree.Path("in"), tree.Path("disk/out")})
                               .output;
    // Where no namespace may be made, FailureLeavesNothing() covers the codes.
    if (output == "no namespace\n")
        return;
    QVERIFY2(output.startsWith(QStringLiteral("failed %1 ").arg(common::CopyNoSpace)),
             qPrintable(output));
    QVERIFY2(output.endsWith("bytes free)\n\n"), qPrintable(output));
}

void TestCopyTree::UnreadableSourceIsAFailureWithAReason()
{
    const kxtest::DroppedRights dropped;
    TreeBuilder tree;
    tree.File("in/a", "x").File("in/d/secret", "x", 0000);
    FileRun run = CopyDirectory(tree.Path("in"), tree.Path("out"));
    QVERIFY2(run.HasFailed(common::CopyRead), qPrintable(run.Line()));
    QVERIFY(run.text.contains(tree.Path("in/d/secret")));
    QVERIFY(run.text.contains("Permission denied"));
    QVERIFY(!kxtest::Exists(tree.Path(".out.kxnew")));
    tree.Dir("in/d", 0000);
    run = CopyDirectory(tree.Path("in"), tree.Path("out"));
    QVERIFY2(run.HasFailed(common::CopyRead), qPrintable(run.Line()));
    QVERIFY(run.text.contains(tree.Path("in/d")));
    kxtest::SetMode(tree.Path("in/d"), 0755);
}

void TestCopyTree::KilledRunLeavesDestinationAbsentOrWhole_data()
{
    QTest::addColumn<int>("step");
    QTest::addColumn<int>("nth");
    QTest::addColumn<bool>("isWhole");
    QTest::newRow("first entry") << int(Step::Entry) << 1 << false;
    QTest::newRow("fourth entry") << int(Step::Entry) << 4 << false;
    QTest::newRow("within a file") << int(Step::Block) << 2 << false;
    QTest::newRow("first attributes") << int(Step::Attributes) << 1 << false;
    QTest::newRow("later attributes") << int(Step::Attributes) << 6 << false;
    QTest::newRow("bringing to disk") << int(Step::Sync) << 1 << false;
    QTest::newRow("still bringing to disk") << int(Step::Sync) << 5 << false;
    QTest::newRow("before putting into place") << int(Step::Place) << 1 << false;
    QTest::newRow("after putting into place") << int(Step::Placed) << 1 << true;
}

void TestCopyTree::KilledRunLeavesDestinationAbsentOrWhole()
{
    QFETCH(const int, step);
    QFETCH(const int, nth);
    QFETCH(const bool, isWhole);
    TreeBuilder tree;
    FillSource(tree);
    const kxtest::ChildRun child =
        kxtest::RunChild({"--die", QString::number(step), QString::number(nth), "copydir",
                          tree.Path("in"), tree.Path("out")});
    QVERIFY2(child.wasKilled, qPrintable(child.output));
    QCOMPARE(kxtest::Exists(tree.Path("out")), isWhole);
    QCOMPARE(kxtest::Exists(tree.Path(".out.kxnew")), !isWhole);
    if (isWhole)
        QCOMPARE(kxtest::Snapshot(tree.Path("out")), kxtest::Snapshot(tree.Path("in")));
    const FileRun run = CopyDirectory(tree.Path("in"), tree.Path("out"));
    QVERIFY2(run.IsGood(), qPrintable(run.Line()));
    QCOMPARE(kxtest::Snapshot(tree.Path("out")), kxtest::Snapshot(tree.Path("in")));
    QVERIFY(!kxtest::Exists(tree.Path(".out.kxnew")));
}

void TestCopyTree::NamesOfAllKindsAreKept()
{
    TreeBuilder tree;
    for (const QString& name :
         {QStringLiteral("\u00e9"), QStringLiteral("e\u0301"), QStringLiteral(" a b "),
          QStringLiteral("a\nb"), QStringLiteral("a\\b"), QStringLiteral("-n"), QString(255, 'n')})
        tree.File("in \u00fc/" + name + "/" + name, "x")
            .Symlink("in \u00fc/l" + name.left(9), name);
    // A name that no QString can hold goes from one system call to the next as it is.
    const std::string odd = "/not\xff utf-8";
    const std::string in = tree.Path("in \u00fc").toStdString();
    std::filesystem::create_directory(in + odd);
    std::filesystem::create_symlink("\xfe\xff", in + odd + odd);
    const FileRun run = CopyDirectory(tree.Path("in \u00fc"), tree.Path("out e\u0301"));
    QVERIFY2(run.IsGood(), qPrintable(run.Line()));
    const std::string out = tree.Path("out e\u0301").toStdString();
    QCOMPARE(std::filesystem::read_symlink(out + odd + odd).string(), std::string("\xfe\xff"));
    std::filesystem::remove_all(in + odd);
    std::filesystem::remove_all(out + odd);
    QCOMPARE(kxtest::Snapshot(tree.Path("out e\u0301")), kxtest::Snapshot(tree.Path("in \u00fc")));
}

void TestCopyTree::PathsLongerThanOneCallTakes()
{
    using common::fileops::Directory;
    TreeBuilder tree;
    tree.Dir("in");
    Directory directory;
    const std::string name(250, 'd');
    constexpr int depth = 80;
    QVERIFY(!directory.Open(tree.Path("in").toStdString()));
    for (int i = 0; i < depth; ++i) {
        QVERIFY(!directory.MakePrivateDirectory(name));
        QVERIFY(!directory.MakeLink("link", std::to_string(i)));
        Directory child;
        QVERIFY(!child.OpenChild(directory, name));
        directory = std::move(child);
    }
    const FileRun run = CopyDirectory(tree.Path("in"), tree.Path("out"));
    QVERIFY2(run.IsGood(), qPrintable(run.Line()));
    QVERIFY(!directory.Open(tree.Path("out").toStdString()));
    for (int i = 0; i < depth; ++i) {
        std::string text;
        QVERIFY(!directory.ReadLink("link", &text));
        QCOMPARE(text, std::to_string(i));
        Directory child;
        QVERIFY(!child.OpenChild(directory, name));
        directory = std::move(child);
    }
    for (const char* path : {"in", "out"})
        std::filesystem::remove_all(tree.Path(path).toStdString());
}

void TestCopyTree::ManySmallFiles()
{
    TreeBuilder tree;
    for (int i = 0; i < 5000; ++i)
        tree.File(QStringLiteral("in/d%1/f%2").arg(i % 50).arg(i), QByteArray::number(i));
    const FileRun run = CopyDirectory(tree.Path("in"), tree.Path("out"));
    QVERIFY2(run.IsGood(), qPrintable(run.Line()));
    QVERIFY(kxtest::IsSound(run.progress));
    QCOMPARE(kxtest::Snapshot(tree.Path("out")), kxtest::Snapshot(tree.Path("in")));
}

QTEST_GUILESS_MAIN(TestCopyTree)
#include "tst_copytree.moc"
