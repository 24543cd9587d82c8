#include "kxupdateprocess.h"
#include "throttledsite.h"
#include "treebuilder.h"
#include "updatesite.h"

#include <QDirIterator>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QSet>
#include <QSignalSpy>
#include <QTest>

#include <csignal>

namespace {

const QString v1 = QStringLiteral("1.0");
const QString v2 = QStringLiteral("2.0");
const QString json = QStringLiteral("--json");

/** Why a line is not what it is to be; empty when it is. */
QString LineProblem(const QString& line, QJsonObject& object)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(line.toUtf8(), &error);
    if (!document.isObject())
        return error.errorString();
    object = document.object();
    const QString start = QStringLiteral("{\"type\":\"%1\",\"time\":\"%2\"")
                              .arg(object.value(QStringLiteral("type")).toString(),
                                   object.value(QStringLiteral("time")).toString());
    if (!line.startsWith(start))
        return QStringLiteral("type and time do not come first");
    const QRegularExpression time(
        QStringLiteral("^\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3}Z$"));
    if (!time.match(object.value(QStringLiteral("time")).toString()).hasMatch())
        return QStringLiteral("odd time");
    for (const QChar c : line) {
        if (c.category() == QChar::Other_Control || c.category() == QChar::Other_Format)
            return QStringLiteral("control character");
    }
    return QString();
}

/** The lines of a process that has ended; none when one of them is wrong. */
QList<QJsonObject> Lines(const KxupdateProcess& process)
{
    QList<QJsonObject> objects;
    if (!process.Output().endsWith(u'\n'))
        return {};
    for (const QString& line : process.Output().chopped(1).split(u'\n')) {
        QJsonObject object;
        const QString problem = LineProblem(line, object);
        if (!problem.isEmpty()) {
            qWarning("%s: %s", qPrintable(problem), qPrintable(line));
            return {};
        }
        objects.append(object);
    }
    return objects;
}

QList<QJsonObject> OfType(const QList<QJsonObject>& lines, const QString& type)
{
    QList<QJsonObject> found;
    for (const QJsonObject& line : lines) {
        if (line.value(QStringLiteral("type")).toString() == type)
            found.append(line);
    }
    return found;
}

QString Text(const QJsonObject& object, const char* member)
{
    return object.value(QLatin1String(member)).toString();
}

qint64 Number(const QJsonObject& object, const char* member)
{
    return object.value(QLatin1String(member)).toInteger(-1);
}

} // namespace

/** What --json prints. */
class TstKxupdateJson : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void ThrottledUpdateTellsItsProgressWhileItRuns();
    void FailureTellsCodeTextAndHint();
    void OwnErrorsAreObjectsToo_data();
    void OwnErrorsAreObjectsToo();
    void EveryDroppedAndDifferentFileIsNamed();
    void InterruptIsAWarning();
    void QuietLeavesOutWhatGoesOn();
    void TextsArriveAsTheyWere();
    void LogLinesStayOffStdout();
    void DocumentListsWhatIsPrinted();
    void DocumentListsTheData();

private:
    /** Runs and looks at the result line; its members count as printed. */
    QList<QJsonObject> Run(KxupdateProcess& process, const QStringList& arguments);
    QList<QJsonObject> Ended(KxupdateProcess& process);

    QSet<QString> printed; // "type member" of every line of all tests
};

QList<QJsonObject> TstKxupdateJson::Run(KxupdateProcess& process, const QStringList& arguments)
{
    process.Start(arguments);
    return Ended(process);
}

QList<QJsonObject> TstKxupdateJson::Ended(KxupdateProcess& process)
{
    if (!process.Wait())
        return {};
    const QList<QJsonObject> lines = Lines(process);
    if (lines.isEmpty() || OfType(lines, QStringLiteral("result")).size() != 1 ||
        Text(lines.last(), "type") != QLatin1String("result") ||
        Number(lines.last(), "exit") != process.Status())
        return {};
    QStringList data;
    for (const QJsonObject& line : lines) {
        if (Text(line, "type") == QLatin1String("data"))
            data.append(Text(line, "name"));
        for (const QString& member : line.keys()) {
            if (Text(line, "type") != QLatin1String("result") || !data.contains(member))
                printed.insert(Text(line, "type") + u' ' + member);
        }
    }
    return lines;
}

void TstKxupdateJson::ThrottledUpdateTellsItsProgressWhileItRuns()
{
    ThrottledSite throttled;
    QCOMPARE(throttled.Start(), QString());
    KxupdateProcess process;
    process.Start(throttled.Update({json}));
    QTRY_VERIFY_WITH_TIMEOUT(
        (process.Read(), process.Output().contains(QStringLiteral("\"secondsLeft\""))), 60000);
    QVERIFY(process.IsRunning());
    const QList<QJsonObject> lines = Ended(process);
    QVERIFY2(!lines.isEmpty(), process.Report());
    QCOMPARE(process.Errors(), QString());
    QCOMPARE(Text(lines.last(), "result"), QStringLiteral("installed"));
    QCOMPARE(Text(lines.last(), "installed"), QStringLiteral("0"));
    QCOMPARE(Text(lines.last(), "server"), v2);
    QCOMPARE(Text(lines.last(), "verdict"), QStringLiteral("available"));
    QCOMPARE(throttled.Site().Installed(), throttled.Site().Published(v2));

    QStringList states;
    for (const QJsonObject& line : OfType(lines, QStringLiteral("state")))
        states.append(Text(line, "state"));
    for (const char* state : {"SCANNING", "DOWNLOADING", "VERIFICATION", "MOVING", "SUCCESS"})
        QVERIFY2(states.contains(QLatin1String(state)), process.Report());

    QList<QJsonObject> transfers;
    for (const QJsonObject& line : OfType(lines, QStringLiteral("progress"))) {
        if (Text(line, "step") == QLatin1String("downloading"))
            transfers.append(line);
    }
    // Two seconds, and up to five lines in each besides one a percent.
    QVERIFY2(transfers.size() >= 5 && transfers.size() < 200, process.Report());
    qint64 percent = 0;
    qint64 bytes = 0;
    qint64 files = 0;
    qint64 speed = 0;
    QSet<QString> names;
    for (const QJsonObject& line : transfers) {
        const QByteArray seen = QJsonDocument(line).toJson();
        QCOMPARE(Number(line, "bytesTotal"), throttled.Bytes());
        QCOMPARE(Number(line, "filesTotal"), qint64(throttled.Files()));
        QVERIFY2(Number(line, "percent") >= percent && Number(line, "percent") <= 100, seen);
        QVERIFY2(Number(line, "bytesDone") >= bytes, seen);
        QVERIFY2(Number(line, "filesDone") >= files, seen);
        percent = Number(line, "percent");
        bytes = Number(line, "bytesDone");
        files = Number(line, "filesDone");
        QVERIFY2(qAbs(percent - bytes * 100 / throttled.Bytes()) <= 1, seen);
        speed = qMax(speed, Number(line, "bytesPerSecond"));
        names.insert(Text(line, "file"));
    }
    QCOMPARE(percent, 100);
    QCOMPARE(bytes, throttled.Bytes());
    QCOMPARE(files, qint64(throttled.Files()));
    QVERIFY2(speed > 100000 && speed < 100000000, process.Report());
    QVERIFY(names.contains(QStringLiteral("lib/large.bin")) ||
            names.contains(QStringLiteral("lib/深い場所/とても長いファイル名.bin")));
}

void TstKxupdateJson::FailureTellsCodeTextAndHint()
{
    UpdateSite site;
    site.Publish(v2);
    site.Install(v1);
    site.Server().SetDefaultReply(site.FilePath(v2, QStringLiteral("lib/filter.bin")),
                                  kxtest::Reply::Status(404));
    KxupdateProcess process;
    const QList<QJsonObject> lines =
        Run(process, site.Command(QStringLiteral("update"), v1, {json}));
    QVERIFY2(!lines.isEmpty(), process.Report());
    QCOMPARE(process.Status(), 6);
    QCOMPARE(process.Errors(), QString());
    const QList<QJsonObject> errors = OfType(lines, QStringLiteral("error"));
    QCOMPARE(errors.size(), 1);
    QCOMPARE(Number(errors.first(), "code"), qint64(610202));
    QVERIFY(Text(errors.first(), "text").contains(QStringLiteral("filter.bin")));
    QVERIFY(Text(errors.first(), "hint").contains(QStringLiteral("does not have")));
    QCOMPARE(Text(lines.last(), "result"), QStringLiteral("server-failed"));
    QCOMPARE(Text(lines.last(), "server"), v2);
}

void TstKxupdateJson::OwnErrorsAreObjectsToo_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("text");
    QTest::newRow("no command") << QStringList{json} << 2 << "no command is given";
    QTest::newRow("unknown command") << QStringList{"upgrade", json} << 2 << "'upgrade'";
    QTest::newRow("unknown option") << QStringList{json, "check", "--force"} << 2 << "force";
    QTest::newRow("option missing") << QStringList{"check", json} << 2 << "needs --url";
    QTest::newRow("log file that cannot be opened")
        << QStringList{"verify", json,           "--app",      "/nowhere/app",
                       "--xml",  "/nowhere/xml", "--log-file", "/nowhere/log"}
        << 3 << "'/nowhere/log' cannot be opened";
    QTest::newRow("description that cannot be read")
        << QStringList{"verify", json, "--app", "/nowhere/app", "--xml", "/nowhere/xml"} << 3
        << "/nowhere/xml";
}

void TstKxupdateJson::OwnErrorsAreObjectsToo()
{
    QFETCH(QStringList, arguments);
    QFETCH(int, status);
    QFETCH(QString, text);
    KxupdateProcess process;
    const QList<QJsonObject> lines = Run(process, arguments);
    QVERIFY2(lines.size() == 2, process.Report());
    QCOMPARE(process.Status(), status);
    QCOMPARE(process.Errors(), QString());
    QCOMPARE(Text(lines.first(), "type"), QStringLiteral("error"));
    QVERIFY2(Text(lines.first(), "text").contains(text), process.Report());
    QCOMPARE(Text(lines.last(), "result"),
             status == 2 ? QStringLiteral("usage") : QStringLiteral("refused"));
}

void TstKxupdateJson::EveryDroppedAndDifferentFileIsNamed()
{
    UpdateSite site;
    site.Publish(v2);
    site.Install(v1);
    QStringList strays;
    kxtest::TreeBuilder app(site.App());
    for (int i = 10; i < 40; ++i) {
        strays.append(QStringLiteral("stray%1.txt").arg(i));
        app.File(strays.last(), "mine");
    }
    KxupdateProcess update;
    QList<QJsonObject> lines = Run(update, site.Command(QStringLiteral("update"), v1, {json}));
    QVERIFY2(!lines.isEmpty(), update.Report());
    QStringList dropped;
    for (const QJsonObject& line : OfType(lines, QStringLiteral("dropped")))
        dropped.append(Text(line, "name"));
    QCOMPARE(dropped, QStringList{QStringLiteral("share/legacy.txt")} + strays);
    // Before the swap, not after it.
    QVERIFY(update.Output().indexOf(QStringLiteral("stray39")) <
            update.Output().indexOf(QStringLiteral("\"BACKUPING\"")));

    for (const QString& name : strays)
        app.File(name, "again");
    app.Remove(QStringLiteral("bin/hello")).File(QStringLiteral("share/new.txt"), "changed");
    KxupdateProcess verify;
    lines = Run(verify, site.Verify(QStringLiteral("--app"), site.App()) + QStringList{json});
    QVERIFY2(!lines.isEmpty(), verify.Report());
    QStringList differences;
    for (const QJsonObject& line : OfType(lines, QStringLiteral("difference")))
        differences.append(Text(line, "difference") + u' ' + Text(line, "name"));
    QStringList expected{QStringLiteral("changed share/new.txt"),
                         QStringLiteral("missing bin/hello")};
    for (const QString& name : strays)
        expected.append(QStringLiteral("unexpected ") + name);
    QCOMPARE(differences, expected);

    // People get twenty and the number of the others.
    KxupdateProcess text;
    QVERIFY2(text.Run(site.Verify(QStringLiteral("--app"), site.App())), text.Report());
    QCOMPARE(text.Output().count(QStringLiteral("difference: ")), 21);
    QCOMPARE(text.Data(QStringLiteral("difference")), QStringLiteral("and 12 more"));
    KxupdateProcess swap;
    QVERIFY2(swap.Run(site.Command(QStringLiteral("install"))), swap.Report());
    QCOMPARE(swap.Errors().count(QStringLiteral("    stray")), 20);
    QVERIFY2(swap.Errors().contains(QStringLiteral("    and 10 more\n")), swap.Report());
}

void TstKxupdateJson::InterruptIsAWarning()
{
    UpdateSite site;
    site.Publish(v2);
    site.Install(v1);
    site.Server().SetDefaultReply(site.FilePath(v2, QStringLiteral("lib/filter.bin")),
                                  kxtest::Reply::StallAfter(100));
    QSignalSpy stalled(&site.Server(), SIGNAL(stalled(QString)));
    KxupdateProcess process;
    process.Start(site.Command(QStringLiteral("update"), v1, {json}));
    QTRY_VERIFY_WITH_TIMEOUT(stalled.count() == 1, 60000);
    process.Signal(SIGINT);
    const QList<QJsonObject> lines = Ended(process);
    QVERIFY2(!lines.isEmpty(), process.Report());
    QCOMPARE(process.Errors(), QString());
    QCOMPARE(OfType(lines, QStringLiteral("warning")).size(), 1);
    QCOMPARE(OfType(lines, QStringLiteral("error")).size(), 0);
    QCOMPARE(Text(lines.last(), "result"), QStringLiteral("canceled"));
}

void TstKxupdateJson::QuietLeavesOutWhatGoesOn()
{
    UpdateSite site;
    site.Publish(v2);
    site.Install(v1);
    KxupdateProcess process;
    const QList<QJsonObject> lines =
        Run(process, site.Command(QStringLiteral("update"), v1, {json, QStringLiteral("-q")}));
    QVERIFY2(!lines.isEmpty(), process.Report());
    QStringList types;
    for (const QJsonObject& line : lines)
        types.append(Text(line, "type"));
    QCOMPARE(types, QStringList({"data", "data", "data", "dropped", "result"}));
}

void TstKxupdateJson::TextsArriveAsTheyWere()
{
    UpdateSite site;
    const QString evil = QStringLiteral("a\u009b31mred\u202eb\u2028c\U000e0041d \u5834\u6240 e");
    kxtest::Write(site.Xml(), QStringLiteral("<packages><package name=\"hello\">"
                                             "<build DownloadURL=\"http://127.0.0.1/\">"
                                             "<file name=\"%1\" size=\"1\"/>"
                                             "</build></package></packages>")
                                  .arg(evil)
                                  .toUtf8());
    KxupdateProcess process;
    // That no line holds the characters themselves is looked at for every line.
    const QList<QJsonObject> lines =
        Run(process, site.Verify(QStringLiteral("--app"), site.App()) + QStringList{json});
    QVERIFY2(!lines.isEmpty(), process.Report());
    const QList<QJsonObject> differences = OfType(lines, QStringLiteral("difference"));
    QCOMPARE(differences.size(), 1);
    QCOMPARE(Text(differences.first(), "name"), evil);
    QVERIFY(process.Output().contains(QStringLiteral("\u5834\u6240")));
}

void TstKxupdateJson::LogLinesStayOffStdout()
{
    UpdateSite site;
    site.Publish(v2);
    site.Install(v2);
    KxupdateProcess process;
    const QList<QJsonObject> lines =
        Run(process,
            site.Command(QStringLiteral("check"), v2, {json, QStringLiteral("--log-level=7")}));
    QVERIFY2(!lines.isEmpty(), process.Report());
    QVERIFY2(process.Errors().contains(QStringLiteral("log 7 updater.core: ")), process.Report());
    for (const QString& line : process.Errors().chopped(1).split(u'\n'))
        QVERIFY2(line.startsWith(QStringLiteral("log ")), process.Report());
}

void TstKxupdateJson::DocumentListsWhatIsPrinted()
{
    if (printed.isEmpty())
        QSKIP("The other tests print what is compared here.");
    QFile file(QStringLiteral(KX_SOURCE_DIR "/docs/kxupdate-json.md"));
    QVERIFY(file.open(QIODevice::ReadOnly));
    const QString text = QString::fromUtf8(file.readAll());
    const QRegularExpression row(QStringLiteral("^\\| (any|`(\\w+)`) \\| `(\\w+)` \\|"),
                                 QRegularExpression::MultilineOption);
    QSet<QString> listed;
    QSet<QString> types;
    QStringList common;
    for (auto match = row.globalMatch(text); match.hasNext();) {
        const QRegularExpressionMatch found = match.next();
        if (found.captured(2).isEmpty()) {
            common.append(found.captured(3));
        } else {
            types.insert(found.captured(2));
            listed.insert(found.captured(2) + u' ' + found.captured(3));
        }
    }
    for (const QString& type : std::as_const(types)) {
        for (const QString& member : std::as_const(common))
            listed.insert(type + u' ' + member);
    }
    // Each test above has added its lines.
    QStringList missing = (printed - listed).values();
    QStringList stale = (listed - printed).values();
    missing.sort();
    stale.sort();
    QCOMPARE(missing, QStringList());
    QCOMPARE(stale, QStringList());
}

void TstKxupdateJson::DocumentListsTheData()
{
    // Some come in rare places only, so the sources are asked.
    const QRegularExpression call(QStringLiteral(
        "(?:[dD]ata|ReportLock)\\((?:QStringLiteral\\(|QLatin1String\\()?\"([a-z-]+)\""));
    QSet<QString> written;
    QDirIterator sources(QStringLiteral(KX_SOURCE_DIR "/src/tools/kxupdate"),
                         {QStringLiteral("*.cpp")}, QDir::Files, QDirIterator::Subdirectories);
    while (sources.hasNext()) {
        const QString text = QString::fromUtf8(kxtest::Read(sources.next()));
        for (auto match = call.globalMatch(text); match.hasNext();)
            written.insert(match.next().captured(1));
    }
    const QString text =
        QString::fromUtf8(kxtest::Read(QStringLiteral(KX_SOURCE_DIR "/docs/kxupdate-json.md")))
            .section(QStringLiteral("| Datum |"), 1);
    const QRegularExpression row(QStringLiteral("^\\| ((?:`[a-z-]+`(?:, )?)+) \\|"),
                                 QRegularExpression::MultilineOption);
    QSet<QString> listed;
    for (auto match = row.globalMatch(text); match.hasNext();) {
        for (const QString& name : match.next().captured(1).split(QStringLiteral(", ")))
            listed.insert(QString(name).remove(u'`'));
    }
    QVERIFY(written.size() > 10);
    QCOMPARE((written - listed).values(), QStringList());
    QCOMPARE((listed - written).values(), QStringList());
}

QTEST_GUILESS_MAIN(TstKxupdateJson)
#include "tst_kxupdate_json.moc"
