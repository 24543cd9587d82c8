// Runs the real web servers with the example configurations as they stand in the repository.

#include "exampleserver.h"
#include "httpexchange.h"
#include "kxupdateprocess.h"
#include "publishrun.h"
#include "treebuilder.h"

#include <kxupdater/build.h>

#include <QDateTime>
#include <QFile>
#include <QRegularExpression>
#include <QTest>

#include <memory>

using kxtest::Exchange;
using kxtest::HttpExchange;
using kxtest::TreeBuilder;

namespace {

constexpr int waitMs = 60000;
constexpr qint64 dataSize = 300000;

QString S(const char* text)
{
    return QString::fromUtf8(text);
}

QString BuildPath(const QString& version)
{
    return S("packages/demo-app-v%1/windows/%2/").arg(version, updater::Build::Platform());
}

} // namespace

/** What clients, and caches on the way to them, get from the servers of the examples. */
class TestExampleServers : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void RepliesSayHowLongTheyHold_data();
    void RepliesSayHowLongTheyHold();
    void WhatIsNotPublishedIsNotFound_data();
    void WhatIsNotPublishedIsNotFound();
    void UnchangedIsAnsweredShortly_data();
    void UnchangedIsAnsweredShortly();
    void NewVersionIsSeenAtOnce_data() { AddServers(); }
    void NewVersionIsSeenAtOnce();
    void RangeGoesOnWhereItStopped_data() { AddServers(); }
    void RangeGoesOnWhereItStopped();
    void OnlyReadingIsAllowed_data();
    void OnlyReadingIsAllowed();
    void OnlyManifestsArePacked_data();
    void OnlyManifestsArePacked();
    void ClientGetsThePackedManifest_data() { AddServers(); }
    void ClientGetsThePackedManifest();
    void LongestPathIsNotRefused_data() { AddServers(); }
    void LongestPathIsNotRefused();
    void KxupdateUpdatesAndResumes_data() { AddServers(); }
    void KxupdateUpdatesAndResumes();
    void LogHoldsRequestsButNoWholeAddress_data() { AddServers(); }
    void LogHoldsRequestsButNoWholeAddress();

private:
    static void AddServers();
    void AddRows(const QList<QPair<QString, QString>>& paths);
    static bool IsNginx() { return QByteArray(QTest::currentDataTag()).startsWith("nginx"); }
    ExampleServer& Server() { return IsNginx() ? *nginx : *caddy; }
    void Publish(const QString& version);
    void Serve(ExampleServer& server, const QString& root);

    std::unique_ptr<TreeBuilder> tree; // what is published
    std::unique_ptr<TreeBuilder> site; // what the servers serve
    std::unique_ptr<TreeBuilder> home; // application and download
    std::unique_ptr<ExampleServer> nginx;
    std::unique_ptr<ExampleServer> caddy;
};

void TestExampleServers::initTestCase()
{
    site = std::make_unique<TreeBuilder>();
    kxtest::SetMode(site->Root(), 0755);
    tree = std::make_unique<TreeBuilder>();
    tree->File(S("app"), "program 1", 0755)
        .RandomFile(S("lib/data.bin"), dataSize, 1)
        .File(S("doc/page.html"), "<html>" + QByteArray(5000, 'x') + "</html>")
        .File(S("doc/index.xml"), "<x/>")
        .File(S("für alle/a b+c.txt"), "unusual");
    for (int i = 0; i < 50; ++i)
        tree->File(S("many/%1").arg(i), "x");
    Publish(S("1.0"));
    tree->File(S("app"), "program 2", 0755).RandomFile(S("lib/data.bin"), dataSize, 2);
    Publish(S("2.0"));
    QCOMPARE(kxtest::RunPublish(kxtest::PromoteArguments(S("1.0"), site->Root())).status, 0);
    site->File(BuildPath(S("1.0")) + S("notes.md"), "# Notes")
        .File(S("packages/.kxpublish.lock"), "x")
        .File(S("packages/.kxpublish/build/index.xml"), "x");

    nginx = std::make_unique<NginxExample>(site->Root());
    QVERIFY2(nginx->StartExample(), qPrintable(nginx->Error()));
    caddy = std::make_unique<CaddyExample>(site->Root());
    QVERIFY2(caddy->StartExample(), qPrintable(caddy->Error()));
}

void TestExampleServers::init()
{
    QTest::failOnWarning(QRegularExpression(S("No such (signal|slot)")));
    home = std::make_unique<TreeBuilder>();
}

void TestExampleServers::Publish(const QString& version)
{
    QStringList arguments = kxtest::AddArguments(tree->Root(), site->Root());
    arguments = kxtest::With(arguments, S("--version"), version);
    arguments = kxtest::With(arguments, S("--platform"), updater::Build::Platform());
    QCOMPARE(kxtest::RunPublish(arguments).status, 0);
}

void TestExampleServers::AddServers()
{
    QTest::addColumn<int>("none");
    QTest::newRow("nginx") << 0;
    QTest::newRow("caddy") << 0;
}

// A row for each server and each name of a path.
void TestExampleServers::AddRows(const QList<QPair<QString, QString>>& paths)
{
    QTest::addColumn<QString>("path");
    for (const char* server : {"nginx", "caddy"}) {
        for (const auto& path : paths)
            QTest::addRow("%s, %s", server, qPrintable(path.first)) << path.second;
    }
}

void TestExampleServers::RepliesSayHowLongTheyHold_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QByteArray>("cache");
    QTest::addColumn<QByteArray>("type");
    const QByteArray never("no-cache");
    const QByteArray always("public, max-age=31536000, immutable");
    const QByteArray file = always + ", no-transform";
    const QByteArray bytes("application/octet-stream");
    const QString build = BuildPath(S("1.0"));
    for (const char* server : {"nginx", "caddy"}) {
        const auto add = [server](const char* name, const QString& path, const QByteArray& cache,
                                  const QByteArray& type) {
            QTest::addRow("%s, %s", server, name) << path << cache << type;
        };
        add("version reply", S("packages/version.xml"), never, "application/xml");
        add("version reply past caches", S("packages/version.xml?id=1"), never, "application/xml");
        add("manifest", build + S("index.xml"), always, "application/xml");
        add("notes", build + S("notes.md"), always, "text/markdown; charset=utf-8");
        add("file", build + S("files/lib/data.bin"), file, bytes);
        add("file that is a page", build + S("files/doc/page.html"), file, bytes);
        add("file called like a manifest", build + S("files/doc/index.xml"), file, bytes);
        add("file with an unusual name", build + S("files/f%C3%BCr%20alle/a%20b+c.txt"), file,
            bytes);
    }
}

void TestExampleServers::RepliesSayHowLongTheyHold()
{
    QFETCH(QString, path);
    QFETCH(QByteArray, cache);
    QFETCH(QByteArray, type);
    for (const char* method : {"GET", "HEAD"}) {
        const HttpExchange reply = Exchange(Server().Url(path), {}, method);
        QCOMPARE(reply.status, 200);
        QCOMPARE(reply.Header("Cache-Control"), cache);
        QCOMPARE(reply.Header("Content-Type"), type);
        QCOMPARE(reply.Header("Content-Encoding"), QByteArray());
        QCOMPARE(reply.Header("Accept-Ranges"), QByteArray("bytes"));
        QVERIFY(!reply.Header("ETag").isEmpty());
    }
}

void TestExampleServers::WhatIsNotPublishedIsNotFound_data()
{
    AddRows({{S("root"), S("")},
             {S("listing of packages"), S("packages/")},
             {S("directory without its slash"), S("packages")},
             {S("listing of files"), BuildPath(S("1.0")) + S("files/")},
             {S("directory of files"), BuildPath(S("1.0")) + S("files/lib")},
             {S("missing version"), BuildPath(S("9.0")) + S("index.xml")},
             {S("missing file"), BuildPath(S("1.0")) + S("files/no")},
             {S("below a file"), BuildPath(S("1.0")) + S("files/app/more")},
             {S("lock file"), S("packages/.kxpublish.lock")},
             {S("escaped dot"), S("packages/%2ekxpublish.lock")},
             {S("build in the making"), S("packages/.kxpublish/build/index.xml")},
             {S("out of the tree"), S("packages/..%2f..%2f..%2f..%2fetc/hostname")}});
}

void TestExampleServers::WhatIsNotPublishedIsNotFound()
{
    QFETCH(QString, path);
    const HttpExchange reply = Exchange(Server().Url() + u'/' + path);
    // nginx takes a path that leads out of its root for no request at all.
    const bool leadsOut = path.contains(S(".."));
    QVERIFY2(reply.status == 404 || (leadsOut && reply.status == 400), reply.body);
    if (!leadsOut)
        QCOMPARE(reply.Header("Cache-Control"), QByteArray("no-cache"));
    QVERIFY2(reply.body.size() < 500 && !reply.body.contains("kxpublish"), reply.body);
}

void TestExampleServers::UnchangedIsAnsweredShortly_data()
{
    AddRows({{S("version reply"), S("packages/version.xml")},
             {S("manifest"), BuildPath(S("1.0")) + S("index.xml")},
             {S("file"), BuildPath(S("1.0")) + S("files/lib/data.bin")}});
}

void TestExampleServers::UnchangedIsAnsweredShortly()
{
    QFETCH(QString, path);
    const HttpExchange full = Exchange(Server().Url(path));
    const HttpExchange again =
        Exchange(Server().Url(path), {{"If-None-Match", full.Header("ETag")}});
    QCOMPARE(again.status, 304);
    QCOMPARE(again.body, QByteArray());
    QCOMPARE(again.Header("ETag"), full.Header("ETag"));
    QCOMPARE(again.Header("Cache-Control"), full.Header("Cache-Control"));
    QCOMPARE(Exchange(Server().Url(path), {{"If-None-Match", "\"other\""}}).status, 200);
}

void TestExampleServers::NewVersionIsSeenAtOnce()
{
    const QString url = Server().Url(S("packages/version.xml"));
    const QByteArray tag = Exchange(url).Header("ETag");
    // The same length, and tags tell whole seconds apart: a promotion comes later than that.
    QFile reply(site->Path(S("packages/version.xml")));
    const QDateTime time = reply.fileTime(QFileDevice::FileModificationTime);
    const QByteArray before = kxtest::Read(reply.fileName());
    kxtest::Write(reply.fileName(), QByteArray(before).replace("1.0<", "2.0<"));
    QVERIFY(reply.open(QIODevice::ReadWrite));
    QVERIFY(reply.setFileTime(time.addSecs(1), QFileDevice::FileModificationTime));
    const HttpExchange after = Exchange(url, {{"If-None-Match", tag}});
    QCOMPARE(after.status, 200);
    QVERIFY2(after.body.contains(">2.0<"), after.body);
    kxtest::Write(reply.fileName(), before);
}

void TestExampleServers::RangeGoesOnWhereItStopped()
{
    const QString url = Server().Url(BuildPath(S("1.0")) + S("files/lib/data.bin"));
    const HttpExchange full = Exchange(url);
    QCOMPARE(full.body.size(), dataSize);
    const QByteArray range("bytes=100000-");
    const HttpExchange rest = Exchange(url, {{"Range", range}});
    QCOMPARE(rest.status, 206);
    QCOMPARE(rest.Header("Content-Range"), QByteArray("bytes 100000-299999/300000"));
    QCOMPARE(rest.Header("Cache-Control"), full.Header("Cache-Control"));
    QVERIFY(full.body.left(100000) + rest.body == full.body);
    QCOMPARE(Exchange(url, {{"Range", range}, {"If-Range", full.Header("ETag")}}).status, 206);
    QCOMPARE(Exchange(url, {{"Range", range}, {"If-Range", "\"other\""}}).body.size(), dataSize);
    QCOMPARE(Exchange(url, {{"Range", "bytes=300000-"}}).status, 416);
}

void TestExampleServers::OnlyReadingIsAllowed_data()
{
    AddRows({{S("POST"), S("POST")},
             {S("PUT"), S("PUT")},
             {S("DELETE"), S("DELETE")},
             {S("OPTIONS"), S("OPTIONS")},
             {S("PROPFIND"), S("PROPFIND")}});
}

void TestExampleServers::OnlyReadingIsAllowed()
{
    QFETCH(QString, path);
    const QStringList before = kxtest::Snapshot(site->Root());
    const HttpExchange reply =
        Exchange(Server().Url(S("packages/version.xml")), {}, path.toLatin1(), "data");
    QCOMPARE(reply.status, 405);
    QVERIFY(!reply.body.contains("<version>"));
    QCOMPARE(kxtest::Snapshot(site->Root()), before);
}

void TestExampleServers::OnlyManifestsArePacked_data()
{
    AddRows({{S("manifest"), BuildPath(S("1.0")) + S("index.xml")},
             {S("version reply"), S("packages/version.xml")},
             {S("page"), BuildPath(S("1.0")) + S("files/doc/page.html")},
             {S("data"), BuildPath(S("1.0")) + S("files/lib/data.bin")}});
}

void TestExampleServers::OnlyManifestsArePacked()
{
    QFETCH(QString, path);
    const bool isManifest = path == BuildPath(S("1.0")) + S("index.xml");
    const QByteArray plain = Exchange(Server().Url(path)).body;
    const HttpExchange packed = Exchange(Server().Url(path), {{"Accept-Encoding", "gzip"}});
    QCOMPARE(packed.status, 200);
    QCOMPARE(packed.Header("Content-Encoding"), QByteArray(isManifest ? "gzip" : ""));
    if (!isManifest) {
        QVERIFY(packed.body == plain);
        return;
    }
    QVERIFY(packed.body.size() < plain.size() / 2);
    // A cache has to keep the two apart.
    QCOMPARE(packed.Header("Vary"), QByteArray("Accept-Encoding"));
    // Part of a packed text would be put behind part of a plain one.
    const HttpExchange part = Exchange(Server().Url(path), {{"Range", "bytes=10-"}});
    QVERIFY(part.status == 206 && part.body == plain.mid(10));
}

void TestExampleServers::ClientGetsThePackedManifest()
{
    // A server of its own, with nobody else's requests in the log.
    const QString root = site->Root();
    const std::unique_ptr<ExampleServer> server =
        IsNginx() ? std::unique_ptr<ExampleServer>(new NginxExample(root))
                  : std::unique_ptr<ExampleServer>(new CaddyExample(root));
    QVERIFY2(server->StartExample(), qPrintable(server->Error()));
    KxupdateProcess check;
    QVERIFY2(check.Run({S("check"), S("--url"), server->Url(), S("--package"), S("demo-app"),
                        S("--current"), S("0"), S("--app"), home->Path(S("installed"))}),
             check.Report());
    QVERIFY2(check.Data(S("server")) == S("1.0"), check.Report());
    const QRegularExpression line(IsNginx() ? S("index\\.xml HTTP/1\\.1\" 200 (\\d+) ")
                                            : S("index\\.xml\".*\"size\":(\\d+),\"status\":200"));
    const auto sent = [&] {
        return line.match(QString::fromUtf8(server->AccessLog())).captured(1).toLongLong();
    };
    QTRY_VERIFY_WITH_TIMEOUT(sent() > 0, waitMs);
    const qint64 plain = QFile(site->Path(BuildPath(S("1.0")) + S("index.xml"))).size();
    QVERIFY2(sent() < plain / 2, QByteArray::number(sent()));
}

void TestExampleServers::LongestPathIsNotRefused()
{
    // 4,096 bytes, all of them escaped.
    const QString path = S("packages/") + S("%C3%BC%2F").repeated(4096 / 3);
    QCOMPARE(Exchange(Server().Url(path)).status, 404);
}

// A site of its own, published for the address of the server that is to serve it.
void TestExampleServers::Serve(ExampleServer& server, const QString& root)
{
    QVERIFY2(server.StartExample(), qPrintable(server.Error()));
    for (const QString& version : {S("1.0"), S("2.0")}) {
        TreeBuilder(home->Path(version))
            .File(S("app"), "program " + version.toLatin1(), 0755)
            .File(S("same"), "the same in both")
            .RandomFile(S("data.bin"), dataSize, version.front().digitValue());
        QStringList arguments = kxtest::AddArguments(home->Path(version), root);
        arguments = kxtest::With(arguments, S("--version"), version);
        arguments = kxtest::With(arguments, S("--platform"), updater::Build::Platform());
        arguments = kxtest::With(arguments, S("--base-url"), server.Url());
        QCOMPARE(kxtest::RunPublish(arguments).status, 0);
    }
}

void TestExampleServers::KxupdateUpdatesAndResumes()
{
    kxtest::SetMode(home->Root(), 0755);
    const QString root = home->Dir(S("site")).Path(S("site"));
    const std::unique_ptr<ExampleServer> server =
        IsNginx() ? std::unique_ptr<ExampleServer>(new NginxExample(root))
                  : std::unique_ptr<ExampleServer>(new CaddyExample(root));
    Serve(*server, root);
    const QString app = home->Path(S("installed"));
    QString current = S("0");
    for (const QString& version : {S("1.0"), S("2.0")}) {
        QCOMPARE(kxtest::RunPublish(kxtest::PromoteArguments(version, root)).status, 0);
        // What an interrupted download of the second one would have left.
        if (version == S("2.0"))
            home->File(S("next/.data.bin.kx.part"), kxtest::RandomBytes(dataSize, 2).left(100000));
        KxupdateProcess update;
        QVERIFY2(update.Run({S("update"), S("--url"), server->Url(), S("--package"), S("demo-app"),
                             S("--current"), current, S("--app"), app, S("--download"),
                             home->Path(S("next"))}),
                 update.Report());
        QVERIFY2(update.Status() == 0, update.Report());
        QCOMPARE(kxtest::Snapshot(app), kxtest::Snapshot(home->Path(version)));
        current = version;
    }
    const QRegularExpression resumed(IsNginx() ? S("data\\.bin HTTP/1\\.1\" 206 200000 ")
                                               : S("data\\.bin\".*\"size\":200000,\"status\":206"));
    QTRY_VERIFY_WITH_TIMEOUT(resumed.match(QString::fromUtf8(server->AccessLog())).hasMatch(),
                             waitMs);
}

void TestExampleServers::LogHoldsRequestsButNoWholeAddress()
{
    const QString path = BuildPath(S("1.0")) + S("files/app");
    Exchange(Server().Url(path) + S("?log"));
    QTRY_VERIFY_WITH_TIMEOUT(Server().AccessLog().contains("files/app?log"), waitMs);
    QVERIFY(Server().AccessLog().contains("127.0.0.0"));
    QVERIFY2(!Server().AccessLog().contains("127.0.0.1 "), Server().AccessLog());
    QVERIFY2(!Server().AccessLog().contains("remote_ip\":\"127.0.0.1"), Server().AccessLog());
}

QTEST_GUILESS_MAIN(TestExampleServers)
#include "tst_example_servers.moc"
