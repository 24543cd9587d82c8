#include "journal.h"

#include <QTest>

using guard::InventoryEntry;
using guard::Journal;

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
    journal.backup = "none";
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
    QCOMPARE(read.backup, journal.backup);
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
    const QByteArray begin = "kxjournal 1\napplication a\nbackup b\n";
    QTest::newRow("empty") << QByteArray();
    QTest::newRow("cut before the end") << begin + "file 5 a\n";
    QTest::newRow("cut in the end") << begin + "file 5 a\nend 1";
    QTest::newRow("another count") << begin + "file 5 a\nend 2\n";
    QTest::newRow("more behind the end") << begin + "file 5 a\nend 1\n\n";
    QTest::newRow("another version") << QByteArray("kxjournal 2\napplication a\nbackup b\nend 0\n");
    QTest::newRow("size with a sign") << begin + "file +5 a\nend 1\n";
    QTest::newRow("size with a zero before it") << begin + "file 05 a\nend 1\n";
    QTest::newRow("size that is too large") << begin + "file 18446744073709551616 a\nend 1\n";
    QTest::newRow("no size") << begin + "file a\nend 1\n";
    QTest::newRow("no name") << begin + "link \nend 1\n";
    QTest::newRow("second entry is none") << begin + "file 5 a\ndirectory b\nend 2\n";
    QTest::newRow("name that is no UTF-8") << begin + "file 5 \xff\nend 1\n";
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
