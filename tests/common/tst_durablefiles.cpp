#include "droppedrights.h"
#include "filerun.h"
#include "stephook.h"
#include "treebuilder.h"
#include "updaterrig.h"
#include "wiringguard.h"

#include <kxcommon/durablefiles.h>
#include <kxcommon/filecopier.h>

#include <QDir>
#include <QFileInfo>
#include <QTest>

#include <atomic>
#include <thread>

#include <sys/stat.h>
#include <unistd.h>

using common::DurableFiles;
using kxtest::Read;
using kxtest::Snapshot;
using kxtest::TreeBuilder;

namespace {

/** Another home directory for one test. */
class Home
{
public:
    explicit Home(const QString& path) : before(qgetenv("HOME")) { qputenv("HOME", path.toUtf8()); }
    ~Home() { qputenv("HOME", before); }

private:
    const QByteArray before;
};

/** Another mask for the modes of new files. */
class Mask
{
public:
    explicit Mask(mode_t mask) : before(::umask(mask)) {}
    ~Mask() { ::umask(before); }

private:
    const mode_t before;
};

QStringList Names(const QString& directory)
{
    return QDir(directory).entryList(QDir::AllEntries | QDir::Hidden | QDir::System |
                                     QDir::NoDotAndDotDot);
}

QString Name(const QString& path)
{
    return path.section(u'/', -1);
}

} // namespace

class TestDurableFiles : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { kxtest::FailOnWiringWarnings(); }

    void WritesAFileForItsOwnerOnly_data();
    void WritesAFileForItsOwnerOnly();
    void WriteReplacesWhatStandsThere_data();
    void WriteReplacesWhatStandsThere();
    void WriteLeavesOtherNamesOfTheFileAlone();
    void WriteIsNotMisledByWhatLiesWhereItsBytesAreKept_data();
    void WriteIsNotMisledByWhatLiesWhereItsBytesAreKept();
    void WriteThatFailsLeavesWhatWasThere_data();
    void WriteThatFailsLeavesWhatWasThere();
    void WriteThatRunsOutOfRoomLeavesWhatWasThere();
    void ReadersSeeTheOldOrTheNewWhole();

    void RemovesOneEntry_data();
    void RemovesOneEntry();
    void RemoveRefuses_data();
    void RemoveRefuses();

    void RemovesATreeAndFollowsNoLink();
    void RemovesALinkToATreeAlone();
    void RemovesAReadOnlyTreeAsAnOrdinaryUser();
    void RemoveTreeRefuses_data();
    void RemoveTreeRefuses();

    void RenamesADirectory();
    void RenameRefuses_data();
    void RenameRefuses();

    void HiddenSiblingStandsBesideThePath_data();
    void HiddenSiblingStandsBesideThePath();
    void LongHiddenSiblingsStayApart();
    void CopyGrowsInTheHiddenSibling_data();
    void CopyGrowsInTheHiddenSibling();
};

void TestDurableFiles::WritesAFileForItsOwnerOnly_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<int>("mask");
    QTest::newRow("plain") << "file" << QByteArray("text\n") << 022;
    QTest::newRow("empty") << "file" << QByteArray() << 022;
    QTest::newRow("zero bytes in it") << "file" << QByteArray("a\0b\0", 4) << 022;
    QTest::newRow("some megabytes") << "file" << kxtest::RandomBytes(3 * 1024 * 1024 + 1, 7) << 022;
    QTest::newRow("no mask") << "file" << QByteArray("x") << 0;
    QTest::newRow("strict mask") << "file" << QByteArray("x") << 0177;
    QTest::newRow("hidden") << ".file" << QByteArray("x") << 022;
    QTest::newRow("not ascii") << QStringLiteral("\u00fc \u65e5") << QByteArray("x") << 022;
    QTest::newRow("255 bytes") << QString(255, u'n') << QByteArray("x") << 022;
    QTest::newRow("255 bytes, not ascii") << QString(85, QChar(0x65e5)) << QByteArray("x") << 022;
}

void TestDurableFiles::WritesAFileForItsOwnerOnly()
{
    QFETCH(const QString, name);
    QFETCH(const QByteArray, bytes);
    QFETCH(const int, mask);
    TreeBuilder tree;
    {
        const Mask other(static_cast<mode_t>(mask));
        QCOMPARE(DurableFiles::Write(tree.Path(name), bytes), QString());
    }
    QCOMPARE(Names(tree.Root()), QStringList(name));
    QCOMPARE(kxtest::Mode(tree.Path(name)), 0600);
    QCOMPARE(Read(tree.Path(name)), bytes);
}

void TestDurableFiles::WriteReplacesWhatStandsThere_data()
{
    QTest::addColumn<QString>("name");
    QTest::newRow("file") << "file";
    QTest::newRow("longer file") << "long";
    QTest::newRow("read-only file") << "readonly";
    QTest::newRow("program") << "program";
    QTest::newRow("link to a file") << "link";
    QTest::newRow("link to a directory") << "dirlink";
    QTest::newRow("dangling link") << "dangling";
    QTest::newRow("link to itself") << "loop";
}

void TestDurableFiles::WriteReplacesWhatStandsThere()
{
    QFETCH(const QString, name);
    TreeBuilder tree;
    tree.File("place/file", "old")
        .File("place/long", QByteArray(100000, 'o'))
        .File("place/readonly", "old", 0444)
        .File("place/program", "old", 0755)
        .Symlink("place/link", "../outside/file")
        .Symlink("place/dirlink", "../outside")
        .Symlink("place/dangling", "../outside/none")
        .Symlink("place/loop", "loop")
        .File("outside/file", "precious");
    const QStringList outside = Snapshot(tree.Path("outside"));
    const QStringList names = Names(tree.Path("place"));
    const QString path = tree.Path("place/" + name);
    QCOMPARE(DurableFiles::Write(path, "new"), QString());
    QVERIFY(kxtest::LinkText(path).isEmpty());
    QCOMPARE(kxtest::Mode(path), 0600);
    QCOMPARE(Read(path), QByteArray("new"));
    QCOMPARE(Names(tree.Path("place")), names);
    QCOMPARE(Snapshot(tree.Path("outside")), outside);
}

void TestDurableFiles::WriteLeavesOtherNamesOfTheFileAlone()
{
    TreeBuilder tree;
    tree.File("file", "old");
    QCOMPARE(::link(qPrintable(tree.Path("file")), qPrintable(tree.Path("other"))), 0);
    QCOMPARE(DurableFiles::Write(tree.Path("file"), "new"), QString());
    QCOMPARE(Read(tree.Path("file")), QByteArray("new"));
    QCOMPARE(Read(tree.Path("other")), QByteArray("old"));
    QCOMPARE(kxtest::Mode(tree.Path("other")), 0644);
}

void TestDurableFiles::WriteIsNotMisledByWhatLiesWhereItsBytesAreKept_data()
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<bool>("succeeds");
    QTest::newRow("rest of a write that was cut off") << "file" << true;
    QTest::newRow("read-only rest") << "readonly" << true;
    QTest::newRow("other name of a file elsewhere") << "hardlink" << true;
    QTest::newRow("link to a file") << "link" << true;
    QTest::newRow("dangling link") << "dangling" << true;
    // Whatever becomes of these: nothing blocks, and nothing is lost.
    QTest::newRow("FIFO") << "fifo" << false;
    QTest::newRow("directory") << "directory" << false;
}

void TestDurableFiles::WriteIsNotMisledByWhatLiesWhereItsBytesAreKept()
{
    QFETCH(const QString, kind);
    QFETCH(const bool, succeeds);
    TreeBuilder tree;
    tree.File("place/file", "old").File("outside/file", "precious");
    const QStringList outside = Snapshot(tree.Path("outside"));
    const QString path = tree.Path("place/file");
    const QString temporary = DurableFiles::HiddenSibling(path, ".kxtmp");
    TreeBuilder place(tree.Path("place"));
    if (kind == "file" || kind == "readonly")
        place.File(Name(temporary), QByteArray(5000, 'r'), kind == "file" ? 0644 : 0400);
    else if (kind == "hardlink")
        QCOMPARE(::link(qPrintable(tree.Path("outside/file")), qPrintable(temporary)), 0);
    else if (kind == "link")
        place.Symlink(Name(temporary), "../outside/file");
    else if (kind == "dangling")
        place.Symlink(Name(temporary), "../outside/none");
    else if (kind == "fifo")
        QCOMPARE(::mkfifo(qPrintable(temporary), 0600), 0);
    else
        place.File(Name(temporary) + "/precious", "x");

    const QString problem = DurableFiles::Write(path, "new");
    QCOMPARE(Snapshot(tree.Path("outside")), outside);
    if (succeeds)
        QCOMPARE(problem, QString());
    QCOMPARE(Read(path), problem.isEmpty() ? QByteArray("new") : QByteArray("old"));
    if (problem.isEmpty()) {
        QCOMPARE(kxtest::Mode(path), 0600);
        QCOMPARE(Names(tree.Path("place")), QStringList("file"));
    } else {
        QVERIFY2(problem.contains(temporary) || problem.contains(path), qPrintable(problem));
    }
    if (kind == "directory")
        QVERIFY(kxtest::Exists(temporary + "/precious"));
}

void TestDurableFiles::WriteThatFailsLeavesWhatWasThere_data()
{
    QTest::addColumn<QString>("name");
    QTest::newRow("directory in its place") << "directory";
    QTest::newRow("empty directory in its place") << "empty";
    QTest::newRow("no such directory") << "none/file";
    QTest::newRow("file for a directory") << "file/below";
    QTest::newRow("closed directory, new file") << "closed/new";
    QTest::newRow("closed directory, file in it") << "closed/file";
    QTest::newRow("name too long") << QString(256, u'n');
}

void TestDurableFiles::WriteThatFailsLeavesWhatWasThere()
{
    QFETCH(const QString, name);
    TreeBuilder tree;
    tree.File("directory/file", "x")
        .Dir("empty")
        .File("file", "x")
        .File("closed/file", "x", 0666)
        .Dir("closed", 0555);
    kxtest::SetMode(tree.Root(), 0777);
    const QStringList before = Snapshot(tree.Root());
    const kxtest::DroppedRights dropped;
    const QString problem = DurableFiles::Write(tree.Path(name), "new");
    QVERIFY2(problem.contains(tree.Path(name)), qPrintable(problem));
    QCOMPARE(Snapshot(tree.Root()), before);
}

void TestDurableFiles::WriteThatRunsOutOfRoomLeavesWhatWasThere()
{
    TreeBuilder tree;
    tree.File("file", "old");
    const QStringList before = Snapshot(tree.Root());
    QString problem;
    {
        const kxtest::FileSizeLimit limit(4096);
        problem = DurableFiles::Write(tree.Path("file"), QByteArray(100000, 'n'));
    }
    QVERIFY2(problem.contains(tree.Path("file")), qPrintable(problem));
    QCOMPARE(Snapshot(tree.Root()), before);
}

void TestDurableFiles::ReadersSeeTheOldOrTheNewWhole()
{
    TreeBuilder tree;
    constexpr int size = 50000;
    const QString path = tree.Path("file");
    QCOMPARE(DurableFiles::Write(path, QByteArray(size, 'a')), QString());
    std::atomic<bool> ends{false};
    std::atomic<int> problems{0};
    std::thread writer([&] {
        for (int i = 0; i < 100; ++i) {
            if (!DurableFiles::Write(path, QByteArray(size, i % 2 ? 'a' : 'b')).isEmpty())
                ++problems;
        }
        ends = true;
    });
    int torn = 0;
    while (!ends) {
        QFile file(path);
        const QByteArray bytes =
            file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("missing");
        if (bytes != QByteArray(size, 'a') && bytes != QByteArray(size, 'b'))
            ++torn;
    }
    writer.join();
    QCOMPARE(torn, 0);
    QCOMPARE(problems.load(), 0);
}

void TestDurableFiles::RemovesOneEntry_data()
{
    QTest::addColumn<QString>("name");
    QTest::newRow("file") << "file";
    QTest::newRow("read-only file") << "readonly";
    QTest::newRow("link to a file") << "link";
    QTest::newRow("link to a directory") << "dirlink";
    QTest::newRow("dangling link") << "dangling";
    QTest::newRow("nothing") << "none";
}

void TestDurableFiles::RemovesOneEntry()
{
    QFETCH(const QString, name);
    TreeBuilder tree;
    tree.File("place/file", "x")
        .File("place/readonly", "x", 0400)
        .Symlink("place/link", "../outside/file")
        .Symlink("place/dirlink", "../outside")
        .Symlink("place/dangling", "none")
        .File("outside/file", "precious");
    const QStringList outside = Snapshot(tree.Path("outside"));
    QStringList names = Names(tree.Path("place"));
    QCOMPARE(DurableFiles::Remove(tree.Path("place/" + name)), QString());
    names.removeAll(name);
    QCOMPARE(Names(tree.Path("place")), names);
    QCOMPARE(Snapshot(tree.Path("outside")), outside);
}

void TestDurableFiles::RemoveRefuses_data()
{
    QTest::addColumn<QString>("name");
    QTest::newRow("directory") << "directory";
    QTest::newRow("empty directory") << "empty";
    QTest::newRow("file in a closed directory") << "closed/file";
}

void TestDurableFiles::RemoveRefuses()
{
    QFETCH(const QString, name);
    TreeBuilder tree;
    tree.File("directory/file", "x").Dir("empty").File("closed/file", "x").Dir("closed", 0555);
    kxtest::SetMode(tree.Root(), 0777);
    const QStringList before = Snapshot(tree.Root());
    const kxtest::DroppedRights dropped;
    const QString problem = DurableFiles::Remove(tree.Path(name));
    QVERIFY2(problem.contains(tree.Path(name)), qPrintable(problem));
    QCOMPARE(Snapshot(tree.Root()), before);
}

void TestDurableFiles::RemovesATreeAndFollowsNoLink()
{
    TreeBuilder tree;
    tree.File("tree/deep/down/file", "x")
        .File("tree/.hidden", "x")
        .File("tree/readonly/file", "x", 0400)
        .Dir("tree/empty")
        .Symlink("tree/link", "../outside/file")
        .Symlink("tree/dirlink", "../outside")
        .Symlink("tree/dangling", "none")
        .File("outside/file", "precious")
        .File("tree.old/file", "precious");
    QCOMPARE(::mkfifo(qPrintable(tree.Path("tree/fifo")), 0600), 0);
    kxtest::SetMode(tree.Path("tree/readonly"), 0500);
    QCOMPARE(DurableFiles::RemoveTree(tree.Path("tree")), QString());
    QCOMPARE(Names(tree.Root()), QStringList({"outside", "tree.old"}));
    QVERIFY(kxtest::Exists(tree.Path("outside/file")));
    QVERIFY(kxtest::Exists(tree.Path("tree.old/file")));
    QCOMPARE(DurableFiles::RemoveTree(tree.Path("tree")), QString());
    QCOMPARE(DurableFiles::RemoveTree(tree.Path("none/tree")), QString());
}

void TestDurableFiles::RemovesALinkToATreeAlone()
{
    TreeBuilder tree;
    tree.File("outside/file", "precious").Symlink("link", "outside").Symlink("dangling", "none");
    QCOMPARE(DurableFiles::RemoveTree(tree.Path("link")), QString());
    QCOMPARE(DurableFiles::RemoveTree(tree.Path("dangling")), QString());
    QCOMPARE(Names(tree.Root()), QStringList("outside"));
    QVERIFY(kxtest::Exists(tree.Path("outside/file")));
}

void TestDurableFiles::RemovesAReadOnlyTreeAsAnOrdinaryUser()
{
    TreeBuilder tree;
    kxtest::SetMode(tree.Root(), 0777);
    const kxtest::DroppedRights dropped;
    tree.File("tree/a/b/file", "x", 0400);
    kxtest::SetMode(tree.Path("tree/a/b"), 0500);
    kxtest::SetMode(tree.Path("tree/a"), 0);
    QCOMPARE(DurableFiles::RemoveTree(tree.Path("tree")), QString());
    QCOMPARE(Names(tree.Root()), QStringList());
}

void TestDurableFiles::RemoveTreeRefuses_data()
{
    QTest::addColumn<QString>("path");
    QTest::newRow("nothing") << "";
    QTest::newRow("file") << "ROOT/file";
    QTest::newRow("home") << "ROOT/home";
    QTest::newRow("home, separator") << "ROOT/home/";
    QTest::newRow("home, by way of another") << "ROOT/closed/../home";
    QTest::newRow("home, by way of a missing directory") << "ROOT/home/none/..";
    QTest::newRow("home, up") << "ROOT/home/sub/..";
    QTest::newRow("null character") << QStringLiteral("ROOT/home/sub") + QChar(0);
    QTest::newRow("relative") << "home";
    QTest::newRow("tree in a closed directory") << "ROOT/closed/tree";
}

void TestDurableFiles::RemoveTreeRefuses()
{
    QFETCH(QString, path);
    TreeBuilder tree;
    tree.File("file", "x")
        .File("home/precious", "x")
        .File("home/sub/precious", "x")
        .Dir("home/sub", 0777)
        .Dir("home", 0777)
        .Dir("closed/tree", 0777)
        .Dir("closed", 0555);
    kxtest::SetMode(tree.Root(), 0777);
    const QStringList before = Snapshot(tree.Root());
    const Home home(tree.Path("home"));
    path.replace("ROOT", tree.Root());
    const kxtest::DroppedRights dropped;
    const QString problem = DurableFiles::RemoveTree(path);
    QVERIFY(!problem.isEmpty());
    QVERIFY2(problem.contains(QDir::cleanPath(path)) || problem.contains(path),
             qPrintable(problem));
    QCOMPARE(Snapshot(tree.Root()), before);
}

void TestDurableFiles::RenamesADirectory()
{
    TreeBuilder tree;
    tree.File("app/bin/app", "x", 0755).Symlink("app/link", "bin/app").Dir("other");
    const QStringList before = Snapshot(tree.Path("app"));
    QCOMPARE(DurableFiles::Rename(tree.Path("app"), tree.Path("app.old")), QString());
    QCOMPARE(Snapshot(tree.Path("app.old")), before);
    QCOMPARE(DurableFiles::Rename(tree.Path("app.old"), tree.Path("other/app")), QString());
    QCOMPARE(Snapshot(tree.Path("other/app")), before);
    QCOMPARE(Names(tree.Root()), QStringList("other"));
}

void TestDurableFiles::RenameRefuses_data()
{
    QTest::addColumn<QString>("from");
    QTest::addColumn<QString>("to");
    QTest::newRow("full directory in the way") << "app"
                                               << "full";
    QTest::newRow("empty directory in the way") << "app"
                                                << "empty";
    QTest::newRow("file in the way") << "app"
                                     << "file";
    QTest::newRow("link in the way") << "app"
                                     << "link";
    QTest::newRow("dangling link in the way") << "app"
                                              << "dangling";
    QTest::newRow("nothing to move") << "none"
                                     << "new";
    QTest::newRow("no such directory") << "app"
                                       << "none/app";
    QTest::newRow("closed directory") << "app"
                                      << "closed/app";
    QTest::newRow("into itself") << "app"
                                 << "app/sub";
}

void TestDurableFiles::RenameRefuses()
{
    QFETCH(const QString, from);
    QFETCH(const QString, to);
    TreeBuilder tree;
    tree.File("app/file", "x")
        .File("full/file", "y")
        .Dir("empty")
        .File("file", "z")
        .Symlink("link", "full")
        .Symlink("dangling", "none")
        .Dir("closed", 0555);
    kxtest::SetMode(tree.Root(), 0777);
    const QStringList before = Snapshot(tree.Root());
    const kxtest::DroppedRights dropped;
    const QString problem = DurableFiles::Rename(tree.Path(from), tree.Path(to));
    QVERIFY2(problem.contains(tree.Path(from)) && problem.contains(tree.Path(to)),
             qPrintable(problem));
    QCOMPARE(Snapshot(tree.Root()), before);
}

void TestDurableFiles::HiddenSiblingStandsBesideThePath_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("suffix");
    QTest::addColumn<QString>("sibling");
    QTest::newRow("directory") << "/opt/app"
                               << ".kxnew"
                               << "/opt/.app.kxnew";
    QTest::newRow("in the root") << "/app"
                                 << ".kxtmp"
                                 << "/.app.kxtmp";
    QTest::newRow("hidden") << "/opt/.app"
                            << ".kxtmp"
                            << "/opt/..app.kxtmp";
    QTest::newRow("separator at the end") << "/opt/app/"
                                          << ".kxnew"
                                          << "/opt/.app.kxnew";
    QTest::newRow("blanks") << "/opt/my app"
                            << ".kxlock"
                            << "/opt/.my app.kxlock";
    QTest::newRow("not ascii") << QStringLiteral("/opt/\u00fc\u65e5") << ".kxlock"
                               << QStringLiteral("/opt/.\u00fc\u65e5.kxlock");
    // The point and the suffix fill it up to 255 bytes.
    QTest::newRow("just fits") << "/opt/" + QString(248, u'n') << ".kxnew"
                               << "/opt/." + QString(248, u'n') + ".kxnew";
}

void TestDurableFiles::HiddenSiblingStandsBesideThePath()
{
    QFETCH(const QString, path);
    QFETCH(const QString, suffix);
    QFETCH(const QString, sibling);
    QCOMPARE(DurableFiles::HiddenSibling(path, suffix), sibling);
}

void TestDurableFiles::LongHiddenSiblingsStayApart()
{
    const QStringList names = {QString(249, u'n'),
                               QString(254, u'n') + u'a',
                               QString(254, u'n') + u'b',
                               QString(255, u'n'),
                               QString(84, QChar(0x65e5)) + u'a',
                               QString(84, QChar(0x65e5)) + u'b',
                               u'a' + QString(84, QChar(0x65e5)),
                               u'b' + QString(84, QChar(0x65e5)),
                               QString(u'a') + u'b' + QString(84, QChar(0x65e5))};
    QStringList siblings;
    TreeBuilder tree;
    for (const QString& name : names) {
        const QString sibling = DurableFiles::HiddenSibling(tree.Path(name), ".kxnew");
        QCOMPARE(DurableFiles::HiddenSibling(tree.Path(name), ".kxnew"), sibling);
        QCOMPARE(QFileInfo(sibling).path(), tree.Root());
        QVERIFY(Name(sibling).startsWith(u'.'));
        QVERIFY(sibling.endsWith(".kxnew"));
        const QByteArray bytes = QFile::encodeName(Name(sibling));
        QVERIFY2(bytes.size() <= 255, bytes);
        // No letter is cut in the middle.
        QCOMPARE(QString::fromUtf8(bytes), Name(sibling));
        QVERIFY(!Name(sibling).contains(QChar::ReplacementCharacter));
        tree.Dir(Name(sibling));
        siblings << sibling;
    }
    QCOMPARE(siblings.removeDuplicates(), 0);
}

void TestDurableFiles::CopyGrowsInTheHiddenSibling_data()
{
    QTest::addColumn<QString>("name");
    QTest::newRow("short") << "app";
    QTest::newRow("255 bytes") << QString(255, u'n');
    QTest::newRow("255 bytes, not ascii") << QString(85, QChar(0x65e5));
}

void TestDurableFiles::CopyGrowsInTheHiddenSibling()
{
    QFETCH(const QString, name);
    TreeBuilder tree;
    tree.File("source/file", "x");
    const QString destination = tree.Path("to/" + name);
    tree.Dir("to");
    std::atomic<bool> stood{false};
    {
        const kxtest::StepHook hook([&](common::fileops::Step step) {
            if (step == common::fileops::Step::Place &&
                Names(tree.Path("to")) ==
                    QStringList(Name(DurableFiles::HiddenSibling(destination, ".kxnew"))))
                stood = true;
            return 0;
        });
        common::FileCopier copier;
        copier.AddDirectory(tree.Path("source"), destination);
        const kxtest::FileRun run = kxtest::RunToEnd(copier, &common::FileCopier::Copy);
        QVERIFY2(run.IsGood(), qPrintable(run.Line()));
    }
    QVERIFY(stood);
}

QTEST_GUILESS_MAIN(TestDurableFiles)
#include "tst_durablefiles.moc"
