#include "wiringguard.h"

#include <kxupdater/file.h>

#include <QMetaType>
#include <QTest>

#include <type_traits>
#include <utility>

using updater::File;

namespace {

constexpr QFileDevice::Permissions userFlags =
    QFileDevice::ReadUser | QFileDevice::WriteUser | QFileDevice::ExeUser;

const char digest[] = "9e107d9d372bb6826bd81d3542a419d6";

} // namespace

Q_DECLARE_METATYPE(QFileDevice::Permissions)

/** The record of one entry of a tree. */
class TestFile : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { kxtest::FailOnWiringWarnings(); }

    void DefaultRecordIsEmpty();
    void ConstructorTakesNameDigestSizePermissionsTarget();
    void CopiesAndAssignmentsAreWhole();
    void AssignmentToItselfDoesNothing();
    void EqualityFollowsTheRules_data();
    void EqualityFollowsTheRules();
    void PermissionsAreParsedByPosition_data();
    void PermissionsAreParsedByPosition();
    void SymlinkIsARecordWithTarget();
    void HashCombinesSizeDigestAndName_data();
    void HashCombinesSizeDigestAndName();
    void HashSeesTheCaseOfTheDigestButNotTargetAndPermissions();
    void IsAPlainValue();
    void ListIsAMetaTypeUnderBothNames();
};

void TestFile::DefaultRecordIsEmpty()
{
    const File file;
    QCOMPARE(file.Name(), QString());
    QCOMPARE(file.MD5(), QString());
    QCOMPARE(file.Size(), quint64(0));
    QCOMPARE(file.PermissionsString(), QString());
    QCOMPARE(file.Permissions(), QFileDevice::Permissions());
    QVERIFY(!file.IsSymlink());
    QCOMPARE(file.SymlinkPath(), QString());
    QVERIFY(file == File("", "", 0, "", ""));
}

void TestFile::ConstructorTakesNameDigestSizePermissionsTarget()
{
    const File file("bin/app", "ABC", ~quint64(0), "-rwx------", "../x");
    QCOMPARE(file.Name(), QString("bin/app"));
    QCOMPARE(file.MD5(), QString("ABC"));
    QCOMPARE(file.Size(), ~quint64(0));
    QCOMPARE(file.PermissionsString(), QString("-rwx------"));
    QCOMPARE(file.SymlinkPath(), QString("../x"));
}

void TestFile::CopiesAndAssignmentsAreWhole()
{
    const File file("n", "m", 5, "-rw-------", "t");
    const File copy(file);
    File assigned("other", "o", 1, "p", "q");
    QCOMPARE(&(assigned = file), &assigned);
    for (const File& other : {copy, std::as_const(assigned)}) {
        QVERIFY(other == file);
        QCOMPARE(other.PermissionsString(), QString("-rw-------"));
        QCOMPARE(other.SymlinkPath(), QString("t"));
    }
}

void TestFile::AssignmentToItselfDoesNothing()
{
    File file("n", "m", 5, "-rw-------", "t");
    File& alias = file;
    QCOMPARE(&(file = alias), &file);
    QVERIFY(file == File("n", "m", 5, "", "t"));
    QCOMPARE(file.PermissionsString(), QString("-rw-------"));
}

void TestFile::EqualityFollowsTheRules_data()
{
    QTest::addColumn<File>("left");
    QTest::addColumn<File>("right");
    QTest::addColumn<bool>("equal");

    const File base("bin/app", digest, 7, "-rwxr-xr-x", "");
    QTest::newRow("same") << base << base << true;
    QTest::newRow("size differs") << base << File("bin/app", digest, 8, "-rwxr-xr-x", "") << false;
    QTest::newRow("name differs") << base << File("bin/apq", digest, 7, "-rwxr-xr-x", "") << false;
    QTest::newRow("name differs in case")
        << base << File("bin/App", digest, 7, "-rwxr-xr-x", "") << false;
    QTest::newRow("name differs in normal form")
        << File(QString::fromUtf8("\u00e4"), digest, 7, "", "")
        << File(QString::fromUtf8("a\u0308"), digest, 7, "", "") << false;
    QTest::newRow("digest differs")
        << base << File("bin/app", QString(digest).replace('9', '8'), 7, "-rwxr-xr-x", "") << false;
    QTest::newRow("digest differs in case")
        << base << File("bin/app", QString(digest).toUpper(), 7, "-rwxr-xr-x", "") << true;
    QTest::newRow("digest in mixed case")
        << File("a", "aBcD", 1, "", "") << File("a", "AbCd", 1, "", "") << true;
    QTest::newRow("digest missing") << base << File("bin/app", "", 7, "-rwxr-xr-x", "") << false;
    QTest::newRow("permissions differ") << base << File("bin/app", digest, 7, "", "") << true;
    QTest::newRow("one is a link")
        << base << File("bin/app", digest, 7, "-rwxr-xr-x", "x") << false;
    QTest::newRow("same target") << File("l", digest, 1, "", "x") << File("l", digest, 1, "", "x")
                                 << true;
    QTest::newRow("target differs")
        << File("l", digest, 1, "", "x") << File("l", digest, 1, "", "y") << false;
    QTest::newRow("target differs in case")
        << File("l", digest, 1, "", "x") << File("l", digest, 1, "", "X") << false;
    QTest::newRow("null and empty texts")
        << File(QString(), QString(), 0, QString(), QString()) << File("", "", 0, "", "") << true;
}

void TestFile::EqualityFollowsTheRules()
{
    QFETCH(File, left);
    QFETCH(File, right);
    QFETCH(bool, equal);
    QCOMPARE(left == right, equal);
    QCOMPARE(right == left, equal);
}

void TestFile::PermissionsAreParsedByPosition_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QFileDevice::Permissions>("flags");

    using QF = QFileDevice;
    const QF::Permissions none;
    const QF::Permissions rwxrxrx = QF::ReadOwner | QF::WriteOwner | QF::ExeOwner | QF::ReadGroup |
                                    QF::ExeGroup | QF::ReadOther | QF::ExeOther;
    QTest::newRow("empty") << "" << none;
    QTest::newRow("nine characters") << "rwxr-xr-x" << none;
    QTest::newRow("ten characters") << "-rwxr-xr-x" << rwxrxrx;
    QTest::newRow("directory with more behind")
        << "drw-------.trailing rwx" << (QF::ReadOwner | QF::WriteOwner);
    QTest::newRow("link") << "lrwxr-xr-x" << rwxrxrx;
    QTest::newRow("type is ignored") << "r---------" << none;
    QTest::newRow("all") << "-rwxrwxrwx" << (rwxrxrx | QF::WriteGroup | QF::WriteOther);
    QTest::newRow("none") << "----------" << none;
    QTest::newRow("upper case") << "-RWXRWXRWX" << none;
    QTest::newRow("shifted letters") << "-wxrwxrwxr" << none;
    QTest::newRow("set-user bits")
        << "-rwsr-Sr-t" << (QF::ReadOwner | QF::WriteOwner | QF::ReadGroup | QF::ReadOther);
    const struct
    {
        const char* text;
        int value;
    } single[] = {{"-r--------", 0x4000}, {"--w-------", 0x2000}, {"---x------", 0x1000},
                  {"----r-----", 0x0040}, {"-----w----", 0x0020}, {"------x---", 0x0010},
                  {"-------r--", 0x0004}, {"--------w-", 0x0002}, {"---------x", 0x0001}};
    for (const auto& row : single)
        QTest::newRow(row.text) << row.text << QF::Permissions(row.value);
}

void TestFile::PermissionsAreParsedByPosition()
{
    QFETCH(QString, text);
    QFETCH(QFileDevice::Permissions, flags);
    const File file("n", "m", 1, text, "");
    QCOMPARE(file.Permissions(), flags);
    QCOMPARE(file.Permissions() & userFlags, QFileDevice::Permissions());
    QCOMPARE(file.PermissionsString(), text);
}

void TestFile::SymlinkIsARecordWithTarget()
{
    QVERIFY(!File("n", "m", 1, "lrwxrwxrwx", "").IsSymlink());
    QVERIFY(File("n", "m", 1, "-rw-r--r--", "x").IsSymlink());
    QVERIFY(File("n", "m", 1, "", " ").IsSymlink());
}

void TestFile::HashCombinesSizeDigestAndName_data()
{
    QTest::addColumn<quint64>("seed");
    QTest::newRow("zero") << quint64(0);
    QTest::newRow("one") << quint64(1);
    QTest::newRow("large") << quint64(0x9e3779b97f4a7c15);
}

void TestFile::HashCombinesSizeDigestAndName()
{
    QFETCH(quint64, seed);
    const size_t s = static_cast<size_t>(seed);
    const quint64 size = 0x123456789a;
    const File file("bin/app", digest, size, "-rwxr-xr-x", "t");
    const size_t expected = ::qHash(size, s) ^ ::qHash(QStringView(QString(digest)), s) ^
                            ::qHash(QStringView(QString("bin/app")), s);
    QCOMPARE(updater::qHash(file, s), expected);
    QCOMPARE(updater::qHash(file), updater::qHash(file, 0));
}

void TestFile::HashSeesTheCaseOfTheDigestButNotTargetAndPermissions()
{
    const size_t seed = 12345;
    const File file("n", "abc", 1, "-rwxr-xr-x", "t");
    QVERIFY(qHash(file, seed) != qHash(File("n", "ABC", 1, "-rwxr-xr-x", "t"), seed));
    QVERIFY(qHash(file, seed) != qHash(File("N", "abc", 1, "-rwxr-xr-x", "t"), seed));
    QVERIFY(qHash(file, seed) != qHash(File("n", "abc", 2, "-rwxr-xr-x", "t"), seed));
    QCOMPARE(qHash(file, seed), qHash(File("n", "abc", 1, "", "other"), seed));
}

void TestFile::IsAPlainValue()
{
    static_assert(!std::is_polymorphic_v<File>);
    static_assert(std::is_copy_constructible_v<File> && std::is_copy_assignable_v<File>);
    static_assert(sizeof(File) == 4 * sizeof(QString) + sizeof(quint64));
    static_assert(std::is_same_v<updater::FileList, QList<File>>);
    static_assert(std::is_same_v<decltype(std::declval<const File&>().Name()), QString>);
    static_assert(std::is_same_v<decltype(std::declval<const File&>().Permissions()),
                                 QFlags<QFileDevice::Permission>>);
    static_assert(std::is_same_v<decltype(updater::qHash(std::declval<const File&>())), size_t>);
}

void TestFile::ListIsAMetaTypeUnderBothNames()
{
    const int id = qRegisterMetaType<updater::FileList>("updater::FileList");
    QVERIFY(id != QMetaType::UnknownType);
    QCOMPARE(QMetaType::fromName("updater::FileList").id(), id);
    QCOMPARE(QMetaType::fromName("QList<updater::File>").id(), id);
}

QTEST_GUILESS_MAIN(TestFile)
#include "tst_file.moc"
