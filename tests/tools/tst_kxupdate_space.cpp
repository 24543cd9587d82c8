#include "kxupdateprocess.h"
#include "manifest.h"
#include "treebuilder.h"
#include "updatesite.h"

#include <kxcommon/ifiledownload.h>
#include <kxupdater/build.h>

#include <QRegularExpression>
#include <QStorageInfo>
#include <QTest>

#include <memory>

#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

namespace {

const QString v1 = QStringLiteral("1.0");
const QString v2 = QStringLiteral("2.0");

constexpr qint64 kib = 1024;
constexpr qint64 block = 4 * kib;
// Version 2.0 below: 100 files of 5000 bytes, two blocks each, and the directory "lib".
constexpr int files = 100;
constexpr qint64 whole = files * 2 * block + block;

/** A volume of its own, in a name space that ends with the test. */
class Volume
{
public:
    Volume(const QString& path, qint64 bytes) : path(path)
    {
        const QByteArray size = "size=" + QByteArray::number(bytes) + ",mode=755";
        kxtest::TreeBuilder root(path);
        if (::mount("tmpfs", qPrintable(path), "tmpfs", 0, size.constData()) != 0)
            qFatal("cannot mount '%s'", qPrintable(path));
    }
    ~Volume() { ::umount2(qPrintable(path), MNT_DETACH); }

    QString At(const char* name) const { return path + u'/' + QLatin1String(name); }

private:
    Q_DISABLE_COPY(Volume)
    QString path;
};

} // namespace

/** Too little space is noticed before the download, on the volume that has too little. */
class TstKxupdateSpace : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();

    void SpaceIsCountedPerVolume_data();
    void SpaceIsCountedPerVolume();
    void VolumeThatIsMountedTwiceIsCountedOnce();
    void DownloadNeedsNoSpaceForTheSwap();
    void InstallNeedsNoSpaceForTheDownload();
    void WhatIsThereIsNotCountedAgain_data();
    void WhatIsThereIsNotCountedAgain();
    void WhatIsClearedMakesRoom();
    void WhatACutOffSwapLeftMakesRoom();

private:
    QStringList Command(const QString& command, const QString& app, const QString& download,
                        const QStringList& more = {}) const;
    /** "needed free volume" of the message. */
    static QString Told(const KxupdateProcess& process);

    std::unique_ptr<UpdateSite> site;
};

void TstKxupdateSpace::initTestCase()
{
    if (::geteuid() != 0)
        QSKIP("only root can mount the small volumes");
    if (::unshare(CLONE_NEWNS) != 0 ||
        ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        QSKIP("this system allows no mount name space");

    site = std::make_unique<UpdateSite>();
    const Volume probe(site->Path(QStringLiteral("probe")), 64 * kib);
    QCOMPARE(qint64(QStorageInfo(probe.At("")).blockSize()), block);
    kxtest::Remove(site->Tree(v2));
    kxtest::TreeBuilder tree(site->Tree(v2));
    for (int i = 0; i < files; ++i)
        tree.RandomFile(QStringLiteral("lib/%1").arg(i), 5000, quint32(i));
    site->Publish(v2);
}

QStringList TstKxupdateSpace::Command(const QString& command, const QString& app,
                                      const QString& download, const QStringList& more) const
{
    return QStringList{command,
                       QStringLiteral("--url"),
                       site->Url(),
                       QStringLiteral("--package"),
                       QStringLiteral("hello"),
                       QStringLiteral("--current"),
                       QStringLiteral("0"),
                       QStringLiteral("--app"),
                       app,
                       QStringLiteral("--download"),
                       download} +
           more;
}

QString TstKxupdateSpace::Told(const KxupdateProcess& process)
{
    static const QRegularExpression text(QStringLiteral(
        "Not enough space on '([^']+)': ([0-9]+) bytes are needed, ([0-9]+) are free"));
    const QRegularExpressionMatch match = text.match(process.Errors());
    return match.captured(2) + u' ' + match.captured(3) + u' ' + match.captured(1);
}

void TstKxupdateSpace::SpaceIsCountedPerVolume_data()
{
    QTest::addColumn<qint64>("one"); // sizes of the volumes
    QTest::addColumn<qint64>("two");
    QTest::addColumn<bool>("shared");   // both directories on the first
    QTest::addColumn<qint64>("needed"); // 0: it goes well
    QTest::addColumn<QString>("tight"); // volume
    // A page for the lock file, marker and record each stands beside the trees.
    constexpr qint64 rest = 64 * kib;
    QTest::newRow("room for two") << 2 * whole + rest << rest << true << qint64(0) << "";
    QTest::newRow("room for one where two are needed")
        << whole + rest << rest << true << 2 * whole << "one";
    QTest::newRow("room for one on each")
        << whole + rest << whole + rest << false << qint64(0) << "";
    QTest::newRow("none for the download") << whole - block << 4 * whole << false << whole << "one";
    QTest::newRow("none for the application")
        << 4 * whole << whole - block << false << whole << "two";
    // The bytes alone would fit: 100 times 5000.
    QTest::newRow("blocks count, not bytes")
        << qint64(600 * kib) << 4 * whole << false << whole << "one";
}

void TstKxupdateSpace::SpaceIsCountedPerVolume()
{
    QFETCH(qint64, one);
    QFETCH(qint64, two);
    QFETCH(bool, shared);
    QFETCH(qint64, needed);
    QFETCH(QString, tight);
    const Volume first(site->Path(QStringLiteral("one")), one);
    const Volume second(site->Path(QStringLiteral("two")), two);
    site->Server().ClearRequests();
    // Directories that do not exist yet, below one that does not either.
    const QString app = shared ? first.At("app") : second.At("app");
    KxupdateProcess process;
    QVERIFY2(process.Run(Command(QStringLiteral("update"), app, first.At("cache/next"))),
             process.Report());
    if (needed == 0) {
        QVERIFY2(process.Status() == 0, process.Report());
        QCOMPARE(kxtest::Snapshot(app), site->Published(v2));
        return;
    }
    QVERIFY2(process.Status() == 3, process.Report());
    const QStringList told = Told(process).split(u' ');
    QCOMPARE(told.at(0).toLongLong(), needed);
    QVERIFY(told.at(1).toLongLong() < needed);
    QVERIFY(told.at(1).toLongLong() > 0);
    QCOMPARE(told.at(2), site->Path(tight));
    QVERIFY(!kxtest::Exists(app));
    QVERIFY(!kxtest::Exists(first.At("cache/next")));
    QCOMPARE(site->Server().RequestCount(), 2); // the version and the manifest
}

void TstKxupdateSpace::VolumeThatIsMountedTwiceIsCountedOnce()
{
    const Volume volume(site->Path(QStringLiteral("one")), whole + 64 * kib);
    const QString again = site->Path(QStringLiteral("two"));
    kxtest::TreeBuilder mountPoint(again);
    QCOMPARE(::mount(qPrintable(volume.At("")), qPrintable(again), nullptr, MS_BIND, nullptr), 0);
    KxupdateProcess process;
    const bool ended = process.Run(
        Command(QStringLiteral("update"), again + QStringLiteral("/app"), volume.At("next")));
    ::umount2(qPrintable(again), MNT_DETACH);
    QVERIFY2(ended, process.Report());
    QVERIFY2(process.Status() == 3, process.Report());
    QCOMPARE(Told(process).section(u' ', 0, 0).toLongLong(), 2 * whole);
}

void TstKxupdateSpace::DownloadNeedsNoSpaceForTheSwap()
{
    const Volume volume(site->Path(QStringLiteral("one")), whole + 64 * kib);
    KxupdateProcess process;
    QVERIFY2(process.Run(Command(QStringLiteral("download"), volume.At("app"), volume.At("next"))),
             process.Report());
    QVERIFY2(process.Status() == 0, process.Report());
}

void TstKxupdateSpace::InstallNeedsNoSpaceForTheDownload()
{
    const Volume first(site->Path(QStringLiteral("one")), whole + 64 * kib);
    KxupdateProcess download;
    QVERIFY2(download.Run(Command(QStringLiteral("download"), first.At("app"), first.At("next"))),
             download.Report());
    QVERIFY2(download.Status() == 0, download.Report());
    const Volume second(site->Path(QStringLiteral("two")), whole + 64 * kib);
    KxupdateProcess process;
    QVERIFY2(process.Run(Command(QStringLiteral("install"), second.At("app"), first.At("next"))),
             process.Report());
    QVERIFY2(process.Status() == 0, process.Report());
    // And on the volume that the download fills it is refused.
    KxupdateProcess full;
    QVERIFY2(full.Run(Command(QStringLiteral("install"), first.At("app"), first.At("next"))),
             full.Report());
    QVERIFY2(full.Status() == 3, full.Report());
    QCOMPARE(Told(full).section(u' ', 0, 0).toLongLong(), whole);
}

void TstKxupdateSpace::WhatIsThereIsNotCountedAgain_data()
{
    QTest::addColumn<bool>("partial");
    QTest::newRow("whole files") << false;
    QTest::newRow("unfinished transfers") << true;
}

void TstKxupdateSpace::WhatIsThereIsNotCountedAgain()
{
    QFETCH(bool, partial);
    const Volume first(site->Path(QStringLiteral("one")), 2 * whole);
    const Volume second(site->Path(QStringLiteral("two")), 4 * whole);
    KxupdateProcess before;
    QVERIFY2(before.Run(Command(QStringLiteral("download"), second.At("app"), first.At("next"))),
             before.Report());
    QVERIFY2(before.Status() == 0, before.Report());
    // Half of it goes, or is one block of two; then the volume is filled up.
    for (int i = 0; i < files / 2; ++i) {
        const QString file = first.At("next/lib/") + QString::number(i);
        const QByteArray bytes = kxtest::Read(file);
        kxtest::Remove(file);
        if (partial)
            kxtest::Write(common::http::PartialFilePath(file), bytes.left(4096));
    }
    const qint64 missing = files / 2 * (partial ? block : 2 * block);
    const qint64 spare = 16 * kib;
    const qint64 fill = QStorageInfo(first.At("")).bytesAvailable() - missing - spare;
    kxtest::Write(first.At("fill"), QByteArray(fill, 'x'));
    KxupdateProcess process;
    QVERIFY2(process.Run(Command(QStringLiteral("update"), second.At("app"), first.At("next"))),
             process.Report());
    QVERIFY2(process.Status() == 0, process.Report());
    QCOMPARE(kxtest::Snapshot(second.At("app")), site->Published(v2));
}

void TstKxupdateSpace::WhatIsClearedMakesRoom()
{
    // The download directory is full of a version that the server has no more.
    const Volume first(site->Path(QStringLiteral("one")), whole + 64 * kib);
    const Volume second(site->Path(QStringLiteral("two")), 4 * whole);
    KxupdateProcess before;
    QVERIFY2(before.Run(Command(QStringLiteral("download"), second.At("app"), first.At("next"))),
             before.Report());
    QVERIFY2(before.Status() == 0, before.Report());
    for (int i = 0; i < files; ++i) {
        kxtest::Write(first.At("next/lib/old") + QString::number(i), QByteArray(5000, 'x'));
        kxtest::Remove(first.At("next/lib/") + QString::number(i));
    }
    KxupdateProcess process;
    QVERIFY2(process.Run(Command(QStringLiteral("update"), second.At("app"), first.At("next"))),
             process.Report());
    QVERIFY2(process.Status() == 0, process.Report());
}

void TstKxupdateSpace::WhatACutOffSwapLeftMakesRoom()
{
    const Volume first(site->Path(QStringLiteral("one")), 4 * whole);
    const Volume second(site->Path(QStringLiteral("two")), 2 * whole + 64 * kib);
    UpdateSite::CopyTree(site->Tree(v2), second.At("app.old"));
    UpdateSite::CopyTree(site->Tree(v2), second.At(".app.kxnew"));
    KxupdateProcess process;
    QVERIFY2(process.Run(Command(QStringLiteral("update"), second.At("app"), first.At("next"))),
             process.Report());
    // The backup is the application again, and whole.
    QVERIFY2(process.Status() == 0, process.Report());
    QCOMPARE(process.Data(QStringLiteral("result")), QStringLiteral("up-to-date"));
    kxtest::TreeBuilder(second.At("app")).File(QStringLiteral("stray"), "x");
    KxupdateProcess repair;
    QVERIFY2(repair.Run(Command(QStringLiteral("update"), second.At("app"), first.At("next"))),
             repair.Report());
    QVERIFY2(repair.Status() == 0, repair.Report());
    QCOMPARE(kxtest::Snapshot(second.At("app")), site->Published(v2));
    QVERIFY(!kxtest::Exists(second.At(".app.kxnew")));
}

QTEST_GUILESS_MAIN(TstKxupdateSpace)
#include "tst_kxupdate_space.moc"
