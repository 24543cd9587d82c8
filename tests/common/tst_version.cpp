#include "wiringguard.h"

#include <kxcommon/version.h>

#include <QStringList>
#include <QTest>

#include <type_traits>

/** The order of version texts. */
class TestVersion : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { kxtest::FailOnWiringWarnings(); }

    void LaterVersionsCompareGreater_data();
    void LaterVersionsCompareGreater();
    void EqualVersionsAreNotOrdered_data();
    void EqualVersionsAreNotOrdered();
    void OrderIsStrictAndTransitive();
    void EveryTextIsAccepted();
};

void TestVersion::LaterVersionsCompareGreater_data()
{
    QTest::addColumn<QString>("later");
    QTest::addColumn<QString>("earlier");

    QTest::newRow("major") << "2.0"
                           << "1.9";
    QTest::newRow("minor") << "1.1"
                           << "1.0";
    QTest::newRow("last of four") << "1.2.3.5"
                                  << "1.2.3.4";
    QTest::newRow("compared as numbers, not as text") << "1.10"
                                                      << "1.9";
    QTest::newRow("left component decides") << "2.0.0"
                                            << "1.99.99";
    QTest::newRow("missing component counts as zero") << "1.0.1"
                                                      << "1.0";
    QTest::newRow("shorter but later") << "1.1"
                                       << "1.0.9";
    QTest::newRow("one component") << "3"
                                   << "2.9.9";
    QTest::newRow("leading zeros") << "1.010"
                                   << "1.9";
    QTest::newRow("beyond 32 bits") << "1.4294967297"
                                    << "1.4294967296";
    QTest::newRow("beyond 64 bits") << "1.18446744073709551617"
                                    << "1.18446744073709551616";
    QTest::newRow("fifty digits") << "1" + QString(49, '0') << QString(49, '9');
    QTest::newRow("date") << "20261120"
                          << "20260229";
    QTest::newRow("release after its candidate") << "2.0"
                                                 << "2.0-rc1";
    QTest::newRow("candidate after the release before") << "2.0-rc1"
                                                        << "1.9.9";
    QTest::newRow("candidate after next patch's candidate") << "2.0.1-rc1"
                                                            << "2.0";
    QTest::newRow("suffixes by letter") << "2.0-beta"
                                        << "2.0-alpha";
    QTest::newRow("suffix numbers by value") << "2.0-rc10"
                                             << "2.0-rc2";
    QTest::newRow("longer suffix") << "2.0-rc1.1"
                                   << "2.0-rc1";
    QTest::newRow("missing component with suffix") << "2"
                                                   << "2.0-rc1";
    QTest::newRow("numeric after empty") << "0"
                                         << "";
    QTest::newRow("numeric after words") << "0.0"
                                         << "nightly";
    QTest::newRow("candidate after words") << "0-rc1"
                                           << "zzz";
    QTest::newRow("numeric after prefixed") << "0.1"
                                            << "v9.9";
    QTest::newRow("numeric after empty component") << "0.1"
                                                   << "9..9";
    QTest::newRow("numeric after trailing dot") << "0.1"
                                                << "9.";
    QTest::newRow("numeric after leading dot") << "0.1"
                                               << ".9";
    QTest::newRow("numeric after blank") << "0.1"
                                         << " 9.9";
    QTest::newRow("numeric after sign") << "0.1"
                                        << "+9.9";
    QTest::newRow("numeric after lone suffix") << "0.1"
                                               << "-rc9";
    QTest::newRow("numeric after digits of another script") << "0.1" << QString::fromUtf8("٩.٩");
}

void TestVersion::LaterVersionsCompareGreater()
{
    QFETCH(QString, later);
    QFETCH(QString, earlier);
    QVERIFY(common::Version(later) > common::Version(earlier));
    QVERIFY(!(common::Version(earlier) > common::Version(later)));
}

void TestVersion::EqualVersionsAreNotOrdered_data()
{
    QTest::addColumn<QString>("left");
    QTest::addColumn<QString>("right");

    QTest::newRow("same text") << "1.2.3"
                               << "1.2.3";
    QTest::newRow("missing component is zero") << "1.0"
                                               << "1.0.0";
    QTest::newRow("many missing components") << "1"
                                             << "1.0.0.0.0";
    QTest::newRow("leading zeros") << "01.02"
                                   << "1.2";
    QTest::newRow("all zero") << "0"
                              << "0.0";
    QTest::newRow("same suffix") << "2.0-rc1"
                                 << "2.0-rc1";
    QTest::newRow("same suffix, missing component") << "2-rc1"
                                                    << "2.0-rc1";
    QTest::newRow("both empty") << ""
                                << "";
    QTest::newRow("two words") << "alpha"
                               << "beta";
    QTest::newRow("empty and word") << ""
                                    << "beta";
}

void TestVersion::EqualVersionsAreNotOrdered()
{
    QFETCH(QString, left);
    QFETCH(QString, right);
    QVERIFY(!(common::Version(left) > common::Version(right)));
    QVERIFY(!(common::Version(right) > common::Version(left)));
}

void TestVersion::OrderIsStrictAndTransitive()
{
    const QStringList texts{"",      "x",       "0",        "1",        "1.0",      "1.0.1",
                            "1.0-a", "1.0-a2",  "1.0-a10",  "1.0-b",    "1.1",      "1.1-rc1",
                            "2",     "2.0-rc1", "2.0-rc.1", "2.0-rc-1", "10.0.0.1", "010.0",
                            "..",    "1.-1",    "1.0-",     "1.0-1",    "1.0-10",   "1.0-2"};
    const auto greater = [](const QString& a, const QString& b) {
        return common::Version(a) > common::Version(b);
    };
    for (const QString& a : texts) {
        QVERIFY2(!greater(a, a), qPrintable(a));
        for (const QString& b : texts) {
            QVERIFY2(!(greater(a, b) && greater(b, a)), qPrintable(a + " and " + b));
            for (const QString& c : texts) {
                QVERIFY2(!(greater(a, b) && greater(b, c)) || greater(a, c),
                         qPrintable(a + " > " + b + " > " + c));
            }
        }
    }
}

void TestVersion::EveryTextIsAccepted()
{
    static_assert(std::is_convertible_v<QString, common::Version>);
    QString text;
    for (int c = 0; c < 0x500; ++c)
        text += QChar(c);
    const common::Version odd(text);
    const common::Version huge(QString(1'000'000, '9'));
    const common::Version dots(QString(100'000, '.'));
    QVERIFY(huge > odd);
    QVERIFY(!(dots > odd));
    QVERIFY(!(odd > common::Version(QString())));
}

QTEST_GUILESS_MAIN(TestVersion)
#include "tst_version.moc"
