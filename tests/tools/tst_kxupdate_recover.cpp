#include "kxupdateprocess.h"
#include "treebuilder.h"
#include "updatesite.h"

#include <kxguard/filelock.h>

#include <QDir>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTest>

#include <csignal>

namespace {

const QString v1 = QStringLiteral("1.0");
const QString v2 = QStringLiteral("2.0");

/** What belongs beside an application when nothing is left over. */
const QStringList plainNames = {
    QStringLiteral("app"),           QStringLiteral("next"),
    QStringLiteral("next.kxupdate"), QStringLiteral("next.kxupdate.state"),
    QStringLiteral("next.xml"),      QStringLiteral("server"),
    QStringLiteral("v1.0"),          QStringLiteral("v2.0")};

QStringList Names(const UpdateSite& site)
{
    QStringList names =
        QDir(site.Path(QStringLiteral(".")))
            .entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot, QDir::Name);
    // A killed process leaves the lock file of its download directory, which is nobody's then.
    names.removeOne(QStringLiteral("next.kxupdate.lock"));
    return names;
}

QStringList Recover(const UpdateSite& site, const QStringList& more = {})
{
    return QStringList{QStringLiteral("recover"), QStringLiteral("--app"), site.App()} + more;
}

} // namespace

/** What "kxupdate recover" makes of an application whose install was killed. */
class TstKxupdateRecover : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void KilledSwapIsMended_data();
    void KilledSwapIsMended();
    void SwapKilledAtAnyCallIsMended_data();
    void SwapKilledAtAnyCallIsMended();
    void WholeApplicationIsLeftAlone();
    void BackupOfSomebodyElseIsLeftAlone();
    void ConfigurationNamesTheApplication();
    void ResultIsAnObject();
    void MissingApplicationIsNoSuccess();
    void UnfitPathIsRefused_data();
    void UnfitPathIsRefused();
    void UnwritableParentNeedsAttention();
    void BusyApplicationIsLeftAlone();
    void WaitEndsWithTheLock();
    void WaitCanBeInterrupted();

private:
    void MoveAside(const UpdateSite& site);
};

void TstKxupdateRecover::MoveAside(const UpdateSite& site)
{
    UpdateSite::CopyTree(site.Tree(v1), site.Backup());
}

void TstKxupdateRecover::KilledSwapIsMended_data()
{
    QTest::addColumn<QString>("state");
    QTest::addColumn<QString>("word");
    QTest::addColumn<QString>("version");
    QTest::newRow("BACKUPREMOVING") << "BACKUPREMOVING"
                                    << "cleaned" << v1;
    QTest::newRow("BACKUPING") << "BACKUPING"
                               << "cleaned" << v1;
    QTest::newRow("MOVING") << "MOVING"
                            << "restored" << v1;
    QTest::newRow("BACKUPCLEARING") << "BACKUPCLEARING"
                                    << "finished" << v2;
}

void TstKxupdateRecover::KilledSwapIsMended()
{
    QFETCH(QString, state);
    QFETCH(QString, word);
    QFETCH(QString, version);
    UpdateSite site;
    site.Publish(v2);
    site.Install(v1);
    KxupdateProcess download;
    QVERIFY2(download.Run(site.Command(QStringLiteral("download"))), download.Report());
    KxupdateProcess killed;
    killed.InterruptAt(QStringLiteral("  ") + state, 1, SIGKILL); // not as the end of another
    QVERIFY2(!killed.Run(site.Command(QStringLiteral("install"))), killed.Report());

    KxupdateProcess process;
    QVERIFY2(process.Run(Recover(site)), process.Report());
    QVERIFY2(process.Status() == 0, process.Report());
    QCOMPARE(process.Data(QStringLiteral("recovery")), word);
    QCOMPARE(process.Data(QStringLiteral("result")), QStringLiteral("recovered"));
    QCOMPARE(site.Installed(), site.Published(version));
    QCOMPARE(Names(site), plainNames);

    KxupdateProcess again;
    QVERIFY2(again.Run(Recover(site)), again.Report());
    QVERIFY2(again.Status() == 0, again.Report());
    QCOMPARE(again.Data(QStringLiteral("recovery")), QStringLiteral("whole"));
    KxupdateProcess update;
    QVERIFY2(update.Run(site.Command(QStringLiteral("update"))), update.Report());
    QVERIFY2(update.Status() == 0, update.Report());
    QCOMPARE(site.Installed(), site.Published(v2));
}

void TstKxupdateRecover::SwapKilledAtAnyCallIsMended_data()
{
    QTest::addColumn<bool>("after");
    QTest::newRow("before the call") << false;
    QTest::newRow("after the call") << true;
}

void TstKxupdateRecover::SwapKilledAtAnyCallIsMended()
{
    QFETCH(bool, after);
    UpdateSite site;
    site.Publish(v2);
    site.Install(v1);
    KxupdateProcess download;
    QVERIFY2(download.Run(site.Command(QStringLiteral("download"))), download.Report());
    const QStringList old = site.Published(v1);
    const QStringList fresh = site.Published(v2);

    QSet<QString> words;
    bool ended = false;
    for (int call = 1; !ended; ++call) {
        KxupdateProcess install;
        install.SetVariable(QStringLiteral("LD_PRELOAD"), QStringLiteral(KX_KILL_AT_LIBRARY));
        install.SetVariable(QStringLiteral("KX_KILL_AT"), QString::number(call));
        if (after)
            install.SetVariable(QStringLiteral("KX_KILL_AFTER"), QStringLiteral("1"));
        ended = install.Run(site.Command(QStringLiteral("install"), v1, {QStringLiteral("-q")}));
        if (ended)
            break;
        KxupdateProcess process;
        QVERIFY2(process.Run(Recover(site)), process.Report());
        QVERIFY2(process.Status() == 0, process.Report());
        const QStringList installed = site.Installed();
        QVERIFY2(installed == old || installed == fresh, qPrintable(installed.join(u'\n')));
        QVERIFY2(!kxtest::Exists(site.Backup()), process.Report());
        QVERIFY2(!Names(site).contains(QStringLiteral(".app.kxnew")) &&
                     !Names(site).contains(QStringLiteral(".app.kxjournal")),
                 qPrintable(Names(site).join(u' ')));
        words.insert(process.Data(QStringLiteral("recovery")));
        if (installed == fresh) {
            kxtest::Remove(site.App());
            site.Install(v1);
        }
    }
    QCOMPARE(site.Installed(), fresh);
    QVERIFY(words.contains(QStringLiteral("restored")));
    QVERIFY(words.contains(QStringLiteral("finished")));
    QVERIFY(words.contains(QStringLiteral("cleaned")));
}

void TstKxupdateRecover::WholeApplicationIsLeftAlone()
{
    UpdateSite site;
    site.Install(v1);
    const QStringList before = kxtest::Snapshot(site.Path(QStringLiteral(".")));
    KxupdateProcess process;
    QVERIFY2(process.Run(Recover(site)), process.Report());
    QVERIFY2(process.Status() == 0, process.Report());
    QCOMPARE(process.Output(), QStringLiteral("recovery: whole\nresult: recovered\n"));
    QCOMPARE(kxtest::Snapshot(site.Path(QStringLiteral("."))), before);
}

void TstKxupdateRecover::BackupOfSomebodyElseIsLeftAlone()
{
    UpdateSite site;
    site.Install(v1);
    MoveAside(site);
    const QStringList before = kxtest::Snapshot(site.Path(QStringLiteral(".")));
    KxupdateProcess process;
    QVERIFY2(process.Run(Recover(site)), process.Report());
    QVERIFY2(process.Status() == 0, process.Report());
    QCOMPARE(process.Data(QStringLiteral("recovery")), QStringLiteral("whole"));
    QCOMPARE(kxtest::Snapshot(site.Path(QStringLiteral("."))), before);
}

void TstKxupdateRecover::ConfigurationNamesTheApplication()
{
    UpdateSite site;
    MoveAside(site);
    site.WriteConfig(v1);
    KxupdateProcess process;
    QVERIFY2(process.Run(site.Configured(QStringLiteral("recover"))), process.Report());
    QVERIFY2(process.Status() == 0, process.Report());
    QCOMPARE(process.Data(QStringLiteral("recovery")), QStringLiteral("restored"));
    QVERIFY2(process.Errors().contains(site.Backup()), process.Report());
    QCOMPARE(site.Installed(), site.Published(v1));
}

void TstKxupdateRecover::ResultIsAnObject()
{
    UpdateSite site;
    MoveAside(site);
    KxupdateProcess process;
    QVERIFY2(process.Run(Recover(site, {QStringLiteral("--json")})), process.Report());
    const QStringList lines = process.Output().trimmed().split(u'\n');
    const QJsonObject result = QJsonDocument::fromJson(lines.constLast().toUtf8()).object();
    QCOMPARE(result.value(QStringLiteral("result")).toString(), QStringLiteral("recovered"));
    QCOMPARE(result.value(QStringLiteral("recovery")).toString(), QStringLiteral("restored"));
    QCOMPARE(result.value(QStringLiteral("exit")).toInt(-1), 0);
}

void TstKxupdateRecover::MissingApplicationIsNoSuccess()
{
    UpdateSite site;
    KxupdateProcess process;
    QVERIFY2(process.Run(Recover(site)), process.Report());
    QVERIFY2(process.Status() == 1, process.Report());
    QCOMPARE(process.Output(), QStringLiteral("recovery: absent\nresult: failed\n"));
    QVERIFY2(process.Errors().contains(site.App()), process.Report());
}

void TstKxupdateRecover::UnfitPathIsRefused_data()
{
    QTest::addColumn<QString>("app");
    QTest::newRow("link") << "link";
    QTest::newRow("file") << "file";
    QTest::newRow("root") << "/";
}

void TstKxupdateRecover::UnfitPathIsRefused()
{
    QFETCH(QString, app);
    UpdateSite site;
    site.Install(v1);
    kxtest::TreeBuilder(site.Path(QStringLiteral(".")))
        .File(QStringLiteral("file"), "text")
        .Symlink(QStringLiteral("link"), QStringLiteral("app"));
    KxupdateProcess process;
    QVERIFY2(process.Run({QStringLiteral("recover"), QStringLiteral("--app"),
                          app.startsWith(u'/') ? app : site.Path(app)}),
             process.Report());
    QVERIFY2(process.Status() == 3, process.Report());
    QCOMPARE(process.Output(), QStringLiteral("result: refused\n"));
}

void TstKxupdateRecover::UnwritableParentNeedsAttention()
{
    UpdateSite site;
    kxtest::TreeBuilder opt(site.Path(QStringLiteral("opt")));
    UpdateSite::CopyTree(site.Tree(v1), opt.Path(QStringLiteral("app.old")));
    kxtest::SetMode(opt.Root(), 0555);
    KxupdateProcess process;
    process.DropPowers();
    const bool ended = process.Run(
        {QStringLiteral("recover"), QStringLiteral("--app"), opt.Path(QStringLiteral("app"))});
    kxtest::SetMode(opt.Root(), 0755);
    QVERIFY2(ended, process.Report());
    QVERIFY2(process.Status() == 8, process.Report());
    QCOMPARE(process.Output(), QStringLiteral("recovery: failed\nresult: broken\n"));
    QVERIFY2(process.Errors().contains(QStringLiteral("Permission denied")), process.Report());
    QVERIFY2(process.Errors().contains(QStringLiteral("The old version was moved aside to '%1'.")
                                           .arg(opt.Path(QStringLiteral("app.old")))),
             process.Report());
    QCOMPARE(kxtest::Snapshot(opt.Path(QStringLiteral("app.old"))), site.Published(v1));
}

void TstKxupdateRecover::BusyApplicationIsLeftAlone()
{
    UpdateSite site;
    MoveAside(site);
    guard::FileLock lock(guard::ApplicationLockPath(site.App()));
    QVERIFY(lock.Take() == guard::FileLock::Result::Taken);
    KxupdateProcess process;
    QVERIFY2(process.Run(Recover(site)), process.Report());
    QVERIFY2(process.Status() == 3, process.Report());
    QCOMPARE(process.Output(), QStringLiteral("recovery: busy\nresult: refused\n"));
    QVERIFY2(process.Errors().contains(
                 QStringLiteral("(process %1)").arg(QCoreApplication::applicationPid())),
             process.Report());
    QVERIFY(!kxtest::Exists(site.App()));
}

void TstKxupdateRecover::WaitEndsWithTheLock()
{
    UpdateSite site;
    MoveAside(site);
    guard::FileLock lock(guard::ApplicationLockPath(site.App()));
    QVERIFY(lock.Take() == guard::FileLock::Result::Taken);
    KxupdateProcess process;
    process.Start(Recover(site, {QStringLiteral("--wait"), QStringLiteral("600")}));
    QVERIFY2(process.AwaitErrors(QStringLiteral("Waiting for its end.")), process.Report());
    lock.Release();
    QVERIFY2(process.Wait(), process.Report());
    QVERIFY2(process.Status() == 0, process.Report());
    QCOMPARE(process.Data(QStringLiteral("recovery")), QStringLiteral("restored"));
    QCOMPARE(site.Installed(), site.Published(v1));
}

void TstKxupdateRecover::WaitCanBeInterrupted()
{
    UpdateSite site;
    MoveAside(site);
    guard::FileLock lock(guard::ApplicationLockPath(site.App()));
    QVERIFY(lock.Take() == guard::FileLock::Result::Taken);
    KxupdateProcess process;
    process.Start(Recover(site, {QStringLiteral("--wait"), QStringLiteral("600")}));
    QVERIFY2(process.AwaitErrors(QStringLiteral("Waiting for its end.")), process.Report());
    process.Signal(SIGINT);
    QVERIFY2(process.Wait(), process.Report());
    QVERIFY2(process.Status() == 4, process.Report());
    QVERIFY(!kxtest::Exists(site.App()));
}

QTEST_GUILESS_MAIN(TstKxupdateRecover)
#include "tst_kxupdate_recover.moc"
