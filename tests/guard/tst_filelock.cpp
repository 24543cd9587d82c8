#include "droppedrights.h"
#include "guardchild.h"
#include "treebuilder.h"
#include "wiringguard.h"

#include <kxcommon/durablefiles.h>
#include <kxguard/filelock.h>

#include <QCoreApplication>
#include <QFile>
#include <QTest>

#include <functional>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include <csignal>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {
std::function<void()> beforeLock; // called once, between the opening of a file and its lock
}

/** In place of the system's, which it calls. */
extern "C" int flock(int file, int operation) noexcept
{
    if (beforeLock && (operation & LOCK_EX))
        std::exchange(beforeLock, {})();
    return static_cast<int>(::syscall(SYS_flock, file, operation));
}

using guard::FileLock;
using kxtest::GuardChild;
using kxtest::Snapshot;
using kxtest::TreeBuilder;
using Result = guard::FileLock::Result;

namespace {

/** A process that holds the lock at `path`. */
std::unique_ptr<GuardChild> Owner(const QString& path)
{
    auto owner = std::make_unique<GuardChild>(QStringList{"lock", path, "0"});
    if (owner->Line() != "trying" || owner->Line() != "taken")
        qFatal("the other process cannot take the lock");
    return owner;
}

bool OthersAreExcluded(const QString& path)
{
    GuardChild other({"lock", path, "0"});
    return other.Line() == "trying" && other.Line().startsWith("busy ");
}

} // namespace

class TestFileLock : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();

    void TakesAndReleases();
    void ReleasedByItsEnd();
    void TwoObjectsExcludeEachOther();
    void TwoProcessesExcludeEachOther();
    void LookingAtItDoesNotLoseIt();
    void SecondTakeKeepsIt();
    void LockOfAKilledProcessIsFree();
    void ChildOfTheOwnerDoesNotInheritIt();
    void LeftoverFileIsNoObstacle_data();
    void LeftoverFileIsNoObstacle();
    void WaitsForItsOwner();
    void WaitingProcessGetsIt();
    void WaitEndsWithoutIt();
    void AnythingElseAtThePathIsLeftAlone_data();
    void AnythingElseAtThePathIsLeftAlone();
    void FailsWhereNothingCanBeMade_data();
    void FailsWhereNothingCanBeMade();
    void LeftoverThatCannotBeOpenedFails();
    void LockOfTheAdministratorIsNotInTheOwnersWay();
    void OwnerIsToldWhileThereIsOne();
    void OwnerIsToldToThoseWhoCannotReadTheFile();
    void OwnerThatCannotBeReadIsStillOne();
    void ReleaseLeavesTheFileOfTheNextOwner();
    void LockWhoseFileIsRemovedIsLost();
    void FileThatIsRemovedBeforeItsLockIsNoLock();
    void ManyProcessesNeverOwnItTogether();
    void ManyThreadsNeverOwnItTogether();
    void ApplicationLockStandsBesideTheApplication_data();
    void ApplicationLockStandsBesideTheApplication();

private:
    std::unique_ptr<TreeBuilder> tree;
    QString path;
};

void TestFileLock::init()
{
    kxtest::FailOnWiringWarnings();
    tree = std::make_unique<TreeBuilder>();
    path = tree->Path(".app.kxlock");
}

void TestFileLock::TakesAndReleases()
{
    FileLock lock(path);
    QCOMPARE(lock.Path(), path);
    QVERIFY(!lock.IsHeld());
    QCOMPARE(Snapshot(tree->Root()), QStringList());
    for (int i = 0; i < 3; ++i) {
        QCOMPARE(lock.Take(), Result::Taken);
        QVERIFY(lock.IsHeld());
        QVERIFY(kxtest::Exists(path));
        lock.Release();
        QVERIFY(!lock.IsHeld());
        QCOMPARE(Snapshot(tree->Root()), QStringList());
        lock.Release();
        QVERIFY(!lock.IsHeld());
    }
}

void TestFileLock::ReleasedByItsEnd()
{
    {
        FileLock lock(path);
        QCOMPARE(lock.Take(), Result::Taken);
    }
    QCOMPARE(Snapshot(tree->Root()), QStringList());
    FileLock next(path);
    QCOMPARE(next.Take(), Result::Taken);
}

void TestFileLock::TwoObjectsExcludeEachOther()
{
    FileLock first(path);
    FileLock second(path);
    QCOMPARE(first.Take(), Result::Taken);
    QCOMPARE(second.Take(), Result::Busy);
    QVERIFY(!second.IsHeld());
    QVERIFY2(second.Reason().contains(path), qPrintable(second.Reason()));
    QVERIFY2(second.Reason().contains(QString::number(::getpid())), qPrintable(second.Reason()));
    // The end of the one that has nothing takes nothing from the other.
    second.Release();
    QVERIFY(first.IsHeld());
    QVERIFY(kxtest::Exists(path));
    QVERIFY(OthersAreExcluded(path));
    first.Release();
    QCOMPARE(second.Take(), Result::Taken);
    QCOMPARE(first.Take(), Result::Busy);
}

void TestFileLock::TwoProcessesExcludeEachOther()
{
    const std::unique_ptr<GuardChild> owner = Owner(path);
    FileLock lock(path);
    QCOMPARE(lock.Take(), Result::Busy);
    QVERIFY(!lock.IsHeld());
    QVERIFY2(lock.Reason().contains(path), qPrintable(lock.Reason()));
    QVERIFY2(lock.Reason().contains(QString::number(owner->Id())), qPrintable(lock.Reason()));
    owner->Tell("release");
    QCOMPARE(owner->Line(), QString("released"));
    QCOMPARE(Snapshot(tree->Root()), QStringList());
    QCOMPARE(lock.Take(), Result::Taken);

    owner->Tell("take");
    const QString answer = owner->Line();
    QVERIFY2(answer.startsWith("busy "), qPrintable(answer));
    QVERIFY2(answer.contains(path) && answer.contains(QString::number(::getpid())),
             qPrintable(answer));
    lock.Release();
    owner->Tell("take");
    QCOMPARE(owner->Line(), QString("taken"));
    QCOMPARE(owner->Finish(), QString());
    QCOMPARE(Snapshot(tree->Root()), QStringList());
}

void TestFileLock::LookingAtItDoesNotLoseIt()
{
    FileLock lock(path);
    QCOMPARE(lock.Take(), Result::Taken);
    QCOMPARE(FileLock::OwnerOf(path).process, qint64(::getpid()));
    {
        FileLock other(path);
        QCOMPARE(other.Take(), Result::Busy);
    }
    QFile file(path);
    QVERIFY(file.open(QIODevice::ReadOnly));
    file.close();
    QVERIFY(OthersAreExcluded(path));
    QVERIFY(kxtest::Exists(path));
}

void TestFileLock::SecondTakeKeepsIt()
{
    FileLock lock(path);
    QCOMPARE(lock.Take(), Result::Taken);
    lock.Take();
    QVERIFY(lock.IsHeld());
    QVERIFY(OthersAreExcluded(path));
    lock.Release();
    QCOMPARE(Snapshot(tree->Root()), QStringList());
}

void TestFileLock::LockOfAKilledProcessIsFree()
{
    const std::unique_ptr<GuardChild> owner = Owner(path);
    owner->Kill();
    QVERIFY(owner->WasKilled());
    QVERIFY(kxtest::Exists(path));
    QCOMPARE(FileLock::OwnerOf(path).process, qint64(0));
    FileLock lock(path);
    QCOMPARE(lock.Take(), Result::Taken);
    QCOMPARE(FileLock::OwnerOf(path).process, qint64(::getpid()));
    QVERIFY(OthersAreExcluded(path));
    lock.Release();
    QCOMPARE(Snapshot(tree->Root()), QStringList());
}

void TestFileLock::ChildOfTheOwnerDoesNotInheritIt()
{
    const std::unique_ptr<GuardChild> owner = Owner(path);
    owner->Tell("spawn");
    const QString answer = owner->Line();
    QVERIFY2(answer.startsWith("spawned "), qPrintable(answer));
    const pid_t child = answer.mid(8).toInt();
    QVERIFY(child > 1);
    owner->Kill();
    QCOMPARE(::kill(child, 0), 0); // it lives
    FileLock lock(path);
    const Result result = lock.Take();
    ::kill(child, SIGKILL);
    QCOMPARE(result, Result::Taken);
}

void TestFileLock::LeftoverFileIsNoObstacle_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::newRow("empty") << QByteArray();
    QTest::newRow("process that is no more") << QByteArray("4194303 program\n");
    QTest::newRow("process that lives") << QByteArray("1\nprogram\n");
    QTest::newRow("number that is none") << QByteArray("99999999999999999999999999\n");
    QTest::newRow("negative number") << QByteArray("-1\n");
    QTest::newRow("not text") << kxtest::RandomBytes(5000, 3);
    QTest::newRow("a megabyte") << QByteArray(1 << 20, '1');
}

void TestFileLock::LeftoverFileIsNoObstacle()
{
    QFETCH(const QByteArray, bytes);
    tree->File(".app.kxlock", bytes);
    QCOMPARE(FileLock::OwnerOf(path).process, qint64(0));
    FileLock lock(path);
    QCOMPARE(lock.Take(), Result::Taken);
    QCOMPARE(FileLock::OwnerOf(path).process, qint64(::getpid()));
    GuardChild other({"owner", path});
    QCOMPARE(other.Line(), QString::number(::getpid()));
    lock.Release();
    QCOMPARE(Snapshot(tree->Root()), QStringList());
}

void TestFileLock::WaitsForItsOwner()
{
    const std::unique_ptr<GuardChild> owner = Owner(path);
    FileLock lock(path);
    for (int i = 0; i < 5; ++i) {
        owner->Tell("release");
        QCOMPARE(lock.Take(60000), Result::Taken);
        QCOMPARE(owner->Line(), QString("released"));
        lock.Release();
        owner->Tell("take");
        QCOMPARE(owner->Line(), QString("taken"));
    }
    // Its death is as good.
    std::thread killer([&] { ::kill(static_cast<pid_t>(owner->Id()), SIGKILL); });
    const Result result = lock.Take(60000);
    killer.join();
    QCOMPARE(result, Result::Taken);
}

void TestFileLock::WaitingProcessGetsIt()
{
    FileLock lock(path);
    QCOMPARE(lock.Take(), Result::Taken);
    GuardChild other({"lock", path, "120000"});
    QCOMPARE(other.Line(), QString("trying"));
    QVERIFY(other.FallsAsleep());
    lock.Release();
    QCOMPARE(other.Line(), QString("taken"));
    QCOMPARE(lock.Take(), Result::Busy);
}

void TestFileLock::WaitEndsWithoutIt()
{
    const std::unique_ptr<GuardChild> owner = Owner(path);
    FileLock lock(path);
    QCOMPARE(lock.Take(50), Result::Busy);
    QVERIFY2(lock.Reason().contains(QString::number(owner->Id())), qPrintable(lock.Reason()));
    owner->Tell("release");
    QCOMPARE(owner->Line(), QString("released"));
    QCOMPARE(lock.Take(50), Result::Taken);
}

void TestFileLock::AnythingElseAtThePathIsLeftAlone_data()
{
    QTest::addColumn<QString>("name");
    QTest::newRow("link to a file") << "link";
    QTest::newRow("link to an empty file") << "emptylink";
    QTest::newRow("link to a directory") << "dirlink";
    QTest::newRow("dangling link") << "dangling";
    QTest::newRow("directory") << "directory";
    QTest::newRow("FIFO") << "fifo";
}

void TestFileLock::AnythingElseAtThePathIsLeftAlone()
{
    QFETCH(const QString, name);
    tree->File("outside/file", "precious")
        .File("outside/empty", "")
        .Symlink("link", "outside/file")
        .Symlink("emptylink", "outside/empty")
        .Symlink("dirlink", "outside")
        .Symlink("dangling", "outside/none")
        .Dir("directory");
    QCOMPARE(::mkfifo(qPrintable(tree->Path("fifo")), 0600), 0);
    const QStringList before = Snapshot(tree->Root());
    {
        FileLock lock(tree->Path(name));
        QCOMPARE(lock.Take(), Result::Failed);
        QVERIFY(!lock.IsHeld());
        QVERIFY2(lock.Reason().contains(tree->Path(name)), qPrintable(lock.Reason()));
        QCOMPARE(lock.Take(20), Result::Failed);
        QCOMPARE(FileLock::OwnerOf(tree->Path(name)).process, qint64(0));
        lock.Release();
    }
    QCOMPARE(Snapshot(tree->Root()), before);
}

void TestFileLock::FailsWhereNothingCanBeMade_data()
{
    QTest::addColumn<QString>("name");
    QTest::newRow("closed directory") << "closed/lock";
    QTest::newRow("no such directory") << "none/lock";
    QTest::newRow("file for a directory") << "file/lock";
    QTest::newRow("name too long") << QString(256, u'n');
}

void TestFileLock::FailsWhereNothingCanBeMade()
{
    QFETCH(const QString, name);
    tree->Dir("closed", 0555).File("file", "x");
    kxtest::SetMode(tree->Root(), 0755);
    const QStringList before = Snapshot(tree->Root());
    const kxtest::DroppedRights dropped;
    FileLock lock(tree->Path(name));
    QCOMPARE(lock.Take(), Result::Failed);
    QVERIFY(!lock.IsHeld());
    QVERIFY2(lock.Reason().contains(tree->Path(name)), qPrintable(lock.Reason()));
    QVERIFY2(lock.Reason().size() > tree->Path(name).size() + 10, qPrintable(lock.Reason()));
    QCOMPARE(FileLock::OwnerOf(tree->Path(name)).process, qint64(0));
    QCOMPARE(Snapshot(tree->Root()), before);
}

void TestFileLock::LeftoverThatCannotBeOpenedFails()
{
    if (::geteuid() != 0)
        QSKIP("only root can leave the file of another user");
    tree->File(".app.kxlock", "1\n", 0600);
    kxtest::SetMode(tree->Root(), 0755);
    const kxtest::DroppedRights dropped;
    FileLock lock(path);
    QCOMPARE(lock.Take(), Result::Failed);
    QVERIFY2(lock.Reason().contains(path), qPrintable(lock.Reason()));
    QVERIFY(kxtest::Exists(path));
}

void TestFileLock::LockOfTheAdministratorIsNotInTheOwnersWay()
{
    if (::geteuid() != 0)
        QSKIP("only root can work in the directory of another user");
    constexpr uint user = 12345;
    QCOMPARE(::chown(QFile::encodeName(tree->Root()).constData(), user, user), 0);
    FileLock lock(path);
    QCOMPARE(lock.Take(), Result::Taken);
    QCOMPARE(QFileInfo(path).ownerId(), user);
    lock.Release();
    // Somebody's file with a second name stays whose it is.
    const QString other = tree->Path("other");
    tree->File("other", "root's");
    QCOMPARE(::link(QFile::encodeName(other).constData(), QFile::encodeName(path).constData()), 0);
    QCOMPARE(lock.Take(), Result::Failed);
    QCOMPARE(QFileInfo(other).ownerId(), 0u);
}

void TestFileLock::OwnerIsToldWhileThereIsOne()
{
    QCOMPARE(FileLock::OwnerOf(path).process, qint64(0));
    QCOMPARE(Snapshot(tree->Root()), QStringList());
    const std::unique_ptr<GuardChild> owner = Owner(path);
    const FileLock::Owner told = FileLock::OwnerOf(path);
    QCOMPARE(told.process, owner->Id());
    QVERIFY2(told.program.isEmpty() || told.program.contains("kxguardchild"),
             qPrintable(told.program));
    QVERIFY(OthersAreExcluded(path));
    QCOMPARE(FileLock::OwnerOf(path).process, owner->Id());
    owner->Tell("release");
    QCOMPARE(owner->Line(), QString("released"));
    const FileLock::Owner nobody = FileLock::OwnerOf(path);
    QCOMPARE(nobody.process, qint64(0));
    QCOMPARE(Snapshot(tree->Root()), QStringList());
}

void TestFileLock::OwnerIsToldToThoseWhoCannotReadTheFile()
{
    const std::unique_ptr<GuardChild> owner = Owner(path);
    kxtest::SetMode(tree->Root(), 0755);
    kxtest::SetMode(path, 0600);
    const kxtest::DroppedRights dropped;
    const qint64 process = FileLock::OwnerOf(path).process;
    QVERIFY2(process == -1 || process == owner->Id(), qPrintable(QString::number(process)));
}

void TestFileLock::OwnerThatCannotBeReadIsStillOne()
{
    const std::unique_ptr<GuardChild> owner = Owner(path);
    for (const QByteArray& bytes : {QByteArray(), QByteArray("?"), QByteArray(100000, '9')}) {
        kxtest::Write(path, bytes);
        const qint64 process = FileLock::OwnerOf(path).process;
        QVERIFY2(process == -1 || process == owner->Id(), qPrintable(QString::number(process)));
        FileLock lock(path);
        QCOMPARE(lock.Take(), Result::Busy);
        QVERIFY2(lock.Reason().contains(path), qPrintable(lock.Reason()));
    }
}

void TestFileLock::ReleaseLeavesTheFileOfTheNextOwner()
{
    FileLock lock(path);
    QCOMPARE(lock.Take(), Result::Taken);
    // Somebody clears up by hand, and another process takes what is free now.
    kxtest::Remove(path);
    const std::unique_ptr<GuardChild> owner = Owner(path);
    lock.Release();
    QVERIFY(kxtest::Exists(path));
    QVERIFY(OthersAreExcluded(path));
    QCOMPARE(FileLock::OwnerOf(path).process, owner->Id());
}

void TestFileLock::LockWhoseFileIsRemovedIsLost()
{
    FileLock lock(path);
    QCOMPARE(lock.Take(), Result::Taken);
    kxtest::Remove(path);
    QVERIFY(!lock.IsHeld());
    QCOMPARE(lock.Take(), Result::Taken);
    QVERIFY(OthersAreExcluded(path));
    kxtest::Remove(path);
    const std::unique_ptr<GuardChild> owner = Owner(path);
    QVERIFY(!lock.IsHeld());
    QCOMPARE(lock.Take(), Result::Busy);
    QCOMPARE(FileLock::OwnerOf(path).process, owner->Id());
}

void TestFileLock::FileThatIsRemovedBeforeItsLockIsNoLock()
{
    FileLock first(path);
    FileLock second(path);
    FileLock third(path);
    QCOMPARE(first.Take(), Result::Taken);
    // Between the second one's open() and flock() the lock changes hands, and its file with it.
    Result change = Result::Failed;
    beforeLock = [&] {
        first.Release();
        change = third.Take();
    };
    QCOMPARE(second.Take(), Result::Busy);
    QCOMPARE(change, Result::Taken);
    QVERIFY(!beforeLock);
    QVERIFY(third.IsHeld());
    QVERIFY(!second.IsHeld());
    // Without a successor it is the second one's, with a file that stands there.
    beforeLock = [&] { third.Release(); };
    QCOMPARE(second.Take(), Result::Taken);
    QVERIFY(!beforeLock);
    QVERIFY(kxtest::Exists(path));
    QVERIFY(OthersAreExcluded(path));
}

void TestFileLock::ManyProcessesNeverOwnItTogether()
{
    constexpr int processes = 8;
    constexpr int rounds = 150;
    tree->Dir("area");
    std::vector<std::unique_ptr<GuardChild>> racers;
    for (int i = 0; i < processes; ++i) {
        racers.push_back(std::make_unique<GuardChild>(
            QStringList{"race", path, tree->Path("area"), QString::number(rounds)}));
    }
    for (const std::unique_ptr<GuardChild>& racer : racers) {
        QCOMPARE(racer->Finish(), QString());
        QCOMPARE(racer->Status(), 0);
    }
    QCOMPARE(kxtest::Read(tree->Path("area/count")).toInt(), processes * rounds);
    QVERIFY(!kxtest::Exists(path));
}

void TestFileLock::ManyThreadsNeverOwnItTogether()
{
    constexpr int threads = 4;
    constexpr int rounds = 200;
    std::atomic<int> owners{0};
    std::atomic<int> problems{0};
    std::vector<std::thread> racers;
    for (int i = 0; i < threads; ++i) {
        racers.emplace_back([&] {
            FileLock lock(path);
            for (int done = 0; done < rounds;) {
                const Result result = lock.Take();
                if (result == Result::Failed) {
                    ++problems;
                    return;
                }
                if (result == Result::Busy) {
                    std::this_thread::yield();
                    continue;
                }
                if (++owners != 1)
                    ++problems;
                std::this_thread::yield();
                --owners;
                lock.Release();
                ++done;
            }
        });
    }
    for (std::thread& racer : racers)
        racer.join();
    QCOMPARE(problems.load(), 0);
    QCOMPARE(Snapshot(tree->Root()), QStringList());
}

void TestFileLock::ApplicationLockStandsBesideTheApplication_data()
{
    QTest::addColumn<QString>("application");
    QTest::addColumn<QString>("lock");
    QTest::newRow("plain") << "/opt/app"
                           << "/opt/.app.kxlock";
    QTest::newRow("separator at the end") << "/opt/app/"
                                          << "/opt/.app.kxlock";
    QTest::newRow("long") << "/opt/" + QString(255, u'n')
                          << common::DurableFiles::HiddenSibling("/opt/" + QString(255, u'n'),
                                                                 ".kxlock");
}

void TestFileLock::ApplicationLockStandsBesideTheApplication()
{
    QFETCH(const QString, application);
    QFETCH(const QString, lock);
    QCOMPARE(guard::ApplicationLockPath(application), lock);
}

QTEST_GUILESS_MAIN(TestFileLock)
#include "tst_filelock.moc"
