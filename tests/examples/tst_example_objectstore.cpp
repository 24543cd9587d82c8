// Runs the upload script of the examples with the real rclone, into a directory in place of a
// store.

#include "kxupdateprocess.h"
#include "nginxserver.h"
#include "publishrun.h"
#include "treebuilder.h"

#include <kxupdater/build.h>

#include <QDir>
#include <QRegularExpression>
#include <QTest>

#include <algorithm>
#include <csignal>
#include <memory>

#include <unistd.h>

using kxtest::TreeBuilder;

namespace {

constexpr int waitMs = 60000;

QString S(const char* text)
{
    return QString::fromUtf8(text);
}

/** A run of the script, which is a process group of its own and can be killed as one. */
class UploadRun
{
public:
    explicit UploadRun(const QString& log)
    {
        environment.insert(S("RCLONE_CONFIG"), S("/dev/null"));
        environment.insert(S("RCLONE_LOG_LEVEL"), S("INFO"));
        environment.insert(S("RCLONE_LOG_FILE"), log);
        process.setProcessChannelMode(QProcess::MergedChannels);
        process.setChildProcessModifier([] { ::setpgid(0, 0); });
    }
    ~UploadRun() { Kill(); }

    void Set(const QString& name, const QString& value) { environment.insert(name, value); }
    void Start(const QStringList& arguments)
    {
        process.setProcessEnvironment(environment);
        process.start(S(KX_SOURCE_DIR "/examples/server-objectstore/upload.sh"), arguments);
        process.waitForStarted();
    }
    int Wait()
    {
        process.waitForFinished(waitMs);
        said += process.readAll();
        return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    }
    int Run(const QStringList& arguments)
    {
        Start(arguments);
        return Wait();
    }
    bool IsRunning() const { return process.state() == QProcess::Running; }
    void Kill()
    {
        if (!IsRunning())
            return;
        ::kill(-pid_t(process.processId()), SIGKILL);
        process.waitForFinished(waitMs);
    }
    QByteArray Said() const { return said; }

private:
    QProcess process;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    QByteArray said;
};

} // namespace

/** In what order a tree comes to a store, and what clients get meanwhile. */
class TestExampleObjectStore : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void StoreHoldsTheTreeWithoutHiddenNames();
    void VersionReplyComesLast();
    void KilledRunLeavesTheOldVersionWhole();
    void PromotionMeanwhileWaitsForTheNextRun();
    void CutFileIsCopiedAgain();
    void OldVersionsGoLastAndOnlyWhenAsked();
    void RefusesWhatIsNotOnOffer_data();
    void RefusesWhatIsNotOnOffer();
    void WrongCallShowsTheUsage();

private:
    void Publish(const QString& version, qint64 size = 1000);
    void Promote(const QString& version);
    QStringList Stored() const;
    QStringList Published() const;
    QStringList Copied() const;
    void Update(const QString& version);

    std::unique_ptr<TreeBuilder> home;
    std::unique_ptr<kxtest::NginxServer> server; // serves the store
    QString tree;
    QString store;
    QString log;
};

void TestExampleObjectStore::init()
{
    QTest::failOnWarning(QRegularExpression(S("No such (signal|slot)")));
    home = std::make_unique<TreeBuilder>();
    kxtest::SetMode(home->Root(), 0755);
    tree = home->Path(S("tree"));
    store = home->Dir(S("store")).Path(S("store"));
    log = home->Path(S("rclone.log"));
    server = std::make_unique<kxtest::NginxServer>(store);
    QVERIFY2(server->Start(), qPrintable(server->Error()));
}

void TestExampleObjectStore::Publish(const QString& version, qint64 size)
{
    const QString source = home->Path(S("source-") + version);
    TreeBuilder(source)
        .File(S("app"), "program " + version.toLatin1(), 0755)
        .RandomFile(S("data/a.bin"), size, version.front().digitValue())
        .RandomFile(S("data/b.bin"), size, 10 + version.front().digitValue());
    QStringList arguments = kxtest::AddArguments(source, tree);
    arguments = kxtest::With(arguments, S("--version"), version);
    arguments = kxtest::With(arguments, S("--platform"), updater::Build::Platform());
    arguments = kxtest::With(arguments, S("--base-url"), server->Url());
    QCOMPARE(kxtest::RunPublish(arguments).status, 0);
}

void TestExampleObjectStore::Promote(const QString& version)
{
    QCOMPARE(kxtest::RunPublish(kxtest::PromoteArguments(version, tree)).status, 0);
}

QStringList TestExampleObjectStore::Stored() const
{
    return kxtest::Snapshot(store);
}

/** What of the server tree is for clients: what kxpublish keeps for itself has a dot in front. */
QStringList TestExampleObjectStore::Published() const
{
    QStringList entries = kxtest::Snapshot(tree);
    entries.erase(
        std::remove_if(entries.begin(), entries.end(),
                       [](const QString& line) { return line.contains(S("/.kxpublish")); }),
        entries.end());
    return entries;
}

/** What rclone has copied or deleted so far, in that order, as "NAME: WHAT". */
QStringList TestExampleObjectStore::Copied() const
{
    QStringList copied;
    static const QRegularExpression line(S("INFO  : (.*: (Copied|Deleted|Removing directory).*)"));
    for (auto match = line.globalMatch(QString::fromUtf8(kxtest::Read(log))); match.hasNext();)
        copied.append(match.next().captured(1));
    return copied;
}

/** Installs with kxupdate what the store offers, which is to be `version`. */
void TestExampleObjectStore::Update(const QString& version)
{
    KxupdateProcess update;
    QVERIFY2(update.Run({S("update"), S("--url"), server->Url(), S("--package"), S("demo-app"),
                         S("--current"), S("0"), S("--app"), home->Path(S("app")), S("--download"),
                         home->Path(S("next"))}),
             update.Report());
    QVERIFY2(update.Status() == 0, update.Report());
    QCOMPARE(kxtest::Snapshot(home->Path(S("app"))),
             kxtest::Snapshot(home->Path(S("source-") + version)));
}

void TestExampleObjectStore::StoreHoldsTheTreeWithoutHiddenNames()
{
    Publish(S("1.0"));
    Promote(S("1.0"));
    const QStringList expected = Published();
    TreeBuilder(tree + S("/packages"))
        .File(S(".kxpublish.lock"), "x")
        .File(S(".kxpublish/build/index.xml"), "x");
    UploadRun upload(log);
    QVERIFY2(upload.Run({tree, store}) == 0, upload.Said());
    QCOMPARE(upload.Said(), "upload: " + store.toUtf8() + " offers version 1.0\n");
    QCOMPARE(Stored(), expected);
    Update(S("1.0"));
}

void TestExampleObjectStore::VersionReplyComesLast()
{
    Publish(S("1.0"));
    Promote(S("1.0"));
    kxtest::Write(tree + S("/packages/notes.txt"), "beside the reply");
    UploadRun upload(log);
    QVERIFY2(upload.Run({tree, store}) == 0, upload.Said());
    QStringList kinds;
    for (const QString& line : Copied()) {
        const QString kind = line.contains(S("/files/"))     ? S("file")
                             : line.contains(S("index.xml")) ? S("manifest")
                                                             : line.section(u':', 0, 0);
        if (kinds.isEmpty() || kinds.last() != kind)
            kinds.append(kind);
    }
    QCOMPARE(kinds, (QStringList{S("file"), S("manifest"), S("notes.txt"), S("version.xml")}));
}

void TestExampleObjectStore::KilledRunLeavesTheOldVersionWhole()
{
    Publish(S("1.0"));
    Promote(S("1.0"));
    UploadRun first(log);
    QVERIFY2(first.Run({tree, store}) == 0, first.Said());
    const QStringList before = Stored();

    Publish(S("2.0"), 400000);
    Promote(S("2.0"));
    UploadRun second(log);
    second.Set(S("RCLONE_BWLIMIT"), S("200k"));
    second.Set(S("RCLONE_TRANSFERS"), S("1"));
    second.Start({tree, store});
    const QString newVersion = store + S("/packages/demo-app-v2.0");
    QTRY_VERIFY_WITH_TIMEOUT(kxtest::Exists(newVersion) || !second.IsRunning(), waitMs);
    QVERIFY(second.IsRunning());
    second.Kill();
    QStringList left = Stored();
    QVERIFY(left != before);
    left.erase(std::remove_if(left.begin(), left.end(),
                              [](const QString& line) { return line.contains(S("-v2.0")); }),
               left.end());
    QCOMPARE(left, before);
    Update(S("1.0"));

    UploadRun third(log);
    QVERIFY2(third.Run({tree, store}) == 0, third.Said());
    QCOMPARE(Stored(), Published());
    Update(S("2.0"));
}

void TestExampleObjectStore::PromotionMeanwhileWaitsForTheNextRun()
{
    Publish(S("1.0"), 60000);
    Promote(S("1.0"));
    UploadRun first(log);
    first.Set(S("RCLONE_BWLIMIT"), S("60k"));
    first.Start({tree, store});
    QTRY_VERIFY_WITH_TIMEOUT(
        kxtest::Exists(store + S("/packages/demo-app-v1.0")) || !first.IsRunning(), waitMs);
    QVERIFY(first.IsRunning());
    Publish(S("2.0"));
    Promote(S("2.0"));
    QVERIFY2(first.Wait() == 0, first.Said());
    QVERIFY(kxtest::Read(store + S("/packages/version.xml")).contains(">1.0<"));
    Update(S("1.0"));
    UploadRun second(log);
    QVERIFY2(second.Run({tree, store}) == 0, second.Said());
    Update(S("2.0"));
}

void TestExampleObjectStore::CutFileIsCopiedAgain()
{
    Publish(S("1.0"));
    Promote(S("1.0"));
    UploadRun first(log);
    QVERIFY2(first.Run({tree, store}) == 0, first.Said());
    const QStringList expected = Stored();
    const QString file =
        store +
        S("/packages/demo-app-v1.0/windows/%1/files/data/a.bin").arg(updater::Build::Platform());
    // Of the right size, as a cut transfer leaves it on some stores.
    kxtest::Write(file, kxtest::Read(file).left(500) + QByteArray(500, '\0'));
    UploadRun second(log);
    QVERIFY2(second.Run({tree, store}) == 0, second.Said());
    QCOMPARE(Stored(), expected);
}

void TestExampleObjectStore::OldVersionsGoLastAndOnlyWhenAsked()
{
    for (const QString& version : {S("1.0"), S("2.0"), S("3.0")})
        Publish(version);
    Promote(S("2.0"));
    UploadRun first(log);
    QVERIFY2(first.Run({tree, store}) == 0, first.Said());
    kxtest::Remove(tree + S("/packages/demo-app-v1.0"));
    Promote(S("3.0"));
    const QString old = store + S("/packages/demo-app-v1.0");

    UploadRun plain(log);
    QVERIFY2(plain.Run({tree, store}) == 0, plain.Said());
    QVERIFY(kxtest::Exists(old));

    Promote(S("2.0"));
    TreeBuilder(store + S("/packages")).File(S("other/file"), "not a version");
    const qsizetype done = Copied().size();
    UploadRun pruning(log);
    QVERIFY2(pruning.Run({S("--prune"), tree, store}) == 0, pruning.Said());
    QVERIFY(!kxtest::Exists(old));
    QVERIFY(kxtest::Exists(store + S("/packages/demo-app-v3.0")));
    QVERIFY(kxtest::Exists(store + S("/packages/other/file")));
    QVERIFY2(pruning.Said().endsWith("offers version 2.0\nupload: deleted demo-app-v1.0\n"),
             pruning.Said());
    const QStringList lines = Copied().mid(done);
    QVERIFY2(lines.value(0).startsWith(S("version.xml: Copied")), qPrintable(lines.join(u'\n')));
    Update(S("2.0"));
}

void TestExampleObjectStore::RefusesWhatIsNotOnOffer_data()
{
    QTest::addColumn<QString>("remove");
    QTest::addColumn<QString>("message");
    QTest::newRow("nothing promoted") << S("version.xml") << S("no version is on offer in");
    QTest::newRow("version missing") << S("demo-app-v1.0") << S("version 1.0 is on offer in");
}

void TestExampleObjectStore::RefusesWhatIsNotOnOffer()
{
    QFETCH(QString, remove);
    QFETCH(QString, message);
    Publish(S("1.0"));
    Promote(S("1.0"));
    kxtest::Remove(tree + S("/packages/") + remove);
    UploadRun upload(log);
    QCOMPARE(upload.Run({S("--prune"), tree, store}), 1);
    QVERIFY2(upload.Said().startsWith("upload: " + message.toUtf8()), upload.Said());
    QCOMPARE(Stored(), QStringList());
}

void TestExampleObjectStore::WrongCallShowsTheUsage()
{
    UploadRun upload(log);
    QCOMPARE(upload.Run({tree}), 2);
    QVERIFY2(upload.Said().contains("upload.sh [--prune] SERVERTREE REMOTE:PATH"), upload.Said());
    UploadRun help(log);
    QCOMPARE(help.Run({S("--help")}), 0);
    QVERIFY2(help.Said().contains("Exit status 0"), help.Said());
}

QTEST_GUILESS_MAIN(TestExampleObjectStore)
#include "tst_example_objectstore.moc"
