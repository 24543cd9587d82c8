#include "droppedrights.h"
#include "treebuilder.h"
#include "wiringguard.h"

#include <kxcommon/filecommands.h>

#include <QFileInfo>
#include <QTest>

#include <sys/stat.h>

using common::FileCommands;
using kxtest::TreeBuilder;

namespace {

bool Rename(const QString& from, const QString& to)
{
    QDir dir(from);
    return FileCommands::RenameDirectory(dir, from, to);
}

} // namespace

class TestFileCommands : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void init() { kxtest::FailOnWiringWarnings(); }

    void MovesWithEverythingInIt_data();
    void MovesWithEverythingInIt();
    void RefusesWhenSomethingStandsThere_data();
    void RefusesWhenSomethingStandsThere();
    void RefusesBadSource_data();
    void RefusesBadSource();
    void RefusesBadTarget_data();
    void RefusesBadTarget();
    void RelativePathsAreNeverResolved();
    void LinkToADirectoryMovesAsALink();
    void LinkThatWouldLeadElsewhereStays();
    void ReadOnlyDirectoryMoves();
    void OrdinaryUserIsRefusedInAReadOnlyParent();
};

void TestFileCommands::MovesWithEverythingInIt_data()
{
    QTest::addColumn<QString>("from");
    QTest::addColumn<QString>("to");
    QTest::newRow("plain") << "app"
                           << "app.old";
    QTest::newRow("separators at the end") << "app//"
                                           << "app.old/";
    QTest::newRow("dot at the end") << "app/."
                                    << "app.old/.";
    QTest::newRow("uncleaned") << "x/../app"
                               << "x//../app.old";
    QTest::newRow("into another directory") << "app"
                                            << "x/app";
    QTest::newRow("not ascii") << "app" << QStringLiteral("\u00fc e\u0301\u65e5");
    QTest::newRow("255 bytes") << "app" << QString(255, 'n');
}

void TestFileCommands::MovesWithEverythingInIt()
{
    QFETCH(const QString, from);
    QFETCH(const QString, to);
    TreeBuilder tree;
    tree.File("app/a", "x").File("app/d/.b", "y", 0400).Symlink("app/l", "nowhere").Dir("x");
    const QStringList before = kxtest::Snapshot(tree.Path("app"));
    QVERIFY(Rename(tree.Path(from), tree.Path(to)));
    QCOMPARE(kxtest::Snapshot(tree.Path(to)), before);
    QVERIFY(!kxtest::Exists(tree.Path("app")));
}

void TestFileCommands::RefusesWhenSomethingStandsThere_data()
{
    QTest::addColumn<QString>("to");
    QTest::newRow("empty directory") << "empty";
    QTest::newRow("full directory") << "full";
    QTest::newRow("file") << "file";
    QTest::newRow("dangling link") << "dangling";
    QTest::newRow("link to a directory") << "dirlink";
    QTest::newRow("fifo") << "fifo";
    QTest::newRow("itself") << "app";
    QTest::newRow("empty directory, separator at the end") << "empty/";
    QTest::newRow("dangling link, separator at the end") << "dangling/";
}

void TestFileCommands::RefusesWhenSomethingStandsThere()
{
    QFETCH(const QString, to);
    TreeBuilder tree;
    tree.File("app/a", "x").Dir("empty").File("full/f", "y").File("file", "z");
    tree.Symlink("dangling", "nowhere").Symlink("dirlink", "empty");
    QCOMPARE(mkfifo(qPrintable(tree.Path("fifo")), 0600), 0);
    const QStringList before = kxtest::Snapshot(tree.Root());
    QVERIFY(!Rename(tree.Path("app"), tree.Path(to)));
    QCOMPARE(kxtest::Snapshot(tree.Root()), before);
}

void TestFileCommands::RefusesBadSource_data()
{
    QTest::addColumn<QString>("from");
    QTest::newRow("missing") << "/none";
    QTest::newRow("file") << "/file";
    QTest::newRow("dangling link") << "/dangling";
    QTest::newRow("link to a file") << "/filelink";
    QTest::newRow("root") << "";
    QTest::newRow("up") << "/app/..";
    QTest::newRow("null character") << QStringLiteral("/app") + QChar(0) + QStringLiteral("x");
}

void TestFileCommands::RefusesBadSource()
{
    QFETCH(const QString, from);
    TreeBuilder tree;
    tree.Dir("app").File("file", "x").Symlink("dangling", "nowhere").Symlink("filelink", "file");
    const QStringList before = kxtest::Snapshot(tree.Root());
    QVERIFY(!Rename(from.isEmpty() ? QStringLiteral("/") : tree.Root() + from, tree.Path("to")));
    QVERIFY(!Rename({}, tree.Path("to")));
    QCOMPARE(kxtest::Snapshot(tree.Root()), before);
}

void TestFileCommands::RefusesBadTarget_data()
{
    QTest::addColumn<QString>("to");
    QTest::newRow("inside itself") << "app/new";
    QTest::newRow("missing parent") << "none/new";
    QTest::newRow("below a file") << "file/new";
    QTest::newRow("name too long") << QString(256, 'n');
    QTest::newRow("path too long") << QString("d/").repeated(3000) + "new";
    QTest::newRow("null character") << QStringLiteral("new") + QChar(0) + QStringLiteral("x");
    QTest::newRow("up") << "app/..";
}

void TestFileCommands::RefusesBadTarget()
{
    QFETCH(const QString, to);
    TreeBuilder tree;
    tree.File("app/a", "x").File("file", "x");
    const QStringList before = kxtest::Snapshot(tree.Root());
    QVERIFY(!Rename(tree.Path("app"), tree.Path(to)));
    QVERIFY(!Rename(tree.Path("app"), {}));
    QVERIFY(!Rename(tree.Path("app"), "/"));
    QCOMPARE(kxtest::Snapshot(tree.Root()), before);
}

void TestFileCommands::RelativePathsAreNeverResolved()
{
    TreeBuilder tree;
    tree.File("app/app/a", "x");
    const QStringList before = kxtest::Snapshot(tree.Root());
    QDir dir(tree.Path("app"));
    QVERIFY(!FileCommands::RenameDirectory(dir, "app", tree.Path("new")));
    QVERIFY(!FileCommands::RenameDirectory(dir, tree.Path("app/app"), "new"));
    QVERIFY(!FileCommands::RenameDirectory(dir, ".", tree.Path("new")));
    QCOMPARE(kxtest::Snapshot(tree.Root()), before);
}

void TestFileCommands::LinkToADirectoryMovesAsALink()
{
    TreeBuilder tree;
    tree.File("version1/a", "x").Symlink("app", "version1");
    QVERIFY(Rename(tree.Path("app/"), tree.Path("app.old")));
    QCOMPARE(kxtest::LinkText(tree.Path("app.old")), QStringLiteral("version1"));
    QVERIFY(kxtest::Exists(tree.Path("version1/a")));
    QVERIFY(!kxtest::Exists(tree.Path("app")));
    QVERIFY(Rename(tree.Path("app.old"), tree.Path("app")));
    QCOMPARE(kxtest::Read(tree.Path("app/a")), QByteArray("x"));
}

void TestFileCommands::LinkThatWouldLeadElsewhereStays()
{
    TreeBuilder tree;
    tree.File("version1/a", "x").File("other/version1/b", "y").Symlink("app", "version1");
    const QStringList before = kxtest::Snapshot(tree.Root());
    QVERIFY(!Rename(tree.Path("app"), tree.Path("other/app")));
    QCOMPARE(kxtest::Snapshot(tree.Root()), before);
}

void TestFileCommands::ReadOnlyDirectoryMoves()
{
    const kxtest::DroppedRights dropped;
    TreeBuilder tree;
    tree.File("app/a", "x").Dir("app", 0555);
    QVERIFY(Rename(tree.Path("app"), tree.Path("app.old")));
    QCOMPARE(kxtest::Mode(tree.Path("app.old")), 0555);
    kxtest::SetMode(tree.Path("app.old"), 0755);
}

void TestFileCommands::OrdinaryUserIsRefusedInAReadOnlyParent()
{
    const kxtest::DroppedRights dropped;
    TreeBuilder tree;
    tree.File("p/app/a", "x").Dir("p", 0555);
    QVERIFY(!Rename(tree.Path("p/app"), tree.Path("p/new")));
    QVERIFY(!Rename(tree.Path("p/app"), tree.Path("new")));
    QVERIFY(kxtest::Exists(tree.Path("p/app/a")));
    kxtest::SetMode(tree.Path("p"), 0755);
}

QTEST_GUILESS_MAIN(TestFileCommands)
#include "tst_filecommands.moc"
