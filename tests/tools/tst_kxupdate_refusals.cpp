#include "kxupdateprocess.h"
#include "manifest.h"
#include "treebuilder.h"
#include "updatesite.h"

#include <kxcommon/ifiledownload.h>
#include <kxupdater/build.h>

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QSignalSpy>
#include <QTest>

namespace {

const QString v1 = QStringLiteral("1.0");
const QString v2 = QStringLiteral("2.0");

QStringList Replace(QStringList arguments, const QString& option, const QString& value)
{
    arguments[arguments.indexOf(option) + 1] = value;
    return arguments;
}

// Whoever opens it to read waits for a writer.
void MakePipe(const QString& path)
{
    if (QProcess::execute(QStringLiteral("mkfifo"), {path}) != 0)
        qFatal("cannot make '%s'", qPrintable(path));
}

} // namespace

/** What kxupdate does not begin, what it clears and what it leaves alone. */
class TstKxupdateRefusals : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void UpdateRefusesBeforeAskingTheServer_data();
    void UpdateRefusesBeforeAskingTheServer();
    void InstallRefuses_data();
    void InstallRefuses();
    void DamagedDownloadIsNotInstalled_data();
    void DamagedDownloadIsNotInstalled();
    void ReadOnlyParentIsRefusedBeforeDownloading();
    void UnwritableDownloadDirectoryIsRefusedBeforeDownloading();
    void DownloadThatOthersMayChangeIsRefusedBeforeDownloading_data();
    void DownloadThatOthersMayChangeIsRefusedBeforeDownloading();
    void VolumeWithoutRoomIsNotTakenForReadOnly();
    void TooLittleSpaceIsRefusedBeforeDownloading();
    void EarlierVersionIsRefusedBeforeDownloading_data();
    void EarlierVersionIsRefusedBeforeDownloading();
    void EarlierVersionIsNotInstalled();
    void SecondProcessOnTheSameApplicationIsRefused();
    void ForeignLockFileIsRefused_data();
    void ForeignLockFileIsRefused();
    void LockFileWithoutAnOwnerStandsInNobodysWay_data();
    void LockFileWithoutAnOwnerStandsInNobodysWay();
    void MarkerThatIsNoFileIsRefused();
    void DescriptionThatIsAPipeIsRefused_data();
    void DescriptionThatIsAPipeIsRefused();

    void ClearingKeepsOnlyWhatThePackageLists();
    void ClearingNeverFollowsLinks();
    void EmptyDirectoryIsTakenOver();
    void MarkerDoesNotVouchForAnotherDirectory();
    void MissingParentsOfTheDownloadDirectoryAreMade();

    void BackupOfACutOffSwapIsRenamedBack_data();
    void BackupOfACutOffSwapIsRenamedBack();
    void CheckAndDownloadLeaveTheBackupAlone_data();
    void CheckAndDownloadLeaveTheBackupAlone();
};

void TstKxupdateRefusals::UpdateRefusesBeforeAskingTheServer_data()
{
    QTest::addColumn<QString>("option");
    QTest::addColumn<QString>("value"); // relative to the site
    QTest::addColumn<QString>("message");

    const auto row = [](const char* name, const char* option, const char* value,
                        const char* message) { QTest::newRow(name) << option << value << message; };
    row("download directory is a link", "--download", "link", "symbolic link");
    row("download directory is a link to nothing", "--download", "dangling", "symbolic link");
    row("download directory is a file", "--download", "file", "not a directory");
    row("download directory is the application", "--download", "app", "inside");
    row("download directory in the application", "--download", "app/next", "inside");
    row("download directory in the application, through a link", "--download", "applink/next",
        "inside");
    row("download directory around the application", "--download", "wrap", "inside");
    row("download directory is the backup", "--download", "app.old", "inside");
    row("download directory in the backup", "--download", "app.old/a", "inside");
    row("download directory is the root", "--download", "/", "root");
    row("download directory is home", "--download", "home/user", "home");
    row("download directory around home", "--download", "home", "home");
    row("download directory of somebody else", "--download", "other", "not made by kxupdate");
    row("download directory with only a hidden file", "--download", "hidden",
        "not made by kxupdate");
    row("application is a link", "--app", "applink", "symbolic link");
    row("application is a link to nothing", "--app", "dangling", "symbolic link");
    row("application is a file", "--app", "file", "not a directory");
    row("application is the root", "--app", "/", "root");
    row("application is home", "--app", "home/user", "home");
    row("application in a missing directory", "--app", "no/app", "not exist");
    row("description in the download directory", "--xml", "next/a.xml", "cleared or replaced");
    row("description in the application", "--xml", "app/a", "cleared or replaced");
    row("description is a link", "--xml", "xmllink", "symbolic link");
    row("description is a link to nothing", "--xml", "dangling", "symbolic link");
    row("description is a directory", "--xml", "wrap", "not a regular file");
}

void TstKxupdateRefusals::UpdateRefusesBeforeAskingTheServer()
{
    QFETCH(QString, option);
    QFETCH(QString, value);
    QFETCH(QString, message);
    UpdateSite site;
    site.Publish(v2);
    site.Install(v1);
    kxtest::TreeBuilder(site.Path(QStringLiteral(".")))
        .Symlink(QStringLiteral("link"), QStringLiteral("other"))
        .Symlink(QStringLiteral("applink"), QStringLiteral("app"))
        .Symlink(QStringLiteral("xmllink"), QStringLiteral("file"))
        .Symlink(QStringLiteral("dangling"), QStringLiteral("nowhere"))
        .File(QStringLiteral("file"), "text")
        .File(QStringLiteral("other/precious"), "text")
        .File(QStringLiteral("hidden/.precious"), "text")
        .Dir(QStringLiteral("wrap"))
        .Dir(QStringLiteral("home/user"));
    const QStringList before = kxtest::Snapshot(site.Path(QStringLiteral(".")));

    QStringList arguments =
        site.Command(QStringLiteral("update"), v1, {QStringLiteral("--xml"), site.Xml()});
    arguments = Replace(arguments, option, value == QLatin1String("/") ? value : site.Path(value));
    if (value == QLatin1String("wrap"))
        arguments = Replace(arguments, QStringLiteral("--app"), site.Path(value) + "/app");
    KxupdateProcess process;
    process.SetHome(site.Path(QStringLiteral("home/user")));
    QVERIFY2(process.Run(arguments), process.Report());
    QVERIFY2(process.Status() == 3, process.Report());
    QCOMPARE(process.Output(), QStringLiteral("result: refused\n"));
    QCOMPARE(process.Errors().count(u'\n'), 1);
    QVERIFY2(process.Errors().contains(message), process.Report());
    QCOMPARE(site.Server().RequestCount(), 0);
    QCOMPARE(kxtest::Snapshot(site.Path(QStringLiteral("."))), before);
}

void TstKxupdateRefusals::InstallRefuses_data()
{
    QTest::addColumn<QString>("change");
    QTest::addColumn<QString>("message");
    QTest::newRow("no description") << "remove next.xml"
                                    << "does not exist";
    QTest::newRow("description of nothing") << "write next.xml"
                                            << "describes no files";
    QTest::newRow("download directory missing") << "remove next"
                                                << "missing or empty";
    QTest::newRow("download directory empty") << "empty next"
                                              << "missing or empty";
    QTest::newRow("directory that everybody may change") << "open next"
                                                         << "620205";
}

void TstKxupdateRefusals::InstallRefuses()
{
    QFETCH(QString, change);
    QFETCH(QString, message);
    UpdateSite site;
    site.Publish(v2);
    site.Install(v1);
    KxupdateProcess download;
    QVERIFY2(download.Run(site.Command(QStringLiteral("download"))), download.Report());
    QVERIFY2(download.Status() == 0, download.Report());

    const QString name = change.section(u' ', 1);
    kxtest::TreeBuilder tree(site.Path(QStringLiteral(".")));
    if (change.startsWith(QLatin1String("write"))) {
        tree.File(name, "text");
    } else if (change.startsWith(QLatin1String("open"))) {
        kxtest::SetMode(site.Path(name), 0777);
    } else {
        kxtest::Remove(site.Path(name));
        if (change.startsWith(QLatin1String("empty")))
            tree.Dir(name);
    }
    KxupdateProcess process;
    QVERIFY2(process.Run(site.Command(QStringLiteral("install"))), process.Report());
    QVERIFY2(process.Status() == 3, process.Report());
    QVERIFY2(process.Errors().contains(message), process.Report());
    QCOMPARE(site.Installed(), site.Published(v1));
}

void TstKxupdateRefusals::DamagedDownloadIsNotInstalled_data()
{
    QTest::addColumn<QString>("change");
    QTest::addColumn<QString>("difference");
    QTest::newRow("file missing") << "remove share/new.txt"
                                  << "missing share/new.txt";
    QTest::newRow("file changed") << "write share/new.txt"
                                  << "changed share/new.txt";
    QTest::newRow("file added") << "write share/stray"
                                << "unexpected share/stray";
    QTest::newRow("hidden file") << "write .hidden"
                                 << "unexpected .hidden";
    QTest::newRow("hidden file below") << "write lib/.hidden"
                                       << "unexpected lib/.hidden";
    QTest::newRow("hidden directory") << "write .git/config"
                                      << "unexpected .git";
}

void TstKxupdateRefusals::DamagedDownloadIsNotInstalled()
{
    QFETCH(QString, change);
    QFETCH(QString, difference);
    UpdateSite site;
    site.Publish(v2);
    site.Install(v1);
    KxupdateProcess download;
    QVERIFY2(download.Run(site.Command(QStringLiteral("download"))), download.Report());
    const QString name = change.section(u' ', 1);
    if (change.startsWith(QLatin1String("write")))
        kxtest::TreeBuilder(site.Next()).File(name, "text");
    else
        kxtest::Remove(site.Next() + u'/' + name);

    KxupdateProcess process;
    QVERIFY2(process.Run(site.Command(QStringLiteral("install"))), process.Report());
    QVERIFY2(process.Status() == 5, process.Report());
    QCOMPARE(process.Data(QStringLiteral("difference")), difference);
    QVERIFY2(process.Errors().contains(QStringLiteral("Error 620203: ")), process.Report());
    QCOMPARE(site.Installed(), site.Published(v1));
    QVERIFY(!kxtest::Exists(site.Backup()));
}

void TstKxupdateRefusals::ReadOnlyParentIsRefusedBeforeDownloading()
{
    UpdateSite site;
    site.Publish(v2);
    kxtest::TreeBuilder(site.Path(QStringLiteral("opt")));
    UpdateSite::CopyTree(site.Tree(v1), site.Path(QStringLiteral("opt/app")));
    kxtest::SetMode(site.Path(QStringLiteral("opt")), 0555);

    KxupdateProcess process;
    process.DropPowers();
    const bool ended =
        process.Run(Replace(site.Command(QStringLiteral("update")), QStringLiteral("--app"),
                            site.Path(QStringLiteral("opt/app"))));
    kxtest::SetMode(site.Path(QStringLiteral("opt")), 0755);
    QVERIFY2(ended, process.Report());
    QVERIFY2(process.Status() == 3, process.Report());
    QVERIFY2(process.Errors().contains(QStringLiteral("cannot be written")), process.Report());
    QCOMPARE(site.Server().RequestCount(), 0);
    QCOMPARE(kxtest::Snapshot(site.Path(QStringLiteral("opt/app"))), site.Published(v1));
}

void TstKxupdateRefusals::UnwritableDownloadDirectoryIsRefusedBeforeDownloading()
{
    UpdateSite site;
    site.Publish(v2);
    site.Install(v1);
    kxtest::TreeBuilder(site.Path(QStringLiteral("cache")));
    kxtest::SetMode(site.Path(QStringLiteral("cache")), 0555);
    KxupdateProcess process;
    process.DropPowers();
    const bool ended =
        process.Run(Replace(site.Command(QStringLiteral("update")), QStringLiteral("--download"),
                            site.Path(QStringLiteral("cache/next"))));
    kxtest::SetMode(site.Path(QStringLiteral("cache")), 0755);
    QVERIFY2(ended, process.Report());
    QVERIFY2(process.Status() == 3, process.Report());
    QVERIFY2(process.Errors().contains(site.Path(QStringLiteral("cache/next"))), process.Report());
    QVERIFY2(process.Errors().contains(QStringLiteral(": Permission denied.")), process.Report());
    QCOMPARE(site.Server().RequestCount(), 0);
}

void TstKxupdateRefusals::DownloadThatOthersMayChangeIsRefusedBeforeDownloading_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<QString>("open");
    QTest::newRow("the directory") << "update"
                                   << "cache/next";
    QTest::newRow("the one above") << "download"
                                   << "cache";
}

void TstKxupdateRefusals::DownloadThatOthersMayChangeIsRefusedBeforeDownloading()
{
    QFETCH(QString, command);
    QFETCH(QString, open);
    UpdateSite site;
    site.Publish(v2);
    site.Install(v1);
    kxtest::TreeBuilder(site.Path(QStringLiteral("."))).Dir(QStringLiteral("cache/next"));
    kxtest::SetMode(site.Path(open), 0777);
    KxupdateProcess process;
    QVERIFY2(process.Run(Replace(site.Command(command), QStringLiteral("--download"),
                                 site.Path(QStringLiteral("cache/next")))),
             process.Report());
    QVERIFY2(process.Status() == 3, process.Report());
    QVERIFY2(process.Errors().contains(QStringLiteral("620205")), process.Report());
    QCOMPARE(site.Server().RequestCount(), 0);
}

void TstKxupdateRefusals::VolumeWithoutRoomIsNotTakenForReadOnly()
{
    UpdateSite site;
    site.Publish(v2);
    site.Install(v1);
    KxupdateProcess process;
    process.LimitFileSize(0);
    QVERIFY2(process.Run(site.Command(QStringLiteral("update"))), process.Report());
    // The locks need no room; the first file that does tells what is wrong.
    QVERIFY2(process.Status() == 1, process.Report());
    QVERIFY2(process.Errors().contains(QStringLiteral("next.kxupdate': File too large.")),
             process.Report());
    QCOMPARE(site.Installed(), site.Published(v1));
}

void TstKxupdateRefusals::TooLittleSpaceIsRefusedBeforeDownloading()
{
    UpdateSite site;
    site.Publish(v2);
    site.Install(v1);
    // Two files whose sizes add up to more than 64 bits hold.
    const QString path = site.Path(QStringLiteral("server")) + site.ManifestPath(v2);
    QByteArray manifest = kxtest::Read(path);
    manifest.replace("<file name=\"bin/hello\"",
                     "<file name=\"huge1\" size=\"18446744073709551000\"/>"
                     "<file name=\"huge2\" size=\"18446744073709551000\"/>"
                     "<file name=\"bin/hello\"");
    QVERIFY(manifest.contains("huge1"));
    kxtest::Write(path, manifest);

    KxupdateProcess process;
    QVERIFY2(process.Run(site.Command(QStringLiteral("update"))), process.Report());
    QVERIFY2(process.Status() == 3, process.Report());
    QVERIFY2(process.Errors().contains(QStringLiteral("Not enough space on")), process.Report());
    QVERIFY(!kxtest::Exists(site.Next()));
    QCOMPARE(site.Installed(), site.Published(v1));
}

void TstKxupdateRefusals::EarlierVersionIsRefusedBeforeDownloading_data()
{
    QTest::addColumn<QString>("command");
    QTest::newRow("update") << "update";
    QTest::newRow("download") << "download";
}

void TstKxupdateRefusals::EarlierVersionIsRefusedBeforeDownloading()
{
    QFETCH(QString, command);
    UpdateSite site;
    site.Publish(v1);
    site.Install(v2);
    KxupdateProcess process;
    QVERIFY2(process.Run(site.Command(command, v2)), process.Report());
    QVERIFY2(process.Status() == 3, process.Report());
    QCOMPARE(process.Output(), QStringLiteral("installed: 2.0\nserver: 1.0\nverdict: available\n"
                                              "result: refused\n"));
    QVERIFY2(process.Errors().contains(QStringLiteral("Error 620107: ")) &&
                 process.Errors().contains(QStringLiteral("--allow-downgrade")),
             process.Report());
    QCOMPARE(site.Server().RequestCount(site.FilePath(v1, QStringLiteral("bin/hello"))), 0);
    QVERIFY(!kxtest::Exists(site.Next()));
    QCOMPARE(site.Installed(), site.Published(v2));

    KxupdateProcess allowed;
    QVERIFY2(allowed.Run(site.Command(command, v2, {QStringLiteral("--allow-downgrade")})),
             allowed.Report());
    QVERIFY2(allowed.Status() == 0, allowed.Report());
    QCOMPARE(kxtest::Snapshot(site.Next()), site.Published(v1));
    QCOMPARE(site.Installed(), site.Published(command == QLatin1String("update") ? v1 : v2));
}

void TstKxupdateRefusals::EarlierVersionIsNotInstalled()
{
    UpdateSite site;
    site.Publish(v1);
    KxupdateProcess download;
    QVERIFY2(download.Run(site.Command(QStringLiteral("download"), QStringLiteral("0"))),
             download.Report());
    site.Install(v2);
    KxupdateProcess process;
    QVERIFY2(process.Run(site.Command(QStringLiteral("install"), v2)), process.Report());
    QVERIFY2(process.Status() == 3, process.Report());
    QVERIFY2(process.Errors().contains(QStringLiteral("Error 620107: ")), process.Report());
    QCOMPARE(site.Installed(), site.Published(v2));
    KxupdateProcess allowed;
    QVERIFY2(allowed.Run(site.Command(QStringLiteral("install"), v2,
                                      {QStringLiteral("--allow-downgrade")})),
             allowed.Report());
    QVERIFY2(allowed.Status() == 0, allowed.Report());
    QCOMPARE(site.Installed(), site.Published(v1));
}

void TstKxupdateRefusals::SecondProcessOnTheSameApplicationIsRefused()
{
    UpdateSite site;
    site.Publish(v2);
    site.Install(v1);
    site.Server().Enqueue(site.FilePath(v2, QStringLiteral("lib/filter.bin")),
                          kxtest::Reply::StallAfter(1000));
    QSignalSpy stalled(&site.Server(), SIGNAL(stalled(QString)));
    KxupdateProcess first;
    first.Start(site.Command(QStringLiteral("update")));
    QTRY_VERIFY_WITH_TIMEOUT(stalled.count() == 1, 60000);

    // One with a download directory of its own, one with the same one.
    KxupdateProcess second;
    QVERIFY2(
        second.Run(Replace(site.Command(QStringLiteral("update")), QStringLiteral("--download"),
                           site.Path(QStringLiteral("elsewhere")))),
        second.Report());
    QVERIFY2(second.Status() == 3, second.Report());
    QVERIFY2(second.Errors().contains(QStringLiteral("Another kxupdate")), second.Report());
    KxupdateProcess third;
    QVERIFY2(third.Run(Replace(site.Command(QStringLiteral("download")), QStringLiteral("--app"),
                               site.Path(QStringLiteral("another")))),
             third.Report());
    QVERIFY2(third.Status() == 3, third.Report());
    QVERIFY2(third.Errors().contains(QStringLiteral("Another kxupdate")), third.Report());

    site.Server().ReleaseStalled();
    QVERIFY2(first.Wait(), first.Report());
    QVERIFY2(first.Status() == 0, first.Report());
    QCOMPARE(site.Installed(), site.Published(v2));
}

void TstKxupdateRefusals::ForeignLockFileIsRefused_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<bool>("pipe");
    QTest::newRow("pipe for the application") << ".app.kxlock" << true;
    QTest::newRow("pipe for the download") << "next.kxupdate.lock" << true;
    QTest::newRow("link for the application") << ".app.kxlock" << false;
    QTest::newRow("link for the download") << "next.kxupdate.lock" << false;
}

void TstKxupdateRefusals::ForeignLockFileIsRefused()
{
    QFETCH(QString, name);
    QFETCH(bool, pipe);
    UpdateSite site;
    site.Publish(v2);
    site.Install(v1);
    if (pipe)
        MakePipe(site.Path(name));
    else
        kxtest::TreeBuilder(site.Path(QStringLiteral("."))).Symlink(name, "nowhere");

    KxupdateProcess process;
    QVERIFY2(process.Run(site.Command(QStringLiteral("update"))), process.Report());
    QVERIFY2(process.Status() == 3, process.Report());
    QVERIFY2(process.Errors().contains(name) && process.Errors().contains("remove it"),
             process.Report());
    QCOMPARE(site.Server().RequestCount(), 0);
    KxupdateProcess status;
    QVERIFY2(status.Run(site.Command(QStringLiteral("status"))), status.Report());
    QVERIFY2(status.Status() == 0, status.Report());
    QCOMPARE(status.Data(name.startsWith(u'.') ? "application-lock" : "download-lock"),
             QStringLiteral("unusable"));
}

void TstKxupdateRefusals::LockFileWithoutAnOwnerStandsInNobodysWay_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QByteArray>("content");
    QTest::newRow("empty, of the application") << ".app.kxlock" << QByteArray();
    QTest::newRow("empty, of the download") << "next.kxupdate.lock" << QByteArray();
    QTest::newRow("zeros, of the application") << ".app.kxlock" << QByteArray(60, '\0');
}

void TstKxupdateRefusals::LockFileWithoutAnOwnerStandsInNobodysWay()
{
    QFETCH(QString, name);
    QFETCH(QByteArray, content);
    UpdateSite site;
    site.Publish(v2);
    site.Install(v1);
    // What a power cut leaves of a lock that was being written.
    kxtest::Write(site.Path(name), content);
    QFile file(site.Path(name));
    QVERIFY(file.open(QIODevice::ReadWrite));
    QVERIFY(file.setFileTime(QDateTime::currentDateTime().addSecs(-60),
                             QFileDevice::FileModificationTime));
    file.close();

    KxupdateProcess process;
    QVERIFY2(process.Run(site.Command(QStringLiteral("update"))), process.Report());
    QVERIFY2(process.Status() == 0, process.Report());
    QCOMPARE(site.Installed(), site.Published(v2));
}

void TstKxupdateRefusals::MarkerThatIsNoFileIsRefused()
{
    UpdateSite site;
    site.Publish(v2);
    site.Install(v1);
    kxtest::TreeBuilder(site.Next());
    MakePipe(site.Marker());
    KxupdateProcess process;
    QVERIFY2(process.Run(site.Command(QStringLiteral("download"))), process.Report());
    QVERIFY2(process.Status() == 1, process.Report());
    QVERIFY2(process.Errors().contains(QStringLiteral("not a regular file")), process.Report());
}

void TstKxupdateRefusals::DescriptionThatIsAPipeIsRefused_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<int>("exitStatus");
    QTest::newRow("install") << "install" << 3;
    QTest::newRow("verify") << "verify" << 3;
    QTest::newRow("status") << "status" << 0;
}

void TstKxupdateRefusals::DescriptionThatIsAPipeIsRefused()
{
    QFETCH(QString, command);
    QFETCH(int, exitStatus);
    UpdateSite site;
    site.Publish(v2);
    site.Install(v1);
    KxupdateProcess first;
    QVERIFY2(first.Run(site.Command(QStringLiteral("download"))), first.Report());
    QVERIFY2(first.Status() == 0, first.Report());
    kxtest::Remove(site.Xml());
    MakePipe(site.Xml());

    KxupdateProcess process;
    QVERIFY2(process.Run(command == QLatin1String("verify")
                             ? site.Verify(QStringLiteral("--download"), site.Next())
                             : site.Command(command)),
             process.Report());
    QVERIFY2(process.Status() == exitStatus, process.Report());
}

void TstKxupdateRefusals::ClearingKeepsOnlyWhatThePackageLists()
{
    UpdateSite site;
    site.Publish(v2);
    site.Install(v1);
    KxupdateProcess first;
    QVERIFY2(first.Run(site.Command(QStringLiteral("download"))), first.Report());
    QVERIFY2(first.Status() == 0, first.Report());

    const auto partial = [&site](const QString& name) {
        return common::http::PartialFilePath(site.Next() + u'/' + name).mid(site.Next().size() + 1);
    };
    // Half of a listed file, which is gone on with, and everything that does not belong there.
    const QByteArray whole = kxtest::Read(site.Tree(v2) + QStringLiteral("/lib/filter.bin"));
    kxtest::TreeBuilder(site.Next())
        .Remove(QStringLiteral("lib/filter.bin"))
        .File(partial(QStringLiteral("lib/filter.bin")), whole.left(50000))
        .File(partial(QStringLiteral("lib/unlisted.bin")), "half")
        .File(QStringLiteral("stale.txt"), "a")
        .File(QStringLiteral(".hidden"), "a")
        .File(QStringLiteral("old/deep/tree/file"), "a")
        .Dir(QStringLiteral("empty/directory"))
        .Symlink(QStringLiteral("stale-link"), QStringLiteral("bin/hello"))
        .Symlink(QStringLiteral("dangling"), QStringLiteral("nowhere"))
        .Remove(QStringLiteral("bin/hello"))
        .Symlink(QStringLiteral("bin/hello"), QStringLiteral("../share/new.txt"))
        .Remove(QStringLiteral("share/new.txt"))
        .File(QStringLiteral("share/new.txt/file"), "a directory where a file belongs");
    site.Server().ClearRequests();

    KxupdateProcess process;
    QVERIFY2(process.Run(site.Command(QStringLiteral("download"))), process.Report());
    QVERIFY2(process.Status() == 0, process.Report());
    QVERIFY2(process.Errors().contains(QStringLiteral("stale entries")), process.Report());
    QCOMPARE(kxtest::Snapshot(site.Next()), site.Published(v2));
    const auto requests = site.Server().Requests(site.FilePath(v2, "lib/filter.bin"));
    QCOMPARE(requests.size(), 1);
    QCOMPARE(requests.first().Header("Range"), QByteArray("bytes=50000-"));
}

void TstKxupdateRefusals::ClearingNeverFollowsLinks()
{
    UpdateSite site;
    site.Publish(v2);
    site.Install(v1);
    KxupdateProcess first;
    QVERIFY2(first.Run(site.Command(QStringLiteral("download"))), first.Report());
    kxtest::TreeBuilder precious(site.Path(QStringLiteral("precious")));
    precious.File(QStringLiteral("a"), "a").File(QStringLiteral("deep/b"), "b");
    kxtest::TreeBuilder(site.Next())
        .Symlink(QStringLiteral("out"), QStringLiteral("../precious"))
        .Remove(QStringLiteral("share"))
        .Symlink(QStringLiteral("share"), QStringLiteral("../precious"))
        .Symlink(QStringLiteral("old/link"), QStringLiteral("../../precious/deep"));
    const QStringList before = kxtest::Snapshot(precious.Root());

    KxupdateProcess process;
    QVERIFY2(process.Run(site.Command(QStringLiteral("download"))), process.Report());
    QVERIFY2(process.Status() == 0, process.Report());
    QCOMPARE(kxtest::Snapshot(precious.Root()), before);
    QCOMPARE(kxtest::Snapshot(site.Next()), site.Published(v2));
}

void TstKxupdateRefusals::EmptyDirectoryIsTakenOver()
{
    UpdateSite site;
    site.Publish(v2);
    site.Install(v1);
    kxtest::TreeBuilder(site.Next());
    KxupdateProcess first;
    QVERIFY2(first.Run(site.Command(QStringLiteral("download"))), first.Report());
    QVERIFY2(first.Status() == 0, first.Report());
    QVERIFY(kxtest::Exists(site.Marker()));
    KxupdateProcess second;
    QVERIFY2(second.Run(site.Command(QStringLiteral("download"))), second.Report());
    QVERIFY2(second.Status() == 0, second.Report());
}

void TstKxupdateRefusals::MarkerDoesNotVouchForAnotherDirectory()
{
    UpdateSite site;
    site.Publish(v2);
    site.Install(v1);
    KxupdateProcess first;
    QVERIFY2(first.Run(site.Command(QStringLiteral("download"))), first.Report());
    QVERIFY2(first.Status() == 0, first.Report());

    // The user takes the directory away and later uses the name for something else.
    kxtest::Remove(site.Next());
    kxtest::TreeBuilder(site.Next()).File(QStringLiteral("precious"), "mine");
    KxupdateProcess process;
    QVERIFY2(process.Run(site.Command(QStringLiteral("download"))), process.Report());
    QVERIFY2(process.Status() == 3, process.Report());
    QCOMPARE(kxtest::Read(site.Next() + QStringLiteral("/precious")), QByteArray("mine"));

    // Once the directory is gone, the marker stands in nobody's way.
    kxtest::Remove(site.Next());
    KxupdateProcess again;
    QVERIFY2(again.Run(site.Command(QStringLiteral("download"))), again.Report());
    QVERIFY2(again.Status() == 0, again.Report());
}

void TstKxupdateRefusals::MissingParentsOfTheDownloadDirectoryAreMade()
{
    UpdateSite site;
    site.Publish(v2);
    site.Install(v1);
    KxupdateProcess process;
    QVERIFY2(
        process.Run(Replace(site.Command(QStringLiteral("update")), QStringLiteral("--download"),
                            site.Path(QStringLiteral("cache/hello/next")))),
        process.Report());
    QVERIFY2(process.Status() == 0, process.Report());
    QCOMPARE(site.Installed(), site.Published(v2));
}

void TstKxupdateRefusals::BackupOfACutOffSwapIsRenamedBack_data()
{
    QTest::addColumn<QString>("command");
    QTest::newRow("update") << "update";
    QTest::newRow("install") << "install";
}

void TstKxupdateRefusals::BackupOfACutOffSwapIsRenamedBack()
{
    QFETCH(QString, command);
    UpdateSite site;
    site.Publish(v2);
    site.Install(v1);
    KxupdateProcess download;
    QVERIFY2(download.Run(site.Command(QStringLiteral("download"))), download.Report());
    QVERIFY(QDir().rename(site.App(), site.Backup()));
    site.Server().ClearRequests();

    KxupdateProcess process;
    QVERIFY2(process.Run(site.Command(command)), process.Report());
    QVERIFY2(process.Status() == 0, process.Report());
    QVERIFY2(process.Errors().contains(QStringLiteral("was renamed back")), process.Report());
    QCOMPARE(site.Installed(), site.Published(v2));
    QVERIFY(!kxtest::Exists(site.Backup()));
    // Nothing was fetched that the renamed version or the download directory holds.
    QCOMPARE(site.Server().RequestCount(site.FilePath(v2, QStringLiteral("lib/engine.bin"))), 0);
}

void TstKxupdateRefusals::CheckAndDownloadLeaveTheBackupAlone_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<int>("status");
    QTest::newRow("check") << "check" << 10;
    QTest::newRow("download") << "download" << 0;
}

void TstKxupdateRefusals::CheckAndDownloadLeaveTheBackupAlone()
{
    QFETCH(QString, command);
    QFETCH(int, status);
    UpdateSite site;
    site.Publish(v2);
    UpdateSite::CopyTree(site.Tree(v1), site.Backup());
    KxupdateProcess process;
    QVERIFY2(process.Run(site.Command(command)), process.Report());
    QVERIFY2(process.Status() == status, process.Report());
    QCOMPARE(kxtest::Snapshot(site.Backup()), site.Published(v1));
    QVERIFY(!kxtest::Exists(site.App()));
}

QTEST_GUILESS_MAIN(TstKxupdateRefusals)
#include "tst_kxupdate_refusals.moc"
