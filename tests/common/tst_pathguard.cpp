#include "treebuilder.h"
#include "wiringguard.h"

#include <kxcommon/pathguard.h>

#include <QTest>

using common::PathGuard;
using kxtest::TreeBuilder;

class TestPathGuard : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void init() { kxtest::FailOnWiringWarnings(); }

    void NamesAreJudged_data();
    void NamesAreJudged();
    void PlacesAreJudged_data();
    void PlacesAreJudged();
    void RootMayBeALinkOrMissing();
    void BadNameIsNotLookedUp();
};

void TestPathGuard::NamesAreJudged_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<bool>("isGood");
    QTest::newRow("plain") << "a" << true;
    QTest::newRow("nested") << "a/b/c" << true;
    QTest::newRow("hidden") << ".a/.b" << true;
    QTest::newRow("three dots") << ".../a" << true;
    QTest::newRow("dots inside") << "a..b/c.." << true;
    QTest::newRow("begins with two dots") << "..a" << true;
    QTest::newRow("spaces") << " a / b " << true;
    QTest::newRow("not ascii") << QStringLiteral("\u00fc/e\u0301/\u65e5\u672c") << true;
    QTest::newRow("percent") << "a%2e%2e/b" << true;
    QTest::newRow("empty") << "" << false;
    QTest::newRow("root") << "/" << false;
    QTest::newRow("absolute") << "/etc/passwd" << false;
    QTest::newRow("up") << ".." << false;
    QTest::newRow("up first") << "../a" << false;
    QTest::newRow("up inside") << "a/../../b" << false;
    QTest::newRow("up last") << "a/.." << false;
    QTest::newRow("dot") << "." << false;
    QTest::newRow("dot inside") << "a/./b" << false;
    QTest::newRow("separator at the end") << "a/" << false;
    QTest::newRow("drive") << "C:/a" << false;
    QTest::newRow("drive, relative") << "c:a" << false;
    QTest::newRow("backslash") << "a\\b" << false;
    QTest::newRow("backslash up") << "..\\a" << false;
    QTest::newRow("null character")
        << QStringLiteral("a") + QChar(0) + QStringLiteral("b") << false;
    QTest::newRow("newline") << "a\nb" << false;
    QTest::newRow("escape") << "a\x1b[0mb" << false;
    QTest::newRow("delete") << "a\x7f" << false;
    QTest::newRow("C1 control") << QStringLiteral("a\u0085b") << false;
}

void TestPathGuard::NamesAreJudged()
{
    QFETCH(const QString, name);
    QFETCH(const bool, isGood);
    QCOMPARE(PathGuard::NameViolation(name).isEmpty(), isGood);
    QCOMPARE(PathGuard::Violation("/nonexistent", name).isEmpty(), isGood);
}

void TestPathGuard::PlacesAreJudged_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<bool>("isGood");
    QTest::newRow("new entry") << "new" << true;
    QTest::newRow("in a new directory") << "new/dir/x" << true;
    QTest::newRow("in a directory") << "dir/x" << true;
    QTest::newRow("existing file itself") << "file" << true;
    QTest::newRow("existing link itself") << "link" << true;
    QTest::newRow("link deeper itself") << "dir/link" << true;
    QTest::newRow("through a link") << "link/x" << false;
    QTest::newRow("through a link deeper") << "dir/link/x" << false;
    QTest::newRow("through a dangling link") << "dangling/x" << false;
    QTest::newRow("through a link that stays inside") << "inner/x" << false;
    QTest::newRow("through a file") << "file/x" << false;
    QTest::newRow("through a link behind doubled separators") << "dir//link/x" << false;
}

void TestPathGuard::PlacesAreJudged()
{
    QFETCH(const QString, name);
    QFETCH(const bool, isGood);
    TreeBuilder tree;
    tree.Dir("outside").Dir("root/dir").File("root/file", "x").Symlink("root/link", "../outside");
    tree.Symlink("root/dir/link", "../../outside").Symlink("root/dangling", "nowhere");
    tree.Symlink("root/inner", "dir");
    const QString violation = PathGuard::Violation(tree.Path("root"), name);
    QVERIFY2(violation.isEmpty() == isGood, qPrintable(violation));
}

void TestPathGuard::RootMayBeALinkOrMissing()
{
    TreeBuilder tree;
    tree.Dir("real").Symlink("root", "real");
    QCOMPARE(PathGuard::Violation(tree.Path("root"), "a/b"), QString());
    QCOMPARE(PathGuard::Violation(tree.Path("root/"), "a/b"), QString());
    QCOMPARE(PathGuard::Violation(tree.Path("missing/root"), "a/b"), QString());
}

void TestPathGuard::BadNameIsNotLookedUp()
{
    TreeBuilder tree;
    tree.Dir("root/dir");
    QVERIFY(!PathGuard::Violation(tree.Path("root"), "dir/../dir/x").isEmpty());
    QVERIFY(!PathGuard::Violation(tree.Path("root"), tree.Path("root/x")).isEmpty());
}

QTEST_GUILESS_MAIN(TestPathGuard)
#include "tst_pathguard.moc"
