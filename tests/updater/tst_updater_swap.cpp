#include "allocationfailure.h"
#include "droppedrights.h"
#include "updaterrig.h"
#include "wiringguard.h"

#include "appcallback.h"

#include <kxcommon/errors.h>
#include <kxcommon/filecopier.h>
#include <kxcommon/fileremover.h>
#include <kxupdater/errors.h>

#include <QDir>
#include <QFile>
#include <QTest>
#include <QThread>

#include <climits>
#include <optional>

#include <sys/stat.h>
#include <sys/time.h>

using kxtest::ErrorLine;
using kxtest::LinkText;
using kxtest::Read;
using kxtest::Snapshot;
using kxtest::TestCallback;
using kxtest::TreeBuilder;
using kxtest::UpdaterRig;

namespace {

const QStringList missing{"(missing)"};

QString RenameText(const QString& from, const QString& to)
{
    return QStringLiteral("Cannot rename directory '%1' to '%2'!").arg(from, to);
}

QString RestoredText(const QString& backup)
{
    return QStringLiteral("Update failed! Restored from '%1'!").arg(backup);
}

/** Every line of `some` stands in `all`, and at least one of `all` is gone. */
bool IsRealPart(const QStringList& some, const QStringList& all)
{
    for (const QString& line : some) {
        // The mode of a directory whose removal has begun may have changed.
        const QString name = line.section(QLatin1Char(' '), 0, 1);
        if (all.filter(name).isEmpty())
            return false;
    }
    return some.size() < all.size();
}

} // namespace

/** The swap of the trees: APPCALLBACK to SUCCESS, and the way back. */
class TestUpdaterSwap : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    // the swap
    void SwapPutsTheNewTreeInPlace();
    void SwapKeepsModesTimesLinksAndHiddenEntries();
    void MissingApplicationIsInstalledWithoutBackup();
    void StaleBackupIsRemovedFirst();
    void BackupThatIsALinkLosesTheLinkOnly();
    void LeftOverSiblingOfAnEarlierCopyIsRemoved();
    void SeparatorsAtTheEndDoNotCount_data();
    void SeparatorsAtTheEndDoNotCount();
    void BackupPathIgnoresSeparatorsAtTheEnd_data();
    void BackupPathIgnoresSeparatorsAtTheEnd();
    void ProgressEndsAtAHundred();

    // what each failure leaves
    void CallbackThatRefusesLeavesEverything_data();
    void CallbackThatRefusesLeavesEverything();
    void CallbackThreadThatCannotBeMadeLeavesEverything();
    void BackupThatCannotBeRemovedLeavesTheApplication();
    void BackupThatAppearsLeavesTheApplication();
    void BackupPathThatIsTakenLeavesTheApplication_data();
    void BackupPathThatIsTakenLeavesTheApplication();
    void ApplicationThatCannotBeMovedStays();
    void ApplicationThatCannotBeLookedAtIsNotMissing();
    void FailedCopyIsRolledBack_data();
    void FailedCopyIsRolledBack();
    void FailedCopyIntoAnApplicationThatAppearedIsRolledBack();
    void FailedCopyWithoutABackupEndsWithNothingToRestore();
    void ApplicationThatCannotBeRemovedKeepsTheBackup();
    void ApplicationThatReappearsKeepsTheBackup();
    void BackupThatCannotBeMovedBackStays();
    void BackupThatCannotBeClearedIsASuccess();
    void CopierThatCannotBeMadeIsRolledBack();
    void RemoverThatCannotBeMadeFails_data();
    void RemoverThatCannotBeMadeFails();
    void CopyThatCannotBeWrittenIsRolledBack();
    void OverlappingDirectoriesNeverLoseTheProgram_data();
    void OverlappingDirectoriesNeverLoseTheProgram();
    void ApplicationThatIsALinkIsNotLost();
    void EmptyDownloadPathIsRolledBack();
    void UnconfiguredInstallTouchesNothing();

    // commands on the way
    void WaitLeavesWhereTheTableSays_data();
    void WaitLeavesWhereTheTableSays();
    void CancelDuringTheCopyKeepsTheBackupAndNoSibling();

    // the callback
    void CallbackReceivesBothPathsOnItsOwnThread();
    void NoCallbackCountsAsSuccess();
    void LeavingWaitsForTheCallback_data();
    void LeavingWaitsForTheCallback();
    void ResultOfAnEndedCallbackThreadIsDropped_data();
    void ResultOfAnEndedCallbackThreadIsDropped();
    void ResultSlotActsInEveryState();
    void CallbackThreadReportsItsResultOnce_data();
    void CallbackThreadReportsItsResultOnce();
    void CallbackThreadWithoutCallbackReportsSuccess();
    void DeletingTheCallbackThreadWaitsForIt();

private:
    void Trees();
    void FailWith(const char* state, std::function<void()> action);

    std::unique_ptr<UpdaterRig> rig;
    QStringList oldTree;
    QStringList newTree;
};

void TestUpdaterSwap::init()
{
    kxtest::FailOnWiringWarnings();
    rig = std::make_unique<UpdaterRig>();
}

void TestUpdaterSwap::cleanup()
{
    rig.reset();
}

/** An installed tree and an assembled one. */
void TestUpdaterSwap::Trees()
{
    TreeBuilder(rig->App())
        .File("bin/app", "old program", 0755)
        .File("data/same", "same")
        .File("data/gone", "gone")
        .File(".hidden", "old and hidden");
    TreeBuilder(rig->Next())
        .File("bin/app", "new program", 0755)
        .File("data/same", "same")
        .File("new/deep/file", "new", 0600)
        .Symlink("link", "bin/app");
    oldTree = Snapshot(rig->App());
    newTree = Snapshot(rig->Next());
}

void TestUpdaterSwap::SwapPutsTheNewTreeInPlace()
{
    Trees();
    rig->Start();
    rig->Forget();
    QVERIFY(rig->Install());
    QTRY_COMPARE_WITH_TIMEOUT(rig->trace->Last(), QString("finished()"), kxtest::patience);

    QCOMPARE(rig->States(), QStringList({"INSTALLING", "APPCALLBACK", "BACKUPREMOVING", "BACKUPING",
                                         "MOVING", "BACKUPCLEARING", "SUCCESS"}));
    QCOMPARE(Snapshot(rig->App()), newTree);
    QCOMPARE(Snapshot(rig->Next()), newTree);
    QCOMPARE(Snapshot(rig->Backup()), missing);
    QCOMPARE(QDir(rig->Root()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
             QStringList({"app", "next", "outside"}));
    QCOMPARE(rig->Errors(), QStringList());
    QVERIFY(rig->Logged(
        QStringLiteral("7 BACKUPREMOVING: Nothing to remove in '%1'!").arg(rig->Backup())));
    QVERIFY(rig->Logged(QStringLiteral("7 BACKUPING: Successfully renamed from '%1' to '%2'!")
                            .arg(rig->App(), rig->Backup())));
}

void TestUpdaterSwap::SwapKeepsModesTimesLinksAndHiddenEntries()
{
    Trees();
    TreeBuilder(rig->Next())
        .File(".hidden", "h", 0640)
        .File(".dir/.deep", "d")
        .Dir("empty", 0711)
        .Dir("readonly", 0755)
        .File("readonly/file", "r", 0444)
        .File("script", "#!", 0755)
        .File("private", "p", 0600)
        .Symlink("dangling", "nowhere/at/all")
        .Symlink("todir", "new/deep")
        .Symlink("outside", rig->Outside())
        .Symlink("up", "../outside/bystander");
    kxtest::SetMode(rig->Next() + "/readonly", 0555);
    const QByteArray old = QFile::encodeName(rig->Next() + "/script");
    const timeval times[2] = {{1000000000, 0}, {1234567890, 123456}};
    QCOMPARE(utimes(old.constData(), times), 0);
    newTree = Snapshot(rig->Next());
    rig->Start();
    const QStringList outside = Snapshot(rig->Outside());
    QVERIFY(rig->Install());

    QCOMPARE(Snapshot(rig->App()), newTree);
    QCOMPARE(Snapshot(rig->Outside()), outside);
    struct stat before = {};
    struct stat after = {};
    QCOMPARE(stat(old.constData(), &before), 0);
    QCOMPARE(stat(QFile::encodeName(rig->App() + "/script").constData(), &after), 0);
    QCOMPARE(after.st_mtim.tv_sec, 1234567890);
    QCOMPARE(after.st_mtim.tv_sec, before.st_mtim.tv_sec);
    QCOMPARE(after.st_mtim.tv_nsec / 1000, before.st_mtim.tv_nsec / 1000);
    for (const QString& tree : {rig->App(), rig->Next()})
        kxtest::SetMode(tree + "/readonly", 0755);
}

void TestUpdaterSwap::MissingApplicationIsInstalledWithoutBackup()
{
    Trees();
    kxtest::Remove(rig->App());
    rig->Start();
    QVERIFY(rig->Install());
    QCOMPARE(Snapshot(rig->App()), newTree);
    QCOMPARE(Snapshot(rig->Backup()), missing);
    QVERIFY(rig->Logged(QStringLiteral("4 BACKUPING: Cannot create backup. Application directory "
                                       "'%1' isn't exist!")
                            .arg(rig->App())));
    QVERIFY(rig->Logged(
        QStringLiteral("7 BACKUPCLEARING: Nothing to remove in '%1'!").arg(rig->Backup())));
    QCOMPARE(rig->Errors(), QStringList());
}

void TestUpdaterSwap::StaleBackupIsRemovedFirst()
{
    Trees();
    TreeBuilder(rig->Backup()).File("stale/file", "s", 0444).Symlink("out", rig->Outside());
    kxtest::SetMode(rig->Backup() + "/stale", 0555);
    QStringList atBackuping;
    rig->AtState("BACKUPING", [&] { atBackuping = Snapshot(rig->Backup()); });
    QStringList atMoving;
    rig->AtState("MOVING", [&] { atMoving = Snapshot(rig->Backup()); });
    rig->Start();
    const QStringList outside = Snapshot(rig->Outside());
    QVERIFY(rig->Install());
    QCOMPARE(atBackuping, missing);
    QCOMPARE(atMoving, oldTree);
    QCOMPARE(Snapshot(rig->App()), newTree);
    QCOMPARE(Snapshot(rig->Backup()), missing);
    QCOMPARE(Snapshot(rig->Outside()), outside);
}

void TestUpdaterSwap::BackupThatIsALinkLosesTheLinkOnly()
{
    Trees();
    TreeBuilder(rig->Root()).Symlink("app.old", "outside");
    rig->Start();
    const QStringList outside = Snapshot(rig->Outside());
    QVERIFY(rig->Install());
    QCOMPARE(Snapshot(rig->App()), newTree);
    QVERIFY(!kxtest::Exists(rig->Backup()));
    QCOMPARE(Snapshot(rig->Outside()), outside);
}

void TestUpdaterSwap::LeftOverSiblingOfAnEarlierCopyIsRemoved()
{
    Trees();
    TreeBuilder(rig->Root()).File(".app.kxnew/half/file", "left over");
    rig->Start();
    QVERIFY(rig->Install());
    QCOMPARE(Snapshot(rig->App()), newTree);
    QVERIFY(!kxtest::Exists(rig->Root() + "/.app.kxnew"));
}

void TestUpdaterSwap::SeparatorsAtTheEndDoNotCount_data()
{
    QTest::addColumn<QString>("app");
    QTest::addColumn<QString>("next");
    QTest::newRow("application") << "/"
                                 << "";
    QTest::newRow("application, three") << "///"
                                        << "";
    QTest::newRow("download directory") << ""
                                        << "/";
    QTest::newRow("both") << "/"
                          << "//";
}

void TestUpdaterSwap::SeparatorsAtTheEndDoNotCount()
{
    QFETCH(QString, app);
    QFETCH(QString, next);
    Trees();
    TreeBuilder(rig->Backup()).File("stale", "s");
    rig->Start();
    rig->updater->SetLocalPackagePath(rig->App() + app);
    rig->updater->SetDownloadPath(rig->Next() + next);
    QVERIFY(rig->Install());
    QCOMPARE(Snapshot(rig->App()), newTree);
    QCOMPARE(Snapshot(rig->Next()), newTree);
    QCOMPARE(QDir(rig->Root()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
             QStringList({"app", "next", "outside"}));

    // And a rollback.
    kxtest::Remove(rig->Next());
    QVERIFY(rig->Install("FAILED"));
    QCOMPARE(rig->Errors().last(), ErrorLine(updater::UpdateReverted, RestoredText(rig->Backup())));
    QCOMPARE(Snapshot(rig->App()), newTree);
    QCOMPARE(Snapshot(rig->Backup()), missing);
}

void TestUpdaterSwap::BackupPathIgnoresSeparatorsAtTheEnd_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("backup");
    QTest::newRow("plain") << "/opt/app"
                           << "/opt/app.old";
    QTest::newRow("one separator") << "/opt/app/"
                                   << "/opt/app.old";
    QTest::newRow("three separators") << "/opt/app///"
                                      << "/opt/app.old";
    QTest::newRow("blank at the end") << "/opt/app "
                                      << "/opt/app .old";
    QTest::newRow("empty") << ""
                           << ".old";
    QTest::newRow("root") << "/"
                          << "/.old";
    QTest::newRow("relative") << "app/"
                              << "app.old";
}

void TestUpdaterSwap::BackupPathIgnoresSeparatorsAtTheEnd()
{
    QFETCH(QString, path);
    rig->Start();
    rig->updater->SetLocalPackagePath(path);
    QTEST(rig->updater->BackupPath(), "backup");
    QCOMPARE(rig->updater->LocalPackagePath(), path);
}

void TestUpdaterSwap::ProgressEndsAtAHundred()
{
    Trees();
    TreeBuilder(rig->Backup()).File("stale/file", "s");
    rig->Start();
    rig->Forget();
    QVERIFY(rig->Install());
    const QStringList lines = rig->trace->Only({"progress"});
    QVERIFY(lines.size() > 2);
    QCOMPARE(lines.last(), QString("progress(100)"));
    int last = 0;
    for (const QString& line : lines) {
        const int percent = line.mid(9).chopped(1).toInt();
        QVERIFY2(percent >= last && percent <= 100, qPrintable(lines.join(' ')));
        last = percent;
    }
    // The end of each step as the weights have it.
    QVERIFY(lines.contains("progress(5)"));
    QVERIFY2(lines.contains("progress(80)") || lines.contains("progress(79)"),
             qPrintable(lines.join(' ')));
}

void TestUpdaterSwap::CallbackThatRefusesLeavesEverything_data()
{
    QTest::addColumn<int>("code");
    QTest::newRow("5") << 5;
    QTest::newRow("-1") << -1;
    QTest::newRow("largest") << INT_MAX;
    QTest::newRow("smallest") << INT_MIN;
    QTest::newRow("a code of the library") << int(updater::UpdateReverted);
}

void TestUpdaterSwap::CallbackThatRefusesLeavesEverything()
{
    QFETCH(int, code);
    Trees();
    TreeBuilder(rig->Backup()).File("stale", "s");
    rig->Start();
    TestCallback callback(code);
    rig->updater->SetAppCallback(&callback);
    const QStringList before = Snapshot(rig->Root());
    rig->Forget();
    QVERIFY(rig->Install("FAILED"));

    QCOMPARE(rig->Errors(), QStringList(ErrorLine(code, "Application callback failed!")));
    QCOMPARE(rig->States(), QStringList({"INSTALLING", "APPCALLBACK", "FAILED"}));
    QCOMPARE(Snapshot(rig->Root()), before);
    QCOMPARE(callback.calls.load(), 1);
    QVERIFY(rig->log.Contains(
        QStringLiteral("updater.callback 7 application callback finished with code '%1'.")
            .arg(code)));
}

void TestUpdaterSwap::CallbackThreadThatCannotBeMadeLeavesEverything()
{
    Trees();
    std::optional<kxtest::AllocationFailure> failure;
    rig->AtState("APPCALLBACK", [&] {
        failure.emplace(sizeof(updater::AppCallback), sizeof(updater::AppCallback));
    });
    rig->AtState("FAILED", [&] { failure.reset(); });
    rig->Start();
    const QStringList before = Snapshot(rig->Root());
    QVERIFY(rig->Install("FAILED"));
    QCOMPARE(rig->Errors(),
             QStringList(ErrorLine(updater::CallbackFailed, "Application callback failed!")));
    QVERIFY(rig->Logged("2 APPCALLBACK: Failed to create application callback thread!"));
    QCOMPARE(Snapshot(rig->Root()), before);
}

/** Takes away the right to change the directory of the application while `state` lasts. */
void TestUpdaterSwap::FailWith(const char* state, std::function<void()> action)
{
    rig->AtState(state, std::move(action));
    for (const char* end : {"FAILED", "SUCCESS"})
        rig->AtState(end, [this] { kxtest::SetMode(rig->Root(), 0755); });
}

void TestUpdaterSwap::BackupThatCannotBeRemovedLeavesTheApplication()
{
    rig.reset();
    const kxtest::DroppedRights rights;
    rig = std::make_unique<UpdaterRig>();
    Trees();
    TreeBuilder(rig->Backup()).File("stale/one", "1").File("stale/two", "2");
    const QStringList stale = Snapshot(rig->Backup());
    FailWith("BACKUPREMOVING", [this] { kxtest::SetMode(rig->Root(), 0555); });
    rig->Start();
    QVERIFY(rig->Install("FAILED"));

    QCOMPARE(rig->Errors().size(), 1);
    QVERIFY2(
        rig->Errors().first().startsWith(QStringLiteral("error(%1, ").arg(common::RemoveFailed)),
        qPrintable(rig->Errors().first()));
    QVERIFY2(rig->Errors().first().contains(rig->Backup()), qPrintable(rig->Errors().first()));
    QCOMPARE(Snapshot(rig->App()), oldTree);
    QCOMPARE(Snapshot(rig->Next()), newTree);
    QVERIFY2(IsRealPart(Snapshot(rig->Backup()), stale), "the backup is partly removed");
    QVERIFY(!rig->States().contains("BACKUPING"));
    rig.reset();
}

void TestUpdaterSwap::BackupThatAppearsLeavesTheApplication()
{
    Trees();
    rig->AtState("BACKUPING", [this] { TreeBuilder(rig->Backup()).File("appeared", "a"); });
    rig->Start();
    QVERIFY(rig->Install("FAILED"));
    const QString text = QStringLiteral("Backup directory '%1' already exists!").arg(rig->Backup());
    QCOMPARE(rig->Errors(), QStringList(ErrorLine(updater::BackupFailed, text)));
    QVERIFY(rig->Logged("3 BACKUPING: " + text));
    QCOMPARE(Snapshot(rig->App()), oldTree);
    QCOMPARE(Snapshot(rig->Next()), newTree);
    QCOMPARE(Snapshot(rig->Backup()).size(), 1);
}

void TestUpdaterSwap::BackupPathThatIsTakenLeavesTheApplication_data()
{
    QTest::addColumn<QString>("kind");
    QTest::newRow("regular file") << "file";
    QTest::newRow("dangling link") << "dangling";
    QTest::newRow("link to a file") << "link";
}

void TestUpdaterSwap::BackupPathThatIsTakenLeavesTheApplication()
{
    QFETCH(QString, kind);
    Trees();
    if (kind == "file")
        TreeBuilder(rig->Root()).File("app.old", "not a directory");
    else
        TreeBuilder(rig->Root())
            .Symlink("app.old", kind == "link" ? "outside/bystander" : "nowhere");
    rig->Start();
    const QStringList before = Snapshot(rig->Root());
    QVERIFY(rig->Install("FAILED"));
    const QString text = RenameText(rig->App(), rig->Backup());
    QCOMPARE(rig->Errors(), QStringList(ErrorLine(updater::BackupFailed, text)));
    QVERIFY(rig->Logged("3 BACKUPING: " + text));
    QCOMPARE(Snapshot(rig->Root()), before);
}

void TestUpdaterSwap::ApplicationThatCannotBeLookedAtIsNotMissing()
{
    Trees();
    // No path leads anywhere while its directory is a link to itself.
    const QString aside = rig->Scratch("aside") + "/root";
    rig->AtState("BACKUPING", [this, aside] {
        QVERIFY(QDir().rename(rig->Root(), aside));
        QVERIFY(QFile::link("root", rig->Root()));
    });
    rig->Start();
    const QStringList before = Snapshot(rig->Root());
    QVERIFY(rig->Install("FAILED"));
    QVERIFY(QFile::remove(rig->Root()) && QDir().rename(aside, rig->Root()));
    const QString text = RenameText(rig->App(), rig->Backup());
    QCOMPARE(rig->Errors(), QStringList(ErrorLine(updater::BackupFailed, text)));
    QVERIFY(rig->Logged("3 BACKUPING: " + text));
    QCOMPARE(Snapshot(rig->Root()), before);
}

void TestUpdaterSwap::ApplicationThatCannotBeMovedStays()
{
    rig.reset();
    const kxtest::DroppedRights rights;
    rig = std::make_unique<UpdaterRig>();
    Trees();
    FailWith("BACKUPING", [this] { kxtest::SetMode(rig->Root(), 0555); });
    rig->Start();
    const QStringList before = Snapshot(rig->Root());
    QVERIFY(rig->Install("FAILED"));
    const QString text = RenameText(rig->App(), rig->Backup());
    QCOMPARE(rig->Errors(), QStringList(ErrorLine(updater::BackupFailed, text)));
    QVERIFY(rig->Logged("3 BACKUPING: " + text));
    QCOMPARE(Snapshot(rig->Root()), before);
    rig.reset();
}

void TestUpdaterSwap::FailedCopyIsRolledBack_data()
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<int>("code");
    QTest::newRow("download directory is gone") << "gone" << int(common::CopySourceMissing);
    QTest::newRow("special file") << "special" << int(common::CopySpecialFile);
}

void TestUpdaterSwap::FailedCopyIsRolledBack()
{
    QFETCH(QString, kind);
    QFETCH(int, code);
    Trees();
    if (kind == "gone")
        kxtest::Remove(rig->Next());
    else
        QCOMPARE(mkfifo(QFile::encodeName(rig->Next() + "/new/fifo").constData(), 0644), 0);
    newTree = Snapshot(rig->Next());
    const QStringList before = Snapshot(rig->Root());
    QStringList atReverting;
    QStringList backupAtReverting;
    rig->AtState("REVERTING", [&] {
        atReverting = Snapshot(rig->App());
        backupAtReverting = Snapshot(rig->Backup());
    });
    rig->Start();
    rig->Forget();
    QVERIFY(rig->Install("FAILED"));

    QCOMPARE(rig->States(), QStringList({"INSTALLING", "APPCALLBACK", "BACKUPREMOVING", "BACKUPING",
                                         "MOVING", "REVERTING", "RESTORING", "FAILED"}));
    QCOMPARE(rig->Errors().size(), 2);
    QVERIFY2(rig->Errors().first().startsWith(QStringLiteral("error(%1, ").arg(code)),
             qPrintable(rig->Errors().first()));
    const QString text = RestoredText(rig->Backup());
    QCOMPARE(rig->Errors().last(), ErrorLine(updater::UpdateReverted, text));
    QVERIFY(rig->Logged("3 RESTORING: " + text));
    QVERIFY(rig->Logged(QStringLiteral("7 REVERTING: Nothing to remove in '%1'!").arg(rig->App())));
    // Absent or whole at every moment.
    QCOMPARE(atReverting, missing);
    QCOMPARE(backupAtReverting, oldTree);
    QCOMPARE(Snapshot(rig->Root()), before);
    QCOMPARE(rig->trace->CountOf("finished"), 0);
}

void TestUpdaterSwap::FailedCopyIntoAnApplicationThatAppearedIsRolledBack()
{
    Trees();
    QCOMPARE(mkfifo(QFile::encodeName(rig->Next() + "/new/fifo").constData(), 0644), 0);
    const QStringList before = Snapshot(rig->Root());
    rig->AtState("MOVING", [this] { TreeBuilder(rig->App()).File("sub/appeared", "a"); });
    rig->Start();
    rig->Forget();
    QVERIFY(rig->Install("FAILED"));
    QCOMPARE(rig->Errors().last(), ErrorLine(updater::UpdateReverted, RestoredText(rig->Backup())));
    QVERIFY(rig->Log().filter("REVERTING: Nothing to remove").isEmpty());
    QCOMPARE(Snapshot(rig->Root()), before);
}

void TestUpdaterSwap::FailedCopyWithoutABackupEndsWithNothingToRestore()
{
    Trees();
    kxtest::Remove(rig->App());
    kxtest::Remove(rig->Next());
    rig->Start();
    QVERIFY(rig->Install("FAILED"));
    QCOMPARE(rig->Errors().size(), 2);
    const QString text = RenameText(rig->Backup(), rig->App());
    QCOMPARE(rig->Errors().last(), ErrorLine(updater::RestoreFailed, text));
    QVERIFY(rig->Logged("3 RESTORING: " + text));
}

void TestUpdaterSwap::ApplicationThatCannotBeRemovedKeepsTheBackup()
{
    rig.reset();
    const kxtest::DroppedRights rights;
    rig = std::make_unique<UpdaterRig>();
    Trees();
    QCOMPARE(mkfifo(QFile::encodeName(rig->Next() + "/new/fifo").constData(), 0644), 0);
    newTree = Snapshot(rig->Next());
    rig->AtState("MOVING", [this] { TreeBuilder(rig->App()).File("sub/appeared", "a"); });
    QStringList half;
    FailWith("REVERTING", [&] {
        half = Snapshot(rig->App());
        kxtest::SetMode(rig->Root(), 0555);
    });
    rig->Start();
    QVERIFY(rig->Install("FAILED"));

    QCOMPARE(rig->States().mid(rig->States().size() - 2), QStringList({"REVERTING", "FAILED"}));
    QCOMPARE(rig->Errors().size(), 2);
    QVERIFY2(
        rig->Errors().last().startsWith(QStringLiteral("error(%1, ").arg(common::RemoveFailed)),
        qPrintable(rig->Errors().last()));
    QVERIFY2(IsRealPart(Snapshot(rig->App()), half), "the application is partly removed");
    QCOMPARE(Snapshot(rig->Backup()), oldTree);
    QCOMPARE(Snapshot(rig->Next()), newTree);
    rig.reset();
}

void TestUpdaterSwap::ApplicationThatReappearsKeepsTheBackup()
{
    Trees();
    kxtest::Remove(rig->Next());
    rig->AtState("RESTORING", [this] { TreeBuilder(rig->App()).File("appeared", "a"); });
    rig->Start();
    QVERIFY(rig->Install("FAILED"));
    const QString text =
        QStringLiteral("Cannot restore! Local package directory '%1' already exists!")
            .arg(rig->App());
    QCOMPARE(rig->Errors().last(), ErrorLine(updater::RestoreFailed, text));
    QVERIFY(rig->Logged("3 RESTORING: " + text));
    QCOMPARE(Snapshot(rig->Backup()), oldTree);
    QCOMPARE(Snapshot(rig->App()).size(), 1);
}

void TestUpdaterSwap::BackupThatCannotBeMovedBackStays()
{
    rig.reset();
    const kxtest::DroppedRights rights;
    rig = std::make_unique<UpdaterRig>();
    Trees();
    QCOMPARE(mkfifo(QFile::encodeName(rig->Next() + "/new/fifo").constData(), 0644), 0);
    newTree = Snapshot(rig->Next());
    FailWith("RESTORING", [this] { kxtest::SetMode(rig->Root(), 0555); });
    rig->Start();
    QVERIFY(rig->Install("FAILED"));
    const QString text = RenameText(rig->Backup(), rig->App());
    QCOMPARE(rig->Errors().last(), ErrorLine(updater::RestoreFailed, text));
    QVERIFY(rig->Logged("3 RESTORING: " + text));
    QCOMPARE(Snapshot(rig->App()), missing);
    QCOMPARE(Snapshot(rig->Backup()), oldTree);
    QCOMPARE(Snapshot(rig->Next()), newTree);
    rig.reset();
}

void TestUpdaterSwap::BackupThatCannotBeClearedIsASuccess()
{
    rig.reset();
    const kxtest::DroppedRights rights;
    rig = std::make_unique<UpdaterRig>();
    Trees();
    FailWith("BACKUPCLEARING", [this] { kxtest::SetMode(rig->Root(), 0555); });
    rig->Start();
    QVERIFY(rig->Install());
    QTRY_COMPARE_WITH_TIMEOUT(rig->trace->Last(), QString("finished()"), kxtest::patience);
    QCOMPARE(rig->Errors().size(), 1);
    QVERIFY2(
        rig->Errors().first().startsWith(QStringLiteral("error(%1, ").arg(common::RemoveFailed)),
        qPrintable(rig->Errors().first()));
    QCOMPARE(rig->trace->CountOf("failed"), 0);
    QCOMPARE(Snapshot(rig->App()), newTree);
    QCOMPARE(Snapshot(rig->Next()), newTree);
    QVERIFY2(IsRealPart(Snapshot(rig->Backup()), oldTree), "the backup is partly removed");
    QCOMPARE(rig->trace->Only({"progress"}).last(), QString("progress(100)"));
    rig.reset();
}

void TestUpdaterSwap::CopierThatCannotBeMadeIsRolledBack()
{
    Trees();
    std::optional<kxtest::AllocationFailure> failure;
    rig->AtState("MOVING",
                 [&] { failure.emplace(sizeof(common::FileCopier), sizeof(common::FileCopier)); });
    rig->AtState("REVERTING", [&] { failure.reset(); });
    rig->Start();
    const QStringList before = Snapshot(rig->Root());
    QVERIFY(rig->Install("FAILED"));
    QCOMPARE(rig->Errors(),
             QStringList({ErrorLine(updater::CopierMissing, "Failed to create copier!"),
                          ErrorLine(updater::UpdateReverted, RestoredText(rig->Backup()))}));
    QVERIFY(rig->Logged("2 MOVING: Failed to create copier!"));
    QCOMPARE(Snapshot(rig->Root()), before);
}

void TestUpdaterSwap::RemoverThatCannotBeMadeFails_data()
{
    QTest::addColumn<QString>("state");
    QTest::newRow("stale backup") << "BACKUPREMOVING";
    QTest::newRow("backup") << "BACKUPCLEARING";
    QTest::newRow("half of the new tree") << "REVERTING";
}

void TestUpdaterSwap::RemoverThatCannotBeMadeFails()
{
    QFETCH(QString, state);
    Trees();
    if (state == "BACKUPREMOVING")
        TreeBuilder(rig->Backup()).File("stale", "s");
    if (state == "REVERTING") {
        QCOMPARE(mkfifo(QFile::encodeName(rig->Next() + "/new/fifo").constData(), 0644), 0);
        rig->AtState("MOVING", [this] { TreeBuilder(rig->App()).File("appeared", "a"); });
    }
    std::optional<kxtest::AllocationFailure> failure;
    rig->AtState(
        state, [&] { failure.emplace(sizeof(common::FileRemover), sizeof(common::FileRemover)); });
    rig->AtState("FAILED", [&] { failure.reset(); });
    rig->AtState("SUCCESS", [&] { failure.reset(); });
    rig->Start();
    const QStringList before = Snapshot(rig->Root());
    QVERIFY(rig->Install(state == "BACKUPCLEARING" ? "SUCCESS" : "FAILED"));
    QCOMPARE(rig->Errors().last(), ErrorLine(updater::RemoverMissing, "Failed to create remover!"));
    QVERIFY(rig->Logged(QStringLiteral("2 %1: Failed to create remover!").arg(state)));
    if (state == "BACKUPREMOVING") {
        QCOMPARE(Snapshot(rig->Root()), before);
    } else {
        QCOMPARE(Snapshot(rig->Backup()), oldTree);
        if (state == "BACKUPCLEARING")
            QCOMPARE(Snapshot(rig->App()), newTree);
    }
}

void TestUpdaterSwap::CopyThatCannotBeWrittenIsRolledBack()
{
    Trees();
    TreeBuilder(rig->Next()).RandomFile("new/large", 3 << 20, 1);
    std::optional<kxtest::FileSizeLimit> limit;
    rig->AtState("MOVING", [&] { limit.emplace(1 << 20); });
    rig->AtState("REVERTING", [&] { limit.reset(); });
    rig->Start();
    const QStringList before = Snapshot(rig->Root());
    QVERIFY(rig->Install("FAILED"));
    QCOMPARE(rig->Errors().size(), 2);
    QVERIFY2(rig->Errors().first().startsWith(QStringLiteral("error(%1, ").arg(common::CopyWrite)),
             qPrintable(rig->Errors().first()));
    QVERIFY2(rig->Errors().first().contains("new/large"), qPrintable(rig->Errors().first()));
    QCOMPARE(rig->Errors().last(), ErrorLine(updater::UpdateReverted, RestoredText(rig->Backup())));
    QCOMPARE(Snapshot(rig->Root()), before);

    rig->AtState("MOVING", {});
    QVERIFY(rig->Install());
    QCOMPARE(Snapshot(rig->App()), Snapshot(rig->Next()));
}

void TestUpdaterSwap::OverlappingDirectoriesNeverLoseTheProgram_data()
{
    QTest::addColumn<QString>("next");
    QTest::addColumn<bool>("isRolledBack");
    QTest::newRow("inside the application") << "/app/next" << true;
    QTest::newRow("the application itself") << "/app" << true;
    QTest::newRow("the directory of the application") << "" << true;
    QTest::newRow("the backup") << "/app.old" << false;
    QTest::newRow("inside the backup") << "/app.old/next" << true;
    QTest::newRow("the sibling of the copy") << "/.app.kxnew" << false;
}

void TestUpdaterSwap::OverlappingDirectoriesNeverLoseTheProgram()
{
    QFETCH(QString, next);
    QFETCH(bool, isRolledBack);
    Trees();
    if (next == "/app/next")
        TreeBuilder(rig->App()).File("next/bin/app", "new");
    TreeBuilder(rig->Root() + "/app.old").File("bin/app", "assembled").File("next/app", "n");
    TreeBuilder(rig->Root() + "/.app.kxnew").File("bin/app", "assembled");
    oldTree = Snapshot(rig->App());
    rig->Start();
    rig->updater->SetDownloadPath(rig->Root() + next);
    const QStringList assembled = Snapshot(rig->Root() + next);
    const QStringList outside = Snapshot(rig->Outside());
    rig->updater->Install();
    QVERIFY(rig->Reach({"SUCCESS", "FAILED"}));
    const QStringList app = Snapshot(rig->App());
    QVERIFY2(app == oldTree || app == assembled, qPrintable(app.join('\n')));
    if (isRolledBack) {
        QCOMPARE(app, oldTree);
        QCOMPARE(rig->Errors().last(),
                 ErrorLine(updater::UpdateReverted, RestoredText(rig->Backup())));
    }
    QCOMPARE(Snapshot(rig->Outside()), outside);
}

void TestUpdaterSwap::ApplicationThatIsALinkIsNotLost()
{
    Trees();
    const QString real = rig->Root() + "/real";
    QVERIFY(QDir().rename(rig->App(), real));
    TreeBuilder(rig->Root()).Symlink("app", "real");
    rig->Start();
    rig->updater->Install();
    QVERIFY(rig->Reach({"SUCCESS", "FAILED"}));
    const QStringList app = Snapshot(QFileInfo(rig->App()).canonicalFilePath());
    QCOMPARE(app, rig->State() == "SUCCESS" ? newTree : oldTree);
    // What the link led to is no business of the swap.
    QCOMPARE(Snapshot(real), oldTree);
    QVERIFY(!kxtest::Exists(rig->Backup()));
}

void TestUpdaterSwap::EmptyDownloadPathIsRolledBack()
{
    Trees();
    rig->Start();
    rig->updater->SetDownloadPath({});
    const QStringList before = Snapshot(rig->Root());
    QVERIFY(rig->Install("FAILED"));
    QCOMPARE(rig->Errors().last(), ErrorLine(updater::UpdateReverted, RestoredText(rig->Backup())));
    QCOMPARE(Snapshot(rig->Root()), before);
}

void TestUpdaterSwap::UnconfiguredInstallTouchesNothing()
{
    Trees();
    const QString here = rig->Scratch("here");
    TreeBuilder(here).File("file", "f").File("dir/file", "f");
    const QString was = QDir::currentPath();
    QVERIFY(QDir::setCurrent(here));
    rig->Start();
    rig->updater->SetDownloadPath({});
    rig->updater->SetLocalPackagePath({});
    const QStringList before = Snapshot(here);
    QVERIFY(rig->Install("FAILED"));
    QDir::setCurrent(was);
    QVERIFY(!rig->Errors().isEmpty());
    QCOMPARE(Snapshot(here), before);
}

void TestUpdaterSwap::WaitLeavesWhereTheTableSays_data()
{
    QTest::addColumn<QString>("state");
    QTest::addColumn<bool>("leaves");
    QTest::newRow("APPCALLBACK") << "APPCALLBACK" << true;
    QTest::newRow("BACKUPREMOVING") << "BACKUPREMOVING" << true;
    QTest::newRow("BACKUPING") << "BACKUPING" << false;
    QTest::newRow("MOVING") << "MOVING" << false;
    QTest::newRow("BACKUPCLEARING") << "BACKUPCLEARING" << true;
    QTest::newRow("REVERTING") << "REVERTING" << false;
    QTest::newRow("RESTORING") << "RESTORING" << false;
}

void TestUpdaterSwap::WaitLeavesWhereTheTableSays()
{
    QFETCH(QString, state);
    QFETCH(bool, leaves);
    Trees();
    TreeBuilder(rig->Backup()).File("stale", "s");
    const bool fails = state == "REVERTING" || state == "RESTORING";
    if (fails)
        QCOMPARE(mkfifo(QFile::encodeName(rig->Next() + "/new/fifo").constData(), 0644), 0);
    rig->Start();
    rig->Forget();
    rig->AtState(state, [this] { rig->updater->Wait(); });
    if (leaves) {
        rig->updater->Install();
        QVERIFY(rig->Reach("WAITING"));
        QCOMPARE(rig->States().last(), QString("WAITING"));
        QCOMPARE(rig->States().at(rig->States().size() - 2), state);
        if (state == "BACKUPCLEARING")
            QCOMPARE(rig->trace->Only({"progress"}).last(), QString("progress(100)"));
        QCOMPARE(Snapshot(rig->App()), state == "BACKUPCLEARING" ? newTree : oldTree);
        // The install can be made again.
        rig->AtState(state, {});
        QVERIFY(rig->Install());
        QCOMPARE(Snapshot(rig->App()), newTree);
    } else {
        QVERIFY(rig->Install(fails ? "FAILED" : "SUCCESS"));
        QVERIFY(!rig->States().contains("WAITING"));
        QCOMPARE(Snapshot(rig->App()), fails ? oldTree : newTree);
    }
}

void TestUpdaterSwap::CancelDuringTheCopyKeepsTheBackupAndNoSibling()
{
    Trees();
    TreeBuilder next(rig->Next());
    for (int i = 0; i < 2000; ++i)
        next.File(QStringLiteral("many/%1").arg(i), "x");
    rig->Start();
    rig->updater->Install();
    QVERIFY(rig->Reach("MOVING"));
    rig->updater->Cancel();
    QVERIFY(rig->Reach("CANCELED"));
    QVERIFY(!kxtest::Exists(rig->Root() + "/.app.kxnew"));
    QCOMPARE(Snapshot(rig->Backup()), oldTree);
    QCOMPARE(Snapshot(rig->App()), missing);
    QCOMPARE(rig->Errors(), QStringList());
}

void TestUpdaterSwap::CallbackReceivesBothPathsOnItsOwnThread()
{
    Trees();
    rig->Start();
    TestCallback callback;
    rig->updater->SetAppCallback(&callback);
    QStringList during;
    rig->AtState("BACKUPREMOVING", [&] { during = Snapshot(rig->App()); });
    rig->Forget();
    QVERIFY(rig->Install());
    QCOMPARE(callback.calls.load(), 1);
    QCOMPARE(callback.downloadPath, rig->Next());
    QCOMPARE(callback.localPackagePath, rig->App());
    QVERIFY(callback.thread.load() != QThread::currentThreadId());
    QCOMPARE(during, oldTree);
    QCOMPARE(rig->log.Lines("updater.callback"),
             QStringList({"7 Calling application callback...",
                          "7 application callback finished with code '0'."}));
}

void TestUpdaterSwap::NoCallbackCountsAsSuccess()
{
    Trees();
    rig->Start();
    rig->Forget();
    QVERIFY(rig->Install());
    QCOMPARE(rig->log.Lines("updater.callback"), QStringList("7 Callback is not set!"));
}

void TestUpdaterSwap::LeavingWaitsForTheCallback_data()
{
    QTest::addColumn<QString>("way");
    QTest::addColumn<int>("code");
    for (const int code : {0, 5}) {
        for (const char* way : {"Cancel", "Wait", "deletion"})
            QTest::addRow("%s, code %d", way, code) << way << code;
    }
}

void TestUpdaterSwap::LeavingWaitsForTheCallback()
{
    QFETCH(QString, way);
    QFETCH(int, code);
    Trees();
    rig->Start();
    TestCallback callback(code, true);
    rig->updater->SetAppCallback(&callback);
    const QStringList before = Snapshot(rig->Root());
    // The callback goes on only when the updater is already on its way out of the state.
    const QString leaving = way == "deletion" ? QString("APPCALLBACK: destroyed!")
                                              : QString("exited state APPCALLBACK");
    std::atomic<bool> left{false};
    rig->log.SetHook([&](const kxtest::LogRecord& record) {
        if (record.text.contains(leaving) && !left.exchange(true))
            callback.latch.release();
    });
    rig->updater->Install();
    QVERIFY(rig->Reach("APPCALLBACK"));
    QVERIFY(callback.entered.tryAcquire(1, kxtest::patience));
    rig->trace->Clear();
    if (way == "Cancel")
        rig->updater->Cancel();
    else if (way == "Wait")
        rig->updater->Wait();
    else
        delete rig->updater;
    QVERIFY(callback.returned);
    QVERIFY(left);
    rig->log.SetHook({});

    if (way == "deletion") {
        QCOMPARE(rig->trace->Lines(), QStringList());
    } else {
        QVERIFY(rig->Reach(way == "Cancel" ? "CANCELED" : "WAITING"));
        for (int i = 0; i < 20; ++i)
            QCoreApplication::processEvents();
        QCOMPARE(rig->Errors(), QStringList());
        QCOMPARE(rig->trace->CountOf("appcallbackComplete"), 0);
        QCOMPARE(rig->State(), way == "Cancel" ? QString("CANCELED") : QString("WAITING"));
    }
    QCOMPARE(Snapshot(rig->Root()), before);
    QCOMPARE(callback.calls.load(), 1);
}

void TestUpdaterSwap::ResultOfAnEndedCallbackThreadIsDropped_data()
{
    QTest::addColumn<QString>("way");
    QTest::addColumn<int>("code");
    for (const int code : {0, 5}) {
        for (const char* way : {"Cancel", "Wait", "deletion"})
            QTest::addRow("%s, code %d", way, code) << way << code;
    }
}

void TestUpdaterSwap::ResultOfAnEndedCallbackThreadIsDropped()
{
    QFETCH(QString, way);
    QFETCH(int, code);
    Trees();
    rig->Start();
    TestCallback callback(code);
    rig->updater->SetAppCallback(&callback);
    rig->updater->Install();
    QCOMPARE(rig->State(), QString("APPCALLBACK"));
    // The result is posted, but the event loop has not delivered it yet.
    auto* thread = rig->updater->findChild<updater::AppCallback*>();
    QVERIFY(thread);
    QVERIFY(thread->wait(kxtest::patience));
    QVERIFY(callback.returned);
    rig->trace->Clear();
    if (way == "Cancel") {
        rig->updater->Cancel();
        QVERIFY(rig->Reach("CANCELED"));
    } else if (way == "Wait") {
        rig->updater->Wait();
        QVERIFY(rig->Reach("WAITING"));
    } else {
        delete rig->updater;
    }
    for (int i = 0; i < 20; ++i)
        QCoreApplication::processEvents();
    QCOMPARE(rig->trace->CountOf("error"), 0);
    QCOMPARE(rig->trace->CountOf("appcallbackComplete"), 0);
    if (way == "deletion")
        return;

    // A second install asks again, and takes that answer only.
    TestCallback second(7);
    rig->updater->SetAppCallback(&second);
    QVERIFY(rig->Install("FAILED"));
    QCOMPARE(rig->Errors(), QStringList(ErrorLine(7, "Application callback failed!")));
    QCOMPARE(second.calls.load(), 1);
    QCOMPARE(callback.calls.load(), 1);
    QCOMPARE(Snapshot(rig->App()), oldTree);
}

void TestUpdaterSwap::ResultSlotActsInEveryState()
{
    Trees();
    rig->Start();
    for (const char* state : {"WAITING", "CANCELED", "WAITING"}) {
        if (rig->State() == "WAITING" && qstrcmp(state, "CANCELED") == 0)
            rig->updater->Cancel();
        else if (rig->State() == "CANCELED")
            rig->updater->Wait();
        QVERIFY(rig->Reach(state));
        rig->trace->Clear();
        rig->updater->OnAppCallbackResult(0);
        QCOMPARE(rig->trace->Lines(), QStringList("appcallbackComplete()"));
        rig->trace->Clear();
        rig->updater->OnAppCallbackResult(5);
        QCOMPARE(rig->trace->Lines(), QStringList(ErrorLine(5, "Application callback failed!")));
        QCOMPARE(rig->State(), QString(state));
    }

    // In the middle of an install it is an error like any other.
    TestCallback callback(0, true);
    rig->updater->SetAppCallback(&callback);
    rig->updater->Install();
    QVERIFY(rig->Reach("APPCALLBACK"));
    callback.latch.release();
    rig->updater->OnAppCallbackResult(9);
    QCOMPARE(rig->State(), QString("FAILED"));
    QCOMPARE(Snapshot(rig->App()), oldTree);
    callback.latch.release();
    rig->AtState("MOVING", [this] { rig->updater->OnAppCallbackResult(3); });
    QVERIFY(rig->Install("FAILED"));
    QVERIFY(rig->States().contains("REVERTING"));
    QCOMPARE(Snapshot(rig->App()), oldTree);
    QCOMPARE(rig->Errors().last(), ErrorLine(updater::UpdateReverted, RestoredText(rig->Backup())));
}

void TestUpdaterSwap::CallbackThreadReportsItsResultOnce_data()
{
    QTest::addColumn<int>("code");
    QTest::newRow("0") << 0;
    QTest::newRow("5") << 5;
    QTest::newRow("-1") << -1;
}

void TestUpdaterSwap::CallbackThreadReportsItsResultOnce()
{
    QFETCH(int, code);
    QCOMPARE(QString::fromLatin1(updater::AppCallback::staticMetaObject.className()),
             QString("updater::AppCallback"));
    kxtest::LogCapture log;
    QObject parent;
    TestCallback callback(code);
    updater::AppCallback thread(&parent);
    QCOMPARE(thread.parent(), &parent);
    QVERIFY(!thread.callback);
    QCOMPARE(thread.DownloadPath(), QString());
    QCOMPARE(thread.LocalPackagePath(), QString());
    thread.callback = &callback;
    thread.SetDownloadPath("/download");
    thread.SetLocalPackagePath("/local");
    QCOMPARE(thread.DownloadPath(), QString("/download"));
    QCOMPARE(thread.LocalPackagePath(), QString("/local"));

    QObject receiver;
    QList<int> results;
    connect(&thread, &updater::AppCallback::result, &receiver,
            [&](int result) { results << result; });
    std::atomic<Qt::HANDLE> emitter{nullptr};
    connect(
        &thread, &updater::AppCallback::result, &thread,
        [&] { emitter = QThread::currentThreadId(); }, Qt::DirectConnection);
    thread.start();
    QVERIFY(thread.wait(kxtest::patience));
    QCOMPARE(results, QList<int>());
    QVERIFY(kxtest::WaitFor([&] { return !results.isEmpty(); }));
    QCOMPARE(results, QList<int>{code});
    QCOMPARE(emitter.load(), callback.thread.load());
    QVERIFY(emitter.load() != QThread::currentThreadId());
    QCOMPARE(callback.downloadPath, QString("/download"));
    QCOMPARE(callback.localPackagePath, QString("/local"));
    QCOMPARE(
        log.Lines("updater.callback"),
        QStringList({"7 Calling application callback...",
                     QStringLiteral("7 application callback finished with code '%1'.").arg(code)}));
    for (const kxtest::LogRecord& record : log.Records())
        QCOMPARE(record.thread, callback.thread.load());
}

void TestUpdaterSwap::CallbackThreadWithoutCallbackReportsSuccess()
{
    kxtest::LogCapture log;
    updater::AppCallback thread(nullptr);
    QObject receiver;
    QList<int> results;
    connect(&thread, &updater::AppCallback::result, &receiver,
            [&](int result) { results << result; });
    thread.start();
    QVERIFY(kxtest::WaitFor([&] { return !results.isEmpty(); }));
    QCOMPARE(results, QList<int>{0});
    QCOMPARE(log.Lines("updater.callback"), QStringList("7 Callback is not set!"));
}

void TestUpdaterSwap::DeletingTheCallbackThreadWaitsForIt()
{
    TestCallback callback(0, true);
    auto thread = std::make_unique<updater::AppCallback>(nullptr);
    thread->callback = &callback;
    thread->start();
    QVERIFY(callback.entered.tryAcquire(1, kxtest::patience));
    QVERIFY(!callback.returned);
    // Another thread lets the callback go while this one deletes.
    const std::unique_ptr<QThread> releaser(QThread::create([&] { callback.latch.release(); }));
    releaser->start();
    thread.reset();
    QVERIFY(callback.returned);
    QVERIFY(releaser->wait(kxtest::patience));
}

QTEST_GUILESS_MAIN(TestUpdaterSwap)
#include "tst_updater_swap.moc"
