#include "kxupdateprocess.h"
#include "treebuilder.h"
#include "updatesite.h"

#include <kxguard/filelock.h>

#include <QDir>
#include <QProcess>
#include <QSignalSpy>
#include <QTest>

#include <csignal>
#include <memory>
#include <vector>

namespace {

const QString v1 = QStringLiteral("1.0");
const QString v2 = QStringLiteral("2.0");
const QString filter = QStringLiteral("lib/filter.bin");

QStringList Replace(QStringList arguments, const QString& option, const QString& value)
{
    arguments[arguments.indexOf(option) + 1] = value;
    return arguments;
}

} // namespace

/** Two at once: who works on an application, who is in the way, and who runs it meanwhile. */
class TstKxupdateLocks : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void ApplicationIsLockedBeforeItIsDownloadedFor_data();
    void ApplicationIsLockedBeforeItIsDownloadedFor();
    void LockOfAnotherProgramIsRespected_data();
    void LockOfAnotherProgramIsRespected();
    void StatusNamesAnotherProgram();
    void LockOfADeadProcessIsFree();
    void DownloadNeedsNoRightsBesideTheApplication();
    void ManyAtOnceLeaveOneWholeVersion();
    void RunningProgramIsRefusedIfAsked_data();
    void RunningProgramIsRefusedIfAsked();
    void RunningProgramIsNotHeldAgainstAVersion();
};

void TstKxupdateLocks::ApplicationIsLockedBeforeItIsDownloadedFor_data()
{
    QTest::addColumn<QString>("first");
    QTest::newRow("update") << "update";
    QTest::newRow("download") << "download";
}

void TstKxupdateLocks::ApplicationIsLockedBeforeItIsDownloadedFor()
{
    QFETCH(QString, first);
    UpdateSite site;
    site.Publish(v2);
    site.Install(v1);
    site.Server().Enqueue(site.FilePath(v2, filter), kxtest::Reply::StallAfter(1000));
    QSignalSpy stalled(&site.Server(), SIGNAL(stalled(QString)));
    KxupdateProcess holder;
    holder.Start(site.Command(first));
    QTRY_VERIFY_WITH_TIMEOUT(stalled.count() == 1, 60000);

    // With another download directory: what they share is the application.
    for (const char* command : {"update", "repair", "download", "install"}) {
        KxupdateProcess process;
        QVERIFY2(
            process.Run(Replace(site.Command(QLatin1String(command)), QStringLiteral("--download"),
                                site.Path(QStringLiteral("elsewhere")))),
            process.Report());
        QVERIFY2(process.Status() == 3, process.Report());
        QVERIFY2(process.Errors().contains(
                     QStringLiteral("Another kxupdate (process %1) is working on '%2'.")
                         .arg(holder.Id())
                         .arg(site.App())),
                 process.Report());
        QVERIFY(!kxtest::Exists(site.Path(QStringLiteral("elsewhere"))));
    }
    site.Server().ReleaseStalled();
    QVERIFY2(holder.Wait(), holder.Report());
    QVERIFY2(holder.Status() == 0, holder.Report());
}

void TstKxupdateLocks::LockOfAnotherProgramIsRespected_data()
{
    QTest::addColumn<QString>("command");
    for (const char* command : {"update", "repair", "download", "install"})
        QTest::newRow(command) << command;
}

void TstKxupdateLocks::LockOfAnotherProgramIsRespected()
{
    QFETCH(QString, command);
    UpdateSite site;
    site.Publish(v2);
    site.Install(v1);
    guard::FileLock lock(guard::ApplicationLockPath(site.App()));
    QVERIFY(lock.Take() == guard::FileLock::Result::Taken);
    KxupdateProcess process;
    QVERIFY2(process.Run(site.Command(command)), process.Report());
    QVERIFY2(process.Status() == 3, process.Report());
    QVERIFY2(process.Errors().contains(
                 QStringLiteral("The program 'tst_kxupdate_locks' (process %1) is working on '%2'.")
                     .arg(QCoreApplication::applicationPid())
                     .arg(site.App())),
             process.Report());
    QCOMPARE(site.Server().RequestCount(), 0);
    QVERIFY(lock.IsHeld());

    lock.Release();
    if (command == QLatin1String("install"))
        return;
    KxupdateProcess again;
    QVERIFY2(again.Run(site.Command(command)), again.Report());
    QVERIFY2(again.Status() == (command == QLatin1String("repair") ? 10 : 0), again.Report());
}

void TstKxupdateLocks::StatusNamesAnotherProgram()
{
    UpdateSite site;
    site.Install(v1);
    guard::FileLock lock(guard::ApplicationLockPath(site.App()));
    QVERIFY(lock.Take() == guard::FileLock::Result::Taken);
    KxupdateProcess process;
    QVERIFY2(process.Run(site.Command(QStringLiteral("status"))), process.Report());
    QCOMPARE(
        process.Data(QStringLiteral("application-lock")),
        QStringLiteral("process %1 (tst_kxupdate_locks)").arg(QCoreApplication::applicationPid()));
    QCOMPARE(process.Data(QStringLiteral("download-lock")), QStringLiteral("free"));
}

void TstKxupdateLocks::LockOfADeadProcessIsFree()
{
    UpdateSite site;
    site.Publish(v2);
    site.Install(v1);
    site.Server().Enqueue(site.FilePath(v2, filter), kxtest::Reply::StallAfter(1000));
    QSignalSpy stalled(&site.Server(), SIGNAL(stalled(QString)));
    KxupdateProcess killed;
    killed.Start(site.Command(QStringLiteral("update")));
    QTRY_VERIFY_WITH_TIMEOUT(stalled.count() == 1, 60000);
    killed.Signal(SIGKILL);
    QVERIFY(!killed.Wait());
    QVERIFY(kxtest::Exists(guard::ApplicationLockPath(site.App())));
    KxupdateProcess process;
    QVERIFY2(process.Run(site.Command(QStringLiteral("update"))), process.Report());
    QVERIFY2(process.Status() == 0, process.Report());
    QCOMPARE(site.Installed(), site.Published(v2));
    QVERIFY(!kxtest::Exists(guard::ApplicationLockPath(site.App())));
}

void TstKxupdateLocks::DownloadNeedsNoRightsBesideTheApplication()
{
    UpdateSite site;
    site.Publish(v2);
    kxtest::TreeBuilder opt(site.Path(QStringLiteral("opt")));
    UpdateSite::CopyTree(site.Tree(v1), opt.Path(QStringLiteral("app")));
    kxtest::SetMode(opt.Root(), 0555);
    KxupdateProcess process;
    process.DropPowers();
    const bool ended =
        process.Run(Replace(site.Command(QStringLiteral("download")), QStringLiteral("--app"),
                            opt.Path(QStringLiteral("app"))));
    kxtest::SetMode(opt.Root(), 0755);
    QVERIFY2(ended, process.Report());
    QVERIFY2(process.Status() == 0, process.Report());
}

void TstKxupdateLocks::ManyAtOnceLeaveOneWholeVersion()
{
    UpdateSite site;
    site.Publish(v2);
    site.Install(v1);
    std::vector<std::unique_ptr<KxupdateProcess>> processes;
    for (int i = 0; i < 6; ++i) {
        processes.push_back(std::make_unique<KxupdateProcess>());
        processes.back()->Start(Replace(site.Command(QStringLiteral("update")),
                                        QStringLiteral("--download"),
                                        site.Path(QStringLiteral("next%1").arg(i))));
    }
    int successes = 0;
    for (const auto& process : processes) {
        QVERIFY2(process->Wait(), process->Report());
        QVERIFY2(process->Status() == 0 || process->Status() == 3, process->Report());
        successes += process->Status() == 0 ? 1 : 0;
    }
    QVERIFY(successes >= 1);
    QCOMPARE(site.Installed(), site.Published(v2));
    QVERIFY(!kxtest::Exists(site.Backup()));
    const QStringList hidden =
        QDir(site.Path(QStringLiteral(".")))
            .entryList({QStringLiteral(".app*")}, QDir::Files | QDir::Dirs | QDir::Hidden);
    QCOMPARE(hidden, QStringList());
}

void TstKxupdateLocks::RunningProgramIsRefusedIfAsked_data()
{
    QTest::addColumn<bool>("configured");
    QTest::newRow("option") << false;
    QTest::newRow("configuration") << true;
}

void TstKxupdateLocks::RunningProgramIsRefusedIfAsked()
{
    QFETCH(bool, configured);
    UpdateSite site;
    kxtest::TreeBuilder(site.Tree(v1))
        .File(QStringLiteral("bin/nap"), kxtest::Read(QStringLiteral("/usr/bin/sleep")), 0755);
    site.Publish(v2);
    site.Install(v1);
    site.WriteConfig(v1, "refuse-running = yes\n");
    const QStringList arguments = configured ? site.Configured(QStringLiteral("update"))
                                             : site.Command(QStringLiteral("update"), v1,
                                                            {QStringLiteral("--refuse-running")});
    QProcess program;
    program.start(site.App() + QStringLiteral("/bin/nap"), {QStringLiteral("600")});
    QVERIFY(program.waitForStarted());

    KxupdateProcess process;
    QVERIFY2(process.Run(arguments), process.Report());
    QVERIFY2(process.Status() == 3, process.Report());
    QVERIFY2(process.Errors().contains(QStringLiteral("Error 620106: ")) &&
                 process.Errors().contains(QString::number(program.processId())),
             process.Report());
    QCOMPARE(site.Installed(), site.Published(v1));

    program.kill();
    QVERIFY(program.waitForFinished());
    KxupdateProcess again;
    QVERIFY2(again.Run(arguments), again.Report());
    QVERIFY2(again.Status() == 0, again.Report());
    QCOMPARE(site.Installed(), site.Published(v2));
}

void TstKxupdateLocks::RunningProgramIsNotHeldAgainstAVersion()
{
    UpdateSite site;
    kxtest::TreeBuilder(site.Tree(v1))
        .File(QStringLiteral("bin/nap"), kxtest::Read(QStringLiteral("/usr/bin/sleep")), 0755);
    site.Publish(v2);
    site.Install(v1);
    QProcess program;
    program.start(site.App() + QStringLiteral("/bin/nap"), {QStringLiteral("600")});
    QVERIFY(program.waitForStarted());
    KxupdateProcess process;
    process.Start(site.Command(QStringLiteral("update"), v1,
                               {QStringLiteral("--refuse-running"), QStringLiteral("--watch"),
                                QStringLiteral("--interval"), QStringLiteral("1")}));
    QVERIFY2(process.AwaitOutput(QStringLiteral("result: refused\n"), 3), process.Report());
    program.kill();
    QVERIFY(program.waitForFinished());
    QVERIFY2(process.AwaitOutput(QStringLiteral("result: updated\n")), process.Report());
    process.Signal(SIGTERM);
    QVERIFY2(process.Wait(), process.Report());
    QVERIFY2(!process.Errors().contains(QStringLiteral("has been tried")), process.Report());
    QCOMPARE(site.Installed(), site.Published(v2));
}

QTEST_GUILESS_MAIN(TstKxupdateLocks)
#include "tst_kxupdate_locks.moc"
