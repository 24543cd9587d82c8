#include "droppedrights.h"
#include "guardedupdater.h"
#include "guardsite.h"
#include "manifest.h"
#include "wiringguard.h"

#include <kxguard/errors.h>
#include <kxguard/filelock.h>
#include <kxguard/installguard.h>

#include <QDir>
#include <QTest>
#include <QThread>

#include <functional>
#include <memory>
#include <optional>
#include <thread>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using guard::InstallGuard;
using kxtest::GuardedUpdater;
using kxtest::GuardSite;
using kxtest::HostCallback;
using kxtest::IdleUpdater;
using kxtest::Snapshot;
using kxtest::TreeBuilder;

namespace {

/** Another home directory for one test. */
class Home
{
public:
    explicit Home(const QString& path) : before(qgetenv("HOME")) { qputenv("HOME", path.toUtf8()); }
    ~Home() { qputenv("HOME", before); }

private:
    const QByteArray before;
};

/** Changes the content and gives back the times. */
void ChangeInSecret(const QString& path, const QByteArray& bytes)
{
    struct stat status = {};
    if (::stat(qPrintable(path), &status) != 0)
        qFatal("no '%s'", qPrintable(path));
    kxtest::Write(path, bytes);
    const timespec times[] = {status.st_atim, status.st_mtim};
    ::utimensat(AT_FDCWD, qPrintable(path), times, 0);
}

QByteArray Told(const InstallGuard& guard)
{
    return QByteArray::number(guard.LastErrorCode()) + ' ' + guard.LastError().toUtf8();
}

} // namespace

/** What an install is refused for, and what it is not. */
class TestInstallGuard : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();

    void Installs();
    void InstallsWhereNothingStands();
    void BecomesTheCallbackAndTakesItBack();

    void PackageIsRefused_data();
    void PackageIsRefused();
    void LinkOnTheWayIsJudged_data();
    void LinkOnTheWayIsJudged();
    void PackageIsAccepted_data();
    void PackageIsAccepted();
    void UnreadablePackageIsRefused_data();
    void UnreadablePackageIsRefused();
    void DescriptionIsRefused_data();
    void DescriptionIsRefused();
    void DescriptionComesFromTheUpdater();
    void PlaceIsRefused_data();
    void PlaceIsRefused();
    void ClosedParentIsRefused();
    void LockInTheWayIsRefused_data();
    void LockInTheWayIsRefused();
    void JournalInTheWayIsRefused();
    void CallWithoutAnInstallIsNoWayAround();

    void VersionsAreCompared_data();
    void VersionsAreCompared();
    void SettingsCountInTheNextInstall();

    void HostIsCalledLast();
    void HostIsNotCalledAfterARefusal();
    void HostMayRefuse_data();
    void HostMayRefuse();
    void HostMayBeTakenBack();
    void ChangeDuringTheHostsCallbackIsNoticed_data();
    void ChangeDuringTheHostsCallbackIsNoticed();
    void LastErrorIsOfTheLastInstall();

private:
    /** Installs by a real updater and by a direct call, and compares what a refusal must be. */
    void Refuses(int code, const QStringList& named,
                 const std::function<void(InstallGuard&)>& configure = {});

    std::unique_ptr<GuardSite> site;
};

void TestInstallGuard::init()
{
    kxtest::FailOnWiringWarnings();
    site = std::make_unique<GuardSite>();
}

void TestInstallGuard::Refuses(int code, const QStringList& named,
                               const std::function<void(InstallGuard&)>& configure)
{
    const QStringList before = Snapshot(site->Root());
    const auto compare = [&](const InstallGuard& guard, int told, const HostCallback& host) {
        QCOMPARE(told, code);
        QVERIFY2(guard.LastErrorCode() == code, Told(guard));
        for (const QString& name : named)
            QVERIFY2(guard.LastError().contains(name), Told(guard) + "\nlacks " + name.toUtf8());
        // More than names: the action and the reason.
        QVERIFY2(guard.LastError().size() > named.join(QString()).size() + 10, Told(guard));
        QCOMPARE(host.calls.load(), 0);
        QVERIFY(!guard.IsLocked());
        QCOMPARE(guard::FileLock::OwnerOf(site->LockFile()).process, qint64(0));
        // Nothing has changed, and neither lock nor journal is left.
        QCOMPARE(Snapshot(site->Root()), before);
    };
    {
        HostCallback host;
        GuardedUpdater guarded(*site);
        guarded.Guard().SetCallback(&host);
        if (configure)
            configure(guarded.Guard());
        QVERIFY2(!guarded.Install(), guarded.Report());
        compare(guarded.Guard(), guarded.Code(), host);
        QCOMPARE(guarded.Errors().size(), 1);
        QCOMPARE(guarded.States(), QStringList({"INSTALLING", "APPCALLBACK", "FAILED"}));
        if (QTest::currentTestFailed())
            return;
        // A second time it is no better.
        QVERIFY2(!guarded.Install(), guarded.Report());
        compare(guarded.Guard(), guarded.Code(), host);
    }
    if (QTest::currentTestFailed())
        return;
    HostCallback host;
    IdleUpdater updater(*site);
    InstallGuard guard(&updater);
    guard.SetCallback(&host);
    if (configure)
        configure(guard);
    compare(guard, updater.CallBack(), host);
}

void TestInstallGuard::Installs()
{
    GuardedUpdater guarded(*site);
    QCOMPARE(guarded.Guard().LastErrorCode(), 0);
    QCOMPARE(guarded.Guard().LastError(), QString());
    QVERIFY2(guarded.Install(), guarded.Report());
    QCOMPARE(guarded.States(), QStringList({"INSTALLING", "APPCALLBACK", "BACKUPREMOVING",
                                            "BACKUPING", "MOVING", "BACKUPCLEARING", "SUCCESS"}));
    QVERIFY2(site->IsNew(), site->Report());
    QCOMPARE(guarded.Guard().LastErrorCode(), 0);
    QCOMPARE(guarded.Guard().LastError(), QString());
    QVERIFY(!guarded.Guard().IsLocked());
    QCOMPARE(Snapshot(site->Next()), site->NewTree());
    // Again over itself.
    QVERIFY2(guarded.Install(), guarded.Report());
    QVERIFY2(site->IsNew(), site->Report());
}

void TestInstallGuard::InstallsWhereNothingStands()
{
    kxtest::Remove(site->App());
    GuardedUpdater guarded(*site);
    QVERIFY2(guarded.Install(), guarded.Report());
    QVERIFY2(site->IsNew(), site->Report());
}

void TestInstallGuard::BecomesTheCallbackAndTakesItBack()
{
    IdleUpdater updater(*site);
    {
        InstallGuard guard(&updater);
        QCOMPARE(updater.AppCallback(), static_cast<updater::AppCallbackFunction*>(&guard));
    }
    QCOMPARE(updater.AppCallback(), nullptr);
    // One that the host has set since is the host's.
    HostCallback host;
    {
        InstallGuard guard(&updater);
        updater.SetAppCallback(&host);
    }
    QCOMPARE(updater.AppCallback(), static_cast<updater::AppCallbackFunction*>(&host));
    updater.SetAppCallback(nullptr);

    auto* parent = new QObject;
    auto* owned = new InstallGuard(&updater, parent);
    QCOMPARE(owned->parent(), parent);
    delete parent;
    QCOMPARE(updater.AppCallback(), nullptr);

    // Without its guard an updater installs what is there.
    kxtest::Write(site->Next() + "/extra", "x");
    GuardedUpdater guarded(*site);
    guarded.DeleteGuard();
    QVERIFY2(guarded.Install(), guarded.Report());
    QVERIFY(kxtest::Exists(site->App() + "/extra"));
}

void TestInstallGuard::PackageIsRefused_data()
{
    QTest::addColumn<QString>("change");
    QTest::addColumn<int>("code");
    QTest::addColumn<QString>("named"); // below the download directory, or itself
    const auto row = [](const char* change, int code, const char* named) {
        QTest::newRow(change) << change << code << named;
    };
    row("missing", guard::PackageEmpty, "");
    row("empty", guard::PackageEmpty, "");
    row("file too many", guard::PackageDiffers, "lib/extra");
    row("file missing", guard::PackageDiffers, "data/same");
    row("changed bytes", guard::PackageDiffers, "bin/app");
    row("changed in secret", guard::PackageDiffers, "bin/app");
    row("shorter", guard::PackageDiffers, "bin/app");
    row("longer", guard::PackageDiffers, "bin/app");
    row("emptied", guard::PackageDiffers, "bin/app");
    row("other target", guard::PackageDiffers, "lib/link");
    row("target that leads out", guard::PackageDiffers, "lib/link");
    row("link for a file", guard::PackageDiffers, "data/same");
    row("link to the same bytes", guard::PackageDiffers, "data/same");
    row("file for a link", guard::PackageDiffers, "lib/link");
    row("directory for a file", guard::PackageDiffers, "data/same");
    row("link for a directory", guard::PackageDiffers, "lib");
    row("link too many", guard::PackageDiffers, "lib/extra");
    row("dangling link too many", guard::PackageDiffers, "lib/extra");
    row("hidden file", guard::PackageDiffers, ".hidden");
    row("hidden file, deep", guard::PackageDiffers, "lib/deep/.hidden");
    row("hidden directory", guard::PackageDiffers, ".git/config");
    row("hidden link", guard::PackageDiffers, "data/.link");
    row("partial download", guard::PackageDiffers, "bin/.app.kx.part");
    row("other case", guard::PackageDiffers, "bin/App");
    row("FIFO", guard::PackageDiffers, "lib/fifo");
    row("FIFO for a file", guard::PackageDiffers, "data/same");
    row("hidden FIFO", guard::PackageDiffers, ".fifo");
    row("world-writable file", guard::PackageExposed, "data/same");
    row("world-writable directory", guard::PackageExposed, "lib/deep");
    row("world-writable sticky directory", guard::PackageExposed, "lib/deep");
    row("world-writable empty directory", guard::PackageExposed, "lib/void");
    row("world-writable directory that holds it", guard::PackageExposed, "..");
    row("world-writable root", guard::PackageExposed, "");
    row("file of another user", guard::PackageExposed, "data/same");
    row("directory of another user", guard::PackageExposed, "lib");
    row("link of another user", guard::PackageExposed, "lib/link");
    row("root of another user", guard::PackageExposed, "");
    row("in a directory of another user", guard::PackageExposed, "..");
}

void TestInstallGuard::PackageIsRefused()
{
    QFETCH(const QString, change);
    QFETCH(const int, code);
    QFETCH(const QString, named);
    const QString path = named.isEmpty() ? site->Next()
                         : named == ".." ? site->Root()
                                         : site->Next() + u'/' + named;
    TreeBuilder next(site->Next());
    if (change.endsWith("of another user")) {
        if (::geteuid() != 0)
            QSKIP("only root can leave the entry of another user");
        QCOMPARE(::lchown(qPrintable(path), 65534, 65534), 0);
    } else if (change == "missing") {
        kxtest::Remove(site->Next());
    } else if (change == "empty") {
        kxtest::Remove(site->Next());
        QVERIFY(QDir().mkpath(site->Next()));
    } else if (change == "file too many" || change == "hidden file" ||
               change == "hidden file, deep" || change == "hidden directory" ||
               change == "partial download") {
        next.File(named, "x");
    } else if (change == "file missing") {
        next.Remove(named);
    } else if (change == "changed bytes") {
        next.File(named, "NEW program", 0755);
    } else if (change == "changed in secret") {
        ChangeInSecret(path, "NEW program");
    } else if (change == "shorter") {
        next.File(named, "new progra", 0755);
    } else if (change == "longer") {
        next.File(named, "new program!", 0755);
    } else if (change == "emptied") {
        next.File(named, "", 0755);
    } else if (change == "other target") {
        next.Remove(named).Symlink(named, "../data/same");
    } else if (change == "target that leads out") {
        next.Remove(named).Symlink(named, "../../outside/bystander");
    } else if (change == "link for a file") {
        next.Remove(named).Symlink(named, "../bin/app");
    } else if (change == "link to the same bytes") {
        kxtest::Write(site->Outside() + "/same", kxtest::Read(path));
        next.Remove(named).Symlink(named, site->Outside() + "/same");
    } else if (change == "file for a link") {
        next.Remove(named).File(named, "../bin/app");
    } else if (change == "directory for a file") {
        next.Remove(named).Dir(named);
    } else if (change == "link for a directory") {
        kxtest::CopyTree(path, site->Outside() + "/lib");
        next.Remove(named).Symlink(named, site->Outside() + "/lib");
    } else if (change == "link too many" || change == "hidden link") {
        next.Symlink(named, "../bin/app");
    } else if (change == "dangling link too many") {
        next.Symlink(named, "none");
    } else if (change == "other case") {
        next.Remove("bin/app").File("bin/App", "new program", 0755);
    } else if (change.contains("FIFO")) {
        next.Remove(named);
        QCOMPARE(::mkfifo(qPrintable(path), 0600), 0);
    } else if (change == "world-writable file") {
        kxtest::SetMode(path, 0666);
    } else if (change == "world-writable empty directory") {
        next.Dir(named, 0777);
    } else {
        kxtest::SetMode(path, change.contains("sticky") ? 01777 : 0777);
    }
    Refuses(code, {named.isEmpty() ? site->Next() : named == ".." ? site->Root() : named});
}

void TestInstallGuard::LinkOnTheWayIsJudged_data()
{
    QTest::addColumn<QString>("change");
    QTest::addColumn<bool>("isExposed");
    QTest::newRow("link of one's own") << "none" << false;
    QTest::newRow("in a directory of another user") << "directory" << true;
    QTest::newRow("of another user, in a directory for temporary files") << "link" << true;
    QTest::newRow("to a link in a directory of another user") << "second" << true;
}

void TestInstallGuard::LinkOnTheWayIsJudged()
{
    QFETCH(const QString, change);
    QFETCH(const bool, isExposed);
    if (isExposed && ::geteuid() != 0)
        QSKIP("only root can leave the entry of another user");
    const QString place = site->Scratch("place");
    TreeBuilder(place).Symlink("link", "other/../other/link").Dir("other");
    TreeBuilder(place + "/other").Symlink("link", site->Root());
    if (change == "directory")
        QCOMPARE(::lchown(qPrintable(place), 65534, 65534), 0);
    else if (change == "link")
        QCOMPARE(::lchown(qPrintable(place + "/link"), 65534, 65534), 0);
    else if (change == "second")
        QCOMPARE(::lchown(qPrintable(place + "/other"), 65534, 65534), 0);
    kxtest::SetMode(place, 01777);
    GuardedUpdater guarded(*site);
    guarded.Updater()->SetDownloadPath(place + "/link/next");
    QVERIFY2(guarded.Install() != isExposed, guarded.Report());
    QVERIFY2(guarded.Code() == (isExposed ? guard::PackageExposed : 0), guarded.Report());
    QVERIFY2(isExposed ? site->IsOld() : site->IsNew(), site->Report());
}

void TestInstallGuard::PackageIsAccepted_data()
{
    QTest::addColumn<QString>("change");
    QTest::newRow("as it is") << "none";
    QTest::newRow("empty directory") << "empty";
    QTest::newRow("other modes") << "modes";
    QTest::newRow("other times") << "times";
    QTest::newRow("separator at the end") << "separator";
}

void TestInstallGuard::PackageIsAccepted()
{
    QFETCH(const QString, change);
    if (change == "empty")
        TreeBuilder(site->Next()).Dir("void/inner");
    else if (change == "modes")
        kxtest::SetMode(site->Next() + "/bin/app", 0500);
    else if (change == "times")
        QCOMPARE(::utimensat(AT_FDCWD, qPrintable(site->Next() + "/bin/app"), nullptr, 0), 0);
    GuardedUpdater guarded(*site);
    if (change == "separator")
        guarded.Updater()->SetDownloadPath(site->Next() + '/');
    const QStringList wanted = Snapshot(site->Next());
    QVERIFY2(guarded.Install(), guarded.Report());
    QCOMPARE(Snapshot(site->App()), wanted);
    QCOMPARE(site->Names(), GuardSite::plainNames);
}

void TestInstallGuard::UnreadablePackageIsRefused_data()
{
    QTest::addColumn<QString>("name");
    QTest::newRow("file") << "bin/app";
    QTest::newRow("directory") << "lib/deep";
    QTest::newRow("hidden directory") << ".hidden";
}

void TestInstallGuard::UnreadablePackageIsRefused()
{
    QFETCH(const QString, name);
    kxtest::SetMode(site->Next() + "/lib/deep/file", 0644);
    TreeBuilder(site->Next()).Dir(".hidden");
    site->Describe();
    // An ordinary user's install of what root has assembled.
    kxtest::SetMode(site->Root(), 01777);
    kxtest::SetMode(site->App(), 0777);
    kxtest::SetMode(site->Next() + '/' + name, 0);
    const QStringList before = Snapshot(site->Root());
    {
        const kxtest::DroppedRights dropped;
        IdleUpdater updater(*site);
        InstallGuard guard(&updater);
        QVERIFY2(updater.CallBack() == guard::PackageUnreadable, Told(guard));
        QVERIFY2(guard.LastErrorCode() == guard::PackageUnreadable, Told(guard));
        QVERIFY2(guard.LastError().contains(name), Told(guard));
    }
    QCOMPARE(Snapshot(site->Root()), before);
}

void TestInstallGuard::DescriptionIsRefused_data()
{
    QTest::addColumn<QString>("xml");
    const QString other = kxtest::ManifestFor("other", "http://127.0.0.1/files", "bin/app", {});
    QTest::newRow("none") << "";
    QTest::newRow("not XML") << "demo 1.0";
    QTest::newRow("cut") << "<packages><package name=\"demo\"><build DownloadURL=\"http://x/\">";
    QTest::newRow("other root") << "<version>1.0</version>";
    QTest::newRow("other package") << other;
    QTest::newRow("no build") << "<packages><package name=\"demo\"/></packages>";
    QTest::newRow("empty list") << "<packages><package name=\"demo\"><build DownloadURL=\"http://"
                                   "x/\" PostExec=\"\"/></package></packages>";
    QTest::newRow("entities") << "<!DOCTYPE a [<!ENTITY e \"x\">]>" + other;
}

void TestInstallGuard::DescriptionIsRefused()
{
    QFETCH(const QString, xml);
    const QStringList before = Snapshot(site->Root());
    for (const bool isTheUpdaters : {false, true}) {
        IdleUpdater updater(*site);
        InstallGuard guard(&updater);
        updater.packageXml = isTheUpdaters ? xml : QString();
        guard.SetPackageXML(isTheUpdaters ? QString() : xml);
        const int code = updater.CallBack();
        // A list of nothing is a list that the tree differs from.
        QVERIFY2(code == guard::PackageUndescribed ||
                     (code == guard::PackageDiffers && xml.contains("PostExec=\"\"")),
                 Told(guard));
        QCOMPARE(guard.LastErrorCode(), code);
        QVERIFY2(!guard.LastError().isEmpty(), Told(guard));
        QCOMPARE(Snapshot(site->Root()), before);
    }
}

void TestInstallGuard::DescriptionComesFromTheUpdater()
{
    IdleUpdater updater(*site);
    InstallGuard guard(&updater);
    QVERIFY2(updater.CallBack() == 0, Told(guard));
    Q_EMIT updater.finished();
    // What the guard is told counts for more.
    guard.SetPackageXML(kxtest::ManifestFor("demo", "http://127.0.0.1/files", "bin/app",
                                            kxtest::ScanForManifest(site->Outside())));
    QVERIFY2(updater.CallBack() == guard::PackageDiffers, Told(guard));
    guard.SetPackageXML(QString());
    QVERIFY2(updater.CallBack() == 0, Told(guard));
    Q_EMIT updater.finished();
}

void TestInstallGuard::PlaceIsRefused_data()
{
    QTest::addColumn<QString>("place");
    QTest::newRow("file") << "file";
    QTest::newRow("link to a directory") << "link";
    QTest::newRow("dangling link") << "dangling";
    QTest::newRow("home") << "home";
    QTest::newRow("root") << "root";
    QTest::newRow("relative") << "relative";
    QTest::newRow("empty") << "empty";
    QTest::newRow("no parent") << "no parent";
}

void TestInstallGuard::PlaceIsRefused()
{
    QFETCH(const QString, place);
    std::optional<Home> home;
    QString app = site->App();
    TreeBuilder root(site->Root());
    if (place == "file" || place == "link" || place == "dangling") {
        kxtest::Remove(app);
        if (place == "file")
            root.File("app", "x");
        else
            root.Symlink("app", place == "link" ? "outside" : "none");
    } else if (place == "home") {
        home.emplace(app);
    } else if (place == "root") {
        app = "/";
    } else if (place == "relative") {
        app = "app";
    } else if (place == "empty") {
        app = QString();
    } else {
        app = site->Root() + "/none/app";
    }
    const int code = place == "no parent" ? guard::InstallParent : guard::InstallApplication;
    const QStringList before = Snapshot(site->Root());
    const QStringList top = QDir("/").entryList(QDir::AllEntries | QDir::Hidden);
    const QStringList here = QDir().entryList(QDir::AllEntries | QDir::Hidden);
    IdleUpdater updater(*site);
    updater.localPackagePath = app;
    InstallGuard guard(&updater);
    QVERIFY2(updater.CallBack() == code, Told(guard));
    QVERIFY2(guard.LastErrorCode() == code, Told(guard));
    QVERIFY2(guard.LastError().contains(place == "no parent" ? site->Root() + "/none" : app),
             Told(guard));
    QVERIFY(!guard.IsLocked());
    QCOMPARE(Snapshot(site->Root()), before);
    QCOMPARE(QDir("/").entryList(QDir::AllEntries | QDir::Hidden), top);
    QCOMPARE(QDir().entryList(QDir::AllEntries | QDir::Hidden), here);
}

void TestInstallGuard::ClosedParentIsRefused()
{
    kxtest::SetMode(site->Next() + "/lib/deep/file", 0644);
    kxtest::SetMode(site->Root(), 0555);
    const QStringList before = Snapshot(site->Root());
    {
        const kxtest::DroppedRights dropped;
        GuardedUpdater guarded(*site);
        QVERIFY2(!guarded.Install(), guarded.Report());
        QVERIFY2(guarded.Code() == guard::InstallParent, guarded.Report());
        QVERIFY2(guarded.Guard().LastErrorCode() == guard::InstallParent, guarded.Report());
        QVERIFY2(guarded.Guard().LastError().contains(site->Root()), guarded.Report());
    }
    QCOMPARE(Snapshot(site->Root()), before);
}

void TestInstallGuard::LockInTheWayIsRefused_data()
{
    QTest::addColumn<QString>("kind");
    QTest::newRow("link") << "link";
    QTest::newRow("dangling link") << "dangling";
    QTest::newRow("directory") << "directory";
    QTest::newRow("FIFO") << "fifo";
}

void TestInstallGuard::LockInTheWayIsRefused()
{
    QFETCH(const QString, kind);
    TreeBuilder root(site->Root());
    if (kind == "link")
        root.Symlink(".app.kxlock", "outside/bystander");
    else if (kind == "dangling")
        root.Symlink(".app.kxlock", "outside/none");
    else if (kind == "directory")
        root.Dir(".app.kxlock");
    else
        QCOMPARE(::mkfifo(qPrintable(site->LockFile()), 0600), 0);
    Refuses(guard::InstallLock, {site->LockFile()});
    IdleUpdater updater(*site);
    InstallGuard guard(&updater);
    const guard::Problem problem = guard.Lock();
    QCOMPARE(problem.code, int(guard::InstallLock));
    QVERIFY2(problem.text.contains(site->LockFile()), qPrintable(problem.text));
    QVERIFY(!guard.IsLocked());
}

void TestInstallGuard::JournalInTheWayIsRefused()
{
    // Only the last step of the preparations finds it.
    TreeBuilder(site->Root()).File(".app.kxjournal/file", "x");
    const QStringList before = Snapshot(site->Root());
    GuardedUpdater guarded(*site);
    QVERIFY2(!guarded.Install(), guarded.Report());
    QVERIFY2(guarded.Code() == guard::InstallJournal, guarded.Report());
    QVERIFY2(guarded.Guard().LastErrorCode() == guard::InstallJournal, guarded.Report());
    QVERIFY2(guarded.Guard().LastError().contains(site->Journal()), guarded.Report());
    QVERIFY(!guarded.Guard().IsLocked());
    QCOMPARE(Snapshot(site->Root()), before);
}

void TestInstallGuard::CallWithoutAnInstallIsNoWayAround()
{
    kxtest::Write(site->Next() + "/extra", "x");
    const QStringList before = Snapshot(site->Root());
    IdleUpdater updater(*site);
    InstallGuard guard(&updater);
    QCOMPARE(guard.Call(site->Next(), site->App()), int(guard::PackageDiffers));
    QCOMPARE(guard.LastErrorCode(), int(guard::PackageDiffers));
    Q_EMIT updater.failed();
    QVERIFY(!guard.IsLocked());
    QCOMPARE(Snapshot(site->Root()), before);
}

void TestInstallGuard::VersionsAreCompared_data()
{
    QTest::addColumn<QString>("current");
    QTest::addColumn<QString>("server");
    QTest::addColumn<QString>("told"); // to the guard
    QTest::addColumn<bool>("isAllowed");
    QTest::addColumn<bool>("installs");
    QTest::newRow("later") << "1.9"
                           << "1.10"
                           << "" << false << true;
    QTest::newRow("equal") << "1.9"
                           << "1.9"
                           << "" << false << true;
    QTest::newRow("equal in other words") << "1.0"
                                          << "1.0.0"
                                          << "" << false << true;
    QTest::newRow("earlier") << "1.10"
                             << "1.9"
                             << "" << false << false;
    QTest::newRow("earlier, allowed") << "1.10"
                                      << "1.9"
                                      << "" << true << true;
    QTest::newRow("candidate of the installed one") << "2.0"
                                                    << "2.0-rc1"
                                                    << "" << false << false;
    QTest::newRow("not known") << "1.9"
                               << ""
                               << "" << false << true;
    QTest::newRow("told, earlier") << "1.9"
                                   << ""
                                   << "1.8" << false << false;
    QTest::newRow("told, later") << "1.9"
                                 << ""
                                 << "1.10" << false << true;
    QTest::newRow("told counts for more than the server's") << "1.9"
                                                            << "1.10"
                                                            << "1.8" << false << false;
    QTest::newRow("told counts for more than the server's, later") << "1.9"
                                                                   << "1.8"
                                                                   << "1.10" << false << true;
    QTest::newRow("nothing installed") << ""
                                       << "1.0"
                                       << "" << false << true;
}

void TestInstallGuard::VersionsAreCompared()
{
    QFETCH(const QString, current);
    QFETCH(const QString, server);
    QFETCH(const QString, told);
    QFETCH(const bool, isAllowed);
    QFETCH(const bool, installs);
    IdleUpdater updater(*site);
    updater.currentVersion = current;
    updater.serverVersion = server;
    InstallGuard guard(&updater);
    guard.SetVersion(told);
    guard.SetDowngradeAllowed(isAllowed);
    const QStringList before = Snapshot(site->Root());
    const int code = updater.CallBack();
    QVERIFY2(code == (installs ? 0 : int(guard::InstallDowngrade)), Told(guard));
    QCOMPARE(guard.LastErrorCode(), code);
    if (!installs) {
        QVERIFY2(guard.LastError().contains(current), Told(guard));
        QVERIFY2(guard.LastError().contains(told.isEmpty() ? server : told), Told(guard));
        QCOMPARE(Snapshot(site->Root()), before);
    }
}

void TestInstallGuard::SettingsCountInTheNextInstall()
{
    GuardedUpdater guarded(*site);
    guarded.Guard().SetVersion("0.9");
    QVERIFY2(!guarded.Install(), guarded.Report());
    QCOMPARE(guarded.Guard().LastErrorCode(), int(guard::InstallDowngrade));
    guarded.Guard().SetDowngradeAllowed(true);
    QVERIFY2(guarded.Install(), guarded.Report());
    QVERIFY2(site->IsNew(), site->Report());
    guarded.Guard().SetDowngradeAllowed(false);
    QVERIFY2(!guarded.Install(), guarded.Report());
    QCOMPARE(guarded.Guard().LastErrorCode(), int(guard::InstallDowngrade));
    guarded.Guard().SetVersion("1.1");
    kxtest::Write(site->Next() + "/extra", "x");
    QVERIFY2(!guarded.Install(), guarded.Report());
    QCOMPARE(guarded.Guard().LastErrorCode(), int(guard::PackageDiffers));
    site->Describe();
    guarded.Guard().SetPackageXML(site->Xml());
    QVERIFY2(guarded.Install(), guarded.Report());
    QVERIFY(kxtest::Exists(site->App() + "/extra"));
    // Another directory of the updater's.
    kxtest::CopyTree(site->Next(), site->Root() + "/elsewhere");
    kxtest::Remove(site->Next());
    guarded.Updater()->SetDownloadPath(site->Root() + "/elsewhere");
    guarded.Updater()->SetLocalPackagePath(site->Root() + "/other");
    QVERIFY2(guarded.Install(), guarded.Report());
    QCOMPARE(Snapshot(site->Root() + "/other"), Snapshot(site->Root() + "/elsewhere"));
    QCOMPARE(site->Names(), QStringList({"app", "elsewhere", "other", "outside"}));
}

void TestInstallGuard::HostIsCalledLast()
{
    HostCallback host;
    IdleUpdater updater(*site);
    InstallGuard guard(&updater);
    guard.SetCallback(&host);
    QStringList during;
    Qt::HANDLE caller = nullptr;
    host.action = [&] { during = site->Names(); };
    Q_EMIT updater.installing();
    int code = -1;
    std::thread thread([&] {
        caller = QThread::currentThreadId();
        code = guard.Call(site->Next(), site->App());
    });
    thread.join();
    QVERIFY2(code == 0, Told(guard));
    QCOMPARE(host.calls.load(), 1);
    QCOMPARE(host.downloadPath, site->Next());
    QCOMPARE(host.localPackagePath, site->App());
    QCOMPARE(host.thread.load(), caller);
    // It is called under the lock, and before the journal.
    QCOMPARE(during, QStringList({".app.kxlock", "app", "next", "outside"}));
    QVERIFY(kxtest::Exists(site->Journal()));
    QCOMPARE(kxtest::Mode(site->Journal()), 0600);
    Q_EMIT updater.failed();
    QVERIFY2(site->IsOld(), site->Report());

    GuardedUpdater guarded(*site);
    HostCallback other;
    guarded.Guard().SetCallback(&other);
    QVERIFY2(guarded.Install(), guarded.Report());
    QCOMPARE(other.calls.load(), 1);
    QCOMPARE(other.downloadPath, site->Next());
    QCOMPARE(other.localPackagePath, site->App());
    QVERIFY(other.thread.load() != QThread::currentThreadId());
}

void TestInstallGuard::HostIsNotCalledAfterARefusal()
{
    HostCallback host;
    GuardedUpdater guarded(*site);
    guarded.Guard().SetCallback(&host);
    guarded.Guard().SetVersion("0.1");
    QVERIFY(!guarded.Install());
    QCOMPARE(host.calls.load(), 0);
    guarded.Guard().SetVersion("1.1");
    QVERIFY2(guarded.Install(), guarded.Report());
    QCOMPARE(host.calls.load(), 1);
}

void TestInstallGuard::HostMayRefuse_data()
{
    QTest::addColumn<int>("code");
    QTest::newRow("one") << 1;
    QTest::newRow("negative") << -7;
    QTest::newRow("like one of the guard's") << int(guard::PackageDiffers);
}

void TestInstallGuard::HostMayRefuse()
{
    QFETCH(const int, code);
    HostCallback host;
    host.code = code;
    GuardedUpdater guarded(*site);
    guarded.Guard().SetCallback(&host);
    QVERIFY(!guarded.Install());
    QCOMPARE(guarded.Code(), code);
    QCOMPARE(guarded.Guard().LastErrorCode(), 0);
    QCOMPARE(guarded.Guard().LastError(), QString());
    QVERIFY(!guarded.Guard().IsLocked());
    QVERIFY2(site->IsOld(), site->Report());
    host.code = 0;
    QVERIFY2(guarded.Install(), guarded.Report());
    QVERIFY2(site->IsNew(), site->Report());
}

void TestInstallGuard::HostMayBeTakenBack()
{
    auto host = std::make_unique<HostCallback>();
    host->code = 5;
    GuardedUpdater guarded(*site);
    guarded.Guard().SetCallback(host.get());
    QVERIFY(!guarded.Install());
    QCOMPARE(host->calls.load(), 1);
    guarded.Guard().SetCallback(nullptr);
    host.reset();
    QVERIFY2(guarded.Install(), guarded.Report());
}

void TestInstallGuard::ChangeDuringTheHostsCallbackIsNoticed_data()
{
    QTest::addColumn<QString>("change");
    for (const char* change :
         {"file too many", "hidden file", "file missing", "longer", "changed bytes",
          "changed in secret", "replaced by its like", "other target", "link for a file",
          "link for a directory", "mode", "gone", "another directory"})
        QTest::newRow(change) << change;
}

void TestInstallGuard::ChangeDuringTheHostsCallbackIsNoticed()
{
    QFETCH(const QString, change);
    HostCallback host;
    const QString aside = site->Scratch("aside") + "/next";
    host.action = [&] {
        TreeBuilder next(site->Next());
        if (change == "file too many")
            next.File("extra", "x");
        else if (change == "hidden file")
            next.File("lib/.hidden", "x");
        else if (change == "file missing")
            next.Remove("data/same");
        else if (change == "longer")
            next.File("bin/app", "new program!", 0755);
        else if (change == "changed bytes")
            next.File("bin/app", "NEW program", 0755);
        else if (change == "changed in secret")
            ChangeInSecret(next.Path("bin/app"), "NEW program");
        else if (change == "replaced by its like") {
            ::rename(qPrintable(next.Path("bin/app")), qPrintable(next.Path("bin/x")));
            next.File("bin/app", "NEW program", 0755).Remove("bin/x");
        } else if (change == "other target")
            next.Remove("lib/link").Symlink("lib/link", "../bin/xxx");
        else if (change == "link for a file")
            next.Remove("data/same").Symlink("data/same", site->Outside() + "/bystander");
        else if (change == "link for a directory") {
            ::rename(qPrintable(next.Path("lib")), qPrintable(aside));
            next.Symlink("lib", aside);
        } else if (change == "mode")
            kxtest::SetMode(next.Path("bin/app"), 04755);
        else if (change == "gone")
            kxtest::Remove(site->Next());
        else {
            kxtest::CopyTree(site->Next(), aside);
            kxtest::Remove(site->Next());
            kxtest::CopyTree(aside, site->Next());
            next.File("bin/app", "NEW program", 0755);
        }
    };
    GuardedUpdater guarded(*site);
    guarded.Guard().SetCallback(&host);
    QVERIFY2(!guarded.Install(), guarded.Report());
    QCOMPARE(host.calls.load(), 1);
    QVERIFY2(guarded.Code() == guard::PackageChanged, guarded.Report());
    QVERIFY2(guarded.Guard().LastErrorCode() == guard::PackageChanged, guarded.Report());
    QVERIFY2(guarded.Guard().LastError().contains(site->Next()), guarded.Report());
    QCOMPARE(Snapshot(site->App()), site->OldTree());
    QVERIFY(!kxtest::Exists(site->Journal()));
    QVERIFY(!kxtest::Exists(site->LockFile()));
    QVERIFY(!kxtest::Exists(site->Backup()));
}

void TestInstallGuard::LastErrorIsOfTheLastInstall()
{
    GuardedUpdater guarded(*site);
    guarded.Guard().SetVersion("0.1");
    QVERIFY(!guarded.Install());
    QCOMPARE(guarded.Guard().LastErrorCode(), int(guard::InstallDowngrade));
    QVERIFY(!guarded.Guard().LastError().isEmpty());
    guarded.Guard().SetVersion(QString());
    QVERIFY2(guarded.Install(), guarded.Report());
    QCOMPARE(guarded.Guard().LastErrorCode(), 0);
    QCOMPARE(guarded.Guard().LastError(), QString());
    // It may be asked for inside error(), which is when a host wants it.
    guarded.Guard().SetVersion("0.1");
    int inside = 0;
    QObject::connect(guarded.Updater(), &updater::IUpdater::error,
                     [&] { inside = guarded.Guard().LastErrorCode(); });
    QVERIFY(!guarded.Install());
    QCOMPARE(inside, int(guard::InstallDowngrade));
}

QTEST_GUILESS_MAIN(TestInstallGuard)
#include "tst_installguard.moc"
