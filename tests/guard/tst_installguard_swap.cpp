#include "droppedrights.h"
#include "guardchild.h"
#include "guardedupdater.h"
#include "guardsite.h"
#include "stephook.h"
#include "updaterrig.h"
#include "wiringguard.h"

#include <kxguard/errors.h>
#include <kxguard/filelock.h>
#include <kxguard/installguard.h>
#include <kxguard/recover.h>

#include <QFile>
#include <QSemaphore>
#include <QTest>

#include <atomic>
#include <memory>
#include <thread>

#include <sys/stat.h>
#include <unistd.h>

using guard::FileLock;
using guard::InstallGuard;
using kxtest::Exists;
using kxtest::GuardChild;
using kxtest::GuardedUpdater;
using kxtest::GuardSite;
using kxtest::HostCallback;
using kxtest::IdleUpdater;
using kxtest::Snapshot;
using kxtest::TreeBuilder;
using kxtest::UpdaterRig;

namespace {

/** Who has the lock, as another process sees it. */
qint64 OwnerSeenFromOutside(const QString& path)
{
    GuardChild other({"owner", path});
    return other.Line().toLongLong();
}

/** A program that does nothing until its input ends, to run from a chosen place. */
void PutProgram(const QString& path)
{
    kxtest::Write(path, kxtest::Read("/bin/cat"));
    kxtest::SetMode(path, 0755);
}

} // namespace

/** The guard around a swap: its lock, its journal, what it puts back, and other processes. */
class TestInstallGuardSwap : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();

    void LockIsHeldDuringTheSwap();
    void LockIsReleasedWhenTheInstallEnds_data();
    void LockIsReleasedWhenTheInstallEnds();
    void LockBeforeTheDownloadSurvivesTheEnds();
    void LockEndsWithTheGuard();
    void UnlockDuringAnInstallKeepsItLocked();
    void AnotherHolderIsNamed();
    void LockWaitsForAnotherHolder();
    void TwoGuardsInstallOneAfterTheOther();

    void JournalStandsFromTheSwapToItsEnd();
    void NoJournalIsLeft_data();
    void NoJournalIsLeft();
    void CancelPutsTheOldVersionBack_data();
    void CancelPutsTheOldVersionBack();
    void CancelInTheMiddleOfTheCopyPutsTheOldVersionBack();
    void FailedSwapLeavesTheOldVersion();
    void WhatAnEarlierInstallLeftIsRecoveredFirst_data();
    void WhatAnEarlierInstallLeftIsRecoveredFirst();
    void WhatCannotBeRecoveredIsRefused();
    void GuardRecoversForTheHolderOfTheLock();
    void DeletedGuardLeavesTheSwapToRecover();
    void DeletedGuardWaitsForItsChecks();
    void SwapWithoutItsGuardStaysLocked();
    void OldVersionThatIsPutBackByHandSurvives_data();
    void OldVersionThatIsPutBackByHandSurvives();
    void UnlockDuringTheChecksKeepsItLocked();
    void LockThatWasClearedAwayIsTakenAgain_data();
    void LockThatWasClearedAwayIsTakenAgain();
    void LockOfAnotherApplicationIsRefusedDuringAnInstall();

    void RunningProgramIsRefusedWhenAsked_data();
    void RunningProgramIsRefusedWhenAsked();
    void TheInstallersOwnProcessDoesNotCount();

    void UpdatesFromAServer();
    void DowngradeOfAServerIsRefused();
    void MeddledDownloadOfAServerIsRefused();

private:
    std::unique_ptr<GuardSite> site;
};

void TestInstallGuardSwap::init()
{
    kxtest::FailOnWiringWarnings();
    site = std::make_unique<GuardSite>();
}

void TestInstallGuardSwap::LockIsHeldDuringTheSwap()
{
    GuardedUpdater guarded(*site);
    HostCallback host;
    qint64 during = 0;
    host.action = [&] { during = OwnerSeenFromOutside(site->LockFile()); };
    guarded.Guard().SetCallback(&host);
    QHash<QString, qint64> owners;
    for (const char* state : {"BACKUPREMOVING", "BACKUPING", "MOVING", "BACKUPCLEARING"}) {
        guarded.AtState(state, [&owners, this, state] {
            owners.insert(state, OwnerSeenFromOutside(site->LockFile()));
        });
    }
    QVERIFY2(guarded.Install(), guarded.Report());
    QCOMPARE(during, qint64(::getpid()));
    QCOMPARE(owners.size(), 4);
    for (const qint64 owner : std::as_const(owners))
        QCOMPARE(owner, qint64(::getpid()));
    QCOMPARE(OwnerSeenFromOutside(site->LockFile()), qint64(0));
    QVERIFY(!guarded.Guard().IsLocked());
    QVERIFY2(site->IsNew(), site->Report());
}

void TestInstallGuardSwap::LockIsReleasedWhenTheInstallEnds_data()
{
    QTest::addColumn<QString>("end");
    QTest::newRow("finished") << "finished";
    QTest::newRow("failed by a refusal") << "refused";
    QTest::newRow("failed by the host") << "host";
    QTest::newRow("failed in the swap") << "swap";
    QTest::newRow("canceled") << "canceled";
    QTest::newRow("waiting") << "waiting";
}

void TestInstallGuardSwap::LockIsReleasedWhenTheInstallEnds()
{
    QFETCH(const QString, end);
    GuardedUpdater guarded(*site);
    HostCallback host;
    guarded.Guard().SetCallback(&host);
    bool isHeldByTheEnd = true;
    // Connected after the guard: it has acted when this is called.
    for (const auto signal : {&updater::IUpdater::finished, &updater::IUpdater::failed,
                              &updater::IUpdater::canceled, &updater::IUpdater::waiting}) {
        QObject::connect(guarded.Updater(), signal, [&] {
            isHeldByTheEnd = guarded.Guard().IsLocked() || Exists(site->LockFile());
        });
    }
    if (end == "refused")
        guarded.Guard().SetVersion("0.1");
    else if (end == "host")
        host.code = 3;
    else if (end == "swap")
        guarded.AtState("BACKUPING", [&] { TreeBuilder(site->Backup()).File("in the way", "x"); });
    else if (end == "canceled")
        guarded.AtState("BACKUPREMOVING", [&] { guarded.Updater()->Cancel(); });
    else if (end == "waiting")
        guarded.AtState("BACKUPREMOVING", [&] { guarded.Updater()->Wait(); });
    QCOMPARE(guarded.Install(), end == "finished");
    QVERIFY(!isHeldByTheEnd);
    const QString signal =
        end == "finished" || end == "canceled" || end == "waiting" ? end : "failed";
    QCOMPARE(guarded.Ends(), QStringList(signal));
    QCOMPARE(host.calls.load(), end == "refused" ? 0 : 1);
    QVERIFY(!Exists(site->LockFile()));
    QVERIFY(!Exists(site->Journal()));
    FileLock free(site->LockFile());
    QCOMPARE(free.Take(), FileLock::Result::Taken);
}

void TestInstallGuardSwap::LockBeforeTheDownloadSurvivesTheEnds()
{
    GuardedUpdater guarded(*site);
    HostCallback host;
    guarded.Guard().SetCallback(&host);
    const guard::Problem problem = guarded.Guard().Lock();
    QVERIFY2(!problem, qPrintable(problem.text));
    const auto isHeld = [&] {
        return guarded.Guard().IsLocked() &&
               OwnerSeenFromOutside(site->LockFile()) == qint64(::getpid());
    };
    QVERIFY(isHeld());
    QVERIFY(!guarded.Guard().Lock()); // a second time does no harm
    QVERIFY2(guarded.Install(), guarded.Report());
    QVERIFY(isHeld());
    QVERIFY(guarded.Rest()); // by Cancel()
    QVERIFY(isHeld());
    host.code = 3;
    QVERIFY(!guarded.Install());
    QVERIFY(isHeld());
    host.code = 0;
    guarded.Guard().SetVersion("0.1");
    QVERIFY(!guarded.Install());
    QVERIFY(isHeld());
    guarded.Guard().SetVersion(QString());
    guarded.AtState("BACKUPREMOVING", [&] { guarded.Updater()->Cancel(); });
    QVERIFY(!guarded.Install());
    QCOMPARE(guarded.Ends(), QStringList("canceled"));
    QVERIFY(isHeld());
    guarded.AtState("BACKUPREMOVING", {});
    QVERIFY2(guarded.Install(), guarded.Report());
    QVERIFY(isHeld());
    guarded.Guard().Unlock();
    QVERIFY(!guarded.Guard().IsLocked());
    QVERIFY2(site->IsNew(), site->Report());
    guarded.Guard().Unlock();
    // From now on each install takes it for itself again.
    QVERIFY2(guarded.Install(), guarded.Report());
    QVERIFY(!guarded.Guard().IsLocked());
    QVERIFY2(site->IsNew(), site->Report());
}

void TestInstallGuardSwap::LockEndsWithTheGuard()
{
    GuardedUpdater guarded(*site);
    QVERIFY(!guarded.Guard().Lock());
    QVERIFY(Exists(site->LockFile()));
    guarded.DeleteGuard();
    QVERIFY(!Exists(site->LockFile()));
}

void TestInstallGuardSwap::UnlockDuringAnInstallKeepsItLocked()
{
    GuardedUpdater guarded(*site);
    QVERIFY(!guarded.Guard().Lock());
    qint64 owner = 0;
    guarded.AtState("MOVING", [&] {
        guarded.Guard().Unlock();
        owner = OwnerSeenFromOutside(site->LockFile());
    });
    QVERIFY2(guarded.Install(), guarded.Report());
    QCOMPARE(owner, qint64(::getpid()));
    QVERIFY(!guarded.Guard().IsLocked());
    QVERIFY2(site->IsNew(), site->Report());
}

void TestInstallGuardSwap::AnotherHolderIsNamed()
{
    GuardChild owner({"lock", site->LockFile(), "0"});
    QCOMPARE(owner.Line(), QString("trying"));
    QCOMPARE(owner.Line(), QString("taken"));
    const QStringList before = Snapshot(site->Root());
    HostCallback host;
    GuardedUpdater guarded(*site);
    guarded.Guard().SetCallback(&host);
    QVERIFY(!guarded.Install());
    QVERIFY2(guarded.Code() == guard::InstallBusy, guarded.Report());
    QCOMPARE(guarded.Guard().LastErrorCode(), int(guard::InstallBusy));
    QVERIFY2(guarded.Guard().LastError().contains(QString::number(owner.Id())), guarded.Report());
    QVERIFY2(guarded.Guard().LastError().contains(site->App()), guarded.Report());
    QCOMPARE(host.calls.load(), 0);
    QVERIFY(!guarded.Guard().IsLocked());
    const guard::Problem problem = guarded.Guard().Lock(20);
    QCOMPARE(problem.code, int(guard::InstallBusy));
    QVERIFY2(problem.text.contains(QString::number(owner.Id())), qPrintable(problem.text));
    QVERIFY(!guarded.Guard().IsLocked());
    QCOMPARE(Snapshot(site->Root()), before);
    QCOMPARE(OwnerSeenFromOutside(site->LockFile()), owner.Id());
    owner.Kill();
    QVERIFY2(guarded.Install(), guarded.Report());
    QVERIFY2(site->IsNew(), site->Report());
}

void TestInstallGuardSwap::LockWaitsForAnotherHolder()
{
    GuardChild owner({"lock", site->LockFile(), "0"});
    QCOMPARE(owner.Line(), QString("trying"));
    QCOMPARE(owner.Line(), QString("taken"));
    GuardedUpdater guarded(*site);
    owner.Tell("release");
    const guard::Problem problem = guarded.Guard().Lock(60000);
    QVERIFY2(!problem, qPrintable(problem.text));
    QCOMPARE(OwnerSeenFromOutside(site->LockFile()), qint64(::getpid()));
}

void TestInstallGuardSwap::TwoGuardsInstallOneAfterTheOther()
{
    GuardedUpdater first(*site);
    GuardedUpdater second(*site);
    // The second one tries while the first one is at it.
    bool isRefused = false;
    first.AtState("MOVING", [&] { isRefused = !second.Install(); });
    QVERIFY2(first.Install(), first.Report());
    QVERIFY(isRefused);
    QVERIFY2(second.Code() == guard::InstallBusy, second.Report());
    QVERIFY2(site->IsNew(), site->Report());
    QVERIFY2(second.Install(), second.Report());
    QVERIFY2(site->IsNew(), site->Report());
}

void TestInstallGuardSwap::JournalStandsFromTheSwapToItsEnd()
{
    GuardedUpdater guarded(*site);
    HostCallback host;
    bool isBefore = false;
    host.action = [&] { isBefore = Exists(site->Journal()); };
    guarded.Guard().SetCallback(&host);
    QStringList without;
    int mode = 0;
    for (const char* state : {"BACKUPREMOVING", "BACKUPING", "MOVING", "BACKUPCLEARING"}) {
        guarded.AtState(state, [&, state] {
            if (!Exists(site->Journal()))
                without << state;
            else
                mode |= kxtest::Mode(site->Journal());
        });
    }
    QVERIFY2(guarded.Install(), guarded.Report());
    QVERIFY(!isBefore);
    QCOMPARE(without, QStringList());
    QCOMPARE(mode, 0600);
    QVERIFY2(site->IsNew(), site->Report());
}

void TestInstallGuardSwap::NoJournalIsLeft_data()
{
    QTest::addColumn<QString>("state");
    QTest::addColumn<bool>("waits");
    QTest::addColumn<bool>("isNew");
    QTest::newRow("Wait() in APPCALLBACK") << "APPCALLBACK" << true << false;
    QTest::newRow("Wait() in BACKUPREMOVING") << "BACKUPREMOVING" << true << false;
    QTest::newRow("Cancel() in APPCALLBACK") << "APPCALLBACK" << false << false;
    QTest::newRow("Cancel() in BACKUPREMOVING") << "BACKUPREMOVING" << false << false;
}

void TestInstallGuardSwap::NoJournalIsLeft()
{
    QFETCH(const QString, state);
    QFETCH(const bool, waits);
    QFETCH(const bool, isNew);
    GuardedUpdater guarded(*site);
    guarded.AtState(state, [&] {
        if (waits)
            guarded.Updater()->Wait();
        else
            guarded.Updater()->Cancel();
    });
    QVERIFY(!guarded.Install());
    QCOMPARE(guarded.Ends(), QStringList(waits ? "waiting" : "canceled"));
    QVERIFY2(isNew ? site->IsNew() : site->IsOld(), site->Report());
    guarded.AtState(state, {});
    QVERIFY2(guarded.Install(), guarded.Report());
    QVERIFY2(site->IsNew(), site->Report());
}

void TestInstallGuardSwap::CancelPutsTheOldVersionBack_data()
{
    QTest::addColumn<QString>("state");
    QTest::addColumn<bool>("reverts");
    QTest::newRow("BACKUPING") << "BACKUPING" << false;
    QTest::newRow("MOVING") << "MOVING" << false;
    QTest::newRow("REVERTING") << "REVERTING" << true;
    QTest::newRow("RESTORING") << "RESTORING" << true;
}

void TestInstallGuardSwap::CancelPutsTheOldVersionBack()
{
    QFETCH(const QString, state);
    QFETCH(const bool, reverts);
    GuardedUpdater guarded(*site);
    if (reverts) {
        guarded.AtState("MOVING", [&] { ::mkfifo(qPrintable(site->Next() + "/fifo"), 0600); });
    }
    guarded.AtState(state, [&] { guarded.Updater()->Cancel(); });
    QStringList atTheEnd;
    QObject::connect(guarded.Updater(), &updater::IUpdater::canceled,
                     [&] { atTheEnd = Snapshot(site->App()); });
    QVERIFY(!guarded.Install());
    QCOMPARE(guarded.Ends(), QStringList("canceled"));
    // When canceled() has been handled, not some time later.
    QCOMPARE(atTheEnd, site->OldTree());
    kxtest::Remove(site->Next() + "/fifo");
    QVERIFY2(site->IsOld(), site->Report());
    guarded.AtState(state, {});
    guarded.AtState("MOVING", {});
    QVERIFY2(guarded.Install(), guarded.Report());
    QVERIFY2(site->IsNew(), site->Report());
}

void TestInstallGuardSwap::CancelInTheMiddleOfTheCopyPutsTheOldVersionBack()
{
    GuardedUpdater guarded(*site);
    kxtest::StepGate* gate = nullptr;
    std::unique_ptr<kxtest::StepGate> kept;
    guarded.AtState("MOVING", [&] {
        kept = std::make_unique<kxtest::StepGate>(common::fileops::Step::Sync);
        gate = kept.get();
    });
    guarded.Updater()->Install();
    QVERIFY(guarded.Reach("MOVING"));
    QTRY_VERIFY_WITH_TIMEOUT(gate->IsHeld(), kxtest::patience);
    QVERIFY(Exists(site->Copy()));
    gate->ReleaseSoon();
    guarded.Updater()->Cancel();
    QTRY_COMPARE_WITH_TIMEOUT(guarded.Ends(), QStringList("canceled"), kxtest::patience);
    kept.reset();
    QVERIFY2(site->IsOld(), site->Report());
    guarded.AtState("MOVING", {});
    QVERIFY2(guarded.Install(), guarded.Report());
    QVERIFY2(site->IsNew(), site->Report());
}

void TestInstallGuardSwap::FailedSwapLeavesTheOldVersion()
{
    GuardedUpdater guarded(*site);
    guarded.AtState("MOVING", [&] { ::mkfifo(qPrintable(site->Next() + "/fifo"), 0600); });
    QVERIFY(!guarded.Install());
    QCOMPARE(guarded.Ends(), QStringList("failed"));
    // The swap's own failure is none of the guard's.
    QCOMPARE(guarded.Guard().LastErrorCode(), 0);
    kxtest::Remove(site->Next() + "/fifo");
    QVERIFY2(site->IsOld(), site->Report());
    guarded.AtState("MOVING", {});
    QVERIFY2(guarded.Install(), guarded.Report());
    QVERIFY2(site->IsNew(), site->Report());
}

void TestInstallGuardSwap::WhatAnEarlierInstallLeftIsRecoveredFirst_data()
{
    QTest::addColumn<QStringList>("options");
    QTest::newRow("MOVING") << QStringList{"--die-at", "MOVING"};
    QTest::newRow("copy") << QStringList{"--die-after", "MOVING", "9"};
    QTest::newRow("BACKUPCLEARING") << QStringList{"--die-at", "BACKUPCLEARING"};
}

void TestInstallGuardSwap::WhatAnEarlierInstallLeftIsRecoveredFirst()
{
    QFETCH(const QStringList, options);
    for (const bool isRefused : {true, false}) {
        site->Reset();
        GuardChild child(QStringList{"install"} + options +
                         QStringList{site->App(), site->Next(), site->XmlFile()});
        child.Finish();
        QVERIFY(child.WasKilled());
        GuardedUpdater guarded(*site);
        QStringList names;
        HostCallback host;
        host.action = [&] { names = site->Names(); };
        host.code = isRefused ? 4 : 0;
        guarded.Guard().SetCallback(&host);
        QCOMPARE(guarded.Install(), !isRefused);
        QCOMPARE(names, QStringList({".app.kxlock", "app", "next", "outside"}));
        const bool endsNew = !isRefused || options.last() == "BACKUPCLEARING";
        QVERIFY2(endsNew ? site->IsNew() : site->IsOld(), site->Report());
    }
}

void TestInstallGuardSwap::WhatCannotBeRecoveredIsRefused()
{
    if (::geteuid() != 0)
        QSKIP("only root can leave what another user cannot remove");
    GuardChild child(
        {"install", "--die-at", "BACKUPCLEARING", site->App(), site->Next(), site->XmlFile()});
    child.Finish();
    QVERIFY(child.WasKilled());
    // All is an ordinary user's but what lies deep in the old version.
    kxtest::Remove(site->LockFile());
    for (const QString& path : {site->Root(), site->App(), site->Backup(), site->Journal()})
        QCOMPARE(::chown(qPrintable(path), 65534, 65534), 0);
    HostCallback host;
    {
        const kxtest::DroppedRights dropped;
        IdleUpdater updater(*site);
        InstallGuard guard(&updater);
        guard.SetCallback(&host);
        QVERIFY2(updater.CallBack() == guard::InstallRecovery, qPrintable(guard.LastError()));
        QCOMPARE(guard.LastErrorCode(), int(guard::InstallRecovery));
        QVERIFY2(guard.LastError().contains(site->Backup()), qPrintable(guard.LastError()));
        QVERIFY(!guard.IsLocked());
    }
    QCOMPARE(host.calls.load(), 0);
    QCOMPARE(Snapshot(site->App()), site->NewTree());
    QVERIFY(Exists(site->Backup() + "/bin/app"));
    QVERIFY(Exists(site->Journal()));
    QVERIFY(!Exists(site->LockFile()));
    const guard::Recovery recovery = guard::Recover(site->App());
    QVERIFY2(recovery.state == guard::RecoveryState::Finished, qPrintable(recovery.text));
    QVERIFY2(site->IsNew(), site->Report());
}

void TestInstallGuardSwap::GuardRecoversForTheHolderOfTheLock()
{
    GuardChild child(
        {"install", "--die-at", "BACKUPCLEARING", site->App(), site->Next(), site->XmlFile()});
    child.Finish();
    QVERIFY(child.WasKilled());
    GuardedUpdater guarded(*site);
    const QStringList before = Snapshot(site->Root());
    QCOMPARE(int(guarded.Guard().Recover().state), int(guard::RecoveryState::Busy));
    QCOMPARE(Snapshot(site->Root()), before);
    QVERIFY(!guarded.Guard().Lock());
    const guard::Recovery recovery = guarded.Guard().Recover();
    QVERIFY2(recovery.state == guard::RecoveryState::Finished, qPrintable(recovery.text));
    QVERIFY(guarded.Guard().IsLocked());
    guarded.Guard().Unlock();
    QVERIFY2(site->IsNew(), site->Report());
}

void TestInstallGuardSwap::DeletedGuardLeavesTheSwapToRecover()
{
    {
        GuardedUpdater guarded(*site);
        guarded.Updater()->Install();
        QVERIFY(guarded.Reach("MOVING"));
    }
    QCOMPARE(FileLock::OwnerOf(site->LockFile()).process, qint64(0));
    const guard::Recovery recovery = guard::Recover(site->App());
    QVERIFY2(recovery.IsWhole(), qPrintable(recovery.text));
    QVERIFY2(site->IsOld() || site->IsNew(), site->Report());
}

void TestInstallGuardSwap::DeletedGuardWaitsForItsChecks()
{
    GuardedUpdater guarded(*site);
    QSemaphore reached;
    QSemaphore leave;
    HostCallback host;
    host.action = [&] {
        reached.release();
        leave.acquire();
    };
    guarded.Guard().SetCallback(&host);
    guarded.Updater()->Install();
    QVERIFY(guarded.Reach("APPCALLBACK"));
    QVERIFY(reached.tryAcquire(1, kxtest::patience));
    std::atomic<bool> isLeft{false};
    std::thread other([&] {
        // The guard is being deleted by then, or will find the callback at its end.
        std::this_thread::yield();
        isLeft = true;
        leave.release();
    });
    guarded.DeleteGuard();
    QVERIFY(isLeft);
    other.join();
    QCOMPARE(guarded.Updater()->AppCallback(), nullptr);
    QTRY_COMPARE_WITH_TIMEOUT(guarded.Ends().value(0), QString("finished"), kxtest::patience);
    QCOMPARE(FileLock::OwnerOf(site->LockFile()).process, qint64(0));
    QVERIFY2(site->IsNew(), site->Report());
}

void TestInstallGuardSwap::SwapWithoutItsGuardStaysLocked()
{
    GuardedUpdater guarded(*site);
    std::unique_ptr<kxtest::StepGate> gate;
    guarded.AtState(
        "MOVING", [&] { gate = std::make_unique<kxtest::StepGate>(common::fileops::Step::Place); });
    guarded.Updater()->Install();
    QVERIFY(guarded.Reach("MOVING"));
    guarded.DeleteGuard();
    QTRY_VERIFY_WITH_TIMEOUT(gate->IsHeld(), kxtest::patience);
    // Another process would put the old version back, and the updater remove it as its own copy.
    GuardChild other({"recover", site->App(), "0"});
    const QString told = other.Line();
    QVERIFY2(told.startsWith(QString::number(int(guard::RecoveryState::Busy))), qPrintable(told));
    gate->ReleaseSoon();
    guarded.Updater()->Cancel();
    QTRY_COMPARE_WITH_TIMEOUT(guarded.Ends(), QStringList("canceled"), kxtest::patience);
    gate.reset();
    QVERIFY2(site->IsOld(), site->Report());
}

void TestInstallGuardSwap::OldVersionThatIsPutBackByHandSurvives_data()
{
    QTest::addColumn<bool>("isDeleted");
    QTest::newRow("guard") << false;
    QTest::newRow("guard that was deleted meanwhile") << true;
}

void TestInstallGuardSwap::OldVersionThatIsPutBackByHandSurvives()
{
    QFETCH(const bool, isDeleted);
    GuardedUpdater guarded(*site);
    std::unique_ptr<kxtest::StepHook> hook;
    // An administrator who finds the program missing while the new one is being copied.
    guarded.AtState("MOVING", [&] {
        hook = std::make_unique<kxtest::StepHook>([this](common::fileops::Step step) {
            if (step == common::fileops::Step::Place)
                ::rename(qPrintable(site->Backup()), qPrintable(site->App()));
            return 0;
        });
    });
    guarded.Updater()->Install();
    QVERIFY(guarded.Reach("BACKUPING"));
    if (isDeleted)
        guarded.DeleteGuard();
    QTRY_COMPARE_WITH_TIMEOUT(guarded.Ends().value(0), QString("failed"), kxtest::patience);
    hook.reset();
    QVERIFY2(site->IsOld(), guarded.Report() + '\n' + site->Report());
}

void TestInstallGuardSwap::UnlockDuringTheChecksKeepsItLocked()
{
    GuardedUpdater guarded(*site);
    QVERIFY(!guarded.Guard().Lock());
    QSemaphore reached;
    QSemaphore leave;
    HostCallback host;
    host.action = [&] {
        reached.release();
        leave.acquire();
    };
    guarded.Guard().SetCallback(&host);
    guarded.Updater()->Install();
    QVERIFY(guarded.Reach("APPCALLBACK"));
    QVERIFY(reached.tryAcquire(1, kxtest::patience));
    guarded.Guard().Unlock();
    const bool isLocked = guarded.Guard().IsLocked();
    const guard::RecoveryState state = guarded.Guard().Recover().state;
    leave.release();
    QTRY_COMPARE_WITH_TIMEOUT(guarded.Ends().value(0), QString("finished"), kxtest::patience);
    QVERIFY(isLocked);
    QCOMPARE(int(state), int(guard::RecoveryState::Busy));
    QVERIFY(!guarded.Guard().IsLocked());
    QVERIFY2(site->IsNew(), site->Report());
}

void TestInstallGuardSwap::LockThatWasClearedAwayIsTakenAgain_data()
{
    QTest::addColumn<bool>("isDuringTheChecks");
    QTest::addColumn<bool>("hasOther");
    for (const bool isDuring : {false, true}) {
        const char* when = isDuring ? "during the checks" : "before the install";
        QTest::addRow("%s, nobody else has it", when) << isDuring << false;
        QTest::addRow("%s, somebody else has it", when) << isDuring << true;
    }
}

void TestInstallGuardSwap::LockThatWasClearedAwayIsTakenAgain()
{
    QFETCH(const bool, isDuringTheChecks);
    QFETCH(const bool, hasOther);
    const QStringList app = Snapshot(site->App());
    HostCallback host;
    GuardedUpdater guarded(*site);
    QVERIFY(!guarded.Guard().Lock());
    FileLock other(site->LockFile());
    const auto clearAway = [&] {
        kxtest::Remove(site->LockFile());
        if (hasOther)
            other.Take();
    };
    if (isDuringTheChecks)
        host.action = clearAway;
    else
        clearAway();
    guarded.Guard().SetCallback(&host);
    qint64 owner = 0;
    guarded.AtState("MOVING", [&] { owner = OwnerSeenFromOutside(site->LockFile()); });
    QVERIFY2(guarded.Install() != hasOther, guarded.Report());
    if (hasOther) {
        QVERIFY(other.IsHeld());
        QVERIFY2(guarded.Code() == guard::InstallBusy, guarded.Report());
        QCOMPARE(Snapshot(site->App()), app);
        QVERIFY(!Exists(site->Journal()));
    } else {
        QCOMPARE(owner, qint64(::getpid()));
        QCOMPARE(Snapshot(site->App()), site->NewTree());
    }
}

void TestInstallGuardSwap::LockOfAnotherApplicationIsRefusedDuringAnInstall()
{
    GuardedUpdater guarded(*site);
    guard::Problem problem;
    qint64 owner = 0;
    guarded.AtState("BACKUPCLEARING", [&] {
        guarded.Updater()->SetLocalPackagePath(site->Root() + "/other");
        problem = guarded.Guard().Lock();
        guarded.Updater()->SetLocalPackagePath(site->App());
        owner = OwnerSeenFromOutside(site->LockFile());
    });
    QVERIFY2(guarded.Install(), guarded.Report());
    QCOMPARE(problem.code, int(guard::InstallBusy));
    QVERIFY2(problem.text.contains(site->App()), qPrintable(problem.text));
    QCOMPARE(owner, qint64(::getpid()));
    QVERIFY2(site->IsNew(), site->Report());
}

void TestInstallGuardSwap::RunningProgramIsRefusedWhenAsked_data()
{
    QTest::addColumn<QString>("program");
    QTest::addColumn<bool>("isAsked");
    QTest::addColumn<bool>("installs");
    QTest::newRow("of the application") << "APP/bin/app" << true << false;
    QTest::newRow("deep in it") << "APP/libexec/deep/helper" << true << false;
    QTest::newRow("not asked") << "APP/bin/app" << false << true;
    QTest::newRow("of a neighbour") << "APPLICATION/bin/app" << true << true;
    QTest::newRow("of the backup's place") << "APP.olds/bin/app" << true << true;
    QTest::newRow("elsewhere") << "ROOT/outside/app" << true << true;
}

void TestInstallGuardSwap::RunningProgramIsRefusedWhenAsked()
{
    QFETCH(QString, program);
    QFETCH(const bool, isAsked);
    QFETCH(const bool, installs);
    program.replace("APPLICATION", site->Root() + "/application");
    program.replace("APP", site->App());
    program.replace("ROOT", site->Root());
    kxtest::Remove(program);
    TreeBuilder(program.section('/', 0, -2)).Dir(".");
    PutProgram(program);
    GuardChild running(QStringList{}, program);
    running.Tell("ready");
    QCOMPARE(running.Line(), QString("ready"));
    const QStringList before = Snapshot(site->Root());
    GuardedUpdater guarded(*site);
    guarded.Guard().SetRunningProgramRefused(isAsked);
    QCOMPARE(guarded.Install(), installs);
    if (!installs) {
        QVERIFY2(guarded.Code() == guard::InstallRunning, guarded.Report());
        const QString text = guarded.Guard().LastError();
        QVERIFY2(text.contains(QString::number(running.Id())), guarded.Report());
        QVERIFY2(text.contains(program), guarded.Report());
        QCOMPARE(Snapshot(site->Root()), before);
        running.Finish();
        QVERIFY2(guarded.Install(), guarded.Report());
    }
    QCOMPARE(Snapshot(site->App()), site->NewTree());
    QVERIFY(!Exists(site->LockFile()));
}

void TestInstallGuardSwap::TheInstallersOwnProcessDoesNotCount()
{
    const QString program = site->App() + "/bin/host";
    kxtest::Write(program, kxtest::Read(GuardChild::Program()));
    kxtest::SetMode(program, 0755);
    GuardChild child({"install", "--not-running", site->App(), site->Next(), site->XmlFile()},
                     program);
    QCOMPARE(child.Finish(), QString("finished\n"));
    QVERIFY2(site->IsNew(), site->Report());
}

void TestInstallGuardSwap::UpdatesFromAServer()
{
    UpdaterRig rig;
    TreeBuilder(rig.App()).File("bin/app", "old program", 0755);
    rig.Publish("2.0", site->Next());
    rig.Start();
    InstallGuard guard(rig.updater);
    QVERIFY(rig.Assemble());
    QCOMPARE(Snapshot(rig.Next()), site->NewTree());
    QVERIFY(rig.Install());
    QVERIFY(kxtest::WaitFor([&] { return rig.HasStopped(); }));
    QCOMPARE(guard.LastErrorCode(), 0);
    QCOMPARE(Snapshot(rig.App()), site->NewTree());
    QCOMPARE(QDir(rig.Root()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
             QStringList({"app", "next", "outside"}));

    // A repair of the same version.
    rig.updater->SetCurrentVersion("2.0");
    kxtest::Write(rig.App() + "/bin/app", "damaged");
    rig.updater->Cancel();
    QVERIFY(rig.Reach("WAITING"));
    rig.Forget();
    QVERIFY(rig.Assemble());
    QVERIFY(rig.Install());
    QCOMPARE(Snapshot(rig.App()), site->NewTree());
}

void TestInstallGuardSwap::DowngradeOfAServerIsRefused()
{
    UpdaterRig rig;
    TreeBuilder(rig.App()).File("bin/app", "old program", 0755);
    rig.Publish("1.9", site->Next());
    rig.Start();
    rig.updater->SetCurrentVersion("1.10");
    InstallGuard guard(rig.updater);
    QVERIFY(rig.Assemble());
    const QStringList before = Snapshot(rig.Root());
    QVERIFY(rig.Install("FAILED"));
    QCOMPARE(guard.LastErrorCode(), int(guard::InstallDowngrade));
    QVERIFY2(guard.LastError().contains("1.9") && guard.LastError().contains("1.10"),
             qPrintable(guard.LastError()));
    QCOMPARE(Snapshot(rig.Root()), before);
    guard.SetDowngradeAllowed(true);
    QVERIFY(rig.Install());
    QCOMPARE(Snapshot(rig.App()), site->NewTree());
}

void TestInstallGuardSwap::MeddledDownloadOfAServerIsRefused()
{
    UpdaterRig rig;
    TreeBuilder(rig.App()).File("bin/app", "old program", 0755);
    rig.Publish("2.0", site->Next());
    rig.Start();
    InstallGuard guard(rig.updater);
    QVERIFY(rig.Assemble());
    TreeBuilder(rig.Next()).File("lib/.rootkit", "x");
    const QStringList before = Snapshot(rig.Root());
    QVERIFY(rig.Install("FAILED"));
    QCOMPARE(guard.LastErrorCode(), int(guard::PackageDiffers));
    QVERIFY2(guard.LastError().contains("lib/.rootkit"), qPrintable(guard.LastError()));
    QCOMPARE(Snapshot(rig.Root()), before);
    kxtest::Remove(rig.Next() + "/lib/.rootkit");
    QVERIFY(rig.Install());
}

QTEST_GUILESS_MAIN(TestInstallGuardSwap)
#include "tst_installguard_swap.moc"
