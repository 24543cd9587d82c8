#include "kxupdateprocess.h"
#include "treebuilder.h"
#include "updatesite.h"

#include <QRegularExpression>
#include <QSignalSpy>
#include <QTest>

namespace {

const QString v1 = QStringLiteral("1.0");
const QString v2 = QStringLiteral("2.0");

} // namespace

/** The commands of kxupdate, run as a user runs them, and what they print. */
class TstKxupdate : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void UsageErrorsNameWhatIsWrong_data();
    void UsageErrorsNameWhatIsWrong();
    void HelpPrintsEveryExitStatus();
    void CheckTellsTheVerdict_data();
    void CheckTellsTheVerdict();
    void UpdateInstallsIntoMissingDirectory();
    void UpdateReplacesTheInstalledVersion();
    void UpdateFindsNothingToDo();
    void UpdateRepairsDamage_data();
    void UpdateRepairsDamage();
    void DownloadLeavesTheApplicationAloneAndInstallSwapsIt();
    void VerifyJudgesADirectory_data();
    void VerifyJudgesADirectory();
    void RelativePathsAreTakenFromTheWorkingDirectory();
    void UnlistedFilesAreNamedBeforeTheSwap();
    void QuietPrintsOnlyData();
    void LogLevelForwardsTheLibrarysMessages();
    void PlainOutputHoldsNoControlCharacters();
    void TerminalShowsABarAndErasesIt();
    void ClosedStreamsAreNotReplacedByFiles();
    void ControlCharactersFromOutsideNeverReachTheOutput();
};

void TstKxupdate::UsageErrorsNameWhatIsWrong_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("message");

    const QStringList all = {"update", "--url", "http://127.0.0.1:1", "--package", "hello",
                             "--app",  "a",     "--download",         "d",         "--current",
                             "1"};
    const auto without = [&all](const QString& option) {
        QStringList rest = all;
        const qsizetype position = rest.indexOf(option);
        rest.remove(position, 2);
        return rest;
    };
    const auto with = [&all](const QString& option, const QString& value) {
        return all + QStringList{option, value};
    };
    QTest::newRow("no command") << QStringList() << "no command is given";
    QTest::newRow("unknown command") << QStringList{"upgrade"} << "unknown command 'upgrade'";
    QTest::newRow("two commands") << QStringList{"check", "update"} << "'update'";
    QTest::newRow("unknown option") << all + QStringList{"--force"} << "force";
    QTest::newRow("option without value") << QStringList{"check", "--url"} << "url";
    QTest::newRow("empty value") << with("--package", "") << "--package is empty";
    for (const QString& option :
         QStringList{"--url", "--package", "--current", "--app", "--download"})
        QTest::addRow("without %s", qPrintable(option)) << without(option) << "needs " + option;
    QTest::newRow("ftp address") << with("--url", "ftp://127.0.0.1/") << "http://";
    QTest::newRow("address without scheme") << with("--url", "127.0.0.1/x") << "--url";
    QTest::newRow("address of host and port alone")
        << with("--url", "127.0.0.1:8080") << "does not begin with http://";
    QTest::newRow("address without host") << with("--url", "http:///x") << "--url";
    QTest::newRow("address with query") << with("--url", "http://127.0.0.1/?a=b") << "'?'";
    QTest::newRow("log level too high") << with("--log-level", "8") << "0 to 7";
    QTest::newRow("log level no number") << with("--log-level", "all") << "0 to 7";
    QTest::newRow("log file without name") << with("--log-file", "") << "--log-file is empty";
    QTest::newRow("verify without directory") << QStringList{"verify"} << "one of --download";
    QTest::newRow("verify with two directories")
        << QStringList{"verify", "--app", "a", "--download", "d"} << "one of --download";
    QTest::newRow("verify of an application without description")
        << QStringList{"verify", "--app", "a"} << "needs --xml";
    QTest::newRow("install without download directory")
        << QStringList{"install", "--app", "a"} << "needs --download";
}

void TstKxupdate::UsageErrorsNameWhatIsWrong()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, message);
    KxupdateProcess process;
    QVERIFY2(process.Run(arguments), process.Report());
    QCOMPARE(process.Status(), 2);
    QCOMPARE(process.Output(), QString());
    QCOMPARE(process.Errors().count(u'\n'), 1);
    QVERIFY2(process.Errors().contains(message), process.Report());
}

void TstKxupdate::HelpPrintsEveryExitStatus()
{
    KxupdateProcess process;
    QVERIFY2(process.Run({QStringLiteral("--help")}), process.Report());
    QCOMPARE(process.Status(), 0);
    QCOMPARE(process.Errors(), QString());
    for (const int status : {0, 1, 2, 3, 4, 5, 6, 7, 8, 10, 11}) {
        const QRegularExpression row(QStringLiteral("\n +%1  [a-z-]+ +[a-z]").arg(status));
        QVERIFY2(row.match(process.Output()).hasMatch(), process.Report());
    }
}

void TstKxupdate::CheckTellsTheVerdict_data()
{
    QTest::addColumn<QString>("installed");
    QTest::addColumn<QString>("current");
    QTest::addColumn<QString>("published");
    QTest::addColumn<QString>("damaged"); // a file to delete
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("verdict");

    QTest::newRow("up to date") << v2 << v2 << v2 << "" << 0 << "up-to-date";
    QTest::newRow("up to date, wrong --current") << v2 << v1 << v2 << "" << 0 << "up-to-date";
    QTest::newRow("later version") << v1 << v1 << v2 << "" << 10 << "available";
    QTest::newRow("earlier version") << v2 << v2 << v1 << "" << 10 << "available";
    QTest::newRow("nothing installed") << ""
                                       << "0" << v2 << "" << 10 << "available";
    QTest::newRow("damaged") << v2 << v2 << v2 << "lib/engine.bin" << 11 << "repair";
}

void TstKxupdate::CheckTellsTheVerdict()
{
    QFETCH(QString, installed);
    QFETCH(QString, current);
    QFETCH(QString, published);
    QFETCH(QString, damaged);
    QFETCH(int, status);
    QFETCH(QString, verdict);

    UpdateSite site;
    site.Publish(published);
    if (!installed.isEmpty())
        site.Install(installed);
    if (!damaged.isEmpty())
        kxtest::Remove(site.App() + u'/' + damaged);
    const QStringList before = kxtest::Snapshot(site.Path(QStringLiteral(".")));

    KxupdateProcess process;
    QVERIFY2(process.Run(site.Command(QStringLiteral("check"), current)), process.Report());
    QVERIFY2(process.Status() == status, process.Report());
    QCOMPARE(process.Output(),
             QStringLiteral("installed: %1\nserver: %2\nverdict: %3\n%4result: %3\n")
                 .arg(current, published, verdict,
                      damaged.isEmpty() ? QString()
                                        : QStringLiteral("difference: missing %1\n").arg(damaged)));
    QCOMPARE(kxtest::Snapshot(site.Path(QStringLiteral("."))), before);
}

void TstKxupdate::UpdateInstallsIntoMissingDirectory()
{
    UpdateSite site;
    site.Publish(v1);
    KxupdateProcess process;
    QVERIFY2(process.Run(site.Command(QStringLiteral("update"), QStringLiteral("0"))),
             process.Report());
    QVERIFY2(process.Status() == 0, process.Report());
    QCOMPARE(process.Data(QStringLiteral("result")), QStringLiteral("installed"));
    QCOMPARE(site.Installed(), site.Published(v1));
}

void TstKxupdate::UpdateReplacesTheInstalledVersion()
{
    UpdateSite site;
    site.Publish(v2);
    site.Install(v1);
    KxupdateProcess process;
    QVERIFY2(process.Run(site.Command(QStringLiteral("update"))), process.Report());
    QVERIFY2(process.Status() == 0, process.Report());
    QCOMPARE(process.Output(), QStringLiteral("installed: 1.0\nserver: 2.0\nverdict: available\n"
                                              "result: updated\n"));
    for (const char* text :
         {"CHECKING", "QUERYING", "SCANNING", "AVAILABLE", "PREPARING", "2 will be copied",
          "3 will be downloaded", "COPYING", "DOWNLOADING", "100%", "CREATINGSYMLINKS",
          "VERIFICATION", "INSTALLING", "APPCALLBACK", "BACKUPREMOVING", "BACKUPING", "MOVING",
          "BACKUPCLEARING", "SUCCESS"})
        QVERIFY2(process.Errors().contains(QLatin1String(text)), process.Report());
    QCOMPARE(site.Installed(), site.Published(v2));
    QVERIFY(!kxtest::Exists(site.Backup()));
    // What was unchanged was not fetched.
    QCOMPARE(site.Server().RequestCount(site.FilePath(v2, QStringLiteral("lib/engine.bin"))), 0);
    QCOMPARE(site.Server().RequestCount(site.FilePath(v2, QStringLiteral("lib/filter.bin"))), 1);
    // Only what belongs there stays beside the application.
    QCOMPARE(QDir(site.Path(QStringLiteral(".")))
                 .entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot, QDir::Name),
             QStringList({"app", "next", "next.kxupdate", "next.kxupdate.state", "next.xml",
                          "server", "v1.0", "v2.0"}));
}

void TstKxupdate::UpdateFindsNothingToDo()
{
    UpdateSite site;
    site.Publish(v2);
    site.Install(v2);
    KxupdateProcess process;
    QVERIFY2(process.Run(site.Command(QStringLiteral("update"), v2)), process.Report());
    QVERIFY2(process.Status() == 0, process.Report());
    QCOMPARE(process.Data(QStringLiteral("result")), QStringLiteral("up-to-date"));
    QVERIFY2(process.Errors().contains(QStringLiteral("Up to date")), process.Report());
    QVERIFY(!kxtest::Exists(site.Next()));
}

void TstKxupdate::UpdateRepairsDamage_data()
{
    QTest::addColumn<QString>("damage");
    QTest::newRow("file deleted") << "delete";
    QTest::newRow("byte flipped") << "flip";
    QTest::newRow("stray file") << "stray";
    QTest::newRow("link points elsewhere") << "link";
    QTest::newRow("link became a file") << "file";
}

void TstKxupdate::UpdateRepairsDamage()
{
    QFETCH(QString, damage);
    UpdateSite site;
    site.Publish(v2);
    site.Install(v2);
    kxtest::TreeBuilder app(site.App());
    if (damage == QLatin1String("delete"))
        app.Remove(QStringLiteral("lib/engine.bin"));
    else if (damage == QLatin1String("flip"))
        app.RandomFile(QStringLiteral("lib/engine.bin"), 200000, 99);
    else if (damage == QLatin1String("stray"))
        app.File(QStringLiteral("lib/stray.txt"), "not ours");
    else if (damage == QLatin1String("link"))
        app.Remove(QStringLiteral("lib/current"))
            .Symlink(QStringLiteral("lib/current"), QStringLiteral("../nowhere"));
    else
        app.Remove(QStringLiteral("lib/current")).File(QStringLiteral("lib/current"), "text");
    QVERIFY(site.Installed() != site.Published(v2));

    KxupdateProcess process;
    QVERIFY2(process.Run(site.Command(QStringLiteral("update"), v2)), process.Report());
    QVERIFY2(process.Status() == 0, process.Report());
    QCOMPARE(process.Data(QStringLiteral("verdict")), QStringLiteral("repair"));
    QCOMPARE(process.Data(QStringLiteral("result")), QStringLiteral("repaired"));
    QCOMPARE(site.Installed(), site.Published(v2));
}

void TstKxupdate::DownloadLeavesTheApplicationAloneAndInstallSwapsIt()
{
    UpdateSite site;
    site.Publish(v2);
    site.Install(v1);
    KxupdateProcess download;
    QVERIFY2(download.Run(site.Command(QStringLiteral("download"))), download.Report());
    QVERIFY2(download.Status() == 0, download.Report());
    QCOMPARE(download.Data(QStringLiteral("result")), QStringLiteral("downloaded"));
    QCOMPARE(site.Installed(), site.Published(v1));
    QCOMPARE(kxtest::Snapshot(site.Next()), site.Published(v2));

    site.Server().Stop(); // an install needs none
    KxupdateProcess install;
    QVERIFY2(install.Run({QStringLiteral("install"), QStringLiteral("--app"), site.App(),
                          QStringLiteral("--download"), site.Next()}),
             install.Report());
    QVERIFY2(install.Status() == 0, install.Report());
    QCOMPARE(install.Output(), QStringLiteral("result: installed\n"));
    QCOMPARE(site.Installed(), site.Published(v2));
}

void TstKxupdate::VerifyJudgesADirectory_data()
{
    QTest::addColumn<QString>("option");
    QTest::addColumn<QString>("change");
    QTest::addColumn<QString>("difference");

    const auto row = [](const char* name, const char* option, const char* change,
                        const char* difference) {
        QTest::addRow("%s, %s", option, name) << option << change << difference;
    };
    for (const char* option : {"--app", "--download"}) {
        row("right", option, "", "");
        row("file gone", option, "remove lib/engine.bin", "missing lib/engine.bin");
        row("file changed", option, "write lib/engine.bin", "changed lib/engine.bin");
        row("stray file", option, "write lib/stray", "unexpected lib/stray");
        row("everything gone", option, "remove .", "missing share/new.txt");
    }
    // Users keep hidden files beside a program; in a download they would be installed.
    row("hidden file", "--app", "write lib/.hidden", "");
    row("hidden file", "--download", "write lib/.hidden", "unexpected lib/.hidden");
}

void TstKxupdate::VerifyJudgesADirectory()
{
    QFETCH(QString, option);
    QFETCH(QString, change);
    QFETCH(QString, difference);
    UpdateSite site;
    site.Publish(v2);
    KxupdateProcess update;
    QVERIFY2(update.Run(site.Command(QStringLiteral("update"), QStringLiteral("0"))),
             update.Report());

    const QString tree = option == QLatin1String("--app") ? site.App() : site.Next();
    const QString name = change.section(u' ', 1);
    if (change.startsWith(QLatin1String("remove")))
        kxtest::Remove(name == QLatin1String(".") ? tree : tree + u'/' + name);
    else if (!change.isEmpty())
        kxtest::TreeBuilder(tree).File(name, "other");

    KxupdateProcess process;
    QVERIFY2(process.Run(site.Verify(option, tree)), process.Report());
    QVERIFY2(process.Status() == (difference.isEmpty() ? 0 : 5), process.Report());
    QCOMPARE(process.Data(QStringLiteral("result")),
             difference.isEmpty() ? QStringLiteral("verified") : QStringLiteral("mismatch"));
    QCOMPARE(process.Data(QStringLiteral("difference")), difference);
}

void TstKxupdate::RelativePathsAreTakenFromTheWorkingDirectory()
{
    UpdateSite site;
    site.Publish(v2);
    site.Install(v1);
    QStringList arguments = site.Command(QStringLiteral("update"));
    arguments.replaceInStrings(site.App(), QStringLiteral("./x/../app/"));
    arguments.replaceInStrings(site.Next(), QStringLiteral("next"));
    KxupdateProcess process;
    process.SetWorkingDirectory(site.Path(QStringLiteral(".")));
    QVERIFY2(process.Run(arguments), process.Report());
    QVERIFY2(process.Status() == 0, process.Report());
    QCOMPARE(site.Installed(), site.Published(v2));
}

void TstKxupdate::UnlistedFilesAreNamedBeforeTheSwap()
{
    UpdateSite site;
    site.Publish(v2);
    site.Install(v1);
    kxtest::TreeBuilder(site.App()).File(QStringLiteral(".profile/mine.ini"), "a");
    KxupdateProcess process;
    QVERIFY2(process.Run(site.Command(QStringLiteral("update"))), process.Report());
    QVERIFY2(process.Status() == 0, process.Report());
    QVERIFY2(process.Errors().contains(
                 QStringLiteral("dropped with the old one:\n    .profile/mine.ini\n"
                                "    share/legacy.txt\n")),
             process.Report());
}

void TstKxupdate::QuietPrintsOnlyData()
{
    UpdateSite site;
    site.Publish(v2);
    site.Install(v1);
    KxupdateProcess process;
    QVERIFY2(process.Run(site.Command(QStringLiteral("update"), v1, {QStringLiteral("--quiet")})),
             process.Report());
    QVERIFY2(process.Status() == 0, process.Report());
    QCOMPARE(process.Errors(), QString());
    QCOMPARE(process.Data(QStringLiteral("result")), QStringLiteral("updated"));
}

void TstKxupdate::LogLevelForwardsTheLibrarysMessages()
{
    UpdateSite site;
    site.Publish(v2);
    site.Install(v2);
    KxupdateProcess info;
    QVERIFY2(info.Run(site.Command(QStringLiteral("check"), v2,
                                   {QStringLiteral("--log-level"), QStringLiteral("6")})),
             info.Report());
    QVERIFY2(info.Errors().contains(
                 QStringLiteral("log 6 updater.core: SCANNING: No changes found in packages.")),
             info.Report());
    QVERIFY2(!info.Errors().contains(QStringLiteral("log 7")), info.Report());
    KxupdateProcess debug;
    QVERIFY2(
        debug.Run(site.Command(QStringLiteral("check"), v2, {QStringLiteral("--log-level=7")})),
        debug.Report());
    QVERIFY2(debug.Errors().contains(QStringLiteral("log 7 updater.core: WAITING: <<<--- CHECK")),
             debug.Report());
}

void TstKxupdate::PlainOutputHoldsNoControlCharacters()
{
    UpdateSite site;
    site.Publish(v2);
    site.Install(v1);
    KxupdateProcess process;
    QVERIFY2(process.Run(site.Command(QStringLiteral("update"))), process.Report());
    QVERIFY2(process.Status() == 0, process.Report());
    for (const QChar c : process.Output() + process.Errors())
        QVERIFY2(c == u'\n' || c.category() != QChar::Other_Control, process.Report());
    // The end of the download and that of the swap: it took no time.
    QVERIFY2(process.Errors().count(u'%') <= 2 * 2, process.Report());
    QVERIFY2(process.Errors().contains(QStringLiteral("100%  downloading, 3 of 3 files")),
             process.Report());
    QVERIFY2(process.Errors().count(u'\n') < 60, process.Report());
}

void TstKxupdate::TerminalShowsABarAndErasesIt()
{
    UpdateSite site;
    site.Publish(v2);
    site.Install(v1);
    KxupdateProcess process;
    process.UseTerminal();
    QVERIFY2(process.Run(site.Command(QStringLiteral("update"))), process.Report());
    QVERIFY2(process.Status() == 0, process.Report());
    QVERIFY2(process.Errors().contains(
                 QStringLiteral("[####################] 100%  downloading  3/3 files")),
             process.Report());
    QVERIFY2(!process.Errors().contains(u'\x1b'), process.Report());
    // The last thing on the terminal is a message, with no bar left behind it.
    QVERIFY2(process.Errors().endsWith(QStringLiteral("now holds version 2.0.\r\n")),
             process.Report());
    QCOMPARE(process.Data(QStringLiteral("result")), QStringLiteral("updated"));
}

void TstKxupdate::ClosedStreamsAreNotReplacedByFiles()
{
    UpdateSite site;
    site.Publish(v2);
    site.Install(v1);
    site.Server().Enqueue(site.FilePath(v2, QStringLiteral("lib/filter.bin")),
                          kxtest::Reply::StallAfter(1000));
    QSignalSpy stalled(&site.Server(), SIGNAL(stalled(QString)));
    KxupdateProcess process;
    process.CloseStreams();
    process.Start(site.Command(QStringLiteral("update")));
    QTRY_VERIFY_WITH_TIMEOUT(stalled.count() == 1, 60000);
    // In the middle of the transfer, with locks held and files open.
    for (const int stream : {0, 1, 2})
        QCOMPARE(process.OpenFile(stream), QStringLiteral("/dev/null"));
    site.Server().ReleaseStalled();
    QVERIFY2(process.Wait(), process.Report());
    QCOMPARE(process.Status(), 0);
    QCOMPARE(site.Installed(), site.Published(v2));
}

void TstKxupdate::ControlCharactersFromOutsideNeverReachTheOutput()
{
    UpdateSite site;
    const QString evil = QStringLiteral("a\u009b31mred\u202eb");
    kxtest::Write(site.Xml(), QStringLiteral("<packages><package name=\"hello\">"
                                             "<build DownloadURL=\"http://127.0.0.1/\">"
                                             "<file name=\"%1\" size=\"1\"/>"
                                             "</build></package></packages>")
                                  .arg(evil)
                                  .toUtf8());
    KxupdateProcess process;
    QVERIFY2(process.Run(site.Verify(QStringLiteral("--app"), site.App())), process.Report());
    QCOMPARE(process.Status(), 5);
    QCOMPARE(process.Data(QStringLiteral("difference")), QStringLiteral("missing a?31mred?b"));
    QVERIFY2(process.Errors().contains(QStringLiteral("'kxupdate repair' mends it.")),
             process.Report());
}

QTEST_GUILESS_MAIN(TstKxupdate)
#include "tst_kxupdate.moc"
