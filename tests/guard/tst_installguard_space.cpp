#include "guardedupdater.h"
#include "guardsite.h"
#include "manifest.h"
#include "wiringguard.h"

#include <kxguard/errors.h>
#include <kxguard/installguard.h>

#include <QTest>

#include <memory>

#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

using kxtest::GuardedUpdater;
using kxtest::GuardSite;
using kxtest::HostCallback;
using kxtest::Snapshot;
using kxtest::TreeBuilder;

namespace {

constexpr qint64 kib = 1024;

/** A volume of its own, in a name space that ends with the test. */
class Volume
{
public:
    Volume(const QString& path, qint64 bytes) : path(path)
    {
        const QByteArray size = "size=" + QByteArray::number(bytes) + ",mode=755";
        if (::mount("tmpfs", qPrintable(path), "tmpfs", 0, size.constData()) != 0)
            qFatal("cannot mount '%s'", qPrintable(path));
    }
    ~Volume() { ::umount2(qPrintable(path), MNT_DETACH); }

private:
    Q_DISABLE_COPY(Volume)
    QString path;
};

} // namespace

/** An install that its volume has no room for is refused before the application is touched. */
class TestInstallGuardSpace : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();

    void SpaceIsLookedAtBeforeTheSwap_data();
    void SpaceIsLookedAtBeforeTheSwap();
    void OldBackupMakesRoom();

private:
    std::unique_ptr<GuardSite> site;
};

void TestInstallGuardSpace::initTestCase()
{
    if (::geteuid() != 0)
        QSKIP("only root can mount the small volumes");
    if (::unshare(CLONE_NEWNS) != 0 ||
        ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        QSKIP("this system allows no mount name space");
}

void TestInstallGuardSpace::init()
{
    kxtest::FailOnWiringWarnings();
    site = std::make_unique<GuardSite>();
    TreeBuilder next(site->Next());
    for (int i = 0; i < 50; ++i)
        next.File(QStringLiteral("lib/%1").arg(i), QByteArray(10000, 'x'));
    site->Describe();
}

void TestInstallGuardSpace::SpaceIsLookedAtBeforeTheSwap_data()
{
    QTest::addColumn<int>("size"); // in KiB; 50 files take 12 each, and the rest not 100
    QTest::addColumn<bool>("installs");
    QTest::newRow("much too small") << 64 << false;
    QTest::newRow("the bytes would fit, the blocks do not") << 560 << false;
    QTest::newRow("enough") << 800 << true;
}

void TestInstallGuardSpace::SpaceIsLookedAtBeforeTheSwap()
{
    QFETCH(const int, size);
    QFETCH(const bool, installs);
    const QString place = site->Scratch("place");
    const Volume volume(place, size * kib);
    TreeBuilder(place).File("app/bin/app", "old program", 0755);
    const QStringList before = Snapshot(place);
    HostCallback host;
    GuardedUpdater guarded(*site);
    guarded.Updater()->SetLocalPackagePath(place + "/app");
    guarded.Guard().SetCallback(&host);
    QVERIFY2(guarded.Install() == installs, guarded.Report());
    if (installs) {
        QCOMPARE(Snapshot(place + "/app"), Snapshot(site->Next()));
        return;
    }
    QVERIFY2(guarded.Code() == guard::InstallNoSpace, guarded.Report());
    QCOMPARE(guarded.Guard().LastErrorCode(), int(guard::InstallNoSpace));
    QVERIFY2(guarded.Guard().LastError().contains(place), guarded.Report());
    QCOMPARE(host.calls.load(), 0);
    QCOMPARE(Snapshot(place), before);
}

void TestInstallGuardSpace::OldBackupMakesRoom()
{
    const QString place = site->Scratch("place");
    const Volume volume(place, 1000 * kib);
    TreeBuilder(place)
        .File("app/bin/app", "old program", 0755)
        .File("app.old/big", QByteArray(600 * 1024, 'x'));
    GuardedUpdater guarded(*site);
    guarded.Updater()->SetLocalPackagePath(place + "/app");
    // The swap removes it before the copy begins.
    QVERIFY2(guarded.Install(), guarded.Report());
    QCOMPARE(Snapshot(place + "/app"), Snapshot(site->Next()));
    // What is in use is no room.
    TreeBuilder(place).File("data", QByteArray(200 * 1024, 'x'));
    const QStringList before = Snapshot(place);
    QVERIFY2(!guarded.Install(), guarded.Report());
    QVERIFY2(guarded.Code() == guard::InstallNoSpace, guarded.Report());
    QCOMPARE(Snapshot(place), before);
}

QTEST_GUILESS_MAIN(TestInstallGuardSpace)
#include "tst_installguard_space.moc"
