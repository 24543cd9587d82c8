#include "minisignkeys.h"
#include "publishsite.h"

#include <QProcess>
#include <QTest>

#include <cerrno>
#include <csignal>
#include <functional>
#include <sys/stat.h>

using kxtest::PublishResult;
using kxtest::PublishSite;
using kxtest::Snapshot;

namespace {

constexpr int mostCalls = 1000;

QString S(const char* text)
{
    return QString::fromUtf8(text);
}

/** Runs kxpublish with the preloaded library, which finds `name` in the environment. */
PublishResult RunPreloaded(const QStringList& words, const QString& name, const QString& value)
{
    QProcess process;
    kxtest::PreparePublish(process, words);
    QProcessEnvironment environment = process.processEnvironment();
    environment.insert(S("LD_PRELOAD"), S(KX_KILL_AT_LIBRARY));
    environment.insert(name, value);
    process.setProcessEnvironment(environment);
    process.start();
    process.waitForFinished(120000);
    return kxtest::ResultOf(process, process.readAllStandardError());
}

} // namespace

/** Runs that are killed before each of their calls that change the disk, one after the other. */
class TestKxpublishCommandKills : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { kxtest::KeepTreesInMemory(); }
    void init();
    void Prune();
    void Promote();
    void Rollback();
    void RollbackAs();
    void RollbackAsSigned();
    void RollbackAsWithoutHardLinks();

private:
    void Restore();
    void ExpectWhole();
    void KillEverywhere(const QStringList& words, const QString& before, const QString& after,
                        const std::function<bool()>& isDone);

    std::unique_ptr<PublishSite> site;
    std::unique_ptr<kxtest::TreeBuilder> store;
};

void TestKxpublishCommandKills::init()
{
    site = std::make_unique<PublishSite>();
    store = std::make_unique<kxtest::TreeBuilder>();
    for (const char* version : {"0", "1", "2", "3"}) {
        site->Tree().Remove(S("app")).File(S("app"), version, 0755);
        site->Add(S(version));
        site->Add(S(version), S("other"));
        // The first one is what prune removes: no rollback would come to it.
        if (*version == '1' || *version == '2')
            site->Promote(S(version));
    }
    QCOMPARE(QProcess::execute(S("cp"), {S("-a"), site->Server(), store->Path(S("srv"))}), 0);
}

void TestKxpublishCommandKills::Restore()
{
    kxtest::Remove(site->Server());
    QCOMPARE(QProcess::execute(S("cp"), {S("-a"), store->Path(S("srv")), site->Server()}), 0);
}

// Each build is there whole or not at all, and the offered version can be had.
void TestKxpublishCommandKills::ExpectWhole()
{
    const PublishResult result = site->Run(S("verify"));
    QCOMPARE(result.out.constLast(), S("problems: 0"));
    QCOMPARE(result.status, 0);
}

void TestKxpublishCommandKills::KillEverywhere(const QStringList& words, const QString& before,
                                               const QString& after,
                                               const std::function<bool()>& isDone)
{
    QStringList expected;
    int killed = 0;
    for (int call = mostCalls; call > 0; call = call == mostCalls ? 1 : call + 1) {
        Restore();
        const PublishResult result = RunPreloaded(words, S("KX_KILL_AT"), QString::number(call));
        if (result.status == 0 && call < mostCalls)
            break; // ran to its end
        if (call == mostCalls) {
            // The run to compare with.
            QCOMPARE(result.status, 0);
            QCOMPARE(site->Offered(), after);
            expected = Snapshot(site->Server());
            continue;
        }
        ++killed;
        QCOMPARE(result.status, -SIGKILL);
        QVERIFY2(site->Offered() == before || site->Offered() == after,
                 qPrintable(site->Offered()));
        ExpectWhole();
        if (QTest::currentTestFailed()) {
            qWarning("killed before call %d", call);
            return;
        }
        // Everything but the tidying may be done already; any run that writes does that.
        const PublishResult second =
            isDone() ? site->Run(S("prune"), {S("--keep"), S("100")}) : kxtest::RunPublish(words);
        if (second.status != 0 || Snapshot(site->Server()) != expected)
            qWarning("killed before call %d: %s", call, qPrintable(second.err.join(u'\n')));
        QCOMPARE(second.status, 0);
        QCOMPARE(Snapshot(site->Server()), expected);
    }
    QVERIFY(killed > 10);
}

void TestKxpublishCommandKills::Prune()
{
    KillEverywhere({S("prune"), site->Server(), S("--keep"), S("1")}, S("2"), S("2"),
                   [] { return false; });
    // What the comparison was about.
    QVERIFY(!kxtest::Exists(site->Server() + S("/packages/demo-app-v0")));
    QVERIFY(!kxtest::Exists(site->Server() + S("/packages/other-v0")));
}

void TestKxpublishCommandKills::Promote()
{
    KillEverywhere(kxtest::PromoteArguments(S("3"), site->Server()), S("2"), S("3"),
                   [] { return false; });
}

void TestKxpublishCommandKills::Rollback()
{
    KillEverywhere({S("rollback"), site->Server()}, S("2"), S("1"),
                   [this] { return site->Offered() == S("1") && site->History().isEmpty(); });
}

void TestKxpublishCommandKills::RollbackAs()
{
    KillEverywhere({S("rollback"), site->Server(), S("--as"), S("4")}, S("2"), S("4"),
                   [this] { return site->Offered() == S("4") && site->History().isEmpty(); });
}

void TestKxpublishCommandKills::RollbackAsSigned()
{
    const kxtest::SecretKeyParts key(1);
    store->File(S("key"), key.Text(), 0600).File(S("pub"), key.PublicText());
    const QString tree = site->Tree().Root();
    // The version to go back to, signed, in the place of the one that is not.
    kxtest::Remove(site->Server());
    for (const char* version : {"1", "2"}) {
        QStringList words = kxtest::AddArguments(tree, site->Server());
        words << S("--sign") << store->Path(S("key"));
        QCOMPARE(kxtest::RunPublish(kxtest::With(words, S("--version"), S(version))).status, 0);
        site->Promote(S(version));
    }
    kxtest::Remove(store->Path(S("srv")));
    QCOMPARE(QProcess::execute(S("cp"), {S("-a"), site->Server(), store->Path(S("srv"))}), 0);
    KillEverywhere(
        {S("rollback"), site->Server(), S("--as"), S("4"), S("--sign"), store->Path(S("key"))},
        S("2"), S("4"), [this] { return site->Offered() == S("4") && site->History().isEmpty(); });
    QCOMPARE(site->Run(S("verify"), {S("--key"), store->Path(S("pub"))}).status, 0);
}

void TestKxpublishCommandKills::RollbackAsWithoutHardLinks()
{
    const PublishResult result = RunPreloaded({S("rollback"), site->Server(), S("--as"), S("4")},
                                              S("KX_LINK_ERROR"), QString::number(EPERM));
    QCOMPARE(result.err, QStringList({S("clients are offered version 4 now, 2 before")}));
    QCOMPARE(result.status, 0);
    const QString file = site->BuildPath(S("4"), S("files/app"));
    QCOMPARE(kxtest::Read(file), QByteArray("1"));
    struct stat status;
    QCOMPARE(::stat(file.toUtf8().constData(), &status), 0);
    QCOMPARE(int(status.st_nlink), 1);
    ExpectWhole();
}

QTEST_GUILESS_MAIN(TestKxpublishCommandKills)
#include "tst_kxpublish_command_kills.moc"
