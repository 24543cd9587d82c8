#include "httptestserver.h"
#include "nginxserver.h"
#include "publishsite.h"

#include <QProcess>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>

#include <functional>
#include <memory>
#include <sys/stat.h>

using kxtest::HttpTestServer;
using kxtest::NginxServer;
using kxtest::PublishResult;
using kxtest::PublishSite;
using kxtest::Reply;
using kxtest::Snapshot;

using ChangeFunction = std::function<void(PublishSite&)>;
Q_DECLARE_METATYPE(ChangeFunction)
using ServerFunction = std::function<void(HttpTestServer&)>;
Q_DECLARE_METATYPE(ServerFunction)

namespace {

QString S(const char* text)
{
    return QString::fromUtf8(text);
}

constexpr int damaged = 5;

QStringList Findings(const PublishResult& result)
{
    QStringList lines;
    for (const QString& line : result.out) {
        if (line.startsWith(S("bad: ")) || line.startsWith(S("warning: ")))
            lines << line;
    }
    return lines;
}

// In the event loop, where the server of the test answers.
PublishResult RunWhileServing(const QStringList& words)
{
    QProcess process;
    kxtest::PreparePublish(process, words);
    QSignalSpy finished(&process, &QProcess::finished);
    process.start();
    if (!finished.wait(120000))
        qWarning("kxpublish does not end");
    return kxtest::ResultOf(process, process.readAllStandardError());
}

QByteArray ManifestOf(const PublishSite& site, const char* version)
{
    return kxtest::Read(site.BuildPath(S(version), S("index.xml")));
}

} // namespace

/** verify: reading back what is published, from the disk and over the network. */
class TestKxpublishVerify : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { kxtest::KeepTreesInMemory(); }
    void GoodTreeHasNoFindings();
    void DamageOnTheDiskIsFound_data();
    void DamageOnTheDiskIsFound();
    void RecordsThatClientsCannotUseAreFound_data();
    void RecordsThatClientsCannotUseAreFound();
    void ChoiceOfBuilds();

    void NginxServesWhatWasPublished();
    void NginxWithFaultsIsFoundOut();
    void NginxThatCachesOrPacksIsWarnedOf();
    void FaultsOfTheNetworkAreFound_data();
    void FaultsOfTheNetworkAreFound();
    void PhrasesOfAServerAreMadePrintable();
    void LongFileIsNotReadToItsEnd();
    void JobsAreTheTransfersAtATime();
    void BadSettingsAreRefused_data();
    void BadSettingsAreRefused();
};

void TestKxpublishVerify::GoodTreeHasNoFindings()
{
    PublishSite site;
    site.Tree()
        .RandomFile(S("lib/\u00fcber big"), 3000000, 1)
        .File(S("empty"), "")
        .Symlink(S("lib/link"), S("../app"));
    site.Add(S("1"));
    site.Add(S("1"), S("other"), S("x86"));
    site.Promote(S("1"));
    const QStringList before = Snapshot(site.Server());
    for (const char* jobs : {"1", "4", "16"}) {
        const PublishResult result = site.Run(S("verify"), {S("--jobs"), S(jobs)});
        QCOMPARE(result.err, QStringList());
        QCOMPARE(result.out, QStringList({S("builds: 2"), S("files: 6"), S("bytes: 6000014"),
                                          S("warnings: 0"), S("problems: 0")}));
        QCOMPARE(result.status, 0);
    }
    QCOMPARE(Snapshot(site.Server()), before);
}

void TestKxpublishVerify::DamageOnTheDiskIsFound_data()
{
    QTest::addColumn<ChangeFunction>("change");
    QTest::addColumn<QStringList>("expected"); // %1: the server tree, %2: the build
    QTest::addColumn<int>("status");
    const auto row = [](const char* name, const ChangeFunction& change, const QStringList& expected,
                        int status = damaged) {
        QTest::newRow(name) << change << expected << status;
    };
    const auto file = [](const PublishSite& site, const char* name) {
        return site.BuildPath(S("2"), S("files/") + S(name));
    };
    const QString build = S("demo-app 2 for x64: ");
    row("other bytes", [file](PublishSite& site) { kxtest::Write(file(site, "data"), "dbta"); },
        {S("bad: ") + build + S("'data': has another digest than the manifest says")});
    row("other size", [file](PublishSite& site) { kxtest::Write(file(site, "data"), "dat"); },
        {S("bad: ") + build + S("'data': has 3 bytes instead of 4")});
    row("two files",
        [file](PublishSite& site) {
            kxtest::Remove(file(site, "data"));
            kxtest::Write(file(site, "lib/more"), "x");
        },
        {S("bad: ") + build + S("'data': missing"),
         S("bad: ") + build + S("'lib/more': has 1 bytes instead of 4")});
    row("all files", [](PublishSite& site) { kxtest::Remove(site.BuildPath(S("2"), S("files"))); },
        {S("bad: ") + build + S("'app': missing"), S("bad: ") + build + S("'data': missing"),
         S("bad: ") + build + S("'lib/more': missing")});
    row("file that only its owner reads",
        [file](PublishSite& site) { kxtest::SetMode(file(site, "data"), 0640); },
        {S("bad: ") + build + S("'data': others may not read it, such as the web server")});
    row("directory that others do not pass",
        [file](PublishSite& site) { kxtest::SetMode(file(site, "lib"), 0750); },
        {S("bad: ") + build + S("'lib': others may not read it, such as the web server")});
    row("tree that others do not pass",
        [](PublishSite& site) { kxtest::SetMode(site.Server() + S("/packages"), 0750); },
        {S("bad: demo-app 1 for x64: '%1/packages': others may not read it, such as the web "
           "server")});
    row("link",
        [file](PublishSite& site) {
            kxtest::TreeBuilder(site.BuildPath(S("2"), S("files")))
                .Remove(S("data"))
                .Symlink(S("data"), S("app"));
        },
        {S("bad: ") + build + S("'data': a link instead of a file")});
    row("pipe",
        [file](PublishSite& site) {
            kxtest::Remove(file(site, "data"));
            ::mkfifo(file(site, "data").toUtf8().constData(), 0644);
        },
        {S("bad: ") + build + S("'data': neither file, link nor directory")});
    row("directory",
        [file](PublishSite& site) {
            kxtest::TreeBuilder(site.BuildPath(S("2"), S("files")))
                .Remove(S("data"))
                .Dir(S("data"));
        },
        {S("bad: ") + build + S("'data': missing")});
    row(
        "stray file",
        [file](PublishSite& site) { kxtest::Write(file(site, "lib/st\033ray"), "x"); },
        {S("warning: ") + build + S("'lib/st\\x1bray': no manifest lists it")}, 0);
    row("manifest cut",
        [](PublishSite& site) {
            kxtest::Write(site.BuildPath(S("2"), S("index.xml")), ManifestOf(site, "2").left(99));
        },
        {S("bad: '%2/index.xml': not a manifest with files of demo-app"),
         S("bad: ") + build + S("'%2/index.xml': not a manifest with files of demo-app")});
    row("manifest that others do not read",
        [](PublishSite& site) { kxtest::SetMode(site.BuildPath(S("2"), S("index.xml")), 0600); },
        {S("bad: ") + build + S("'%2/index.xml': others may not read it, such as the web server")});
    row(
        "moved manifest",
        [](PublishSite& site) {
            kxtest::Write(site.BuildPath(S("2"), S("index.xml")),
                          ManifestOf(site, "2").replace("-v2/", "-v1/"));
        },
        {S("warning: ") + build +
         S("'%2/index.xml': clients are sent to "
           "'http://updates.example/demo/packages/demo-app-v1/windows/x64/files', which does "
           "not end with '/packages/demo-app-v2/windows/x64/files'")},
        0);
    row("no manifest",
        [](PublishSite& site) { kxtest::Remove(site.BuildPath(S("2"), S("index.xml"))); },
        {S("warning: '%2': has no index.xml"),
         S("bad: 'demo-app': not published in version 2 for x64")});
    row(
        "no reply",
        [](PublishSite& site) { kxtest::Remove(site.Server() + S("/packages/version.xml")); },
        {S("warning: '%1/packages/version.xml': missing, clients are offered nothing")}, 0);
    row("reply without a version",
        [](PublishSite& site) {
            kxtest::Write(site.Server() + S("/packages/version.xml"), "<version>");
        },
        {S("bad: '%1/packages/version.xml': its version is empty")});
    row("reply with an unknown version",
        [](PublishSite& site) {
            kxtest::Write(site.Server() + S("/packages/version.xml"), "<version>3</version>");
        },
        {S("bad: 'demo-app': not published in version 3 for x64")});
    row("reply that others do not read",
        [](PublishSite& site) {
            kxtest::SetMode(site.Server() + S("/packages/version.xml"), 0600);
        },
        {S("bad: '%1/packages/version.xml': others may not read it, such as the web server")});
}

void TestKxpublishVerify::DamageOnTheDiskIsFound()
{
    QFETCH(ChangeFunction, change);
    QFETCH(QStringList, expected);
    QFETCH(int, status);
    PublishSite site;
    site.Tree().File(S("data"), "other").File(S("lib/more"), "others");
    site.Add(S("1"));
    // Nothing that changes is shared with the version before.
    site.Tree().Remove(S("data")).File(S("data"), "data");
    site.Tree().Remove(S("lib/more")).File(S("lib/more"), "more");
    site.Add(S("2"));
    site.Promote(S("2"));
    change(site);
    const PublishResult result = site.Run(S("verify"));
    expected.replaceInStrings(S("%1"), site.Server());
    expected.replaceInStrings(S("%2"), site.BuildPath(S("2")));
    QCOMPARE(Findings(result), expected);
    QCOMPARE(result.status, status);
}

void TestKxpublishVerify::RecordsThatClientsCannotUseAreFound_data()
{
    QTest::addColumn<QByteArray>("record");
    QTest::addColumn<QString>("problem");
    const auto row = [](const char* name, const char* attributes, const char* problem) {
        QTest::newRow(name) << "<file " + QByteArray(attributes) + "/>" << S(problem);
    };
    const char* empty = "md5=\"d41d8cd98f00b204e9800998ecf8427e\" size=\"0\" ";
    const auto named = [&row, empty](const char* name, const char* entry, const char* problem) {
        row(name, ("name=\"" + QByteArray(entry) + "\" " + empty).constData(), problem);
    };
    named("leads out", "../x", "'../x': ");
    named("absolute on Windows", "C:/x", "'C:/x': ");
    named("hidden", "a/.x", "'a/.x': hidden; clients skip hidden entries");
    named("not for URLs", "a%20b", "'a%20b': the name has '%', which does not survive in a URL");
    named("control character", "a&#10;b", "'a\\x0ab': ");
    named("twice", "app", "'app': listed twice");
    named("below a file", "app/x", "'app': listed, and other entries lie in it");
    row("digest of another kind", "name=\"x\" md5=\"d41d8cd9\" size=\"0\"",
        "'x': its digest is not 32 hexadecimal digits");
    row("digest that is no number", "name=\"x\" md5=\"d41d8cd98f00b204e9800998ecf8427g\"",
        "'x': its digest is not 32 hexadecimal digits");
    row("mode that keeps its owner out",
        "name=\"x\" md5=\"d41d8cd98f00b204e9800998ecf8427e\" size=\"0\" permissions=\"--wx------\"",
        "'x': its owner may not read it");
    row("link out of the tree",
        "name=\"x\" md5=\"a901ef40ac9fd5e18815927dae80b5b2\" size=\"6\" "
        "symlink=\"../etc\"",
        "'x': the target '../etc' of the link leads out of the tree");
    row("link with the size of another",
        "name=\"x\" md5=\"d2a57dc1d883fd21fb9951699df71cc7\" "
        "size=\"4\" symlink=\"app\"",
        "'x': its size or digest is not that of the target's text");
    row("link with another digest",
        "name=\"x\" md5=\"d41d8cd98f00b204e9800998ecf8427e\" "
        "size=\"3\" symlink=\"app\"",
        "'x': its size or digest is not that of the target's text");
}

void TestKxpublishVerify::RecordsThatClientsCannotUseAreFound()
{
    QFETCH(QByteArray, record);
    QFETCH(QString, problem);
    PublishSite site;
    site.Add(S("1"));
    const QString path = site.BuildPath(S("1"), S("index.xml"));
    kxtest::Write(path, kxtest::Read(path).replace("  </build>", record + "</build>"));
    const PublishResult result = site.Run(S("verify"));
    const QString start = S("bad: demo-app 1 for x64: ") + problem;
    bool found = false;
    for (const QString& line : Findings(result))
        found = found || line.startsWith(start);
    QVERIFY2(found, qPrintable(result.out.join(QLatin1Char('\n'))));
    QCOMPARE(result.status, damaged);
}

void TestKxpublishVerify::ChoiceOfBuilds()
{
    PublishSite site;
    site.Add(S("1"));
    site.Add(S("1"), S("other"));
    site.Add(S("2"), S("other"));
    site.Add(S("2"), S("other"), S("x86"));
    const auto builds = [&site](const QStringList& words) {
        return site.Run(S("verify"), words).out.filter(S("builds: ")).value(0);
    };
    QCOMPARE(builds({}), S("builds: 4"));
    QCOMPARE(builds({S("--name"), S("other")}), S("builds: 3"));
    QCOMPARE(builds({S("--name"), S("other"), S("--name"), S("demo-app")}), S("builds: 4"));
    QCOMPARE(builds({S("--version"), S("2")}), S("builds: 2"));
    QCOMPARE(builds({S("--version"), S("2"), S("--platform"), S("x86")}), S("builds: 1"));
    const PublishResult none =
        site.Run(S("verify"), {S("--name"), S("demo-app"), S("--version"), S("2")});
    QCOMPARE(Findings(none).value(1), S("bad: 'demo-app': no such build is published"));
    QCOMPARE(none.status, damaged);
    QCOMPARE(site.Run(S("verify"), {S("--version"), S("9")}).status, damaged);
}

void TestKxpublishVerify::NginxServesWhatWasPublished()
{
    PublishSite site;
    site.Tree()
        .RandomFile(S("lib/\u00fcber big"), 3000000, 1)
        .File(S("empty"), "")
        .File(S("a+b&c;d=e,f"), "unusual")
        .Symlink(S("lib/link"), S("../app"));
    for (int i = 0; i < 40; ++i)
        site.Tree().RandomFile(S("many/%1").arg(i), 1000 + i, quint32(i));
    kxtest::TreeBuilder(site.Server()).Dir(S("packages"));
    NginxServer server(site.Server());
    QVERIFY2(server.Start(), qPrintable(server.Error()));
    site.SetBaseUrl(server.Url());
    site.Add(S("1"));
    site.Add(S("1"), S("other"));
    site.Promote(S("1"));
    for (const QString& url : {server.Url(), server.Url(S("packages/"))}) {
        const PublishResult result =
            kxtest::RunPublish({S("verify"), url, S("--name"), S("demo-app"), S("--name"),
                                S("other"), S("--jobs"), S("16")});
        QCOMPARE(Findings(result), QStringList());
        QCOMPARE(result.err, QStringList());
        QCOMPARE(result.out.mid(0, 2), QStringList({S("builds: 2"), S("files: 88")}));
        QCOMPARE(result.status, 0);
    }
}

void TestKxpublishVerify::NginxWithFaultsIsFoundOut()
{
    PublishSite site;
    site.Tree().File(S("lost"), "lost").File(S("short"), "short").File(S("long"), "long");
    site.Tree().File(S("wrong"), "wrong").File(S("closed"), "closed");
    kxtest::TreeBuilder(site.Server()).Dir(S("packages"));
    NginxServer server(site.Server());
    server.AddConfiguration(S("location ~ /closed$ { deny all; }"));
    QVERIFY2(server.Start(), qPrintable(server.Error()));
    site.SetBaseUrl(server.Url());
    site.Add(S("1"));
    site.Promote(S("1"));
    kxtest::Remove(site.BuildPath(S("1"), S("files/lost")));
    kxtest::Write(site.BuildPath(S("1"), S("files/short")), "shor");
    kxtest::Write(site.BuildPath(S("1"), S("files/long")), "longer");
    kxtest::Write(site.BuildPath(S("1"), S("files/wrong")), "wrnog");
    const PublishResult result =
        kxtest::RunPublish({S("verify"), server.Url(), S("--name"), S("demo-app")});
    const QString bad = S("bad: demo-app 1 for x64: ");
    QCOMPARE(Findings(result),
             QStringList({bad + S("'closed': the server answered with status 403 (Forbidden)"),
                          bad + S("'long': has more than the expected 4 bytes"),
                          bad + S("'lost': the server answered with status 404 (Not Found)"),
                          bad + S("'short': has 4 bytes instead of 5"),
                          bad + S("'wrong': has another digest than the manifest says")}));
    QVERIFY(result.out.contains(S("files: 6")));
    QCOMPARE(result.status, damaged);

    const PublishResult version = kxtest::RunPublish(
        {S("verify"), server.Url(), S("--name"), S("demo-app"), S("--version"), S("7")});
    QCOMPARE(Findings(version),
             QStringList({S("bad: demo-app 7 for x64: '%1/packages/demo-app-v7/windows/x64/"
                            "index.xml': the server answered with status 404 (Not Found)")
                              .arg(server.Url())}));
}

void TestKxpublishVerify::NginxThatCachesOrPacksIsWarnedOf()
{
    PublishSite site;
    site.Tree().File(S("text"), QByteArray(5000, 'x'));
    kxtest::TreeBuilder(site.Server()).Dir(S("packages"));
    NginxServer server(site.Server());
    server.AddHeader(S("Cache-Control"), S("public, max-age=3600"));
    server.AddConfiguration(S("max_ranges 0;"));
    server.AddConfiguration(S("location ~ /app$ { add_header Content-Encoding br; }"));
    QVERIFY2(server.Start(), qPrintable(server.Error()));
    site.SetBaseUrl(S("http://127.0.0.1:%1/").arg(server.Port()));
    site.Add(S("1"));
    site.Promote(S("1"));
    const PublishResult result =
        kxtest::RunPublish({S("verify"), server.Url(), S("--name"), S("demo-app")});
    QCOMPARE(Findings(result),
             QStringList({S("warning: '%1/packages/version.xml': caches may answer with it for "
                            "3600 seconds; clients learn of a new version that late "
                            "(Cache-Control)")
                              .arg(server.Url()),
                          S("warning: demo-app 1 for x64: 'app': served with a content encoding, "
                            "which clients reject"),
                          S("warning: demo-app 1 for x64: 'text': served without ranges; a "
                            "download that is cut begins from the start")}));
    QCOMPARE(result.status, 0);
}

void TestKxpublishVerify::FaultsOfTheNetworkAreFound_data()
{
    QTest::addColumn<ServerFunction>("change");
    QTest::addColumn<QStringList>("expected"); // %1: the address
    const auto row = [](const char* name, const ServerFunction& change,
                        const QStringList& expected) { QTest::newRow(name) << change << expected; };
    static const QString files = S("/packages/demo-app-v1/windows/x64/files/");
    static const QString reply = S("/packages/version.xml");
    static const QString index = S("/packages/demo-app-v1/windows/x64/index.xml");
    const QString bad = S("bad: demo-app 1 for x64: ");
    const auto with = [](const QString& path, const Reply& answer) {
        return [path, answer](HttpTestServer& server) { server.SetDefaultReply(path, answer); };
    };
    const auto cached = [](const char* value) {
        Reply answer;
        answer.headers.append(qMakePair(QByteArray("Cache-Control"), QByteArray(value)));
        return answer;
    };
    row("nothing", [](HttpTestServer&) {}, {});
    row("cut file", with(files + S("data"), Reply::TruncateAfter(2)), {bad + S("'data': ")});
    row("dropped connection", with(files + S("data"), Reply::Drop()), {bad + S("'data': ")});
    row("chunked file that is cut", with(files + S("data"), Reply::ChunkedWithoutEnd(3)),
        {bad + S("'data': ")});
    row("error page", with(files + S("data"), Reply::Status(503)),
        {bad + S("'data': the server answered with status 503")});
    row("error page as a success", with(files + S("data"), Reply::Body("<html>")),
        {bad + S("'data': has more than the expected 4 bytes")});
    row("file that leads elsewhere", with(files + S("data"), Reply::Redirect(S("ftp://x/y"))),
        {bad + S("'data': redirected to 'ftp://x/y', which is neither http nor https")});
    row("reply without a version", with(reply, Reply::Body("<version>1\033[2J</version>")),
        {S("bad: '%1/packages/version.xml': names no version")});
    row("reply that is a page", with(reply, Reply::Body("<html>hello</html>")),
        {S("bad: '%1/packages/version.xml': names no version; is it a page of another "
           "server, such as a login page?")});
    row("reply that is huge", with(reply, Reply::Body(QByteArray(70000, ' '))),
        {S("bad: '%1/packages/version.xml': has more than the expected 65536 bytes")});
    row("manifest that is a page", with(index, Reply::Body("<html>hello</html>")),
        {bad + S("'%1/packages/demo-app-v1/windows/x64/index.xml': not a manifest with files of "
                 "demo-app")});
    row("manifest that is huge", with(index, Reply::DeclaredLength(64 * 1024 * 1024 + 1)),
        {bad + S("'%1/packages/demo-app-v1/windows/x64/index.xml': has more than the expected "
                 "67108864 bytes")});
    // What is read is what clients get, not what a server has for those who want it unpacked.
    const auto packed = [](const QByteArray& body) {
        Reply answer = Reply::Body(body);
        answer.headers.append(qMakePair(QByteArray("Content-Encoding"), QByteArray("deflate")));
        return answer;
    };
    const QByteArray page = qCompress("<html>hello</html>").mid(4);
    row("packed manifest that is damaged", with(index, packed(page.chopped(1) + 'x')),
        {bad + S("'%1/packages/demo-app-v1/windows/x64/index.xml': the compressed reply is "
                 "damaged, or unpacks to far more than it should")});
    // Longer, packed and unpacked, than what is held in memory.
    const QByteArray noise = HttpTestServer::GeneratedBytes(0, 65521).toHex();
    QByteArray comments;
    for (int i = 0; i < 100; ++i)
        comments += "<!--" + noise.mid(i * 13) + noise.left(i * 13) + "-->";
    row("packed manifest that is long", with(index, packed(qCompress(comments, 0).mid(4))),
        {bad + S("'%1/packages/demo-app-v1/windows/x64/index.xml': not a manifest with files of "
                 "demo-app")});
    row("packed reply that is long", with(reply, packed(qCompress(comments, 0).mid(4))),
        {S("bad: '%1/packages/version.xml': has more than the expected 65536 bytes")});
    row("packed manifest that is huge",
        with(index, packed(qCompress(QByteArray(65 * 1024 * 1024, ' ')).mid(4))),
        {bad + S("'%1/packages/demo-app-v1/windows/x64/index.xml': the compressed reply is "
                 "damaged, or unpacks to far more than it should")});
    row("packed reply that is huge", with(reply, packed(qCompress(QByteArray(70000, ' ')).mid(4))),
        {S("bad: '%1/packages/version.xml': has more than the expected 65536 bytes")});
    row("packed reply", with(reply, packed(qCompress("<version>1</version>").mid(4))), {});
    Reply other = Reply::Body("<version>1</version>");
    other.headers.append(qMakePair(QByteArray("Content-Encoding"), QByteArray("compr\033ess")));
    row("reply packed as nobody asked for", with(reply, other),
        {S("bad: '%1/packages/version.xml': the reply has the content encoding 'compr\\x1bess', "
           "which was not asked for")});
    row("long life in caches", with(reply, cached("s-maxage=301")),
        {S("warning: '%1/packages/version.xml': caches may answer with it for 301 seconds")});
    row("short life in caches", with(reply, cached("max-age=300")), {});
    row("caches have to ask", with(reply, cached("No-Cache, max-age=3600")), {});
    row("no ranges",
        [](HttpTestServer& server) {
            server.SetBody(files + S("program"), "program");
            server.SetRangeSupport(files + S("program"), false);
        },
        {S("warning: demo-app 1 for x64: 'program': served without ranges")});
}

void TestKxpublishVerify::FaultsOfTheNetworkAreFound()
{
    QFETCH(ServerFunction, change);
    QFETCH(QStringList, expected);
    HttpTestServer server;
    PublishSite site;
    server.ServeDirectory(S("/"), site.Server());
    QString url = server.Url().toString();
    url.chop(1);
    site.SetBaseUrl(url);
    site.Tree().File(S("data"), "data").File(S("program"), "program");
    site.Tree().Remove(S("app")).File(S("app"), "x", 0755);
    site.Add(S("1"));
    site.Promote(S("1"));
    change(server);
    const PublishResult result =
        RunWhileServing({S("verify"), url, S("--name"), S("demo-app"), S("--jobs"), S("1")});
    const QStringList findings = Findings(result);
    QVERIFY2(findings.size() == expected.size(),
             qPrintable((result.out + result.err).join(QLatin1Char('\n'))));
    bool isBad = false;
    for (qsizetype i = 0; i < findings.size(); ++i) {
        QVERIFY2(findings.at(i).startsWith(QString(expected.at(i)).replace(S("%1"), url)),
                 qPrintable(findings.at(i)));
        isBad = isBad || findings.at(i).startsWith(S("bad"));
    }
    QVERIFY(!result.out.join(QString()).contains(QLatin1Char('\033')));
    QCOMPARE(result.status, isBad ? damaged : 0);
    // A bad file does not keep the others from being read.
    if (!expected.isEmpty() && expected.at(0).contains(S("'data'")))
        QVERIFY(result.out.contains(S("files: 3")));
}

void TestKxpublishVerify::PhrasesOfAServerAreMadePrintable()
{
    QTcpServer server;
    QVERIFY(server.listen(QHostAddress::LocalHost));
    connect(&server, &QTcpServer::newConnection, this, [&server] {
        QTcpSocket* socket = server.nextPendingConnection();
        connect(socket, &QTcpSocket::readyRead, socket, [socket] {
            socket->write("HTTP/1.1 404 Not\033[2J Found\r\nContent-Length: 0\r\n\r\n");
            socket->disconnectFromHost();
        });
    });
    const QString url = S("http://127.0.0.1:%1").arg(server.serverPort());
    const PublishResult result = RunWhileServing({S("verify"), url, S("--name"), S("demo-app")});
    QCOMPARE(Findings(result), QStringList({S("bad: '%1/packages/version.xml': the server answered "
                                              "with status 404 (Not\\x1b[2J Found)")
                                                .arg(url)}));
    QCOMPARE(result.status, damaged);
}

void TestKxpublishVerify::LongFileIsNotReadToItsEnd()
{
    HttpTestServer server;
    PublishSite site;
    server.ServeDirectory(S("/"), site.Server());
    QString url = server.Url().toString();
    url.chop(1);
    site.SetBaseUrl(url);
    site.Tree().File(S("data"), "data");
    site.Add(S("1"));
    site.Promote(S("1"));
    const QString path = S("/packages/demo-app-v1/windows/x64/files/data");
    server.SetGeneratedBody(path, qint64(1) << 40);
    Reply endless;
    endless.framing = Reply::Framing::Chunked;
    server.SetDefaultReply(path, endless);
    const PublishResult result = RunWhileServing({S("verify"), url, S("--name"), S("demo-app")});
    QCOMPARE(Findings(result), QStringList({S("bad: demo-app 1 for x64: 'data': has more than the "
                                              "expected 4 bytes")}));
    QVERIFY2(server.BytesSent() < 64 * 1024 * 1024,
             qPrintable(QString::number(server.BytesSent())));
}

void TestKxpublishVerify::JobsAreTheTransfersAtATime()
{
    HttpTestServer server;
    PublishSite site;
    server.ServeDirectory(S("/"), site.Server());
    QString url = server.Url().toString();
    url.chop(1);
    site.SetBaseUrl(url);
    const QString files = S("/packages/demo-app-v1/windows/x64/files/");
    for (int i = 0; i < 20; ++i)
        site.Tree().File(S("f%1").arg(i), "x");
    site.Add(S("1"));
    site.Promote(S("1"));
    for (int i = 0; i < 20; ++i)
        server.Enqueue(files + S("f%1").arg(i), Reply::Hold());
    QProcess process;
    kxtest::PreparePublish(process,
                           {S("verify"), url, S("--name"), S("demo-app"), S("--jobs"), S("9")});
    QSignalSpy finished(&process, &QProcess::finished);
    process.start();
    // More than the connections of one manager, and no more than asked for.
    QTRY_COMPARE_WITH_TIMEOUT(server.StalledCount(), 9, 30000);
    for (int i = 0; i < 200 && finished.isEmpty(); ++i) {
        QVERIFY(server.StalledCount() <= 9);
        server.ReleaseStalled();
        finished.wait(50);
    }
    QCOMPARE(finished.size(), 1);
    QCOMPARE(process.exitCode(), 0);
    QCOMPARE(server.MaxConcurrent(), 9);
}

void TestKxpublishVerify::BadSettingsAreRefused_data()
{
    QTest::addColumn<QStringList>("words");
    QTest::addColumn<QString>("problem");
    QTest::newRow("no name") << QStringList{S("http://127.0.0.1:1")}
                             << S("'http://127.0.0.1:1': a web server does not tell its packages, "
                                  "--name is needed");
    QTest::newRow("other scheme") << QStringList{S("ftp://x"), S("--name"), S("a")}
                                  << S("'ftp://x': does not begin with http:// or https://");
    QTest::newRow("bad name") << QStringList{S("http://127.0.0.1:1"), S("--name"), S("../a")}
                              << S("--name '../a': may only have letters of ASCII, digits and "
                                   "._+~-");
    QTest::newRow("bad version") << QStringList{S("http://127.0.0.1:1"), S("--name"), S("a"),
                                                S("--version"), S("1/2")}
                                 << S("--version '1/2': may only have letters of ASCII, digits "
                                      "and ._+~-");
    QTest::newRow("bad platform") << QStringList{S("http://127.0.0.1:1"), S("--name"), S("a"),
                                                 S("--platform"), S("mips")}
                                  << S("--platform 'mips': is neither 'x64' nor 'x86'");
}

void TestKxpublishVerify::BadSettingsAreRefused()
{
    QFETCH(QStringList, words);
    QFETCH(QString, problem);
    const PublishResult result = kxtest::RunPublish(QStringList{S("verify")} + words);
    QCOMPARE(result.err, QStringList({problem, S("refused, 1 problem")}));
    QCOMPARE(result.out, QStringList());
    QCOMPARE(result.status, 1);
}

QTEST_GUILESS_MAIN(TestKxpublishVerify)
#include "tst_kxpublish_verify.moc"
