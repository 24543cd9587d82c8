#include "kxupdateprocess.h"
#include "manifest.h"
#include "treebuilder.h"
#include "updatesite.h"

#include <kxupdater/build.h>

#include <QTest>

#include <csignal>

#include <unistd.h>

namespace {

const QString v1 = QStringLiteral("1.0");
const QString v2 = QStringLiteral("2.0");

} // namespace

/** --run: what is started, from where, and what is not. */
class TstKxupdateRun : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void ProgramIsStartedDetached_data();
    void ProgramIsStartedDetached();
    void ProgramFindsNoLock();
    void NothingIsStartedWhenNothingIsReplaced();
    void WithoutTheOptionNothingIsStarted();
    void UnfitProgramIsNotStarted_data();
    void UnfitProgramIsNotStarted();

private:
    /** Version 2.0 with a program that writes into the site what it finds; `name` is published. */
    void Publish(UpdateSite& site, const QString& name);
    QString Trace(const UpdateSite& site) { return site.Path(QStringLiteral("trace")); }
};

void TstKxupdateRun::Publish(UpdateSite& site, const QString& name)
{
    const QByteArray script = "#!/bin/sh\n"
                              "here=$(pwd)\n"
                              "in=$(readlink /proc/$$/fd/0)\n"
                              "out=$(readlink /proc/$$/fd/1)\n"
                              "err=$(readlink /proc/$$/fd/2)\n"
                              "{ echo \"$0\"; echo \"$here\"; echo \"$in $out $err\"\n"
                              "cut -d' ' -f6 /proc/$$/stat\n"
                              "ls -a ..\n"
                              "} >../trace.new\n"
                              "mv ../trace.new ../trace\n";
    const QString stage = site.Tree(v2);
    kxtest::TreeBuilder(stage)
        .Remove(QStringLiteral("bin/hello"))
        .File(QStringLiteral("bin/hello"), script, 0755)
        .Symlink(QStringLiteral("bin/inside"), QStringLiteral("hello"))
        .Symlink(QStringLiteral("programs"), QStringLiteral("bin"))
        .Symlink(QStringLiteral("bin/outside"), QStringLiteral("/bin/true"))
        .Symlink(QStringLiteral("usr"), QStringLiteral("/usr"));
    kxtest::PublishTree(site.Path(QStringLiteral("server")), QStringLiteral("hello"), v2,
                        updater::Build::Platform(), stage, site.Url(), name);
}

void TstKxupdateRun::ProgramIsStartedDetached_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<QString>("name");
    for (const char* command : {"update", "install", "repair"})
        QTest::newRow(command) << command << "bin/hello";
    QTest::newRow("link to a program inside") << "update"
                                              << "bin/inside";
    QTest::newRow("through a link to a directory inside") << "update"
                                                          << "programs/hello";
}

void TstKxupdateRun::ProgramIsStartedDetached()
{
    QFETCH(QString, command);
    QFETCH(QString, name);
    UpdateSite site;
    Publish(site, name);
    site.Install(v1);
    if (command == QLatin1String("install")) {
        KxupdateProcess download;
        QVERIFY2(download.Run(site.Command(QStringLiteral("download"))), download.Report());
    }
    KxupdateProcess process;
    QVERIFY2(process.Run(site.Command(command, command == QLatin1String("repair") ? v2 : v1,
                                      {QStringLiteral("--run")})),
             process.Report());
    QVERIFY2(process.Status() == 0, process.Report());
    QCOMPARE(process.Data(QStringLiteral("started")), name);
    QTRY_VERIFY_WITH_TIMEOUT(kxtest::Exists(Trace(site)), 60000);
    const QStringList trace = QString::fromUtf8(kxtest::Read(Trace(site))).trimmed().split(u'\n');
    QVERIFY(trace.size() > 4);
    QCOMPARE(trace.at(0), site.App() + u'/' + name);
    QCOMPARE(trace.at(1), site.App());
    QCOMPARE(trace.at(2), QStringLiteral("/dev/null /dev/null /dev/null"));
    // Neither Ctrl-C nor the end of the terminal reaches it.
    QVERIFY(trace.at(3).toInt() > 0);
    QVERIFY(trace.at(3).toInt() != ::getsid(0));
}

void TstKxupdateRun::ProgramFindsNoLock()
{
    UpdateSite site;
    Publish(site, QStringLiteral("bin/hello"));
    site.Install(v1);
    KxupdateProcess process;
    // It stops itself when it has started the program.
    process.InterruptAt(QStringLiteral("Started 'bin/hello'"), 1, SIGSTOP);
    process.Start(site.Command(QStringLiteral("update"), v1, {QStringLiteral("--run")}));
    QTRY_VERIFY_WITH_TIMEOUT(kxtest::Exists(Trace(site)), 60000);
    QVERIFY(kxtest::Exists(site.Marker() + QStringLiteral(".lock")));
    QVERIFY(!kxtest::Exists(site.Path(QStringLiteral(".app.kxlock"))));
    process.Signal(SIGCONT);
    QVERIFY2(process.Wait(), process.Report());
    QVERIFY2(process.Status() == 0, process.Report());
}

void TstKxupdateRun::NothingIsStartedWhenNothingIsReplaced()
{
    UpdateSite site;
    Publish(site, QStringLiteral("bin/hello"));
    site.Install(v2);
    KxupdateProcess process;
    QVERIFY2(process.Run(site.Command(QStringLiteral("update"), v2, {QStringLiteral("--run")})),
             process.Report());
    QVERIFY2(process.Status() == 0, process.Report());
    QCOMPARE(process.Data(QStringLiteral("started")), QStringLiteral("none"));
    QCOMPARE(process.Data(QStringLiteral("result")), QStringLiteral("up-to-date"));
    QVERIFY2(process.Errors().contains(QStringLiteral("nothing is started")), process.Report());
}

void TstKxupdateRun::WithoutTheOptionNothingIsStarted()
{
    UpdateSite site;
    Publish(site, QStringLiteral("bin/hello"));
    KxupdateProcess process;
    QVERIFY2(process.Run(site.Command(QStringLiteral("update"))), process.Report());
    QVERIFY2(process.Status() == 0, process.Report());
    QVERIFY2(!process.Output().contains(QStringLiteral("started")), process.Report());
}

void TstKxupdateRun::UnfitProgramIsNotStarted_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("reason");
    QTest::newRow("no program") << ""
                                << "names no program";
    QTest::newRow("absolute") << "/bin/true"
                              << "absolute";
    QTest::newRow("out of the directory") << "../../bin/true"
                                          << "leads out of its directory";
    QTest::newRow("link to outside") << "bin/outside"
                                     << "leads out of the application directory";
    QTest::newRow("through a link to outside") << "usr/bin/true"
                                               << "leads out of the application directory";
    QTest::newRow("missing") << "bin/none"
                             << "does not exist";
    QTest::newRow("not executable") << "share/new.txt"
                                    << "not an executable file";
    QTest::newRow("a directory") << "lib"
                                 << "not an executable file";
    QTest::newRow("no interpreter") << "bin/broken"
                                    << "is not started";
}

void TstKxupdateRun::UnfitProgramIsNotStarted()
{
    QFETCH(QString, name);
    QFETCH(QString, reason);
    UpdateSite site;
    kxtest::TreeBuilder(site.Tree(v2)).File(QStringLiteral("bin/broken"), "#!/no/such\n", 0755);
    Publish(site, name);
    site.Install(v1);
    KxupdateProcess process;
    QVERIFY2(process.Run(site.Command(QStringLiteral("update"), v1, {QStringLiteral("--run")})),
             process.Report());
    // The update itself went well.
    QVERIFY2(process.Status() == 0, process.Report());
    QCOMPARE(process.Data(QStringLiteral("result")), QStringLiteral("updated"));
    QCOMPARE(process.Data(QStringLiteral("started")), QStringLiteral("none"));
    QVERIFY2(process.Errors().contains(reason), process.Report());
    QVERIFY(kxtest::Exists(site.App() + QStringLiteral("/share/new.txt")));
}

QTEST_GUILESS_MAIN(TstKxupdateRun)
#include "tst_kxupdate_run.moc"
