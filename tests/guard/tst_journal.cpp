#include "journal.h"

#include <QCryptographicHash>
#include <QTest>

using guard::InventoryEntry;
using guard::Journal;

namespace {

// A journal of these lines, with the end that they need.
QByteArray Journaled(const QByteArray& lines, qsizetype count)
{
    const QByteArray above = "kxjournal 1\napplication a\n" + lines;
    const QByteArray digest = QCryptographicHash::hash(above, QCryptographicHash::Sha256).toHex();
    return above + "end " + QByteArray::number(count) + ' ' + digest + '\n';
}

} // namespace

/** The text of the journal beside an application. */
class TestJournal : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void WhatIsWrittenIsReadBack();
    void OtherTextsAreRefused_data();
    void OtherTextsAreRefused();
};

void TestJournal::WhatIsWrittenIsReadBack()
{
    Journal journal;
    journal.application = "1:2";
    InventoryEntry entry;
    entry.name = "bin/app with blanks";
    entry.size = 18446744073709551615u;
    journal.entries.append(entry);
    entry.name = QString(QChar(0xfeff)) + "begins with a mark of byte order";
    entry.size = 0;
    journal.entries.append(entry);
    entry.name = QString::fromUtf8("gr\xc3\xb6\xc3\x9f"
                                   "e");
    entry.kind = InventoryEntry::Link;
    journal.entries.append(entry);

    Journal read;
    QVERIFY(Journal::Parse(journal.Text(), &read));
    QCOMPARE(read.application, journal.application);
    QCOMPARE(read.entries.size(), journal.entries.size());
    for (qsizetype i = 0; i < read.entries.size(); ++i) {
        QCOMPARE(read.entries.at(i).name, journal.entries.at(i).name);
        QCOMPARE(read.entries.at(i).kind, journal.entries.at(i).kind);
        QCOMPARE(read.entries.at(i).size, journal.entries.at(i).size);
    }
}

void TestJournal::OtherTextsAreRefused_data()
{
    QTest::addColumn<QByteArray>("text");
    const QByteArray good = Journaled("file 5 a\n", 1);
    Journal journal;
    QVERIFY(
        Journal::Parse(good, &journal)); // so it is not for their frame that the rest are refused

    QTest::newRow("empty") << QByteArray();
    QTest::newRow("cut before the end") << good.left(good.indexOf("end"));
    QTest::newRow("cut in the end") << good.chopped(1);
    QTest::newRow("cut before the digest") << good.left(good.indexOf("end") + 5) + '\n';
    QTest::newRow("another count") << Journaled("file 5 a\n", 2);
    QTest::newRow("another digest") << QByteArray(good).replace("file 5", "file 6");
    QTest::newRow("more behind the end") << good + '\n';
    QTest::newRow("another version") << QByteArray(good).replace("kxjournal 1", "kxjournal 2");
    QTest::newRow("size with a sign") << Journaled("file +5 a\n", 1);
    QTest::newRow("size with a zero before it") << Journaled("file 05 a\n", 1);
    QTest::newRow("size that is too large") << Journaled("file 18446744073709551616 a\n", 1);
    QTest::newRow("no size") << Journaled("file a\n", 1);
    QTest::newRow("no name") << Journaled("link \n", 1);
    QTest::newRow("second entry is none") << Journaled("file 5 a\ndirectory b\n", 2);
    QTest::newRow("name that is no UTF-8") << Journaled("file 5 \xff\n", 1);
}

void TestJournal::OtherTextsAreRefused()
{
    QFETCH(QByteArray, text);
    Journal journal;
    QVERIFY(!Journal::Parse(text, &journal));
    QVERIFY(journal.application.isEmpty());
    QVERIFY(journal.entries.isEmpty());
}

QTEST_GUILESS_MAIN(TestJournal)
#include "tst_journal.moc"
