#include "common/textwidth.h"
#include "kxupdateprocess.h"
#include "throttledsite.h"
#include "treebuilder.h"
#include "updatesite.h"

#include <QFileInfo>
#include <QRegularExpression>
#include <QTest>

#include <sys/stat.h>

namespace {

const QString v1 = QStringLiteral("1.0");
const QString v2 = QStringLiteral("2.0");

/** What was drawn with a percentage, one after the other. */
QStringList ProgressLines(const QString& errors)
{
    QStringList lines;
    for (const QString& part : errors.split(QRegularExpression(QStringLiteral("[\r\n]")))) {
        if (part.contains(u'%'))
            lines.append(part);
    }
    return lines;
}

} // namespace

/** What people see: progress on terminals and in logs, and log files. */
class TstKxupdateOutput : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void TerminalLineNeverWraps_data();
    void TerminalLineNeverWraps();
    void ResizedTerminalIsFollowed();
    void BuildServerGetsLines();

    void LogFileIsAppendedTo();
    void LogFileTakesWhatWasPrinted();
    void LogFileIsRefusedWhenItCannotBeWritten_data();
    void LogFileIsRefusedWhenItCannotBeWritten();
};

void TstKxupdateOutput::TerminalLineNeverWraps_data()
{
    QTest::addColumn<int>("width");
    QTest::addColumn<QStringList>("shown");
    QTest::newRow("wide") << 120 << QStringList{"[#",    "%  downloading", " files  ", " MiB ",
                                                "KiB/s", " left",          ".bin"};
    QTest::newRow("narrow") << 60 << QStringList{"%  downloading", " MiB ", "KiB/s", " left"};
    QTest::newRow("very narrow") << 30 << QStringList{"%  downloading"};
}

void TstKxupdateOutput::TerminalLineNeverWraps()
{
    QFETCH(int, width);
    QFETCH(QStringList, shown);
    ThrottledSite throttled;
    QCOMPARE(throttled.Start(), QString());
    KxupdateProcess process;
    process.UseTerminal(width);
    QVERIFY2(process.Run(throttled.Update()), process.Report());
    QVERIFY2(process.Status() == 0, process.Report());
    const QStringList lines = ProgressLines(process.Errors());
    QVERIFY2(lines.size() >= 10, process.Report());
    for (const QString& line : lines)
        QVERIFY2(tools::Columns(line) <= width - 1, qPrintable(line));
    const QString all = lines.join(u'\n');
    for (const QString& part : shown)
        QVERIFY2(all.contains(part), qPrintable(part + u'\n' + all));
    QVERIFY(!process.Errors().contains(u'\x1b'));
    QVERIFY2(process.Errors().endsWith(QStringLiteral("now holds version 2.0.\r\n")),
             process.Report());
}

void TstKxupdateOutput::ResizedTerminalIsFollowed()
{
    ThrottledSite throttled;
    QCOMPARE(throttled.Start(), QString());
    KxupdateProcess process;
    process.UseTerminal(100);
    process.Start(throttled.Update());
    const auto drawn = [&process] {
        process.Read();
        return ProgressLines(process.Errors()).size();
    };
    QTRY_VERIFY_WITH_TIMEOUT(drawn() >= 3, 60000);
    process.Resize(30);
    const qsizetype before = drawn();
    QTRY_VERIFY_WITH_TIMEOUT(drawn() >= before + 3, 60000);
    QVERIFY(process.IsRunning());
    QVERIFY2(process.Wait(), process.Report());
    const QStringList lines = ProgressLines(process.Errors());
    QVERIFY(tools::Columns(lines.at(2)) > 60);
    // One may have been on its way.
    for (const QString& line : lines.mid(before + 1))
        QVERIFY2(tools::Columns(line) <= 29, qPrintable(line));
}

void TstKxupdateOutput::BuildServerGetsLines()
{
    ThrottledSite throttled;
    QCOMPARE(throttled.Start(), QString());
    KxupdateProcess process;
    process.SetVariable(QStringLiteral("CI"), QStringLiteral("true"));
    process.SetVariable(QStringLiteral("NO_COLOR"), QStringLiteral("1"));
    process.UseTerminal();
    KxupdateProcess piped;
    piped.Start(throttled.Update({QStringLiteral("--app"), throttled.Site().Path("app2"),
                                  QStringLiteral("--download"), throttled.Site().Path("next2")}));
    QVERIFY2(process.Run(throttled.Update()), process.Report());
    QVERIFY2(piped.Wait(), piped.Report());
    for (const KxupdateProcess* run : {&process, &piped}) {
        QVERIFY2(run->Status() == 0, run->Report());
        const QString errors = QString(run->Errors()).remove(QStringLiteral("\r\n"));
        for (const QChar c : errors)
            QVERIFY2(c == u'\n' || c.category() != QChar::Other_Control, run->Report());
        const QStringList lines = ProgressLines(run->Errors());
        QVERIFY2(lines.size() >= 2 && lines.size() <= 11, run->Report());
        const QRegularExpression full(
            QStringLiteral("^ +\\d+%  downloading, \\d+ of \\d+ files, \\d\\.\\d of \\d\\.\\d MiB, "
                           "[\\d.]+ [KM]iB/s, \\d:\\d\\d left$"));
        QVERIFY2(!lines.filter(full).isEmpty(), run->Report());
    }
}

void TstKxupdateOutput::LogFileIsAppendedTo()
{
    UpdateSite site;
    site.Publish(v2);
    site.Install(v2);
    const QString path = site.Path(QStringLiteral("kxupdate.log"));
    const QStringList arguments =
        site.Command(QStringLiteral("check"), v2,
                     {QStringLiteral("--log-file"), path, QStringLiteral("--log-level=7")});
    KxupdateProcess first;
    const mode_t mask = ::umask(0);
    const bool ran = first.Run(arguments);
    ::umask(mask);
    QVERIFY2(ran, first.Report());
    QVERIFY2(!first.Errors().contains(QStringLiteral("updater.core")), first.Report());
    struct stat status = {};
    QCOMPARE(::stat(path.toLocal8Bit().constData(), &status), 0);
    QCOMPARE(status.st_mode & 07777u, 0640u);
    const QByteArray before = kxtest::Read(path);
    const QRegularExpression line(QStringLiteral("^\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{"
                                                 "3}Z [0-7] (updater|common)\\.[a-z]+: .+$"));
    const QStringList lines = QString::fromUtf8(before).chopped(1).split(u'\n');
    QVERIFY(lines.size() > 10);
    for (const QString& text : lines)
        QVERIFY2(line.match(text).hasMatch(), qPrintable(text));

    // Two at once neither lose nor mix lines.
    KxupdateProcess second;
    KxupdateProcess third;
    second.Start(arguments);
    third.Start(arguments);
    QVERIFY2(second.Wait() && third.Wait(), second.Report());
    const QByteArray after = kxtest::Read(path);
    QVERIFY(after.startsWith(before));
    QCOMPARE(before.count("<<<--- CHECK"), 1);
    QCOMPARE(after.count("<<<--- CHECK"), 3);
    for (const QString& text : QString::fromUtf8(after).chopped(1).split(u'\n'))
        QVERIFY2(line.match(text).hasMatch(), qPrintable(text));
}

void TstKxupdateOutput::LogFileTakesWhatWasPrinted()
{
    UpdateSite site;
    site.Publish(v2);
    site.Install(v2);
    const QString path = site.Path(QStringLiteral("kxupdate.log"));
    KxupdateProcess process;
    QVERIFY2(
        process.Run(site.Command(QStringLiteral("check"), v2,
                                 {QStringLiteral("--quiet"), QStringLiteral("--log-file"), path})),
        process.Report());
    QVERIFY2(process.Status() == 0, process.Report());
    QCOMPARE(process.Errors(), QString());
    // Without a level: outcomes, but not every state.
    const QByteArray log = kxtest::Read(path);
    QVERIFY2(log.contains(" 6 updater.core: SCANNING: No changes found in packages."), log);
    QVERIFY2(!log.contains(" 7 "), log);
}

void TstKxupdateOutput::LogFileIsRefusedWhenItCannotBeWritten_data()
{
    QTest::addColumn<QString>("name"); // in the site
    QTest::addColumn<QString>("reason");
    QTest::newRow("missing directory") << "nowhere/log"
                                       << "cannot be opened: No such file";
    QTest::newRow("a directory") << "dir"
                                 << "cannot be opened: Is a directory";
    QTest::newRow("in the application") << "app/log"
                                        << "lies inside";
    QTest::newRow("in the download directory") << "next/log"
                                               << "lies inside";
    QTest::newRow("in the backup") << "app.old/log"
                                   << "lies inside";
    QTest::newRow("the description") << "next.xml"
                                     << "of another purpose";
    QTest::newRow("the mark of the download directory") << "next.kxupdate"
                                                        << "of another purpose";
    QTest::newRow("without the right") << "locked"
                                       << "cannot be opened: Permission denied";
}

void TstKxupdateOutput::LogFileIsRefusedWhenItCannotBeWritten()
{
    QFETCH(QString, name);
    QFETCH(QString, reason);
    UpdateSite site;
    site.Publish(v2);
    site.Install(v1);
    kxtest::TreeBuilder(site.Path(QStringLiteral(".")))
        .Dir(QStringLiteral("dir"))
        .Dir(QStringLiteral("app.old"))
        .File(QStringLiteral("locked"), "", 0400);
    const QStringList before = kxtest::Snapshot(site.Path(QStringLiteral(".")));
    KxupdateProcess process;
    process.DropPowers();
    QVERIFY2(process.Run(site.Command(QStringLiteral("update"), v1,
                                      {QStringLiteral("--log-file"), site.Path(name)})),
             process.Report());
    QCOMPARE(process.Status(), 3);
    QCOMPARE(process.Output(), QStringLiteral("result: refused\n"));
    QCOMPARE(process.Errors().count(u'\n'), 1);
    QVERIFY2(process.Errors().contains(site.Path(name)), process.Report());
    QVERIFY2(process.Errors().contains(reason), process.Report());
    QCOMPARE(site.Server().RequestCount(), 0);
    QCOMPARE(kxtest::Snapshot(site.Path(QStringLiteral("."))), before);
}

QTEST_GUILESS_MAIN(TstKxupdateOutput)
#include "tst_kxupdate_output.moc"
