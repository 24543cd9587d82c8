#include "droppedrights.h"
#include "guardchild.h"
#include "guardsite.h"
#include "stephook.h"
#include "wiringguard.h"

#include <kxguard/filelock.h>
#include <kxguard/recover.h>

#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>
#include <QTest>

#include <cerrno>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

using guard::Recover;
using guard::Recovery;
using guard::RecoveryState;
using kxtest::CopyTree;
using kxtest::Exists;
using kxtest::GuardChild;
using kxtest::GuardSite;
using kxtest::Snapshot;
using kxtest::TreeBuilder;

Q_DECLARE_METATYPE(guard::RecoveryState)

namespace {

const QStringList missing{"(missing)"};

/** Another home directory for one test. */
class Home
{
public:
    explicit Home(const QString& path) : before(qgetenv("HOME")) { qputenv("HOME", path.toUtf8()); }
    ~Home() { qputenv("HOME", before); }

private:
    const QByteArray before;
};

QStringList TreeAt(const QString& path)
{
    const bool isTree = QFileInfo(path).isDir() && kxtest::LinkText(path).isEmpty();
    return isTree ? Snapshot(path) : missing;
}

void Move(const QString& from, const QString& to)
{
    if (::rename(qPrintable(from), qPrintable(to)) != 0)
        qFatal("cannot move '%s'", qPrintable(from));
}

QByteArray Told(const Recovery& recovery)
{
    return QByteArray::number(int(recovery.state)) + ' ' + recovery.text.toUtf8();
}

/** Runs an install that is killed where the options say; false when it was not. */
bool InstallAndDie(const GuardSite& site, const QStringList& options)
{
    GuardChild child(QStringList{"install"} + options +
                     QStringList{site.App(), site.Next(), site.XmlFile()});
    const QString output = child.Finish();
    if (output.contains(QLatin1String("guard ")))
        qWarning("%s", qPrintable(output));
    return child.WasKilled();
}

} // namespace

/** What Recover() makes of what it finds. The journals are those of installs that were killed. */
class TestRecover : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();

    void WithoutJournalNothingIsEverRemoved_data();
    void WithoutJournalNothingIsEverRemoved();
    void SeparatorsAtTheEndDoNotCount();
    void OddPathsAreLeftAlone_data();
    void OddPathsAreLeftAlone();

    void KilledInstallEndsWhole_data();
    void KilledInstallEndsWhole();
    void KilledAtAnyStepItEndsWhole_data();
    void KilledAtAnyStepItEndsWhole();
    void KilledRecoveryIsTakenUpAgain_data();
    void KilledRecoveryIsTakenUpAgain();
    void FirstInstallThatWasKilledLeavesNothing_data();
    void FirstInstallThatWasKilledLeavesNothing();
    void NewVersionIsOnDiskBeforeTheOldOneGoes();
    void BackupFromBeforeStaysWhenNoSwapHadBegun();
    void ReadOnlyEntriesAreNoObstacle();
    void LongNamesAreRecovered();

    void DamagedJournalLeadsToNoRemoval_data();
    void DamagedJournalLeadsToNoRemoval();
    void CutJournalLeadsToNoRemoval();
    void ChangedJournalLeadsToNoRemoval();
    void JournalOfAnotherApplicationLeadsToNoRemoval();
    void JournalAfterChangesByHandLeadsToNoRemoval_data();
    void JournalAfterChangesByHandLeadsToNoRemoval();
    void FilesOfNoVersionMakeRoomForTheOldOne();
    void OldVersionOutlivesWhatTookItsPlace_data();
    void OldVersionOutlivesWhatTookItsPlace();
    void ProgramThatWasChangedIsNoObstacle_data();
    void ProgramThatWasChangedIsNoObstacle();
    void LinksThatTookThePlaceOfTreesLeadNowhere_data();
    void LinksThatTookThePlaceOfTreesLeadNowhere();

    void NothingIsDoneWhileAnotherProcessHasTheLock();
    void WaitsForTheLock();
    void SmallJournalTakesLittleMemory();
    void LockThatCannotBeMadeIsAFailure_data();
    void LockThatCannotBeMadeIsAFailure();
    void OneOfManyDoesIt_data();
    void OneOfManyDoesIt();
    void OneOfManyProcessesDoesIt();
    void ClosedParentIsNoProblemWhenThereIsNothingToDo();
    void ClosedParentLosesNothing_data();
    void ClosedParentLosesNothing();

private:
    /** Leaves what an install leaves that is killed when it has copied, before it removes the old
     *  version. */
    void KilledBeforeTheEnd();
    QStringList Trees() const;

    std::unique_ptr<GuardSite> site;
};

void TestRecover::init()
{
    kxtest::FailOnWiringWarnings();
    site = std::make_unique<GuardSite>();
}

void TestRecover::KilledBeforeTheEnd()
{
    site->Reset();
    QVERIFY(InstallAndDie(*site, {"--die-at", "BACKUPCLEARING"}));
    QVERIFY(Exists(site->Journal()));
    QVERIFY(Exists(site->Backup()));
}

/** All that stands there but the files of the guard itself. */
QStringList TestRecover::Trees() const
{
    QStringList lines;
    for (const QString& line : Snapshot(site->Root())) {
        if (!line.startsWith(".app.kxlock ") && !line.startsWith(".app.kxjournal "))
            lines << line;
    }
    return lines;
}

void TestRecover::WithoutJournalNothingIsEverRemoved_data()
{
    QTest::addColumn<QString>("app");
    QTest::addColumn<QString>("old");
    QTest::addColumn<QString>("copy");
    QTest::addColumn<QString>("lock");
    const QStringList kinds = {"missing", "directory", "empty", "file", "link", "dangling"};
    for (const QString& app : kinds) {
        for (const QString& old : kinds) {
            for (const char* copy : {"missing", "directory", "file", "link"}) {
                for (const char* lock : {"missing", "file"}) {
                    QTest::addRow("app %s, backup %s, copy %s, lock %s", qPrintable(app),
                                  qPrintable(old), copy, lock)
                        << app << old << QString(copy) << QString(lock);
                }
            }
        }
    }
}

void TestRecover::WithoutJournalNothingIsEverRemoved()
{
    QFETCH(const QString, app);
    QFETCH(const QString, old);
    QFETCH(const QString, copy);
    QFETCH(const QString, lock);
    const auto put = [this](const QString& path, const QString& kind) {
        kxtest::Remove(path);
        const QString name = path.section(u'/', -1);
        TreeBuilder root(site->Root());
        if (kind == "directory")
            root.File(name + "/bin/app", "a program", 0755).File(name + "/" + name, "x");
        else if (kind == "empty")
            root.Dir(name);
        else if (kind == "file")
            root.File(name, "");
        else if (kind == "link")
            root.Symlink(name, "outside");
        else if (kind == "dangling")
            root.Symlink(name, "none");
    };
    put(site->App(), app);
    put(site->Backup(), old);
    put(site->Copy(), copy);
    put(site->LockFile(), lock);
    const QStringList before = Trees();
    const QStringList backup = TreeAt(site->Backup());

    const Recovery recovery = Recover(site->App());
    const bool isRestored = app == "missing" && (old == "directory" || old == "empty");
    QVERIFY2(!Exists(site->Journal()), site->Report());
    if (isRestored) {
        QVERIFY2(recovery.state == RecoveryState::Restored, Told(recovery));
        QVERIFY(recovery.IsWhole());
        QCOMPARE(Snapshot(site->App()), backup);
        QCOMPARE(Snapshot(site->Backup()), missing);
        QStringList renamed = before;
        renamed.replaceInStrings(QRegularExpression("^app\\.old(?=[ /])"), "app");
        renamed.sort();
        QStringList after = Trees();
        after.sort();
        QCOMPARE(after, renamed);
        QVERIFY2(recovery.text.contains(site->App()), Told(recovery));
    } else {
        QCOMPARE(Trees(), before);
        if (app == "directory" || app == "empty")
            QVERIFY2(recovery.state == RecoveryState::Whole, Told(recovery));
        else if (app == "missing" && old == "missing")
            QVERIFY2(recovery.state == RecoveryState::Absent, Told(recovery));
        else if (app != "link")
            QVERIFY2(!recovery.IsWhole() && !recovery.text.isEmpty(), Told(recovery));
    }
    // Again, and there is nothing left to do.
    const QStringList after = Snapshot(site->Root());
    const Recovery again = Recover(site->App());
    QCOMPARE(Snapshot(site->Root()), after);
    QCOMPARE(int(again.state), int(isRestored ? RecoveryState::Whole : recovery.state));
}

void TestRecover::SeparatorsAtTheEndDoNotCount()
{
    Move(site->App(), site->Backup());
    const Recovery recovery = Recover(site->App() + "//");
    QVERIFY2(recovery.state == RecoveryState::Restored, Told(recovery));
    QVERIFY2(site->IsOld(), site->Report());

    KilledBeforeTheEnd();
    const Recovery finished = Recover(site->App() + "/");
    QVERIFY2(finished.state == RecoveryState::Finished, Told(finished));
    QVERIFY2(site->IsNew(), site->Report());
}

void TestRecover::OddPathsAreLeftAlone_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<bool>("fails");
    QTest::newRow("empty") << "" << true;
    QTest::newRow("relative") << "app" << true;
    QTest::newRow("relative, with a point") << "./app" << true;
    QTest::newRow("the root") << "/" << false;
    QTest::newRow("the home directory") << "HOME" << false;
    QTest::newRow("below a missing directory") << "ROOT/none/app" << false;
    QTest::newRow("below a file") << "ROOT/outside/bystander/app" << false;
}

void TestRecover::OddPathsAreLeftAlone()
{
    QFETCH(QString, path);
    QFETCH(const bool, fails);
    // A relative path would find its backup here.
    Move(site->App(), site->Backup());
    TreeBuilder(site->Root()).File("home/file", "x").File("home.old/file", "x").Dir(".home.kxnew");
    const QString before = QDir::currentPath();
    QVERIFY(QDir::setCurrent(site->Root()));
    const Home home(site->Root() + "/home");
    const QStringList snapshot = Snapshot(site->Root());
    path.replace("HOME", site->Root() + "/home").replace("ROOT", site->Root());
    const QStringList top = QDir("/").entryList(QDir::AllEntries | QDir::Hidden);
    const Recovery recovery = Recover(path);
    QDir::setCurrent(before);
    QCOMPARE(Snapshot(site->Root()), snapshot);
    QCOMPARE(QDir("/").entryList(QDir::AllEntries | QDir::Hidden), top);
    if (fails) {
        QVERIFY2(recovery.state == RecoveryState::Failed, Told(recovery));
        QVERIFY(!recovery.text.isEmpty());
    }
    if (path.contains("none") || path.contains("bystander"))
        QVERIFY2(!recovery.IsWhole(), Told(recovery));
}

void TestRecover::KilledInstallEndsWhole_data()
{
    QTest::addColumn<QString>("state");
    QTest::addColumn<bool>("reverts");
    QTest::addColumn<bool>("isFirst");
    QTest::addColumn<bool>("hasBackup"); // one that stood there before
    QTest::addColumn<bool>("endsNew");
    QTest::addColumn<RecoveryState>("result");
    for (const bool isFirst : {false, true}) {
        const char* when = isFirst ? "before the guard hears of it" : "after the guard heard of it";
        for (const bool has : {false, true}) {
            const char* with = has ? "with an earlier backup" : "plain";
            QTest::addRow("BACKUPING, %s, %s", with, when)
                << "BACKUPING" << false << isFirst << has << false << RecoveryState::Cleaned;
            QTest::addRow("MOVING, %s, %s", with, when)
                << "MOVING" << false << isFirst << has << false << RecoveryState::Restored;
            QTest::addRow("BACKUPCLEARING, %s, %s", with, when)
                << "BACKUPCLEARING" << false << isFirst << has << true << RecoveryState::Finished;
            QTest::addRow("REVERTING, %s, %s", with, when)
                << "REVERTING" << true << isFirst << has << false << RecoveryState::Restored;
            QTest::addRow("RESTORING, %s, %s", with, when)
                << "RESTORING" << true << isFirst << has << false << RecoveryState::Restored;
        }
        QTest::addRow("BACKUPREMOVING, %s", when)
            << "BACKUPREMOVING" << false << isFirst << false << false << RecoveryState::Cleaned;
    }
}

void TestRecover::KilledInstallEndsWhole()
{
    QFETCH(const QString, state);
    QFETCH(const bool, reverts);
    QFETCH(const bool, isFirst);
    QFETCH(const bool, hasBackup);
    QFETCH(const bool, endsNew);
    QFETCH(const RecoveryState, result);
    if (hasBackup)
        TreeBuilder(site->Backup()).File("earlier", "x");
    QStringList options = {"--die-at", state};
    if (reverts)
        options << "--revert";
    if (isFirst)
        options << "--die-first";
    QVERIFY(InstallAndDie(*site, options));
    QVERIFY2(Exists(site->Journal()), site->Report());
    QCOMPARE(kxtest::Mode(site->Journal()) & 0077, 0);
    kxtest::Remove(site->Next() + "/fifo");

    const Recovery recovery = Recover(site->App());
    QVERIFY2(recovery.IsWhole(), Told(recovery));
    QVERIFY2(endsNew ? site->IsNew() : site->IsOld(), site->Report());
    QVERIFY2(recovery.text.contains(site->App()), Told(recovery));
    QVERIFY2(recovery.state == result, Told(recovery));
    QCOMPARE(Snapshot(site->Next()), site->NewTree());
    QVERIFY(Exists(site->Outside() + "/bystander"));

    const QStringList after = Snapshot(site->Root());
    QCOMPARE(int(Recover(site->App()).state), int(RecoveryState::Whole));
    QCOMPARE(Snapshot(site->Root()), after);
}

void TestRecover::KilledAtAnyStepItEndsWhole_data()
{
    QTest::addColumn<QString>("from");
    QTest::addColumn<bool>("reverts");
    QTest::addColumn<int>("least"); // steps there are at least
    QTest::newRow("removal of an earlier backup") << "BACKUPREMOVING" << false << 10;
    QTest::newRow("copy") << "MOVING" << false << 10;
    QTest::newRow("removal of the old version") << "BACKUPCLEARING" << false << 2;
    QTest::newRow("copy that fails") << "MOVING" << true << 2;
}

void TestRecover::KilledAtAnyStepItEndsWhole()
{
    QFETCH(const QString, from);
    QFETCH(const bool, reverts);
    QFETCH(const int, least);
    bool wasOld = false;
    bool wasNew = false;
    int step = 1;
    for (;; ++step) {
        site->Reset();
        TreeBuilder(site->Backup()).File("earlier/backup", "x").File("of", "y");
        QStringList options = {"--die-after", from, QString::number(step)};
        if (reverts)
            options << "--revert";
        if (!InstallAndDie(*site, options))
            break;
        kxtest::Remove(site->Next() + "/fifo");
        const Recovery recovery = Recover(site->App());
        const QByteArray told = QByteArray::number(step) + ": " + Told(recovery);
        QVERIFY2(recovery.IsWhole(), told);
        // A backup from before whose removal was cut off is nobody's any more, or still its own.
        const bool isUntouched =
            Snapshot(site->App()) == site->OldTree() && Exists(site->Backup()) &&
            site->Names() == QStringList({"app", "app.old", "next", "outside"}) &&
            from == "BACKUPREMOVING";
        wasOld = wasOld || site->IsOld();
        wasNew = wasNew || site->IsNew();
        QVERIFY2(isUntouched || site->IsOld() || site->IsNew(), told + '\n' + site->Report());
        QVERIFY2(recovery.state != RecoveryState::Finished || site->IsNew(), told);
        QVERIFY2(recovery.state != RecoveryState::Restored || site->IsOld(), told);
        const QStringList after = Snapshot(site->Root());
        QCOMPARE(int(Recover(site->App()).state), int(RecoveryState::Whole));
        QCOMPARE(Snapshot(site->Root()), after);
    }
    QVERIFY2(step > least, qPrintable(QString::number(step)));
    // The one that nobody killed.
    kxtest::Remove(site->Next() + "/fifo");
    QVERIFY2(reverts ? site->IsOld() : site->IsNew(), site->Report());
    QVERIFY(wasOld || from == "BACKUPCLEARING");
    QVERIFY(wasNew || reverts);
}

void TestRecover::KilledRecoveryIsTakenUpAgain_data()
{
    QTest::addColumn<QStringList>("options");
    QTest::addColumn<bool>("endsNew");
    QTest::newRow("copy to be removed") << QStringList{"--die-after", "MOVING", "9"} << false;
    QTest::newRow("old version to be removed") << QStringList{"--die-at", "BACKUPCLEARING"} << true;
}

void TestRecover::KilledRecoveryIsTakenUpAgain()
{
    QFETCH(const QStringList, options);
    QFETCH(const bool, endsNew);
    for (int step = 1;; ++step) {
        site->Reset();
        QVERIFY(InstallAndDie(*site, options));
        QVERIFY2(endsNew ? Exists(site->Backup()) : Exists(site->Copy()), site->Report());
        GuardChild child({"recover", site->App(), "0", QString::number(step)});
        child.Finish();
        if (!child.WasKilled()) {
            QVERIFY2(endsNew ? site->IsNew() : site->IsOld(), site->Report());
            QVERIFY(step > 1);
            break;
        }
        const Recovery recovery = Recover(site->App());
        QVERIFY2(recovery.IsWhole(), Told(recovery));
        QVERIFY2(endsNew ? site->IsNew() : site->IsOld(), site->Report());
    }
}

void TestRecover::FirstInstallThatWasKilledLeavesNothing_data()
{
    QTest::addColumn<QString>("state");
    QTest::newRow("BACKUPREMOVING") << "BACKUPREMOVING";
    QTest::newRow("MOVING") << "MOVING";
    QTest::newRow("copy") << "copy";
    QTest::newRow("BACKUPCLEARING") << "BACKUPCLEARING";
}

void TestRecover::FirstInstallThatWasKilledLeavesNothing()
{
    QFETCH(const QString, state);
    kxtest::Remove(site->App());
    QVERIFY(InstallAndDie(*site, state == "copy" ? QStringList{"--die-after", "MOVING", "9"}
                                                 : QStringList{"--die-at", state}));
    const Recovery recovery = Recover(site->App());
    if (state == "BACKUPCLEARING") {
        QVERIFY2(recovery.IsWhole(), Told(recovery));
        QVERIFY2(site->IsNew(), site->Report());
    } else {
        QVERIFY2(recovery.state == RecoveryState::Absent, Told(recovery));
        QCOMPARE(site->Names(), QStringList({"next", "outside"}));
    }
}

void TestRecover::NewVersionIsOnDiskBeforeTheOldOneGoes()
{
    KilledBeforeTheEnd();
    std::vector<common::fileops::Step> steps;
    {
        kxtest::StepHook hook([&steps](common::fileops::Step step) {
            steps.push_back(step);
            return 0;
        });
        QCOMPARE(int(Recover(site->App()).state), int(RecoveryState::Finished));
    }
    QVERIFY(steps.size() > 1);
    QVERIFY(steps[0] == common::fileops::Step::Sync);
    QVERIFY(steps[1] == common::fileops::Step::Entry);

    // What cannot be brought to disk is no reason to remove what is there.
    KilledBeforeTheEnd();
    const QStringList before = Trees();
    {
        kxtest::StepHook hook(kxtest::StepHook::Failing(common::fileops::Step::Sync, 1, EIO));
        const Recovery recovery = Recover(site->App());
        QVERIFY2(recovery.state == RecoveryState::Failed, Told(recovery));
    }
    QCOMPARE(Trees(), before);
    QVERIFY(Exists(site->Journal()));
}

void TestRecover::BackupFromBeforeStaysWhenNoSwapHadBegun()
{
    TreeBuilder(site->Backup()).File("mine", "an administrator's own");
    const QStringList before = Snapshot(site->Root());
    QVERIFY(InstallAndDie(*site, {"--die-at", "BACKUPREMOVING"}));
    QVERIFY(Exists(site->Journal()));
    const Recovery recovery = Recover(site->App());
    QVERIFY2(recovery.IsWhole(), Told(recovery));
    QCOMPARE(Snapshot(site->Root()), before);
}

void TestRecover::ReadOnlyEntriesAreNoObstacle()
{
    TreeBuilder(site->App()).File("closed/file", "x", 0400).Dir("closed", 0500);
    KilledBeforeTheEnd();
    kxtest::SetMode(site->Backup() + "/bin", 0500);
    kxtest::SetMode(site->Backup(), 0500);
    const Recovery recovery = Recover(site->App());
    QVERIFY2(recovery.state == RecoveryState::Finished, Told(recovery));
    QVERIFY2(site->IsNew(), site->Report());
}

void TestRecover::LongNamesAreRecovered()
{
    // Not even the backup's name fits then; 251 bytes are the longest with ".old".
    const QString app = site->Root() + u'/' + QString(251, u'n');
    for (const bool endsNew : {false, true}) {
        site->Reset();
        Move(site->App(), app);
        GuardChild child({"install", "--die-at", endsNew ? "BACKUPCLEARING" : "MOVING", app,
                          site->Next(), site->XmlFile()});
        child.Finish();
        QVERIFY(child.WasKilled());
        QVERIFY(Exists(app + ".old"));
        const Recovery recovery = Recover(app);
        QVERIFY2(recovery.IsWhole(), Told(recovery));
        QCOMPARE(site->Names(), QStringList({"next", QString(251, u'n'), "outside"}));
        QCOMPARE(Snapshot(app), endsNew ? site->NewTree() : site->OldTree());
    }
}

void TestRecover::DamagedJournalLeadsToNoRemoval_data()
{
    QTest::addColumn<QString>("kind");
    for (const char* kind : {"empty", "blank", "zeros", "text", "xml", "twice", "line more", "huge",
                             "link", "dangling", "directory", "full directory", "fifo",
                             "of another user", "writable by others"})
        QTest::newRow(kind) << kind;
}

void TestRecover::DamagedJournalLeadsToNoRemoval()
{
    QFETCH(const QString, kind);
    if (kind == "of another user" && ::geteuid() != 0)
        QSKIP("only root can leave the file of another user");
    for (const bool isMissing : {false, true}) {
        KilledBeforeTheEnd();
        const QByteArray journal = kxtest::Read(site->Journal());
        TreeBuilder(site->Copy()).File("copy", "x");
        if (isMissing)
            kxtest::Remove(site->App());
        const QStringList before = Trees();
        kxtest::Remove(site->Journal());
        TreeBuilder root(site->Root());
        if (kind == "empty")
            kxtest::Write(site->Journal(), "");
        else if (kind == "blank")
            kxtest::Write(site->Journal(), "\n");
        else if (kind == "zeros")
            kxtest::Write(site->Journal(), QByteArray(journal.size(), '\0'));
        else if (kind == "text")
            kxtest::Write(site->Journal(), "remove everything\n");
        else if (kind == "xml")
            kxtest::Write(site->Journal(), site->Xml().toUtf8());
        else if (kind == "twice")
            kxtest::Write(site->Journal(), journal + journal);
        else if (kind == "line more")
            kxtest::Write(site->Journal(), journal + "more\n");
        else if (kind == "huge") {
            kxtest::Write(site->Journal(), journal);
            QVERIFY(QFile::resize(site->Journal(), qint64(1) << 33));
        } else if (kind == "link") {
            kxtest::Write(site->Scratch("other") + "/journal", journal);
            root.Symlink(".app.kxjournal", site->Scratch("other") + "/journal");
        } else if (kind == "dangling")
            root.Symlink(".app.kxjournal", "none");
        else if (kind == "directory")
            root.Dir(".app.kxjournal");
        else if (kind == "full directory")
            root.File(".app.kxjournal/file", "x");
        else if (kind == "fifo")
            QCOMPARE(::mkfifo(qPrintable(site->Journal()), 0600), 0);
        else {
            kxtest::Write(site->Journal(), journal);
            kxtest::SetMode(site->Journal(), kind == "of another user" ? 0600 : 0666);
            if (kind == "of another user")
                QCOMPARE(::chown(qPrintable(site->Journal()), 65534, 65534), 0);
        }
        const Recovery recovery = Recover(site->App());
        if (kind == "huge")
            kxtest::Remove(site->Journal()); // a snapshot would read it
        if (isMissing && recovery.state == RecoveryState::Restored)
            Move(site->App(), site->Backup());
        QStringList trees = Trees();
        trees = trees.filter(QRegularExpression("^(?!\\.app\\.kxjournal/)"));
        QVERIFY2(trees == before, Told(recovery) + '\n' + site->Report());
        QVERIFY2(!isMissing || !recovery.IsWhole() || recovery.state == RecoveryState::Restored,
                 Told(recovery));
        QVERIFY2(recovery.state != RecoveryState::Finished, Told(recovery));
        if (kind == "link")
            QCOMPARE(kxtest::Read(site->Scratch("other") + "/journal"), journal);
        if (kind == "full directory")
            QVERIFY(Exists(site->Journal() + "/file"));
    }
}

void TestRecover::CutJournalLeadsToNoRemoval()
{
    KilledBeforeTheEnd();
    const QByteArray journal = kxtest::Read(site->Journal());
    const QStringList before = Trees();
    for (qsizetype size = 0; size < journal.size(); ++size) {
        kxtest::Write(site->Journal(), journal.left(size));
        const Recovery recovery = Recover(site->App());
        QVERIFY2(Trees() == before, QByteArray::number(size) + ": " + Told(recovery));
    }
    // The whole one does.
    kxtest::Write(site->Journal(), journal);
    kxtest::SetMode(site->Journal(), 0600);
    QCOMPARE(int(Recover(site->App()).state), int(RecoveryState::Finished));
    QVERIFY2(site->IsNew(), site->Report());
}

void TestRecover::ChangedJournalLeadsToNoRemoval()
{
    KilledBeforeTheEnd();
    const QByteArray journal = kxtest::Read(site->Journal());
    const QStringList before = Trees();
    for (qsizetype i = 0; i < journal.size(); ++i) {
        for (const int bit : {0, 3}) {
            QByteArray changed = journal;
            changed[i] = static_cast<char>(changed[i] ^ (1 << bit));
            kxtest::Write(site->Journal(), changed);
            const Recovery recovery = Recover(site->App());
            QVERIFY2(Trees() == before, QByteArray::number(i) + ": " + Told(recovery));
        }
    }
}

void TestRecover::JournalOfAnotherApplicationLeadsToNoRemoval()
{
    KilledBeforeTheEnd();
    const QByteArray journal = kxtest::Read(site->Journal());
    // The same names in another place: a copy of all that an install has left.
    const QString place = site->Scratch("place");
    CopyTree(site->Root(), place + "/root");
    const QString app = place + "/root/app";
    const QStringList before = Snapshot(place + "/root").filter(QRegularExpression("^[^.]"));
    QVERIFY(Exists(place + "/root/.app.kxjournal"));
    const Recovery recovery = Recover(app);
    QVERIFY2(Snapshot(place + "/root").filter(QRegularExpression("^[^.]")) == before,
             Told(recovery));

    // Another application beside it, with a backup of its own.
    TreeBuilder(site->Root()).File("other/bin", "x").File("other.old/bin", "y").Dir(".other.kxnew");
    kxtest::Write(site->Root() + "/.other.kxjournal", journal);
    kxtest::SetMode(site->Root() + "/.other.kxjournal", 0600);
    const Recovery other = Recover(site->Root() + "/other");
    QVERIFY2(Exists(site->Root() + "/other/bin") && Exists(site->Root() + "/other.old/bin") &&
                 Exists(site->Root() + "/.other.kxnew"),
             Told(other));
    QVERIFY2(Exists(site->Backup() + "/bin/app"), Told(other));
}

void TestRecover::JournalAfterChangesByHandLeadsToNoRemoval_data()
{
    QTest::addColumn<QString>("state");
    QTest::addColumn<QString>("change");
    QTest::newRow("the old version was put back") << "MOVING"
                                                  << "back";
    QTest::newRow("put back, and a backup made of it") << "MOVING"
                                                       << "back and copied";
    QTest::newRow("put back, and a backup moved there") << "MOVING"
                                                        << "back and moved";
    QTest::newRow("the old version was copied back") << "MOVING"
                                                     << "copied";
    QTest::newRow("another application was unpacked") << "MOVING"
                                                      << "unpacked";
    QTest::newRow("the trees were exchanged") << "BACKUPCLEARING"
                                              << "exchanged";
    QTest::newRow("exchanged, and the new one put aside") << "BACKUPCLEARING"
                                                          << "aside";
    QTest::newRow("the backup is another one") << "BACKUPCLEARING"
                                               << "other backup";
    QTest::newRow("backup of the backup") << "BACKUPCLEARING"
                                          << "copied backup";
}

void TestRecover::JournalAfterChangesByHandLeadsToNoRemoval()
{
    QFETCH(const QString, state);
    QFETCH(const QString, change);
    QVERIFY(InstallAndDie(*site, {"--die-at", state}));
    const QString app = site->App();
    const QString old = site->Backup();
    const QString aside = site->Root() + "/aside";
    if (change == "back") {
        Move(old, app);
    } else if (change == "back and copied") {
        Move(old, app);
        CopyTree(app, old);
    } else if (change == "back and moved") {
        Move(old, app);
        TreeBuilder(old).File("mine", "x");
    } else if (change == "copied") {
        CopyTree(old, app);
    } else if (change == "unpacked") {
        TreeBuilder(app).File("bin/app", "by hand", 0755);
    } else if (change == "exchanged") {
        Move(app, aside);
        Move(old, app);
        Move(aside, old);
    } else if (change == "aside") {
        Move(app, aside);
        Move(old, app);
    } else if (change == "other backup") {
        Move(old, aside);
        TreeBuilder(old).File("mine", "x");
    } else {
        Move(old, aside);
        CopyTree(aside, old);
    }
    const QStringList before = Trees();
    const Recovery recovery = Recover(app);
    QVERIFY2(Trees() == before, Told(recovery) + '\n' + site->Report());
    const Recovery again = Recover(app);
    QVERIFY2(Trees() == before, Told(again) + '\n' + site->Report());
}

void TestRecover::FilesOfNoVersionMakeRoomForTheOldOne()
{
    // A program that goes on running while it is moved aside makes the directory of its logs anew.
    const QString found = site->App() + ".kxfound";
    QVERIFY(InstallAndDie(*site, {"--die-at", "MOVING"}));
    TreeBuilder(site->App()).File("log/today", "started");
    const Recovery recovery = Recover(site->App());
    QVERIFY2(recovery.state == RecoveryState::Restored, Told(recovery));
    QVERIFY2(recovery.text.contains(found), Told(recovery));
    QCOMPARE(kxtest::Read(found + "/log/today"), QByteArray("started"));
    const QString kept = site->Scratch("kept") + "/found";
    Move(found, kept);
    QVERIFY2(site->IsOld(), site->Report());
    Move(kept, found);

    // A second time there is no place for them, and nothing is lost either.
    QVERIFY(InstallAndDie(*site, {"--die-at", "MOVING"}));
    TreeBuilder(site->App()).File("log/today", "started again");
    const QStringList before = Trees();
    const Recovery again = Recover(site->App());
    QVERIFY2(again.state == RecoveryState::Failed, Told(again));
    QVERIFY2(Trees() == before, Told(again) + '\n' + site->Report());
}

void TestRecover::OldVersionOutlivesWhatTookItsPlace_data()
{
    QTest::addColumn<QStringList>("names"); // of what stands in the application's place
    QTest::addColumn<bool>("isCopied");     // the backup is another directory with its contents
    QTest::newRow("a file of the old version that was changed, and a log")
        << QStringList{"data/gone", "log/today"} << false;
    QTest::newRow("part of the new version, and a log")
        << QStringList{"data/same", "log/today"} << false;
    QTest::newRow("part of the new version, and the identities have changed")
        << QStringList{"data/same"} << true;
}

void TestRecover::OldVersionOutlivesWhatTookItsPlace()
{
    QFETCH(const QStringList, names);
    QFETCH(const bool, isCopied);
    QVERIFY(InstallAndDie(*site, {"--die-at", "MOVING"}));
    for (const QString& name : names)
        TreeBuilder(site->App()).File(name, "same");
    if (isCopied) {
        const QString aside = site->Scratch("aside") + "/tree";
        Move(site->Backup(), aside);
        CopyTree(aside, site->Backup());
    }
    const QStringList before = Trees();
    for (int i = 0; i < 2; ++i) {
        const Recovery recovery = Recover(site->App());
        QVERIFY2(recovery.state == RecoveryState::Failed, Told(recovery));
        QVERIFY2(recovery.text.contains(site->Backup()), Told(recovery));
        QVERIFY2(Trees() == before, Told(recovery) + '\n' + site->Report());
    }
    // An install would remove the backup first.
    GuardChild child({"install", site->App(), site->Next(), site->XmlFile()});
    const QString output = child.Finish();
    QVERIFY2(output.contains("guard 620103"), qPrintable(output));
    QVERIFY2(Trees() == before, site->Report());

    // As the text says.
    kxtest::Remove(site->App());
    Move(site->Backup(), site->App());
    QVERIFY(Recover(site->App()).IsWhole());
    QVERIFY2(isCopied || site->IsOld(), site->Report());
    QVERIFY(!Exists(site->Journal()));
}

void TestRecover::ProgramThatWasChangedIsNoObstacle_data()
{
    QTest::addColumn<QString>("state");
    QTest::newRow("the old version was copied back") << "MOVING";
    QTest::newRow("the new one wrote a file of its own anew") << "BACKUPCLEARING";
}

void TestRecover::ProgramThatWasChangedIsNoObstacle()
{
    QFETCH(const QString, state);
    QVERIFY(InstallAndDie(*site, {"--die-at", state}));
    if (state == "MOVING")
        CopyTree(site->Backup(), site->App());
    else
        kxtest::Write(site->App() + "/data/same", "longer than it was");
    const QStringList before = Trees();
    const Recovery recovery = Recover(site->App());
    QVERIFY2(recovery.state == RecoveryState::Cleaned, Told(recovery));
    QCOMPARE(Trees(), before);
    QVERIFY(!Exists(site->Journal()));
}

void TestRecover::LinksThatTookThePlaceOfTreesLeadNowhere_data()
{
    QTest::addColumn<QString>("state");
    QTest::addColumn<QString>("name");
    QTest::newRow("application") << "BACKUPCLEARING"
                                 << "app";
    QTest::newRow("backup") << "BACKUPCLEARING"
                            << "app.old";
    QTest::newRow("backup, application missing") << "MOVING"
                                                 << "app.old";
    QTest::newRow("copy") << "MOVING"
                          << ".app.kxnew";
}

void TestRecover::LinksThatTookThePlaceOfTreesLeadNowhere()
{
    QFETCH(const QString, state);
    QFETCH(const QString, name);
    QVERIFY(InstallAndDie(*site, {"--die-at", state}));
    // The very tree that the journal speaks of, behind a link.
    const QString path = site->Root() + u'/' + name;
    const QString aside = site->Scratch("aside") + "/tree";
    if (Exists(path))
        Move(path, aside);
    else
        TreeBuilder(aside).File("precious", "x");
    const QStringList before = Snapshot(aside);
    TreeBuilder(site->Root()).Symlink(name, aside);
    const Recovery recovery = Recover(site->App());
    QCOMPARE(Snapshot(aside), before);
    QVERIFY2(kxtest::LinkText(site->App()).isEmpty() || name == "app", Told(recovery));
    // What the link took the place of is not whole, and its partner is not removed for it.
    if (name == "app")
        QCOMPARE(Snapshot(site->Backup()), site->OldTree());
    else if (state == "BACKUPCLEARING")
        QCOMPARE(Snapshot(site->App()), site->NewTree());
}

void TestRecover::NothingIsDoneWhileAnotherProcessHasTheLock()
{
    for (const char* state : {"MOVING", "BACKUPCLEARING"}) {
        site->Reset();
        QVERIFY(InstallAndDie(*site, {"--die-at", state}));
        GuardChild owner({"lock", site->LockFile(), "0"});
        QCOMPARE(owner.Line(), QString("trying"));
        QCOMPARE(owner.Line(), QString("taken"));
        const QStringList before = Snapshot(site->Root());
        const Recovery recovery = Recover(site->App());
        QVERIFY2(recovery.state == RecoveryState::Busy, Told(recovery));
        QVERIFY(!recovery.IsWhole());
        QVERIFY2(recovery.text.contains(QString::number(owner.Id())), Told(recovery));
        QVERIFY2(recovery.text.contains(site->App()) || recovery.text.contains(site->LockFile()),
                 Told(recovery));
        QCOMPARE(Snapshot(site->Root()), before);
        QCOMPARE(int(Recover(site->App(), 30).state), int(RecoveryState::Busy));
        owner.Kill();
        QVERIFY(Recover(site->App()).IsWhole());
        QVERIFY2(site->IsOld() || site->IsNew(), site->Report());
    }
}

void TestRecover::WaitsForTheLock()
{
    KilledBeforeTheEnd();
    guard::FileLock lock(site->LockFile());
    QCOMPARE(lock.Take(), guard::FileLock::Result::Taken);
    GuardChild other({"recover", site->App(), "120000"});
    QVERIFY(other.FallsAsleep());
    lock.Release();
    QVERIFY(other.Line().startsWith(QString::number(int(RecoveryState::Finished))));
    QVERIFY2(site->IsNew(), site->Report());
}

void TestRecover::SmallJournalTakesLittleMemory()
{
    const auto recoverWithin = [this](const char* kibibytes) {
        QProcess shell;
        shell.start("sh",
                    {"-c", QString("ulimit -v %1; exec \"$0\" recover \"$1\" 0").arg(kibibytes),
                     GuardChild::Program(), site->App()});
        return shell.waitForFinished(-1) && shell.exitStatus() == QProcess::NormalExit &&
               shell.exitCode() == 0;
    };
    site->Reset();
    if (!recoverWithin("240000"))
        QSKIP("No program starts with so little memory here, as under a sanitizer.");
    KilledBeforeTheEnd();
    QVERIFY(recoverWithin("240000"));
    QVERIFY2(site->IsOld() || site->IsNew(), site->Report());
}

void TestRecover::LockThatCannotBeMadeIsAFailure_data()
{
    QTest::addColumn<QString>("kind");
    QTest::newRow("link") << "link";
    QTest::newRow("directory") << "directory";
    QTest::newRow("FIFO") << "fifo";
}

void TestRecover::LockThatCannotBeMadeIsAFailure()
{
    QFETCH(const QString, kind);
    KilledBeforeTheEnd();
    kxtest::Remove(site->LockFile());
    if (kind == "link")
        TreeBuilder(site->Root()).Symlink(".app.kxlock", "outside/bystander");
    else if (kind == "directory")
        TreeBuilder(site->Root()).Dir(".app.kxlock");
    else
        QCOMPARE(::mkfifo(qPrintable(site->LockFile()), 0600), 0);
    const QStringList before = Snapshot(site->Root());
    const Recovery recovery = Recover(site->App());
    QVERIFY2(recovery.state == RecoveryState::Failed, Told(recovery));
    QVERIFY2(recovery.text.contains(site->LockFile()), Told(recovery));
    QCOMPARE(Snapshot(site->Root()), before);
}

void TestRecover::OneOfManyDoesIt_data()
{
    QTest::addColumn<int>("waitMs");
    QTest::newRow("at once") << 0;
    QTest::newRow("waiting") << 60000;
}

void TestRecover::OneOfManyDoesIt()
{
    QFETCH(const int, waitMs);
    for (int round = 0; round < 3; ++round) {
        KilledBeforeTheEnd();
        for (int i = 0; i < 200; ++i)
            TreeBuilder(site->Backup()).File(QStringLiteral("many/%1").arg(i), "x");
        std::vector<RecoveryState> states(4);
        std::vector<std::thread> threads;
        for (RecoveryState& state : states)
            threads.emplace_back([&] { state = Recover(site->App(), waitMs).state; });
        for (std::thread& thread : threads)
            thread.join();
        int finished = 0;
        int others = 0;
        for (const RecoveryState state : states) {
            finished += state == RecoveryState::Finished ? 1 : 0;
            others += state == RecoveryState::Whole || (waitMs == 0 && state == RecoveryState::Busy)
                          ? 1
                          : 0;
        }
        QCOMPARE(finished, 1);
        QCOMPARE(others, 3);
        QVERIFY2(site->IsNew(), site->Report());
    }
}

void TestRecover::OneOfManyProcessesDoesIt()
{
    QVERIFY(InstallAndDie(*site, {"--die-after", "MOVING", "9"}));
    std::vector<std::unique_ptr<GuardChild>> children;
    for (int i = 0; i < 5; ++i) {
        children.push_back(
            std::make_unique<GuardChild>(QStringList{"recover", site->App(), "60000"}));
    }
    int restored = 0;
    for (const std::unique_ptr<GuardChild>& child : children) {
        const int state = child->Finish().section(u' ', 0, 0).toInt();
        restored += state == int(RecoveryState::Restored) ? 1 : 0;
        QVERIFY(state == int(RecoveryState::Restored) || state == int(RecoveryState::Whole));
    }
    QCOMPARE(restored, 1);
    QVERIFY2(site->IsOld(), site->Report());
}

void TestRecover::ClosedParentIsNoProblemWhenThereIsNothingToDo()
{
    kxtest::SetMode(site->Root(), 0555);
    const QStringList before = Snapshot(site->Root());
    {
        const kxtest::DroppedRights dropped;
        const Recovery recovery = Recover(site->App());
        QVERIFY2(recovery.state == RecoveryState::Whole, Told(recovery));
    }
    QCOMPARE(Snapshot(site->Root()), before);
}

void TestRecover::ClosedParentLosesNothing_data()
{
    QTest::addColumn<QString>("state");
    QTest::newRow("moved aside, no journal") << "";
    QTest::newRow("MOVING") << "MOVING";
    QTest::newRow("BACKUPCLEARING") << "BACKUPCLEARING";
}

void TestRecover::ClosedParentLosesNothing()
{
    QFETCH(const QString, state);
    if (state.isEmpty())
        Move(site->App(), site->Backup());
    else
        QVERIFY(InstallAndDie(*site, {"--die-at", state}));
    kxtest::Remove(site->LockFile());
    kxtest::SetMode(site->Root(), 0555);
    const QStringList before = Trees();
    {
        const kxtest::DroppedRights dropped;
        const Recovery recovery = Recover(site->App());
        QVERIFY2(recovery.state == RecoveryState::Failed, Told(recovery));
        QVERIFY2(recovery.text.contains(site->Root()), Told(recovery));
    }
    QCOMPARE(Trees(), before);
    kxtest::SetMode(site->Root(), 0755);
    QVERIFY(Recover(site->App()).IsWhole());
    QVERIFY2(site->IsOld() || site->IsNew(), site->Report());
}

QTEST_GUILESS_MAIN(TestRecover)
#include "tst_recover.moc"
