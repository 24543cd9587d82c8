// A sanitizer that finds nothing proves nothing unless it finds what is planted: with the options
// and suppressions of the other tests, which this one inherits from its preset.

#include <QProcess>
#include <QTest>

class TestPlantedFaults : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void SanitizerReports_data();
    void SanitizerReports();
};

void TestPlantedFaults::SanitizerReports_data()
{
    QTest::addColumn<QString>("fault");
    QTest::addColumn<QByteArray>("report");
    if (qstrcmp(KX_SANITIZER, "thread") == 0) {
        QTest::newRow("race between two threads")
            << "race" << QByteArray("ThreadSanitizer: data race");
        QTest::newRow("nothing where Qt keeps the order") << "queued calls" << QByteArray();
    } else {
        QTest::newRow("nothing in sound code") << "queued calls" << QByteArray();
        QTest::newRow("leak") << "leak" << QByteArray("LeakSanitizer: detected memory leaks");
        QTest::newRow("use after free")
            << "use after free" << QByteArray("AddressSanitizer: heap-use-after-free");
        QTest::newRow("signed overflow")
            << "overflow" << QByteArray("runtime error: signed integer overflow");
    }
}

void TestPlantedFaults::SanitizerReports()
{
    QFETCH(QString, fault);
    QFETCH(QByteArray, report);

    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(QStringLiteral(PLANTED_FAULTS), {fault});
    QVERIFY(process.waitForFinished(120000));
    const QByteArray output = process.readAll();

    QCOMPARE(process.exitStatus(), QProcess::NormalExit);
    if (report.isEmpty()) {
        QCOMPARE(output, QByteArray());
        QCOMPARE(process.exitCode(), 0);
    } else {
        QVERIFY2(output.contains(report), output.constData());
        QVERIFY(process.exitCode() != 0);
        QVERIFY(process.exitCode() != 2); // the helper does not know the fault
    }
}

QTEST_GUILESS_MAIN(TestPlantedFaults)
#include "tst_planted_faults.moc"
