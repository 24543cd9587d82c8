#include "droppedrights.h"
#include "fileops.h"
#include "filerun.h"
#include "stephook.h"
#include "treebuilder.h"
#include "wiringguard.h"

#include <kxcommon/errors.h>
#include <kxcommon/fileremover.h>

#include <QDir>
#include <QTest>

#include <cerrno>
#include <filesystem>
#include <sys/stat.h>

using common::FileRemover;
using kxtest::FileRun;
using kxtest::TreeBuilder;

namespace {

FileRun Remove(const QString& path)
{
    FileRemover remover;
    remover.AddDirectory(path);
    return kxtest::RunToEnd(remover, &FileRemover::Remove);
}

// Another home directory for one test.
class Home
{
public:
    explicit Home(const QString& path) : before(qgetenv("HOME")) { qputenv("HOME", path.toUtf8()); }
    ~Home() { qputenv("HOME", before); }

private:
    QByteArray before;
};

} // namespace

class TestFileRemover : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void init() { kxtest::FailOnWiringWarnings(); }

    void EmptyQueueSucceeds();
    void TreeIsRemoved_data();
    void TreeIsRemoved();
    void SeveralTreesAreRemoved();
    void MissingPathCountsAsRemoved_data();
    void MissingPathCountsAsRemoved();
    void LinksInsideAreNotFollowed();
    void LinkAsPathLosesTheLinkOnly_data();
    void LinkAsPathLosesTheLinkOnly();
    void PlainFileIsAFailure_data();
    void PlainFileIsAFailure();
    void ForbiddenPathIsAFailure_data();
    void ForbiddenPathIsAFailure();
    void HomeReachedThroughALinkStays();
    void ReadOnlyEntriesAreRemoved_data();
    void ReadOnlyEntriesAreRemoved();
    void OrdinaryUserIsRefusedInAReadOnlyParent();
    void FirstFailureStopsTheRun();
    void SystemFailureNamesItsReason();
    void DirectorySwappedForALinkIsNotFollowed();
    void EntriesThatAppearMeanwhileAreRemoved();
    void PathsLongerThanOneCallTakes();
    void NamesOfAllKindsAreRemoved();
    void ManyEntries();
};

void TestFileRemover::EmptyQueueSucceeds()
{
    FileRemover remover;
    const FileRun run = kxtest::RunToEnd(remover, &FileRemover::Remove);
    QVERIFY2(run.IsGood(), qPrintable(run.Line()));
    QVERIFY(kxtest::IsSound(run.progress));
    QVERIFY(!run.isFromInside);
    QVERIFY(!run.isElsewhere);
}

void TestFileRemover::TreeIsRemoved_data()
{
    QTest::addColumn<QString>("path");
    QTest::newRow("plain") << "t";
    QTest::newRow("separators at the end") << "t///";
    QTest::newRow("dot at the end") << "t/.";
    QTest::newRow("uncleaned") << "keep/..//./t";
    QTest::newRow("ends in ..") << "t/d/..";
    QTest::newRow("through a linked parent") << "parent/t";
}

void TestFileRemover::TreeIsRemoved()
{
    QFETCH(const QString, path);
    TreeBuilder tree;
    tree.File("t/a", "x").File("t/.h", "x").File("t/d/e/f", "x").Dir("t/empty").Dir("keep");
    tree.Symlink("t/l", "a").Symlink("parent", ".");
    QCOMPARE(mkfifo(qPrintable(tree.Path("t/fifo")), 0000), 0);
    const FileRun run = Remove(tree.Path(path));
    QVERIFY2(run.IsGood(), qPrintable(run.Line()));
    QVERIFY(kxtest::IsSound(run.progress));
    QVERIFY(!run.isFromInside);
    QVERIFY(!kxtest::Exists(tree.Path("t")));
    QVERIFY(kxtest::Exists(tree.Path("keep")));
}

void TestFileRemover::SeveralTreesAreRemoved()
{
    TreeBuilder tree;
    tree.File("a/x", "x").File("b/x", "x").Dir("c");
    FileRemover remover;
    remover.AddDirectory(tree.Path("a"));
    remover.AddDirectory(tree.Path("b"));
    remover.AddDirectory(tree.Path("a"));
    remover.AddDirectory(tree.Path("c"));
    const FileRun run = kxtest::RunToEnd(remover, &FileRemover::Remove);
    QVERIFY2(run.IsGood(), qPrintable(run.Line()));
    QVERIFY(kxtest::IsSound(run.progress));
    QVERIFY(kxtest::Snapshot(tree.Root()).isEmpty());
}

void TestFileRemover::MissingPathCountsAsRemoved_data()
{
    QTest::addColumn<QString>("path");
    QTest::newRow("missing") << "none";
    QTest::newRow("missing parent") << "none/none/none";
    QTest::newRow("below a file") << "file/none";
    QTest::newRow("separator at the end") << "none/";
}

void TestFileRemover::MissingPathCountsAsRemoved()
{
    QFETCH(const QString, path);
    TreeBuilder tree;
    tree.File("file", "x");
    const FileRun run = Remove(tree.Path(path));
    QVERIFY2(run.IsGood(), qPrintable(run.Line()));
    QVERIFY(kxtest::Exists(tree.Path("file")));
}

void TestFileRemover::LinksInsideAreNotFollowed()
{
    TreeBuilder tree;
    tree.File("outside/x", "x", 0444).Symlink("t/dir", "../outside").Symlink("t/up", "..");
    tree.Symlink("t/file", "../outside/x").Symlink("t/dangling", "nowhere");
    tree.Symlink("t/abs", tree.Path("outside"));
    const FileRun run = Remove(tree.Path("t"));
    QVERIFY2(run.IsGood(), qPrintable(run.Line()));
    QVERIFY(!kxtest::Exists(tree.Path("t")));
    QCOMPARE(kxtest::Mode(tree.Path("outside/x")), 0444);
}

void TestFileRemover::LinkAsPathLosesTheLinkOnly_data()
{
    QTest::addColumn<QString>("path");
    QTest::newRow("to a directory") << "dirlink";
    QTest::newRow("separator at the end") << "dirlink/";
    QTest::newRow("separators and dots at the end") << "dirlink//./";
    QTest::newRow("to a file") << "filelink";
    QTest::newRow("dangling") << "dangling";
    QTest::newRow("dangling, separator at the end") << "dangling/";
    QTest::newRow("loop") << "loop";
}

void TestFileRemover::LinkAsPathLosesTheLinkOnly()
{
    QFETCH(const QString, path);
    TreeBuilder tree;
    tree.File("outside/x", "x").File("outside/d/y", "y").File("file", "z");
    const QStringList before = kxtest::Snapshot(tree.Root());
    tree.Symlink(path.section('/', 0, 0), path.startsWith("dirlink")    ? "outside"
                                          : path.startsWith("filelink") ? "file"
                                          : path.startsWith("loop")     ? "loop"
                                                                        : "nowhere");
    const FileRun run = Remove(tree.Path(path));
    QVERIFY2(run.IsGood(), qPrintable(run.Line()));
    QCOMPARE(kxtest::Snapshot(tree.Root()), before);
}

void TestFileRemover::PlainFileIsAFailure_data()
{
    QTest::addColumn<QString>("path");
    QTest::newRow("file") << "file";
    QTest::newRow("file, separator at the end") << "file/";
    QTest::newRow("fifo") << "fifo";
}

void TestFileRemover::PlainFileIsAFailure()
{
    QFETCH(const QString, path);
    TreeBuilder tree;
    tree.File("file", "x");
    QCOMPARE(mkfifo(qPrintable(tree.Path("fifo")), 0600), 0);
    const FileRun run = Remove(tree.Path(path));
    QVERIFY2(run.HasFailed(common::RemoveNotADirectory), qPrintable(run.Line()));
    QVERIFY(run.text.contains(tree.Path(path)));
    QVERIFY(!run.isFromInside);
    QCOMPARE(kxtest::Snapshot(tree.Root()).size(), 2);
}

void TestFileRemover::ForbiddenPathIsAFailure_data()
{
    // A home that a mistake can be seen in, and does no harm.
    QTest::addColumn<QString>("path");
    QTest::newRow("empty") << "";
    QTest::newRow("root") << "/";
    QTest::newRow("root, doubled") << "//";
    QTest::newRow("root, dot") << "/.";
    QTest::newRow("root, dots and separators") << "/././/";
    QTest::newRow("root, up") << "/..";
    QTest::newRow("root, by way of a directory") << "/usr/..";
    QTest::newRow("root, by way of a missing directory") << "/no-such-directory/..";
    QTest::newRow("relative") << "some/where";
    QTest::newRow("relative dot") << ".";
    QTest::newRow("home") << "HOME";
    QTest::newRow("home, separator") << "HOME/";
    QTest::newRow("home, separators") << "HOME//";
    QTest::newRow("home, dot") << "HOME/.";
    QTest::newRow("home, up") << "HOME/sub/..";
    QTest::newRow("home, up and separator") << "HOME/sub/../";
    QTest::newRow("home, by way of a missing directory") << "HOME/none/..";
    QTest::newRow("home, in the middle") << "HOME/../home";
    QTest::newRow("home, null character") << QStringLiteral("HOME/sub") + QChar(0);
}

void TestFileRemover::ForbiddenPathIsAFailure()
{
    QFETCH(QString, path);
    TreeBuilder tree;
    tree.File("home/sub/precious", "x");
    const Home home(tree.Path("home"));
    path.replace("HOME", tree.Path("home"));
    // Were the path not refused, the first removal would be.
    const kxtest::StepHook hook([](common::fileops::Step step) {
        return step == common::fileops::Step::Entry ? EROFS : 0;
    });
    const FileRun run = Remove(path);
    QVERIFY2(run.HasFailed(common::RemoveForbidden), qPrintable(run.Line()));
    QVERIFY(!run.isFromInside);
    QVERIFY(kxtest::Exists(tree.Path("home/sub/precious")));
}

void TestFileRemover::HomeReachedThroughALinkStays()
{
    TreeBuilder tree;
    tree.File("home/precious", "x").Symlink("parent", ".").Symlink("home2", "home");
    const Home home(tree.Path("home2"));
    const FileRun run = Remove(tree.Path("parent/home"));
    QVERIFY2(run.HasFailed(common::RemoveForbidden), qPrintable(run.Line()));
    const FileRun link = Remove(tree.Path("home2"));
    QVERIFY2(link.HasFailed(common::RemoveForbidden), qPrintable(link.Line()));
    QVERIFY(kxtest::Exists(tree.Path("home2/precious")));
}

void TestFileRemover::ReadOnlyEntriesAreRemoved_data()
{
    QTest::addColumn<int>("fileMode");
    QTest::addColumn<int>("directoryMode");
    for (const int mode : {0555, 0500, 0400, 0000, 0100, 0300, 0600}) {
        QTest::addRow("directories with mode %o", static_cast<unsigned>(mode)) << 0444 << mode;
    }
    QTest::newRow("files without rights") << 0000 << 0755;
}

void TestFileRemover::ReadOnlyEntriesAreRemoved()
{
    QFETCH(const int, fileMode);
    QFETCH(const int, directoryMode);
    for (const bool isRoot : {true, false}) {
        std::unique_ptr<kxtest::DroppedRights> dropped;
        if (!isRoot)
            dropped = std::make_unique<kxtest::DroppedRights>();
        TreeBuilder tree;
        tree.File("t/d/e/a", "x", fileMode).File("t/d/b", "x", fileMode);
        for (const char* name : {"t/d/e", "t/d", "t"})
            tree.Dir(name, directoryMode);
        const FileRun run = Remove(tree.Path("t"));
        QVERIFY2(run.IsGood(), qPrintable(run.Line()));
        QVERIFY(kxtest::IsSound(run.progress));
        QVERIFY(!kxtest::Exists(tree.Path("t")));
    }
}

void TestFileRemover::OrdinaryUserIsRefusedInAReadOnlyParent()
{
    const kxtest::DroppedRights dropped;
    TreeBuilder tree;
    tree.File("parent/t/a", "x").Dir("parent", 0555);
    const FileRun run = Remove(tree.Path("parent/t"));
    QVERIFY2(run.HasFailed(common::RemoveFailed), qPrintable(run.Line()));
    QVERIFY(run.text.contains(tree.Path("parent/t")));
    QVERIFY(run.text.contains("Permission denied"));
    // What holds the tree is none of the remover's business.
    QCOMPARE(kxtest::Mode(tree.Path("parent")), 0555);
    kxtest::SetMode(tree.Path("parent"), 0755);
}

void TestFileRemover::FirstFailureStopsTheRun()
{
    TreeBuilder tree;
    tree.Dir("a").File("file", "x").Dir("b");
    FileRemover remover;
    for (const char* name : {"a", "file", "b"})
        remover.AddDirectory(tree.Path(name));
    const FileRun run = kxtest::RunToEnd(remover, &FileRemover::Remove);
    QVERIFY2(run.HasFailed(common::RemoveNotADirectory), qPrintable(run.Line()));
    QVERIFY(!kxtest::Exists(tree.Path("a")));
    QVERIFY(kxtest::Exists(tree.Path("b")));
}

void TestFileRemover::SystemFailureNamesItsReason()
{
    TreeBuilder tree;
    tree.File("t/a", "x").File("t/b", "x");
    const kxtest::StepHook hook(kxtest::StepHook::Failing(common::fileops::Step::Entry, 2, EROFS));
    const FileRun run = Remove(tree.Path("t"));
    QVERIFY2(run.HasFailed(common::RemoveFailed), qPrintable(run.Line()));
    QVERIFY2(run.text.startsWith(
                 QStringLiteral("Cannot remove directory '%1': removing '%1/").arg(tree.Path("t"))),
             qPrintable(run.text));
    QVERIFY(run.text.endsWith("Read-only file system"));
    QVERIFY(kxtest::Exists(tree.Path("t")));
}

void TestFileRemover::DirectorySwappedForALinkIsNotFollowed()
{
    TreeBuilder tree;
    tree.File("outside/a", "x").File("outside/b", "y").File("outside/d/c", "z");
    for (const char* name : {"t/one", "t/two", "t/three"})
        tree.File(QString(name) + "/a", "x")
            .File(QString(name) + "/b", "y")
            .File(QString(name) + "/d/c", "z");
    const QStringList before = kxtest::Snapshot(tree.Path("outside"));
    // All directories at once, the one that is being emptied and those that were only listed.
    std::atomic<int> steps{0};
    const kxtest::StepHook hook([&](common::fileops::Step step) {
        if (step != common::fileops::Step::Entry || ++steps != 2)
            return 0;
        for (const char* name : {"one", "two", "three"}) {
            const QString path = tree.Path(QStringLiteral("t/") + name);
            std::filesystem::rename(path.toStdString(), tree.Path(name).toStdString());
            std::filesystem::create_directory_symlink("../outside", path.toStdString());
        }
        return 0;
    });
    const FileRun run = Remove(tree.Path("t"));
    QVERIFY2(run.IsGood(), qPrintable(run.Line()));
    QVERIFY(steps >= 2);
    QVERIFY(!kxtest::Exists(tree.Path("t")));
    QCOMPARE(kxtest::Snapshot(tree.Path("outside")), before);
}

void TestFileRemover::EntriesThatAppearMeanwhileAreRemoved()
{
    TreeBuilder tree;
    tree.File("t/d/a", "x").File("t/d/b", "x");
    std::atomic<int> steps{0};
    const kxtest::StepHook hook([&](common::fileops::Step step) {
        if (step == common::fileops::Step::Entry && ++steps == 2)
            TreeBuilder(tree.Path("t")).File("d/new", "x").File("new/e", "x");
        return 0;
    });
    const FileRun run = Remove(tree.Path("t"));
    QVERIFY2(run.IsGood(), qPrintable(run.Line()));
    QVERIFY(kxtest::IsSound(run.progress));
    QVERIFY(!kxtest::Exists(tree.Path("t")));
}

void TestFileRemover::PathsLongerThanOneCallTakes()
{
    TreeBuilder tree;
    tree.Dir("t");
    common::fileops::Directory directory;
    QVERIFY(!directory.Open(tree.Path("t").toStdString()));
    const std::string name(250, 'd');
    for (int i = 0; i < 100; ++i) {
        QVERIFY(!directory.MakePrivateDirectory(name));
        QVERIFY(!directory.MakeLink("link", "/"));
        common::fileops::Directory child;
        QVERIFY(!child.OpenChild(directory, name));
        directory = std::move(child);
    }
    const FileRun run = Remove(tree.Path("t"));
    QVERIFY2(run.IsGood(), qPrintable(run.Line()));
    QVERIFY(!kxtest::Exists(tree.Path("t")));
}

void TestFileRemover::NamesOfAllKindsAreRemoved()
{
    TreeBuilder tree;
    for (const QString& name :
         {QStringLiteral("\u00e9"), QStringLiteral("e\u0301"), QStringLiteral(" a b "),
          QStringLiteral("-rf"), QStringLiteral("*"), QStringLiteral("a\nb"), QString(255, 'n')})
        tree.File("t \u00fc/" + name + "/" + name, "x");
    std::filesystem::create_directory(tree.Path("t \u00fc").toStdString() + "/not\xff utf-8");
    const FileRun run = Remove(tree.Path("t \u00fc"));
    QVERIFY2(run.IsGood(), qPrintable(run.Line()));
    QVERIFY(kxtest::Snapshot(tree.Root()).isEmpty());
}

void TestFileRemover::ManyEntries()
{
    TreeBuilder tree;
    for (int i = 0; i < 5000; ++i)
        tree.File(QStringLiteral("t/d%1/f%2").arg(i % 10).arg(i), {});
    const FileRun run = Remove(tree.Path("t"));
    QVERIFY2(run.IsGood(), qPrintable(run.Line()));
    QVERIFY(kxtest::IsSound(run.progress));
    QCOMPARE(run.progress.last().second, 5000 + 10 + 1);
    QVERIFY(!kxtest::Exists(tree.Path("t")));
}

QTEST_GUILESS_MAIN(TestFileRemover)
#include "tst_fileremover.moc"
