#include "droppedrights.h"
#include "filewalk.h"
#include "stephook.h"
#include "treebuilder.h"
#include "wiringguard.h"

#include <QTest>

#include <filesystem>
#include <set>
#include <sys/resource.h>
#include <sys/stat.h>

using common::DirectoryStack;
using common::FileWalk;
using common::fileops::Directory;
using common::fileops::Kind;
using kxtest::TreeBuilder;

namespace {

Directory Open(const QString& path)
{
    Directory directory;
    if (const auto error = directory.Open(path.toStdString()))
        qFatal("cannot open the test's directory: %s", error.message().c_str());
    return directory;
}

QStringList Trace(const TreeBuilder& tree, int options)
{
    FileWalk walk(options);
    walk.Begin(Open(tree.Root()), tree.Root().toStdString());
    QStringList lines;
    for (;;) {
        const FileWalk::Step step = walk.Next();
        if (step == FileWalk::Step::End)
            break;
        const QString path = QString::fromStdString(walk.Path().string());
        const char* what = step == FileWalk::Step::Entry   ? "entry"
                           : step == FileWalk::Step::Enter ? "enter"
                           : step == FileWalk::Step::Leave ? "leave"
                                                           : "error";
        lines << QStringLiteral("%1 %2").arg(path.mid(tree.Root().size() + 1), what);
    }
    return lines;
}

} // namespace

class TestFileWalk : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void init() { kxtest::FailOnWiringWarnings(); }

    void EachEntryComesOnce_data();
    void EachEntryComesOnce();
    void AttributesAreReadWhereAsked();
    void ContentsComeBetweenEnterAndLeave();
    void LinksAreNotFollowed();
    void DeepTreeNeedsFewHandles();
    void UnreadableDirectoryIsAnErrorAndIsSkipped();
    void UnlockingOpensWhatIsClosed();
    void DirectorySwappedForALinkIsAnEntry();
    void MovedDirectoryDoesNotLeadElsewhere();
};

void TestFileWalk::EachEntryComesOnce_data()
{
    QTest::addColumn<int>("options");
    QTest::newRow("kinds") << int(FileWalk::KindsOnly);
    QTest::newRow("attributes") << int(FileWalk::WithAttributes);
}

void TestFileWalk::EachEntryComesOnce()
{
    QFETCH(const int, options);
    TreeBuilder tree;
    tree.File("a", "x").File(".hidden", "x").File("d/e/f", "x").Dir("empty").Symlink("l", "d");
    QCOMPARE(mkfifo(qPrintable(tree.Path("fifo")), 0600), 0);
    QStringList lines = Trace(tree, options);
    lines.sort();
    QStringList expected{".hidden entry", "a entry",    "d enter",     "d leave",
                         "d/e enter",     "d/e leave",  "d/e/f entry", "empty enter",
                         "empty leave",   "fifo entry", "l entry"};
    expected.sort();
    QCOMPARE(lines, expected);
}

void TestFileWalk::AttributesAreReadWhereAsked()
{
    TreeBuilder tree;
    tree.File("a", "four", 0640);
    FileWalk walk(FileWalk::WithAttributes);
    walk.Begin(Open(tree.Root()), {});
    QCOMPARE(walk.Next(), FileWalk::Step::Entry);
    QCOMPARE(walk.Current().kind, Kind::File);
    QCOMPARE(walk.Current().size, std::uint64_t(4));
    QCOMPARE(walk.Current().mode, 0640u);
    QCOMPARE(walk.Next(), FileWalk::Step::End);
    QCOMPARE(walk.Next(), FileWalk::Step::End);
}

void TestFileWalk::ContentsComeBetweenEnterAndLeave()
{
    TreeBuilder tree;
    tree.File("d/a", "x").File("d/b", "x");
    const QStringList lines = Trace(tree, FileWalk::KindsOnly);
    QCOMPARE(lines.size(), 4);
    QCOMPARE(lines.first(), QStringLiteral("d enter"));
    QCOMPARE(lines.last(), QStringLiteral("d leave"));
}

void TestFileWalk::LinksAreNotFollowed()
{
    TreeBuilder tree;
    tree.File("outside/x", "x").Symlink("in/dir", "../outside").Symlink("in/up", "..");
    TreeBuilder inside(tree.Path("in"));
    QStringList lines = Trace(inside, FileWalk::KindsOnly);
    lines.sort();
    QCOMPARE(lines, QStringList({"dir entry", "up entry"}));
}

void TestFileWalk::DeepTreeNeedsFewHandles()
{
    TreeBuilder tree;
    constexpr int depth = 1500;
    Directory directory = Open(tree.Root());
    for (int i = 0; i < depth; ++i) {
        QVERIFY(!directory.MakePrivateDirectory("d"));
        Directory child;
        QVERIFY(!child.OpenChild(directory, "d"));
        directory = std::move(child);
    }
    rlimit limit = {};
    QCOMPARE(getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlimit small = {100, limit.rlim_max};
    QCOMPARE(setrlimit(RLIMIT_NOFILE, &small), 0);
    const QStringList lines = Trace(tree, FileWalk::WithAttributes);
    QCOMPARE(setrlimit(RLIMIT_NOFILE, &limit), 0);
    QCOMPARE(lines.size(), 2 * depth);
    QVERIFY(lines.at(depth - 1).endsWith("enter"));
    QVERIFY(lines.at(depth).endsWith("leave"));
    QCOMPARE(lines.last(), QStringLiteral("d leave"));
}

void TestFileWalk::UnreadableDirectoryIsAnErrorAndIsSkipped()
{
    const kxtest::DroppedRights dropped;
    TreeBuilder tree;
    tree.File("a/x", "x").File("closed/y", "y").Dir("closed", 0000);
    QStringList lines = Trace(tree, FileWalk::KindsOnly);
    lines.sort();
    QCOMPARE(lines, QStringList({"a enter", "a leave", "a/x entry", "closed error"}));
    kxtest::SetMode(tree.Path("closed"), 0755);
}

void TestFileWalk::UnlockingOpensWhatIsClosed()
{
    const kxtest::DroppedRights dropped;
    for (const int options : {FileWalk::KindsOnly | FileWalk::Unlocking,
                              FileWalk::WithAttributes | FileWalk::Unlocking}) {
        TreeBuilder tree;
        tree.File("closed/d/y", "y").Dir("closed/d", 0000).Dir("closed", 0400);
        QStringList lines = Trace(tree, options);
        lines.sort();
        QCOMPARE(lines, QStringList({"closed enter", "closed leave", "closed/d enter",
                                     "closed/d leave", "closed/d/y entry"}));
    }
}

void TestFileWalk::DirectorySwappedForALinkIsAnEntry()
{
    TreeBuilder tree;
    tree.File("outside/x", "x").File("in/a/1", "x").File("in/b/2", "x");
    FileWalk walk(FileWalk::KindsOnly);
    walk.Begin(Open(tree.Path("in")), {});
    QCOMPARE(walk.Next(), FileWalk::Step::Enter);
    // The one that was listed and is not entered yet.
    const QString other = walk.Name() == "a" ? "b" : "a";
    tree.Remove("in/" + other).Symlink("in/" + other, "../outside");
    QCOMPARE(walk.Next(), FileWalk::Step::Entry);
    QCOMPARE(walk.Next(), FileWalk::Step::Leave);
    QCOMPARE(walk.Next(), FileWalk::Step::Entry);
    QCOMPARE(QString::fromStdString(walk.Name()), other);
    QCOMPARE(walk.Current().kind, Kind::Link);
    QCOMPARE(walk.Next(), FileWalk::Step::End);
}

void TestFileWalk::MovedDirectoryDoesNotLeadElsewhere()
{
    TreeBuilder tree;
    QString path = "in";
    for (int i = 0; i < 40; ++i)
        path += "/d";
    tree.Dir(path).Dir("elsewhere/deep");
    DirectoryStack stack;
    stack.Begin(Open(tree.Path("in")), {});
    for (int i = 0; i < 40; ++i)
        QVERIFY(!stack.Enter("d"));
    // Handles of the upper levels are closed by now, and ".." would lead to another place.
    std::filesystem::rename(tree.Path("in/d/d/d").toStdString(),
                            tree.Path("elsewhere/deep/d").toStdString());
    Directory left;
    int levels = 0;
    while (!stack.Leave(&left))
        ++levels;
    QCOMPARE(levels, 37);
}

QTEST_GUILESS_MAIN(TestFileWalk)
#include "tst_filewalk.moc"
