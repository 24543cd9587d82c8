#include "httpexchange.h"
#include "kxupdateprocess.h"
#include "minisignkeys.h"
#include "publishrun.h"
#include "treebuilder.h"

#include <kxguard/signedmanifest.h>
#include <kxguard/signedtree.h>
#include <kxupdater/build.h>

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QHostAddress>
#include <QRegularExpression>
#include <QTcpServer>
#include <QTest>

#include <csignal>
#include <memory>

#include <grp.h>
#include <unistd.h>

using kxtest::Exchange;
using kxtest::HttpExchange;
using kxtest::TreeBuilder;

namespace {

constexpr int waitMs = 30000;
constexpr uid_t nobody = 65534;

QString S(const char* text)
{
    return QString::fromUtf8(text);
}

/** A run of "kxpublish serve" that goes on until it is told to end. */
class ServeRun
{
public:
    ServeRun() : temporary(new TreeBuilder) { kxtest::SetMode(temporary->Root(), 0777); }
    ~ServeRun()
    {
        process.terminate();
        process.waitForFinished(waitMs);
    }

    void UseEnvironment(const QString& name, const QString& value) { more.insert(name, value); }

    /** Starts it as `user`, and waits for the address or the end. */
    bool Start(const QStringList& arguments, uid_t user = 0)
    {
        kxtest::PreparePublish(process, QStringList{S("serve")} + arguments, [user] {
            if (user != 0 &&
                (::setgroups(0, nullptr) != 0 || ::setgid(user) != 0 || ::setuid(user) != 0))
                ::_exit(99);
        });
        QProcessEnvironment environment = process.processEnvironment();
        environment.insert(S("TMPDIR"), temporary->Root());
        environment.insert(more);
        process.setProcessEnvironment(environment);
        process.start();
        const bool said = QTest::qWaitFor(
            [this] {
                Read();
                return out.endsWith('\n') || process.state() == QProcess::NotRunning;
            },
            waitMs);
        return said && out.startsWith("url: ");
    }
    bool WaitForEnd()
    {
        const bool ended =
            QTest::qWaitFor([this] { return process.state() == QProcess::NotRunning; }, waitMs);
        Read();
        return ended;
    }
    bool End(int number)
    {
        ::kill(pid_t(process.processId()), number);
        return WaitForEnd();
    }
    /** Process number of the nginx that it runs. */
    pid_t Nginx() const
    {
        const QString id = QString::number(process.processId());
        return kxtest::Read(S("/proc/%1/task/%1/children").arg(id)).trimmed().toInt();
    }

    QString Url() const { return QString::fromUtf8(out).trimmed().mid(5); }
    int Status() const
    {
        return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    }
    QByteArray Output() const { return out; }
    QStringList Errors()
    {
        Read();
        QStringList lines = QString::fromUtf8(err).split(u'\n', Qt::SkipEmptyParts);
        for (QString& line : lines)
            line.remove(0, line.startsWith(S("kxpublish: ")) ? 11 : 0);
        return lines;
    }
    QStringList TemporaryFiles() const { return kxtest::Snapshot(temporary->Root()); }
    QByteArray Report() { return out + Errors().join(u'\n').toUtf8(); }

private:
    void Read()
    {
        out += process.readAllStandardOutput();
        err += process.readAllStandardError();
    }

    std::unique_ptr<TreeBuilder> temporary;
    QProcess process;
    QProcessEnvironment more;
    QByteArray out;
    QByteArray err;
};

bool IsReachable(const QString& url)
{
    return Exchange(url + S("/packages/version.xml")).status != 0;
}

} // namespace

/** What "kxpublish serve" serves, says, and leaves behind. */
class TestKxpublishServe : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void KxupdateInstallsFromIt_data();
    void KxupdateInstallsFromIt();
    void ManifestsGoOutWithTheLocalAddress_data();
    void ManifestsGoOutWithTheLocalAddress();
    void SignaturesGoOutWhole();
    void SeveralAddressesAreReplaced();
    void AddressesOfOthersAreLeftAlone();
    void TheTreeItselfStaysAsItIs();
    void RequestsAreLogged();
    void QuietLogsNoRequests();
    void HiddenNamesAndListingsAreNotServed_data();
    void HiddenNamesAndListingsAreNotServed();
    void OnlyReadingIsAllowed();
    void RangesAreServed();
    void RateIsLimited();
    void VersionsPublishedMeanwhileAreServed();
    void EndsCleanlyWhenAsked_data();
    void EndsCleanlyWhenAsked();
    void KilledParentTakesNginxAlong();
    void EndOfNginxIsAFailure();
    void WantedPortIsUsed();
    void TakenPortIsNamed();
    void MissingNginxIsNamed();
    void BadRequestsAreRefused_data();
    void BadRequestsAreRefused();

private:
    void Publish(const QString& version, const QString& baseUrl,
                 const QString& package = S("demo-app"));
    QString BuildPath(const QString& version = S("1.0"),
                      const QString& package = S("demo-app")) const;

    std::unique_ptr<TreeBuilder> tree;
    std::unique_ptr<TreeBuilder> workshop;
    QString server;
};

void TestKxpublishServe::init()
{
    QTest::failOnWarning(QRegularExpression(S("No such (signal|slot)")));
    tree = std::make_unique<TreeBuilder>();
    tree->File(S("app"), "program", 0755).RandomFile(S("lib/data.bin"), 100000, 1);
    workshop = std::make_unique<TreeBuilder>();
    kxtest::SetMode(workshop->Root(), 0755);
    server = workshop->Path(S("srv"));
}

void TestKxpublishServe::Publish(const QString& version, const QString& baseUrl,
                                 const QString& package)
{
    QStringList arguments = kxtest::AddArguments(tree->Root(), server);
    arguments = kxtest::With(arguments, S("--version"), version);
    arguments = kxtest::With(arguments, S("--base-url"), baseUrl);
    arguments = kxtest::With(arguments, S("--name"), package);
    arguments = kxtest::With(arguments, S("--platform"), updater::Build::Platform());
    QCOMPARE(kxtest::RunPublish(arguments).status, 0);
}

QString TestKxpublishServe::BuildPath(const QString& version, const QString& package) const
{
    return S("/packages/%1-v%2/windows/%3").arg(package, version, updater::Build::Platform());
}

void TestKxpublishServe::KxupdateInstallsFromIt_data()
{
    QTest::addColumn<uint>("user");
    QTest::newRow("as the user of the tests") << 0u;
    if (::geteuid() == 0)
        QTest::newRow("as an ordinary user") << uint(nobody);
}

void TestKxpublishServe::KxupdateInstallsFromIt()
{
    QFETCH(uint, user);
    Publish(S("1.0"), S("https://updates.example.org"));
    QCOMPARE(kxtest::RunPublish(kxtest::PromoteArguments(S("1.0"), server)).status, 0);
    ServeRun serve;
    QVERIFY2(serve.Start({server}, user), serve.Report());

    KxupdateProcess update;
    const QString app = workshop->Path(S("app"));
    QVERIFY2(update.Run({S("update"), S("--url"), serve.Url(), S("--package"), S("demo-app"),
                         S("--current"), S("0"), S("--app"), app, S("--download"),
                         workshop->Path(S("next"))}),
             update.Report());
    QVERIFY2(update.Status() == 0, update.Report());
    QCOMPARE(kxtest::Snapshot(app), kxtest::Snapshot(tree->Root()));
}

void TestKxpublishServe::ManifestsGoOutWithTheLocalAddress_data()
{
    QTest::addColumn<QString>("baseUrl");
    QTest::addColumn<QString>("option");
    QTest::newRow("plain address") << S("https://updates.example.org") << "";
    QTest::newRow("address with a path") << S("https://example.org/a/b") << "";
    QTest::newRow("address with a port") << S("http://127.0.0.1:1") << "";
    QTest::newRow("characters that nginx and XML know")
        << S("https://example.org/a$uri&c';b") << "";
    QTest::newRow("kept") << S("https://updates.example.org") << S("--keep-urls");
}

void TestKxpublishServe::ManifestsGoOutWithTheLocalAddress()
{
    QFETCH(QString, baseUrl);
    QFETCH(QString, option);
    Publish(S("1.0"), baseUrl);
    ServeRun serve;
    QVERIFY2(
        serve.Start(QStringList{server} + (option.isEmpty() ? QStringList() : QStringList{option})),
        serve.Report());

    QByteArray expected = kxtest::Read(server + BuildPath() + S("/index.xml"));
    QVERIFY(expected.contains(baseUrl.toHtmlEscaped().toUtf8() + "/packages/"));
    if (option.isEmpty())
        expected.replace(baseUrl.toHtmlEscaped().toUtf8() + "/packages/",
                         serve.Url().toUtf8() + "/packages/");
    QCOMPARE(Exchange(serve.Url() + BuildPath() + S("/index.xml")).body, expected);
    const QString line = S("manifests go out with %1 in place of %2; --keep-urls leaves them")
                             .arg(serve.Url(), baseUrl);
    QVERIFY2(serve.Errors().contains(line) == option.isEmpty(), serve.Report());
}

// The address is not signed: a client takes the build from here as from the real server.
void TestKxpublishServe::SignaturesGoOutWhole()
{
    const kxtest::SecretKeyParts key(1);
    workshop->File(S("key"), key.Text(), 0600).File(S("pub"), key.PublicText());
    tree->Symlink(S("lib/link"), S("../app"));
    QStringList words = kxtest::AddArguments(tree->Root(), server);
    words = kxtest::With(words, S("--platform"), updater::Build::Platform());
    words << S("--sign") << workshop->Path(S("key"));
    QCOMPARE(kxtest::RunPublish(words).status, 0);
    QCOMPARE(kxtest::RunPublish(kxtest::PromoteArguments(S("2.4.1"), server)).status, 0);
    ServeRun serve;
    QVERIFY2(serve.Start({server}), serve.Report());

    guard::PublicKey publicKey;
    QVERIFY(!guard::PublicKey::Load(workshop->Path(S("pub")), &publicKey));
    const QString index = BuildPath(S("2.4.1")) + S("/index.xml");
    const QByteArray served = Exchange(serve.Url() + index).body;
    QVERIFY(served != kxtest::Read(server + index));
    const guard::PackageIdentity identity = {S("demo-app"), S("2.4.1"), updater::Build::Platform()};
    guard::Problem problem =
        guard::CheckPackageXml(QString::fromUtf8(served), identity, {publicKey});
    QVERIFY2(!problem, qPrintable(problem.text));

    KxupdateProcess update;
    const QString app = workshop->Path(S("app"));
    QVERIFY2(update.Run({S("update"), S("--url"), serve.Url(), S("--package"), S("demo-app"),
                         S("--current"), S("0"), S("--app"), app, S("--download"),
                         workshop->Path(S("next"))}),
             update.Report());
    QVERIFY2(update.Status() == 0, update.Report());
    problem = guard::CheckSignedTree(app, {publicKey}, nullptr);
    QVERIFY2(!problem, qPrintable(problem.text));
}

void TestKxpublishServe::SeveralAddressesAreReplaced()
{
    Publish(S("1.0"), S("https://one.example.org"));
    Publish(S("1.0"), S("https://two.example.org/x"), S("other"));
    ServeRun serve;
    QVERIFY2(serve.Start({server}), serve.Report());
    for (const QString& package : {S("demo-app"), S("other")}) {
        const QString path = BuildPath(S("1.0"), package);
        const QByteArray body = Exchange(serve.Url() + path + S("/index.xml")).body;
        QVERIFY2(body.contains("\"" + (serve.Url() + path).toUtf8() + "/files\""), body);
    }
}

void TestKxpublishServe::AddressesOfOthersAreLeftAlone()
{
    Publish(S("1.0"), S("https://updates.example.org"));
    const QString manifest = server + BuildPath() + S("/index.xml");
    QByteArray text = kxtest::Read(manifest);
    text.replace(BuildPath().toUtf8(), "/mirror");
    kxtest::Write(manifest, text);
    ServeRun serve;
    QVERIFY2(serve.Start({server}), serve.Report());
    QCOMPARE(Exchange(serve.Url() + BuildPath() + S("/index.xml")).body, text);
    const QString line =
        S("warning: '%1' sends clients elsewhere for the files; its address is left as it is")
            .arg(manifest);
    QVERIFY2(serve.Errors().contains(line), serve.Report());
}

void TestKxpublishServe::TheTreeItselfStaysAsItIs()
{
    Publish(S("1.0"), S("https://updates.example.org"));
    const QStringList before = kxtest::Snapshot(server);
    ServeRun serve;
    QVERIFY2(serve.Start({server}), serve.Report());
    Exchange(serve.Url() + BuildPath() + S("/index.xml"));
    QVERIFY2(serve.End(SIGTERM), serve.Report());
    QCOMPARE(kxtest::Snapshot(server), before);
}

void TestKxpublishServe::RequestsAreLogged()
{
    Publish(S("1.0"), S("https://updates.example.org"));
    ServeRun serve;
    QVERIFY2(serve.Start({server}), serve.Report());
    const qsizetype before = serve.Errors().size();
    const QString file = BuildPath() + S("/files/app");
    Exchange(serve.Url() + file);
    Exchange(serve.Url() + file, {}, "HEAD");
    Exchange(serve.Url() + S("/no%1b[31m?id=1"));
    QTRY_COMPARE_WITH_TIMEOUT(serve.Errors().size(), before + 3, waitMs);
    const QStringList lines = serve.Errors().mid(before);
    QCOMPARE(lines.at(0), S("GET %1 200 7").arg(file));
    QCOMPARE(lines.at(1), S("HEAD %1 200 0").arg(file));
    const QRegularExpression missing(S("^GET /no%1B\\[31m\\?id=1 404 [0-9]+$"));
    QVERIFY2(missing.match(lines.at(2)).hasMatch(), serve.Report());
}

void TestKxpublishServe::QuietLogsNoRequests()
{
    Publish(S("1.0"), S("https://updates.example.org"));
    ServeRun serve;
    QVERIFY2(serve.Start({server, S("--quiet")}), serve.Report());
    QCOMPARE(Exchange(serve.Url() + BuildPath() + S("/files/app")).status, 200);
    QVERIFY(serve.End(SIGTERM));
    QVERIFY2(!serve.Errors().join(u'\n').contains(S("GET ")), serve.Report());
}

void TestKxpublishServe::HiddenNamesAndListingsAreNotServed_data()
{
    QTest::addColumn<QString>("path");
    QTest::newRow("lock file") << S("/packages/.kxpublish.lock");
    QTest::newRow("file in the making") << S("/packages/.kxpublish/build/index.xml");
    QTest::newRow("escaped dot") << S("/packages/%2ekxpublish.lock");
    QTest::newRow("listing") << S("/packages/");
    QTest::newRow("missing file") << S("/packages/demo-app-v9/windows/x64/index.xml");
}

void TestKxpublishServe::HiddenNamesAndListingsAreNotServed()
{
    QFETCH(QString, path);
    Publish(S("1.0"), S("https://updates.example.org"));
    TreeBuilder(server + S("/packages"))
        .File(S(".kxpublish.lock"), "x")
        .File(S(".kxpublish/build/index.xml"), "x");
    ServeRun serve;
    QVERIFY2(serve.Start({server}), serve.Report());
    QCOMPARE(Exchange(serve.Url() + path).status, 404);
}

void TestKxpublishServe::OnlyReadingIsAllowed()
{
    Publish(S("1.0"), S("https://updates.example.org"));
    ServeRun serve;
    QVERIFY2(serve.Start({server}), serve.Report());
    for (const char* method : {"POST", "PUT", "DELETE"})
        QCOMPARE(Exchange(serve.Url() + BuildPath() + S("/files/app"), {}, method, "x").status,
                 405);
}

void TestKxpublishServe::RangesAreServed()
{
    Publish(S("1.0"), S("https://updates.example.org"));
    ServeRun serve;
    QVERIFY2(serve.Start({server}), serve.Report());
    const HttpExchange part =
        Exchange(serve.Url() + BuildPath() + S("/files/lib/data.bin"), {{"Range", "bytes=40000-"}});
    QCOMPARE(part.status, 206);
    QVERIFY(part.body == kxtest::RandomBytes(100000, 1).mid(40000));
}

void TestKxpublishServe::RateIsLimited()
{
    Publish(S("1.0"), S("https://updates.example.org"));
    ServeRun serve;
    QVERIFY2(serve.Start({server, S("--limit-rate"), S("50k")}), serve.Report());
    QElapsedTimer clock;
    clock.start();
    QCOMPARE(Exchange(serve.Url() + BuildPath() + S("/files/lib/data.bin")).body.size(), 100000);
    // It may be slower on a busy machine, but not faster.
    QVERIFY(clock.elapsed() >= 900);
}

void TestKxpublishServe::VersionsPublishedMeanwhileAreServed()
{
    Publish(S("1.0"), S("https://updates.example.org"));
    ServeRun serve;
    QVERIFY2(serve.Start({server}), serve.Report());
    Publish(S("2.0"), S("https://updates.example.org"));
    const QByteArray body = Exchange(serve.Url() + BuildPath(S("2.0")) + S("/index.xml")).body;
    QVERIFY2(body.contains("\"" + serve.Url().toUtf8() + "/packages/demo-app-v2.0/"), body);
}

void TestKxpublishServe::EndsCleanlyWhenAsked_data()
{
    QTest::addColumn<int>("number");
    QTest::newRow("Ctrl-C") << SIGINT;
    QTest::newRow("request to terminate") << SIGTERM;
}

void TestKxpublishServe::EndsCleanlyWhenAsked()
{
    QFETCH(int, number);
    Publish(S("1.0"), S("https://updates.example.org"));
    ServeRun serve;
    QVERIFY2(serve.Start({server}), serve.Report());
    QVERIFY(IsReachable(serve.Url()));
    QVERIFY(!serve.TemporaryFiles().isEmpty());
    QVERIFY2(serve.End(number), serve.Report());
    QCOMPARE(serve.Status(), 0);
    // Asked to end, and not just killed.
    QVERIFY2(!serve.Errors().join(u'\n').contains(S("QProcess")), serve.Report());
    QCOMPARE(serve.TemporaryFiles(), QStringList());
    QVERIFY(!IsReachable(serve.Url()));
}

void TestKxpublishServe::KilledParentTakesNginxAlong()
{
    Publish(S("1.0"), S("https://updates.example.org"));
    ServeRun serve;
    QVERIFY2(serve.Start({server}), serve.Report());
    QVERIFY(IsReachable(serve.Url()));
    QVERIFY(serve.End(SIGKILL));
    QTRY_VERIFY_WITH_TIMEOUT(!IsReachable(serve.Url()), waitMs);
}

void TestKxpublishServe::EndOfNginxIsAFailure()
{
    Publish(S("1.0"), S("https://updates.example.org"));
    ServeRun serve;
    QVERIFY2(serve.Start({server}), serve.Report());
    QVERIFY(serve.Nginx() > 0);
    ::kill(serve.Nginx(), SIGKILL);
    QVERIFY2(serve.WaitForEnd(), serve.Report());
    QCOMPARE(serve.Status(), 3);
    QCOMPARE(serve.Errors().last(), S("nginx has ended by itself"));
    QCOMPARE(serve.TemporaryFiles(), QStringList());
}

void TestKxpublishServe::WantedPortIsUsed()
{
    Publish(S("1.0"), S("https://updates.example.org"));
    ServeRun first;
    QVERIFY2(first.Start({server}), first.Report());
    const QString url = first.Url();
    QVERIFY2(first.End(SIGTERM), first.Report());
    ServeRun again;
    QVERIFY2(again.Start({server, S("--port"), url.section(u':', -1)}), again.Report());
    QCOMPARE(again.Url(), url);
    QVERIFY(IsReachable(url));
}

void TestKxpublishServe::TakenPortIsNamed()
{
    Publish(S("1.0"), S("https://updates.example.org"));
    QTcpServer other;
    QVERIFY(other.listen(QHostAddress::LocalHost));
    const QString port = QString::number(other.serverPort());
    ServeRun serve;
    QVERIFY2(!serve.Start({server, S("--port"), port}), serve.Report());
    QCOMPARE(serve.Status(), 3);
    QCOMPARE(serve.Errors(), QStringList{S("port %1 is taken by another program").arg(port)});
    QCOMPARE(serve.Output(), QByteArray());
    QCOMPARE(serve.TemporaryFiles(), QStringList());
}

void TestKxpublishServe::MissingNginxIsNamed()
{
    Publish(S("1.0"), S("https://updates.example.org"));
    ServeRun serve;
    serve.UseEnvironment(S("PATH"), tree->Root());
    QVERIFY2(!serve.Start({server}), serve.Report());
    QCOMPARE(serve.Status(), 3);
    QCOMPARE(serve.Errors(), QStringList{S("nginx is not installed: apt install nginx")});
    QCOMPARE(serve.TemporaryFiles(), QStringList());
}

void TestKxpublishServe::BadRequestsAreRefused_data()
{
    QTest::addColumn<QString>("place");
    QTest::addColumn<QStringList>("options");
    QTest::addColumn<QString>("message");
    QTest::newRow("missing directory")
        << S("missing") << QStringList() << S("'%1/missing': no such directory");
    QTest::newRow("file") << S("file") << QStringList() << S("'%1/file': not a directory");
    QTest::newRow("other directory")
        << S("empty") << QStringList()
        << S("'%1/empty': not a server tree, it has no directory 'packages'");
    QTest::newRow("port of letters") << S("srv") << QStringList{S("--port"), S("http")}
                                     << S("--port 'http': not a number from 0 to 65535");
    QTest::newRow("port too high") << S("srv") << QStringList{S("--port"), S("65536")}
                                   << S("--port '65536': not a number from 0 to 65535");
    const QString rate = S("--limit-rate '%2': not a number of bytes a second, such as 100k or 2m");
    for (const QString& value : {S("0"), S("fast"), S("10g"), S("1k;"), S("-1")})
        QTest::addRow("rate %s", qPrintable(value))
            << S("srv") << QStringList{S("--limit-rate=") + value}
            << QString(rate).replace(S("%2"), value);
}

void TestKxpublishServe::BadRequestsAreRefused()
{
    QFETCH(QString, place);
    QFETCH(QStringList, options);
    QFETCH(QString, message);
    workshop->File(S("file"), "x").Dir(S("empty")).Dir(S("srv/packages"));
    ServeRun serve;
    QVERIFY2(!serve.Start(QStringList{workshop->Path(place)} + options), serve.Report());
    QCOMPARE(serve.Status(), 1);
    QCOMPARE(serve.Errors().first(), message.replace(S("%1"), workshop->Root()));
    QCOMPARE(serve.TemporaryFiles(), QStringList());
}

QTEST_GUILESS_MAIN(TestKxpublishServe)
#include "tst_kxpublish_serve.moc"
