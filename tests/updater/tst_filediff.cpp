#include "wiringguard.h"

#include "filediff.h"

#include <QHashSeed>
#include <QTest>

using updater::Difference;
using updater::File;
using updater::FileList;
using updater::Intersection;

namespace {

File Entry(const QString& name, const QString& md5 = "abc", quint64 size = 1,
           const QString& permissions = {}, const QString& target = {})
{
    return File(name, md5, size, permissions, target);
}

// Every field, the permissions included: equality alone would hide what the operations return.
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

} // namespace

/** Set operations on file lists. */
class TestFileDiff : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { kxtest::FailOnWiringWarnings(); }
    void cleanup() { QHashSeed::resetRandomGlobalSeed(); }

    void KeysAreEqualRecordsWithTheSameDigestText_data();
    void KeysAreEqualRecordsWithTheSameDigestText();
    void DifferenceKeepsTheOrderOfTheFirstList();
    void IntersectionTakesRecordsOfTheFirstList();
    void EachKeyAppearsOnce();
    void ResultsDoNotDependOnTheHashSeed();
    void DifferenceAndIntersectionPartTheFirstList();
};

void TestFileDiff::KeysAreEqualRecordsWithTheSameDigestText_data()
{
    QTest::addColumn<File>("left");
    QTest::addColumn<File>("right");
    QTest::addColumn<bool>("same");

    QTest::newRow("same") << Entry("a") << Entry("a") << true;
    QTest::newRow("name differs") << Entry("a") << Entry("b") << false;
    QTest::newRow("name differs in case") << Entry("a") << Entry("A") << false;
    QTest::newRow("size differs") << Entry("a") << Entry("a", "abc", 2) << false;
    QTest::newRow("digest differs") << Entry("a") << Entry("a", "abd") << false;
    QTest::newRow("digest differs in case") << Entry("a") << Entry("a", "ABC") << false;
    QTest::newRow("permissions differ") << Entry("a") << Entry("a", "abc", 1, "-rwx------") << true;
    QTest::newRow("one is a link") << Entry("a") << Entry("a", "abc", 1, {}, "t") << false;
    QTest::newRow("same link") << Entry("a", "abc", 1, {}, "t") << Entry("a", "abc", 1, {}, "t")
                               << true;
    QTest::newRow("target differs")
        << Entry("a", "abc", 1, {}, "t") << Entry("a", "abc", 1, {}, "u") << false;
    QTest::newRow("target differs in case")
        << Entry("a", "abc", 1, {}, "t") << Entry("a", "abc", 1, {}, "T") << false;
}

void TestFileDiff::KeysAreEqualRecordsWithTheSameDigestText()
{
    QFETCH(File, left);
    QFETCH(File, right);
    QFETCH(bool, same);
    // Chance must not decide: see the note in filediff.h.
    for (int i = 0; i < 200; ++i) {
        QHashSeed::resetRandomGlobalSeed();
        QCOMPARE(Difference({left}, {right}).size(), same ? 0 : 1);
        QCOMPARE(Difference({right}, {left}).size(), same ? 0 : 1);
        QCOMPARE(Intersection({left}, {right}).size(), same ? 1 : 0);
        QCOMPARE(Intersection({right}, {left}).size(), same ? 1 : 0);
    }
}

void TestFileDiff::DifferenceKeepsTheOrderOfTheFirstList()
{
    const FileList from{Entry("z"), Entry("m", "1"), Entry("a"), Entry("k"), Entry("b")};
    QCOMPARE(TextOf(Difference(from, {Entry("k"), Entry("y"), Entry("m", "2")})),
             (QStringList{"z|abc|1||", "m|1|1||", "a|abc|1||", "b|abc|1||"}));
    QCOMPARE(TextOf(Difference(from, {})), TextOf(from));
    QCOMPARE(TextOf(Difference({}, from)), QStringList());
}

void TestFileDiff::IntersectionTakesRecordsOfTheFirstList()
{
    const FileList of{Entry("z"), Entry("a", "abc", 1, "-rw-------"), Entry("m")};
    const FileList with{Entry("a", "abc", 1, "-rwxrwxrwx"), Entry("z", "abc", 1, "p"), Entry("q")};
    QCOMPARE(TextOf(Intersection(of, with)), (QStringList{"z|abc|1||", "a|abc|1|-rw-------|"}));
    QCOMPARE(TextOf(Intersection(of, {})), QStringList());
    QCOMPARE(TextOf(Intersection({}, with)), QStringList());
}

void TestFileDiff::EachKeyAppearsOnce()
{
    const FileList doubled{Entry("a"), Entry("b"), Entry("a", "abc", 1, "-rwx------"),
                           Entry("a", "ABC"), Entry("b")};
    QCOMPARE(TextOf(Difference(doubled, {})), (QStringList{"a|abc|1||", "b|abc|1||", "a|ABC|1||"}));
    QCOMPARE(TextOf(Difference(doubled, {Entry("b")})), (QStringList{"a|abc|1||", "a|ABC|1||"}));
    QCOMPARE(TextOf(Intersection(doubled, doubled)),
             (QStringList{"a|abc|1||", "b|abc|1||", "a|ABC|1||"}));
}

void TestFileDiff::ResultsDoNotDependOnTheHashSeed()
{
    FileList server;
    FileList local;
    for (int i = 0; i < 300; ++i) {
        const QString name = QStringLiteral("file%1").arg(i);
        const QString md5 = QStringLiteral("abcdef%1").arg(i, 26, 16, QLatin1Char('0'));
        server << Entry(name, md5.toUpper());
        local << Entry(name, md5);
    }
    for (int i = 0; i < 200; ++i) {
        QHashSeed::resetRandomGlobalSeed();
        QCOMPARE(TextOf(Difference(server, local)), TextOf(server));
        QCOMPARE(TextOf(Difference(local, server)), TextOf(local));
        QCOMPARE(Intersection(local, server).size(), 0);
    }
}

void TestFileDiff::DifferenceAndIntersectionPartTheFirstList()
{
    FileList first;
    FileList second;
    for (int i = 0; i < 2000; ++i) {
        if (i % 2)
            first << Entry(QString::number(i), QString::number(i % 7), i % 5);
        if (i % 3)
            second << Entry(QString::number(i), QString::number(i % 7), i % 4);
    }
    const QStringList different = TextOf(Difference(first, second));
    const QStringList common = TextOf(Intersection(first, second));
    QCOMPARE(different.size() + common.size(), first.size());
    QStringList all = different + common;
    QStringList expected = TextOf(first);
    all.sort();
    expected.sort();
    QCOMPARE(all, expected);
    for (const QString& line : common)
        QVERIFY(TextOf(second).contains(line));
}

QTEST_GUILESS_MAIN(TestFileDiff)
#include "tst_filediff.moc"
