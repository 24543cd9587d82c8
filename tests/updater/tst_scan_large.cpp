#include "loopticker.h"
#include "treebuilder.h"
#include "wiringguard.h"

#include <kxupdater/errors.h>
#include <kxupdater/filescanner.h>

#include <QSignalSpy>
#include <QTest>

namespace {

constexpr qint64 largeSize = 4402341479; // more than 32 bits count
const QString largeDigest = QStringLiteral("5b94d59ced3c7466e418a2302b4bc244");
constexpr int patience = 200000;

} // namespace

/** Files of more than 4 GiB; a test of its own, since hashing one takes its time. */
class TestScanLarge : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();

    void FileOfMoreThan4GiBIsScannedWhileTheLoopRuns();
    void AbortDoesNotWaitForTheEndOfTheFile();
};

void TestScanLarge::init()
{
    kxtest::FailOnWiringWarnings();
}

void TestScanLarge::FileOfMoreThan4GiBIsScannedWhileTheLoopRuns()
{
    kxtest::TreeBuilder tree;
    tree.Sparse("dir/large", largeSize);
    updater::FileScanner scanner(tree.Root());
    QSignalSpy succesed(&scanner, SIGNAL(succesed()));
    kxtest::LoopTicker ticker(1);
    QVERIFY(scanner.Scan());
    QVERIFY(succesed.wait(patience));
    QVERIFY(ticker.Ticks() > 100);

    QCOMPARE(scanner.Files().size(), 1);
    const updater::File file = scanner.Files().first();
    QCOMPARE(file.Name(), QString("dir/large"));
    QCOMPARE(file.Size(), static_cast<quint64>(largeSize));
    QCOMPARE(file.MD5(), largeDigest);
}

void TestScanLarge::AbortDoesNotWaitForTheEndOfTheFile()
{
    // Hours, if it did.
    kxtest::TreeBuilder tree;
    tree.Sparse("large", largeSize << 8);
    updater::FileScanner scanner(tree.Root());
    QSignalSpy succesed(&scanner, SIGNAL(succesed()));
    QSignalSpy failed(&scanner, SIGNAL(failed(int, const QString&)));
    QVERIFY(scanner.Scan());
    kxtest::LoopTicker ticker(1);
    QTRY_VERIFY_WITH_TIMEOUT(ticker.Ticks() > 100, patience);
    scanner.Abort(true);
    QTRY_COMPARE_WITH_TIMEOUT(failed.count(), 1, patience);
    QCOMPARE(failed.first().first().toInt(), int(updater::ScanAborted));
    QCOMPARE(succesed.count(), 0);
    QVERIFY(scanner.Files().isEmpty());
}

QTEST_GUILESS_MAIN(TestScanLarge)
#include "tst_scan_large.moc"
