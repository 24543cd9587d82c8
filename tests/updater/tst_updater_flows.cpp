#include "droppedrights.h"
#include "manifest.h"
#include "quietperiod.h"
#include "updaterlines.h"
#include "updatersite.h"
#include "wiringguard.h"

#include <QTest>

#include <functional>
#include <optional>
#include <sys/stat.h>

using namespace kxtest;

namespace {

using Setup = std::function<void(UpdaterSite&)>;
using Steps = QList<QPair<QString, QString>>; // command, and the state to wait for

/** Answers with a fixed code. */
class Answering : public updater::AppCallbackFunction
{
public:
    explicit Answering(int code) : code(code) {}
    int Call(const QString& downloadPath, const QString& localPackagePath) override
    {
        paths = {downloadPath, localPackagePath};
        return code;
    }
    QStringList paths;

private:
    const int code;
};

QString FileLine(const QString& name, const QByteArray& content, const char* mode = "644")
{
    return QStringLiteral("%1 file %2 %3 %4")
        .arg(name, mode, QString::number(content.size()), MD5Of(content));
}

/** The installed version: two files, one of which the next one drops, and a link. */
void BuildOld(UpdaterSite& site)
{
    site.base.File("app/changed", "old", 0755)
        .File("app/gone", "gone")
        .File("app/same", "same")
        .Symlink("app/link", "same");
}

/** The offered one. */
void BuildNew(UpdaterSite& site)
{
    site.base.File("fresh/changed", "new!", 0755)
        .File("fresh/dir/added", "added")
        .File("fresh/same", "same")
        .Symlink("fresh/link", "same")
        .Symlink("fresh/dir/other", "../changed");
}

const QStringList& OldTree()
{
    static const QStringList tree{FileLine("changed", "old", "755"), FileLine("gone", "gone"),
                                  "link link same", FileLine("same", "same")};
    return tree;
}

const QStringList& NewTree()
{
    static const QStringList tree{
        FileLine("changed", "new!", "755"), "dir dir 755",    FileLine("dir/added", "added"),
        "dir/other link ../changed",        "link link same", FileLine("same", "same")};
    return tree;
}

const QStringList none{"(missing)"};

/** MOVING fails, and the backup goes back. */
QStringList RolledBack(const QString& error)
{
    return Entered("MOVING") + QStringList{error} + Exited({"MOVING"}) +
           Idle("REVERTING", "7 Nothing to remove in '~/app'!", "revertingComplete()") +
           Entered("RESTORING") +
           QStringList{"3 RESTORING: Update failed! Restored from '~/app.old'!",
                       "error(600410, Update failed! Restored from '~/app.old'!)"} +
           Failed({"RESTORING", "INSTALLING"});
}

/** Steady(), with the texts of the services left to their own tests, and without the progress of
 *  the states whose work fails: how far it comes is a matter of luck. */
QStringList Comparable(const Journal& journal, const QStringList& failing)
{
    static const QRegularExpression service("^error\\((61\\d{4}), .*\\)$");
    QStringList lines;
    bool dropped = false;
    for (const QString& line : journal.Steady()) {
        const bool drop = (dropped && line.startsWith("progress(")) ||
                          (line.contains(":  done: ") &&
                           failing.contains(line.section(':', 0, 0).section(' ', 1)));
        dropped = drop && !line.startsWith("progress(");
        if (drop)
            continue;
        const auto match = service.match(line);
        lines << (match.hasMatch() ? "error(" + match.captured(1) + ")" : line);
    }
    return lines;
}

} // namespace

class TestUpdaterFlows : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void FlowGoesAsItShould_data();
    void FlowGoesAsItShould();
    void ProgressNeverGoesBackWithinAPhase();
    void CallbackIsGivenBothDirectories();
    void CancelIsTakenInEveryState_data();
    void CancelIsTakenInEveryState();
    void AssemblyCanBeRepeatedAfterAFailure();
    void TwoUpdatesInARow();

private:
    static void AddFlowsLeftWhileDownloading();

    QByteArray home;
    std::optional<DroppedRights> rights;
    Answering five{5};
    Answering minusOne{-1};
};

void TestUpdaterFlows::init()
{
    FailOnWiringWarnings();
    home = qgetenv("HOME");
}

void TestUpdaterFlows::cleanup()
{
    qputenv("HOME", home);
    rights.reset();
}

void TestUpdaterFlows::FlowGoesAsItShould_data()
{
    QTest::addColumn<Setup>("setup"); // after the updater was made
    QTest::addColumn<Steps>("steps");
    QTest::addColumn<QStringList>("failing"); // states whose work fails
    QTest::addColumn<QStringList>("expected");
    QTest::addColumn<QStringList>("app");
    QTest::addColumn<QStringList>("backup");
    QTest::addColumn<QStringList>("next");

    const Setup both = [](UpdaterSite& s) {
        BuildOld(s);
        BuildNew(s);
        s.Publish("2.0");
    };
    const Steps download{{"Check", "AVAILABLE"}, {"Download", "SUCCESS"}};
    const Steps whole = download + Steps{{"Cancel", "WAITING"}, {"Install", "SUCCESS"}};
    const QStringList found =
        UntilScanned("WAITING") +
        Listed("SCANNING", downloadTitle, {"changed", "dir/added", "dir/other"}) +
        NewVersion("2.0");
    const QStringList assembled = found + Planned(2, 2, 1, 2) + Copied(50) + Downloaded() +
                                  Linked("~/next/dir/other", "../changed") + Verified();

    QTest::newRow("update") << both << whole << QStringList{}
                            << assembled + Restarted() + InstallBegun() + NoCallback() +
                                   NoStaleBackup() + BackedUp() + Moved() + BackupCleared()
                            << NewTree() << none << NewTree();

    QTest::newRow("fresh install into nothing")
        << Setup([](UpdaterSite& s) {
               BuildNew(s);
               s.Publish("2.0");
           })
        << whole << QStringList{}
        << UntilScanned("WAITING") +
               Listed("SCANNING", downloadTitle,
                      {"changed", "dir/added", "dir/other", "link", "same"}) +
               NewVersion("2.0") + Planned(0, 3, 2, 0) + NothingToCopy() + Downloaded() +
               Entered("CREATINGSYMLINKS") +
               QStringList{"7 CREATINGSYMLINKS: Successfully created symlink '~/next/dir/other' "
                           "--> '../changed'!",
                           "7 CREATINGSYMLINKS: Successfully created symlink '~/next/link' --> "
                           "'same'!",
                           "creatingSymlinksComplete()"} +
               Exited({"CREATINGSYMLINKS"}) + Verified() + Restarted() + InstallBegun() +
               NoCallback() + NoStaleBackup() + NothingToBackUp() + Moved() +
               Entered("BACKUPCLEARING") +
               QStringList{"7 BACKUPCLEARING: Nothing to remove in '~/app.old'!",
                           "backupClearingComplete()"} +
               Installed()
        << NewTree() << none << NewTree();

    QTest::newRow("repair") << Setup([](UpdaterSite& s) {
        BuildOld(s);
        s.base.File("fresh/changed", "old", 0755).File("fresh/gone", "gone");
        s.base.File("fresh/same", "same").Symlink("fresh/link", "same");
        s.Publish("1.0");
        s.base.File("app/same", "damaged").Remove("app/gone");
    }) << whole << QStringList{}
                            << UntilScanned("WAITING") +
                                   Listed("SCANNING", downloadTitle, {"gone", "same"}) + Repair() +
                                   Planned(2, 2, 0, 1) + Copied(50) + Downloaded() +
                                   NothingToLink() + Verified() + Restarted() + InstallBegun() +
                                   NoCallback() + NoStaleBackup() + BackedUp() + Moved() +
                                   BackupCleared()
                            << OldTree() << none << OldTree();

    QTest::newRow("nothing to do") << Setup([](UpdaterSite& s) {
        s.base.File("app/same", "same").File("fresh/same", "same");
        s.Publish("2.0");
    }) << Steps{{"Check", "ACTUAL"}, {"Finish", "SUCCESS"}}
                                   << QStringList{}
                                   << UntilScanned("WAITING") + BecameActual() +
                                          QStringList{"7 ACTUAL: <<<--- FINISH", "finish()"} +
                                          Succeeded({"ACTUAL", "CHECKING"})
                                   << QStringList{FileLine("same", "same")} << none << none;

    QTest::newRow("the check timer fires")
        << Setup([](UpdaterSite& s) {
               s.base.File("app/same", "same").File("fresh/same", "same");
               s.Publish("2.0");
               s.Command("Cancel");
               s.updater->SetCheckInterval(0);
               s.journal.Clear();
           })
        << Steps{{"Wait", "ACTUAL"}} << QStringList{}
        << QStringList{"7 CANCELED: <<<--- WAIT", "wait()"} + Exited({"CANCELED"}) +
               Entered("WAITING") + Exited({"WAITING"}) + Entered("CHECKING") +
               Entered("QUERYING") + QStringList{"packageReady()"} + Exited({"QUERYING"}) +
               Entered("SCANNING") + BecameActual()
        << QStringList{FileLine("same", "same")} << none << none;

    QTest::newRow("only links differ")
        << Setup([](UpdaterSite& s) {
               BuildOld(s);
               s.base.File("fresh/changed", "old", 0755).File("fresh/gone", "gone");
               s.base.File("fresh/same", "same").Symlink("fresh/link", "changed");
               s.Publish("2.0");
           })
        << download << QStringList{}
        << UntilScanned("WAITING") + Listed("SCANNING", downloadTitle, {"link"}) +
               NewVersion("2.0") + Planned(3, 0, 1, 1) + Copied(100) + NothingToDownload() +
               Linked("~/next/link", "changed") + Verified()
        << OldTree() << none
        << QStringList{FileLine("changed", "old", "755"), FileLine("gone", "gone"),
                       "link link changed", FileLine("same", "same")};

    QTest::newRow("only deletions")
        << Setup([](UpdaterSite& s) {
               BuildOld(s);
               s.base.File("fresh/same", "same").Symlink("fresh/link", "same");
               s.Publish("2.0");
           })
        << whole << QStringList{}
        << UntilScanned("WAITING") + Listed("SCANNING", deleteTitle, {"changed", "gone"}) +
               NewVersion("2.0") + Planned(2, 0, 0, 2) + Copied(100) + NothingToDownload() +
               NothingToLink() + Verified() + Restarted() + InstallBegun() + NoCallback() +
               NoStaleBackup() + BackedUp() + Moved() + BackupCleared()
        << QStringList{"link link same", FileLine("same", "same")} << none
        << QStringList{"link link same", FileLine("same", "same")};

    const QStringList asked = QStringList{"7 WAITING: <<<--- CHECK", "check()"} +
                              Exited({"WAITING"}) + Entered("CHECKING") + Entered("QUERYING");
    QTest::newRow("version query fails three times")
        << Setup([both](UpdaterSite& s) {
               both(s);
               for (int i = 0; i < 3; ++i)
                   s.server.Enqueue(s.VersionPath(), Reply::Status(500));
           })
        << Steps{{"Check", "FAILED"}, {"Wait", "WAITING"}} << QStringList{}
        << asked + QStringList{"error(610102)"} + Failed({"QUERYING", "CHECKING"}) +
               QStringList{"7 FAILED: <<<--- WAIT", "wait()"} + Exited({"FAILED"}) +
               Entered("WAITING")
        << OldTree() << none << none;

    QTest::newRow("manifest fails twice, then it is there")
        << Setup([both](UpdaterSite& s) {
               both(s);
               s.server.Enqueue(s.ManifestPath("2.0"), Reply::Status(404));
               s.server.Enqueue(s.ManifestPath("2.0"), Reply::TruncateAfter(5));
           })
        << Steps{{"Check", "AVAILABLE"}} << QStringList{}
        << asked + QStringList{"checkError()", "checkError()", "packageReady()"} +
               Exited({"QUERYING"}) + Entered("SCANNING") +
               Listed("SCANNING", downloadTitle, {"changed", "dir/added", "dir/other"}) +
               NewVersion("2.0")
        << OldTree() << none << none;

    const QString noParse = "error(600202, Failed to parse reply!)";
    QTest::newRow("broken manifest")
        << Setup([both](UpdaterSite& s) {
               both(s);
               s.server.SetBody(s.ManifestPath("2.0"), "<packages><package name=\"demo\">");
           })
        << Steps{{"Check", "FAILED"}} << QStringList{}
        << asked + QStringList{noParse} + Failed({"QUERYING", "CHECKING"}) << OldTree() << none
        << none;

    const auto Called = [](int code) {
        return QStringList{
            "callback 7 Calling application callback...",
            QString("callback 7 application callback finished with code '%1'.").arg(code)};
    };
    for (Answering* callback : {&five, &minusOne}) {
        const int code = callback == &five ? 5 : -1;
        QTest::addRow("callback answers %d", code)
            << Setup([both, callback](UpdaterSite& s) {
                   both(s);
                   s.updater->SetAppCallback(callback);
                   s.journal.Clear();
               })
            << download + Steps{{"Cancel", "WAITING"}, {"Install", "FAILED"}} << QStringList{}
            << assembled + Restarted() + InstallBegun() + Called(code) +
                   QStringList{QString("error(%1, Application callback failed!)").arg(code)} +
                   Failed({"APPCALLBACK", "INSTALLING"})
            << OldTree() << none << NewTree();
    }

    // The download directory as it was left by an earlier process.
    const Setup ready = [](UpdaterSite& s) {
        BuildOld(s);
        s.base.File("next/changed", "new!", 0755).File("next/dir/added", "added");
        s.base.File("next/same", "same").Symlink("next/link", "same");
        s.base.Symlink("next/dir/other", "../changed");
    };
    QTest::newRow("stale backup") << Setup([ready](UpdaterSite& s) {
        ready(s);
        s.base.File("app.old/left/over", "x", 0444).Symlink("app.old/link", "/");
        SetMode(s.Path("app.old/left"), 0555);
    }) << Steps{{"Install", "SUCCESS"}}
                                  << QStringList{}
                                  << InstallBegun() + NoCallback() + StaleBackupRemoved() +
                                         BackedUp() + Moved() + BackupCleared()
                                  << NewTree() << none << NewTree();

    QTest::newRow("application directory with a separator at its end")
        << Setup([ready](UpdaterSite& s) {
               ready(s);
               s.updater->SetLocalPackagePath(s.Path("app/"));
               s.journal.Clear();
               // The log names the path as it was set.
               s.journal.Mask("~/app/'", "~/app'");
           })
        << Steps{{"Install", "SUCCESS"}} << QStringList{}
        << InstallBegun() + NoCallback() + NoStaleBackup() + BackedUp() + Moved() + BackupCleared()
        << NewTree() << none << NewTree();

    QStringList withPipe = NewTree() + QStringList{"zpipe special 600"};
    withPipe.sort();
    QTest::newRow("moving fails") << Setup([ready](UpdaterSite& s) {
        ready(s);
        mkfifo(s.Path("next/zpipe").toLocal8Bit().constData(), 0600);
    }) << Steps{{"Install", "FAILED"}}
                                  << QStringList{"MOVING"}
                                  << InstallBegun() + NoCallback() + NoStaleBackup() + BackedUp() +
                                         RolledBack("error(610308)")
                                  << OldTree() << none << withPipe;

    QTest::newRow("moving fails with nothing to go back to")
        << Setup([ready](UpdaterSite& s) {
               ready(s);
               s.base.Remove("app");
               mkfifo(s.Path("next/zpipe").toLocal8Bit().constData(), 0600);
           })
        << Steps{{"Install", "FAILED"}} << QStringList{"MOVING"}
        << InstallBegun() + NoCallback() + NoStaleBackup() + NothingToBackUp() + Entered("MOVING") +
               QStringList{"error(610308)"} + Exited({"MOVING"}) +
               Idle("REVERTING", "7 Nothing to remove in '~/app'!", "revertingComplete()") +
               Entered("RESTORING") +
               QStringList{"3 RESTORING: Cannot rename directory '~/app.old' to '~/app'!",
                           "error(600409, Cannot rename directory '~/app.old' to '~/app'!)"} +
               Failed({"RESTORING", "INSTALLING"})
        << none << none << withPipe;

    // The remover never touches a home directory, whoever runs it.
    QTest::newRow("clearing the backup fails")
        << Setup([ready](UpdaterSite& s) {
               ready(s);
               s.journal.SetHook([&s](const QString& line) {
                   if (line == "stateChanged(BACKUPCLEARING)")
                       qputenv("HOME", s.Path("app.old").toLocal8Bit());
               });
           })
        << Steps{{"Install", "SUCCESS"}} << QStringList{"BACKUPCLEARING"}
        << InstallBegun() + NoCallback() + NoStaleBackup() + BackedUp() + Moved() +
               Entered("BACKUPCLEARING") + QStringList{"error(610404)"} + Installed()
        << NewTree() << OldTree() << NewTree();

    QTest::newRow("removing a stale backup fails")
        << Setup([ready](UpdaterSite& s) {
               ready(s);
               s.base.File("app.old/stale", "x");
               qputenv("HOME", s.Path("app.old").toLocal8Bit());
           })
        << Steps{{"Install", "FAILED"}} << QStringList{"BACKUPREMOVING"}
        << InstallBegun() + NoCallback() + Entered("BACKUPREMOVING") +
               QStringList{"error(610404)"} + Failed({"BACKUPREMOVING", "INSTALLING"})
        << OldTree() << QStringList{FileLine("stale", "x")} << NewTree();

    QTest::newRow("nothing was downloaded")
        << Setup(BuildOld) << Steps{{"Install", "FAILED"}} << QStringList{"MOVING"}
        << InstallBegun() + NoCallback() + NoStaleBackup() + BackedUp() +
               RolledBack("error(610301)")
        << OldTree() << none << none;

    const QString noRename = "Cannot rename directory '~/app' to '~/app.old'!";
    QTest::newRow("the application directory cannot be moved")
        << Setup([this, ready](UpdaterSite& s) {
               ready(s);
               s.journal.SetHook([this, &s](const QString& line) {
                   if (line == "stateChanged(BACKUPING)") {
                       SetMode(s.base.Root(), 0555);
                       rights.emplace();
                   } else if (line == "stateChanged(FAILED)") {
                       rights.reset();
                       SetMode(s.base.Root(), 0755);
                   }
               });
           })
        << Steps{{"Install", "FAILED"}} << QStringList{}
        << InstallBegun() + NoCallback() + NoStaleBackup() + Entered("BACKUPING") +
               QStringList{"3 BACKUPING: " + noRename, "error(600407, " + noRename + ")"} +
               Failed({"BACKUPING", "INSTALLING"})
        << OldTree() << none << NewTree();

    QStringList withStray = NewTree() + QStringList{FileLine("stray", "?")};
    withStray.sort();
    QTest::newRow("a stray file in the download directory")
        << Setup([both](UpdaterSite& s) {
               both(s);
               s.base.File("next/stray", "?");
           })
        << Steps{{"Check", "AVAILABLE"}, {"Download", "FAILED"}} << QStringList{}
        << found + Planned(2, 2, 1, 2) + Copied(50) + Downloaded() +
               Linked("~/next/dir/other", "../changed") + Entered("VERIFICATION") +
               Listed("VERIFICATION", deleteTitle, {"stray"}) +
               QStringList{"error(600405, Verification failed)"} +
               Failed({"VERIFICATION", "PREPARING"})
        << OldTree() << none << withStray;

    // Letters count in the comparison, so such a manifest can never be met.
    QTest::newRow("digests in capital letters")
        << Setup([](UpdaterSite& s) {
               s.base.File("app/a", "a").File("fresh/a", "a");
               const updater::File file = ScanForManifest(s.Path("fresh")).first();
               s.Publish("2.0", {updater::File(file.Name(), file.MD5().toUpper(), file.Size(),
                                               file.PermissionsString(), {})});
           })
        << Steps{{"Check", "AVAILABLE"}, {"Download", "FAILED"}} << QStringList{}
        << UntilScanned("WAITING") + Listed("SCANNING", downloadTitle, {"a"}) + NewVersion("2.0") +
               Planned(0, 1, 0, 1) + NothingToCopy() + Downloaded() + NothingToLink() +
               Entered("VERIFICATION") + Listed("VERIFICATION", downloadTitle, {"a"}) +
               QStringList{"error(600405, Verification failed)"} +
               Failed({"VERIFICATION", "PREPARING"})
        << QStringList{FileLine("a", "a")} << none << QStringList{FileLine("a", "a")};

    QTest::newRow("a file is not on the server") << Setup([](UpdaterSite& s) {
        BuildOld(s);
        s.base.File("fresh/same", "same").Symlink("fresh/link", "same").File("fresh/new", "n");
        s.Publish("2.0");
        s.base.Remove("fresh/new");
    }) << Steps{{"Check", "AVAILABLE"}, {"Download", "FAILED"}}
                                                 << QStringList{}
                                                 << UntilScanned("WAITING") +
                                                        Listed("SCANNING", downloadTitle, {"new"}) +
                                                        NewVersion("2.0") + Planned(2, 1, 0, 2) +
                                                        Copied(66) + Entered("DOWNLOADING") +
                                                        QStringList{"error(610202)"} +
                                                        Failed({"DOWNLOADING", "PREPARING"})
                                                 << OldTree() << none
                                                 << QStringList{"link link same",
                                                                FileLine("same", "same")};

    // The other transfer ends with its downloader.
    QTest::newRow("a file is not on the server, another one is under way")
        << Setup([](UpdaterSite& s) {
               s.base.File("fresh/a", "a").File("fresh/b", "b").Dir("app").Dir("next");
               s.Publish("2.0");
               s.base.Remove("fresh/b");
               s.server.SetDefaultReply("/files/a", Reply::Hold());
           })
        << Steps{{"Check", "AVAILABLE"}, {"Download", "FAILED"}} << QStringList{}
        << UntilScanned("WAITING") + Listed("SCANNING", downloadTitle, {"a", "b"}) +
               NewVersion("2.0") + Planned(0, 2, 0, 0) + NothingToCopy() + Entered("DOWNLOADING") +
               QStringList{"error(610202)"} +
               QStringList{"7 DOWNLOADING: exited state DOWNLOADING",
                           "error(600502, User abort download!)",
                           "7 DOWNLOADING: exited state PREPARING"} +
               Entered("FAILED")
        << QStringList{} << none << QStringList{"?"};
    AddFlowsLeftWhileDownloading();
}

void TestUpdaterFlows::AddFlowsLeftWhileDownloading()
{
    for (const char* command : {"Wait", "Cancel"}) {
        const bool wait = command == QByteArray("Wait");
        QTest::addRow("%s while downloading", command)
            << Setup([](UpdaterSite& s) {
                   s.base.File("fresh/a", "a").File("fresh/b", "b").Dir("app").Dir("next");
                   s.Publish("2.0");
                   s.server.SetDefaultReply("/files/a", Reply::Hold());
                   s.server.SetDefaultReply("/files/b", Reply::Hold());
               })
            << Steps{{"Check", "AVAILABLE"},
                     {"Download", "DOWNLOADING"},
                     {command, wait ? "WAITING" : "CANCELED"}}
            << QStringList{}
            << UntilScanned("WAITING") + Listed("SCANNING", downloadTitle, {"a", "b"}) +
                   NewVersion("2.0") + Planned(0, 2, 0, 0) + NothingToCopy() +
                   Entered("DOWNLOADING") +
                   QStringList{QString("7 DOWNLOADING: <<<--- %1").arg(QString(command).toUpper()),
                               QString(command).toLower() + "()",
                               "7 DOWNLOADING: exited state DOWNLOADING",
                               "error(600502, User abort download!)",
                               "7 DOWNLOADING: exited state PREPARING"} +
                   Entered(wait ? "WAITING" : "CANCELED")
            << QStringList{} << none << QStringList{"?"};
    }
}

void TestUpdaterFlows::FlowGoesAsItShould()
{
    QFETCH(Setup, setup);
    QFETCH(Steps, steps);
    QFETCH(QStringList, failing);
    QFETCH(QStringList, expected);
    QFETCH(QStringList, app);
    QFETCH(QStringList, backup);
    QFETCH(QStringList, next);
    const ShortRetries shortRetries;
    UpdaterSite site({"updater.core", "updater.callback"});
    QVERIFY(site.Start());
    setup(site);
    for (const auto& step : steps)
        QVERIFY(site.Run(step.first, step.second));
    // What comes too late would show here.
    QCoreApplication::processEvents();
    QCOMPARE(Comparable(site.journal, failing), expected);
    QCOMPARE(Snapshot(site.Path("app")), app);
    QCOMPARE(Snapshot(site.Path("app.old")), backup);
    // "?": what an aborted transfer leaves is not this test's business.
    if (next != QStringList{"?"})
        QCOMPARE(Snapshot(site.Path("next")), next);
    QVERIFY(!Exists(site.Path(".app.kxnew")));
    QStringList top =
        QDir(site.base.Root())
            .entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
    for (const char* known : {"app", "app.old", "next", "fresh"})
        top.removeAll(known);
    QCOMPARE(top, QStringList{});
}

void TestUpdaterFlows::ProgressNeverGoesBackWithinAPhase()
{
    UpdaterSite site;
    for (int i = 0; i < 40; ++i) {
        site.base.RandomFile(QString("app/same%1").arg(i), 20000, quint32(i));
        site.base.RandomFile(QString("fresh/same%1").arg(i), 20000, quint32(i));
        site.base.RandomFile(QString("fresh/new%1").arg(i), 20000, quint32(i + 1000));
    }
    site.Publish("2.0");
    QVERIFY(site.Start());
    QVERIFY(site.Run("Check", "AVAILABLE"));
    const auto Check = [&site](int atLeast) {
        const QStringList reports = site.journal.Beginning("progress(");
        int last = 0;
        for (const QString& report : reports) {
            const int percent = report.mid(9).chopped(1).toInt();
            if (percent < last || percent > 100)
                return false;
            last = percent;
        }
        // Every report is logged as it is emitted.
        const QStringList lines = site.journal.Lines();
        for (qsizetype i = 1; i < lines.size(); ++i) {
            if (lines.at(i).startsWith("progress(") && lines.at(i - 1).contains(":  done: ") &&
                !lines.at(i - 1).endsWith(QString(" %1%...").arg(lines.at(i).mid(9).chopped(1))))
                return false;
        }
        return last == 100 && reports.size() >= atLeast;
    };
    site.journal.Clear();
    QVERIFY(site.Run("Download", "SUCCESS"));
    QVERIFY(Check(41)); // every download is a step
    QVERIFY(site.Run("Cancel", "WAITING"));
    site.journal.Clear();
    QVERIFY(site.Run("Install", "SUCCESS"));
    QVERIFY(Check(3));
}

void TestUpdaterFlows::CallbackIsGivenBothDirectories()
{
    Answering zero(0);
    UpdaterSite site({"updater.callback"});
    site.base.File("app/a", "old").File("next/a", "new");
    QVERIFY(site.Start());
    site.updater->SetAppCallback(&zero);
    QVERIFY(site.Run("Install", "SUCCESS"));
    QCOMPARE(zero.paths, (QStringList{site.Path("next"), site.Path("app")}));
    QCOMPARE(site.journal.Beginning("callback"),
             (QStringList{"callback 7 Calling application callback...",
                          "callback 7 application callback finished with code '0'."}));
    QCOMPARE(Read(site.Path("app/a")), "new");
}

void TestUpdaterFlows::CancelIsTakenInEveryState_data()
{
    QTest::addColumn<QString>("state");
    QTest::addColumn<QStringList>("errors");
    QTest::addColumn<QStringList>("app"); // "?": one of the trees, whole
    QTest::addColumn<QStringList>("backup");
    const QStringList any{"?"};
    const QString aborted = "error(600502, User abort download!)";
    const QString restored = "error(600410, Update failed! Restored from '~/app.old'!)";
    for (const char* state : {"QUERYING", "SCANNING", "AVAILABLE", "COPYING"})
        QTest::newRow(state) << state << QStringList{} << OldTree() << none;
    QTest::newRow("DOWNLOADING") << "DOWNLOADING" << QStringList{aborted} << OldTree() << none;
    for (const char* state : {"CREATINGSYMLINKS", "VERIFICATION"})
        QTest::newRow(state) << state << QStringList{} << OldTree() << none;
    for (const char* state : {"APPCALLBACK", "BACKUPREMOVING"})
        QTest::newRow(state) << state << QStringList{} << OldTree() << none;
    QTest::newRow("BACKUPING") << "BACKUPING" << QStringList{} << none << OldTree();
    QTest::newRow("MOVING") << "MOVING" << QStringList{} << any << OldTree();
    QTest::newRow("BACKUPCLEARING") << "BACKUPCLEARING" << QStringList{} << NewTree() << any;
    QTest::newRow("REVERTING") << "REVERTING" << QStringList{"error(610308)"} << none << OldTree();
    QTest::newRow("RESTORING") << "RESTORING" << QStringList{"error(610308)", restored} << OldTree()
                               << none;
}

void TestUpdaterFlows::CancelIsTakenInEveryState()
{
    QFETCH(QString, state);
    QFETCH(QStringList, errors);
    QFETCH(QStringList, app);
    QFETCH(QStringList, backup);
    UpdaterSite site;
    BuildOld(site);
    BuildNew(site);
    site.Publish("2.0");
    QVERIFY(site.Start());
    const QStringList checkStates{"QUERYING", "SCANNING", "AVAILABLE"};
    const QStringList assemblyStates{"COPYING", "DOWNLOADING", "CREATINGSYMLINKS", "VERIFICATION"};
    const QStringList rollback{"REVERTING", "RESTORING"};
    const bool install = !checkStates.contains(state) && !assemblyStates.contains(state);
    if (install) {
        QVERIFY(site.Run("Check", "AVAILABLE"));
        QVERIFY(site.Run("Download", "SUCCESS"));
        QVERIFY(site.Run("Cancel", "WAITING"));
        if (rollback.contains(state))
            QCOMPARE(mkfifo(site.Path("next/zpipe").toLocal8Bit().constData(), 0600), 0);
    } else if (assemblyStates.contains(state)) {
        QVERIFY(site.Run("Check", "AVAILABLE"));
    }
    site.journal.Clear();
    site.journal.SetHook([&](const QString& line) {
        if (line == "stateChanged(" + state + ')')
            site.updater->Cancel();
    });
    QVERIFY(site.Run(install                          ? "Install"
                     : assemblyStates.contains(state) ? "Download"
                                                      : "Check",
                     "CANCELED"));
    PassTimersOf(20);

    const QStringList lines = Comparable(site.journal, {"MOVING"});
    QCOMPARE(site.journal.States().last(), "CANCELED");
    QCOMPARE(site.journal.States().count("CANCELED"), 1);
    QCOMPARE(lines.count("canceled()"), 1);
    QCOMPARE(lines.last(), "canceled()");
    QCOMPARE(lines.filter(QRegularExpression("^error\\(")), errors);
    QVERIFY(!lines.contains("failed()"));
    QVERIFY(!lines.contains("finished()"));
    const QStringList tree = Snapshot(site.Path("app"));
    if (app == QStringList{"?"})
        QVERIFY(tree == none || tree == NewTree());
    else
        QCOMPARE(tree, app);
    if (backup != QStringList{"?"})
        QCOMPARE(Snapshot(site.Path("app.old")), backup);
    QVERIFY(!Exists(site.Path(".app.kxnew")));

    // It is alive: whatever was given up can be begun again.
    site.journal.SetHook({});
    QVERIFY(site.Run("Wait", "WAITING"));
    QVERIFY(site.Run("Check", tree == NewTree() ? "ACTUAL" : "AVAILABLE"));
}

void TestUpdaterFlows::AssemblyCanBeRepeatedAfterAFailure()
{
    UpdaterSite site;
    BuildOld(site);
    BuildNew(site);
    site.Publish("2.0");
    site.base.File("next/stray", "?");
    QVERIFY(site.Start());
    QVERIFY(site.Run("Check", "AVAILABLE"));
    QVERIFY(site.Run("Download", "FAILED"));
    site.base.Remove("next/stray");
    site.server.ClearRequests();
    QVERIFY(site.Run("Check", "AVAILABLE"));
    QVERIFY(site.Run("Download", "SUCCESS"));
    QCOMPARE(Snapshot(site.Path("next")), NewTree());
    // What is there already is not fetched again.
    QCOMPARE(site.server.RequestCount("/files/changed"), 0);
    QCOMPARE(site.server.RequestCount("/files/dir/added"), 0);
}

void TestUpdaterFlows::TwoUpdatesInARow()
{
    UpdaterSite site;
    BuildOld(site);
    BuildNew(site);
    QVERIFY(site.Start());
    for (const QString& version : {QString("2.0"), QString("3.0")}) {
        site.base.File("fresh/changed", version.toUtf8(), 0755);
        site.Publish(version);
        QVERIFY(site.Run("Check", "AVAILABLE"));
        QVERIFY(site.Run("Download", "SUCCESS"));
        QVERIFY(site.Run("Cancel", "WAITING"));
        QVERIFY(site.Run("Install", "SUCCESS"));
        QVERIFY(site.Run("Cancel", "WAITING"));
        QCOMPARE(Snapshot(site.Path("app")), Snapshot(site.Path("fresh")));
        QVERIFY(!Exists(site.Path("app.old")));
        site.updater->SetCurrentVersion(version);
        QVERIFY(site.Run("Check", "ACTUAL"));
        QVERIFY(site.updater->IsActual());
        QVERIFY(site.Run("Wait", "WAITING"));
        QCOMPARE(site.journal.Beginning("error("), QStringList{});
    }
}

QTEST_GUILESS_MAIN(TestUpdaterFlows)
#include "tst_updater_flows.moc"
