#include "httptestserver.h"

#include <QFile>
#include <QNetworkAccessManager>
#include <QNetworkProxy>
#include <QNetworkReply>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QSslSocket>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTest>

using kxtest::HttpTestServer;
using kxtest::Reply;

namespace {
constexpr int patience = 30000;
}
Q_DECLARE_METATYPE(kxtest::Reply)

class TestHttpTestServer : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void init();
    void BodiesAreServedUnderDecodedPaths();
    void UnknownPathIsNotFound();
    void DirectoriesAreReadAtRequestTime();
    void ScriptIsConsumedRequestByRequest();
    void ConnectionIsKeptAlive();
    void FaultsReachTheClient_data();
    void FaultsReachTheClient();
    void DroppedConnectionGivesNoReply();
    void ResetCutsTheBody();
    void ChunkedBodyCanLackItsEnd();
    void RangesAreServed_data();
    void RangesAreServed();
    void LargeBodyComesWhole();
    void HeldRepliesCountAsConcurrent();
    void StoppedServerRefuses();
    void ActsAsProxy();
    void ProxyAsksForCredentials();
    void ServesTls();

private:
    // The reply, finished; deleted with the manager.
    QNetworkReply* Get(const QUrl& url, const kxtest::HeaderList& headers = {});
    QNetworkReply* Get(QNetworkAccessManager& manager, const QUrl& url,
                       const kxtest::HeaderList& headers = {});

    // What a plain socket gets until the server closes; the access manager would ask again.
    static QByteArray RawBody(const HttpTestServer& server, const QByteArray& path);

    std::unique_ptr<QNetworkAccessManager> manager;
};

void TestHttpTestServer::init()
{
    QTest::failOnWarning(QRegularExpression("[Nn]o such (signal|slot)"));
    manager = std::make_unique<QNetworkAccessManager>();
    manager->setProxy(QNetworkProxy::NoProxy);
}

QNetworkReply* TestHttpTestServer::Get(const QUrl& url, const kxtest::HeaderList& headers)
{
    return Get(*manager, url, headers);
}

QNetworkReply* TestHttpTestServer::Get(QNetworkAccessManager& from, const QUrl& url,
                                       const kxtest::HeaderList& headers)
{
    QNetworkRequest request(url);
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
                         QNetworkRequest::ManualRedirectPolicy);
    for (const auto& header : headers)
        request.setRawHeader(header.first, header.second);
    QNetworkReply* reply = from.get(request);
    reply->ignoreSslErrors();
    QSignalSpy finished(reply, SIGNAL(finished()));
    if (!reply->isFinished() && !finished.wait(patience))
        qWarning("no reply in time");
    return reply;
}

static int StatusOf(QNetworkReply* reply)
{
    return reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
}

void TestHttpTestServer::BodiesAreServedUnderDecodedPaths()
{
    HttpTestServer server;
    QVERIFY(server.IsListening());
    const QString path = QStringLiteral("/a dir/g\u00fc#?%41");
    server.SetBody(path, "content");
    QUrl url = server.Url(path);
    url.setQuery("os=linux&x=%20");
    QNetworkReply* reply = Get(url, {{"X-Test", "yes"}});
    QCOMPARE(StatusOf(reply), 200);
    QCOMPARE(reply->readAll(), QByteArray("content"));
    QCOMPARE(server.RequestCount(), 1);
    const kxtest::Request request = server.Requests().first();
    QCOMPARE(request.method, QByteArray("GET"));
    QCOMPARE(request.path, path);
    QCOMPARE(request.query, QByteArray("os=linux&x=%20"));
    QCOMPARE(request.Header("x-test"), QByteArray("yes"));
    QVERIFY(!request.HasHeader("Range"));
}

void TestHttpTestServer::UnknownPathIsNotFound()
{
    HttpTestServer server;
    QCOMPARE(StatusOf(Get(server.Url("/nothing"))), 404);
}

void TestHttpTestServer::DirectoriesAreReadAtRequestTime()
{
    QTemporaryDir dir;
    HttpTestServer server;
    server.ServeDirectory("/files", dir.path());
    QCOMPARE(StatusOf(Get(server.Url("/files/later"))), 404);
    QFile file(dir.filePath("later"));
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write("from disk");
    file.close();
    QCOMPARE(Get(server.Url("/files/later"))->readAll(), QByteArray("from disk"));
    QNetworkReply* part = Get(server.Url("/files/later"), {{"Range", "bytes=5-"}});
    QCOMPARE(StatusOf(part), 206);
    QCOMPARE(part->readAll(), QByteArray("disk"));
}

void TestHttpTestServer::ScriptIsConsumedRequestByRequest()
{
    HttpTestServer server;
    server.SetBody("/f", "body");
    server.Enqueue("/f", Reply::Status(503));
    server.Enqueue("/f", Reply::Body("first"));
    server.Enqueue("/f", Reply::Redirect("/elsewhere"));
    QCOMPARE(StatusOf(Get(server.Url("/f"))), 503);
    QCOMPARE(Get(server.Url("/f"))->readAll(), QByteArray("first"));
    QNetworkReply* redirect = Get(server.Url("/f"));
    QCOMPARE(StatusOf(redirect), 302);
    QCOMPARE(redirect->rawHeader("Location"), QByteArray("/elsewhere"));
    QCOMPARE(Get(server.Url("/f"))->readAll(), QByteArray("body"));
    server.SetDefaultReply("/f", Reply::Status(500));
    QCOMPARE(StatusOf(Get(server.Url("/f"))), 500);
    QCOMPARE(StatusOf(Get(server.Url("/f"))), 500);
    server.SetHandler("/f", [](const kxtest::Request& r) { return Reply::Body(r.query); });
    QUrl url = server.Url("/f");
    url.setQuery("q");
    QCOMPARE(Get(url)->readAll(), QByteArray("q"));
    QCOMPARE(server.RequestCount("/f"), 7);
    server.ClearRequests();
    QCOMPARE(server.RequestCount(), 0);
}

void TestHttpTestServer::ConnectionIsKeptAlive()
{
    HttpTestServer server;
    server.SetBody("/f", "body");
    for (int i = 0; i < 5; ++i)
        QCOMPARE(Get(server.Url("/f"))->readAll(), QByteArray("body"));
    QCOMPARE(server.ConnectionCount(), 1);
    QCOMPARE(server.MaxConcurrent(), 1);
}

void TestHttpTestServer::FaultsReachTheClient_data()
{
    QTest::addColumn<Reply>("fault");
    QTest::addColumn<QByteArray>("expected");
    QTest::addColumn<int>("error");
    const int none = QNetworkReply::NoError;
    // Whether Qt sees that a body was cut depends on when the end of the connection comes.
    const int either = -1;
    QTest::newRow("truncated") << Reply::TruncateAfter(4) << QByteArray("0123") << either;
    QTest::newRow("truncated at once") << Reply::TruncateAfter(0) << QByteArray() << either;
    QTest::newRow("wrong bytes") << Reply::WrongBytes(8) << QByteArray("01234567\xc7\xc6") << none;
    QTest::newRow("chunked") << Reply::Chunked() << QByteArray("0123456789") << none;
    QTest::newRow("until close") << Reply::UntilClose() << QByteArray("0123456789") << none;
    QTest::newRow("more than declared") << Reply::DeclaredLength(6) << QByteArray("012345") << none;
    QTest::newRow("less than declared")
        << Reply::DeclaredLength(20) << QByteArray("0123456789") << either;
}

void TestHttpTestServer::FaultsReachTheClient()
{
    QFETCH(Reply, fault);
    QFETCH(QByteArray, expected);
    QFETCH(int, error);
    HttpTestServer server;
    server.SetBody("/f", "0123456789");
    server.SetDefaultReply("/f", fault);
    QNetworkReply* reply = Get(server.Url("/f"));
    QCOMPARE(reply->readAll(), expected);
    if (error >= 0)
        QCOMPARE(int(reply->error()), error);
    else
        QVERIFY(reply->header(QNetworkRequest::ContentLengthHeader).toInt() > expected.size());
}

void TestHttpTestServer::DroppedConnectionGivesNoReply()
{
    HttpTestServer server;
    server.SetBody("/f", "0123456789");
    // The access manager asks again by itself, so the fault has to stay.
    server.SetDefaultReply("/f", Reply::Drop());
    QNetworkReply* reply = Get(server.Url("/f"));
    QCOMPARE(reply->error(), QNetworkReply::RemoteHostClosedError);
    QCOMPARE(StatusOf(reply), 0);
    QVERIFY(server.RequestCount() >= 1);
}

QByteArray TestHttpTestServer::RawBody(const HttpTestServer& server, const QByteArray& path)
{
    QTcpSocket socket;
    socket.setProxy(QNetworkProxy::NoProxy);
    socket.connectToHost("127.0.0.1", server.Port());
    socket.write("GET " + path + " HTTP/1.1\r\nHost: x\r\n\r\n");
    QSignalSpy gone(&socket, SIGNAL(disconnected()));
    if (!gone.wait(patience))
        return "not closed";
    const QByteArray all = socket.readAll();
    const qsizetype end = all.indexOf("\r\n\r\n");
    return end < 0 ? QByteArray() : all.mid(end + 4);
}

void TestHttpTestServer::ResetCutsTheBody()
{
    HttpTestServer server;
    server.SetBody("/f", "0123456789");
    server.Enqueue("/f", Reply::ResetAfter(4));
    const QByteArray body = RawBody(server, "/f");
    // A reset may overtake the data.
    QVERIFY2(body.isEmpty() || body == "0123", body.constData());
    QCOMPARE(server.RequestCount(), 1);
    QCOMPARE(server.StalledCount(), 0);
}

void TestHttpTestServer::ChunkedBodyCanLackItsEnd()
{
    HttpTestServer server;
    server.SetBody("/f", "0123456789");
    server.Enqueue("/f", Reply::ChunkedWithoutEnd(4));
    QCOMPARE(RawBody(server, "/f"), QByteArray("5\r\n0123"));
    Reply whole = Reply::Chunked();
    whole.close = true;
    server.Enqueue("/f", whole);
    QCOMPARE(RawBody(server, "/f"), QByteArray("a\r\n0123456789\r\n0\r\n\r\n"));
}

void TestHttpTestServer::RangesAreServed_data()
{
    QTest::addColumn<QByteArray>("range");
    QTest::addColumn<QByteArray>("ifRange");
    QTest::addColumn<bool>("supported");
    QTest::addColumn<int>("status");
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<QByteArray>("contentRange");
    const QByteArray all = "0123456789";
    const QByteArray none;
    QTest::newRow("no range") << none << none << true << 200 << all << none;
    QTest::newRow("from the middle") << QByteArray("bytes=4-") << none << true << 206
                                     << QByteArray("456789") << QByteArray("bytes 4-9/10");
    QTest::newRow("inner part") << QByteArray("bytes=2-3") << none << true << 206
                                << QByteArray("23") << QByteArray("bytes 2-3/10");
    QTest::newRow("past the end") << QByteArray("bytes=10-") << none << true << 416 << none
                                  << QByteArray("bytes */10");
    QTest::newRow("ignored") << QByteArray("bytes=4-") << none << false << 200 << all << none;
    QTest::newRow("same etag") << QByteArray("bytes=4-") << QByteArray("\"one\"") << true << 206
                               << QByteArray("456789") << QByteArray("bytes 4-9/10");
    QTest::newRow("other etag") << QByteArray("bytes=4-") << QByteArray("\"two\"") << true << 200
                                << all << none;
    QTest::newRow("same date") << QByteArray("bytes=4-")
                               << QByteArray("Sat, 01 Feb 2020 00:00:00 GMT") << true << 206
                               << QByteArray("456789") << QByteArray("bytes 4-9/10");
}

void TestHttpTestServer::RangesAreServed()
{
    QFETCH(QByteArray, range);
    QFETCH(QByteArray, ifRange);
    QFETCH(bool, supported);
    HttpTestServer server;
    server.SetBody("/f", "0123456789");
    server.SetETag("/f", "\"one\"");
    server.SetLastModified("/f", "Sat, 01 Feb 2020 00:00:00 GMT");
    server.SetRangeSupport("/f", supported);
    kxtest::HeaderList headers;
    if (!range.isEmpty())
        headers.emplaceBack("Range", range);
    if (!ifRange.isEmpty())
        headers.emplaceBack("If-Range", ifRange);
    QNetworkReply* reply = Get(server.Url("/f"), headers);
    QTEST(StatusOf(reply), "status");
    QTEST(reply->readAll(), "body");
    QTEST(reply->rawHeader("Content-Range"), "contentRange");
    QCOMPARE(reply->rawHeader("ETag"), QByteArray("\"one\""));
}

void TestHttpTestServer::LargeBodyComesWhole()
{
    HttpTestServer server;
    const qint64 size = 5 * 1024 * 1024 + 3;
    server.SetGeneratedBody("/big", size);
    QVERIFY(Get(server.Url("/big"))->readAll() == HttpTestServer::GeneratedBytes(0, size));
    QNetworkReply* part = Get(server.Url("/big"), {{"Range", "bytes=1000000-"}});
    QVERIFY(part->readAll() == HttpTestServer::GeneratedBytes(1000000, size - 1000000));
    server.SetDefaultReply("/big", Reply::Chunked());
    QVERIFY(Get(server.Url("/big"))->readAll() == HttpTestServer::GeneratedBytes(0, size));
}

void TestHttpTestServer::HeldRepliesCountAsConcurrent()
{
    HttpTestServer server;
    server.SetDefaultReply("/held", Reply::Hold());
    server.SetBody("/held", "0123456789");
    server.SetBody("/stalls", "0123456789");
    server.Enqueue("/stalls", Reply::StallAfter(3));
    QNetworkReply* first = manager->get(QNetworkRequest(server.Url("/held")));
    QNetworkReply* second = manager->get(QNetworkRequest(server.Url("/held")));
    QNetworkReply* third = manager->get(QNetworkRequest(server.Url("/stalls")));
    QTRY_COMPARE_WITH_TIMEOUT(server.StalledCount(), 3, patience);
    QTRY_COMPARE_WITH_TIMEOUT(third->bytesAvailable(), 3, patience);
    QVERIFY(!first->isFinished());
    QCOMPARE(first->bytesAvailable(), 0);
    server.ReleaseStalled();
    QTRY_VERIFY_WITH_TIMEOUT(first->isFinished() && second->isFinished() && third->isFinished(),
                             patience);
    QCOMPARE(first->readAll(), QByteArray("0123456789"));
    QCOMPARE(third->readAll(), QByteArray("0123456789"));
    QCOMPARE(server.MaxConcurrent(), 3);
    QCOMPARE(server.StalledCount(), 0);
}

void TestHttpTestServer::StoppedServerRefuses()
{
    QCOMPARE(Get(kxtest::RefusedUrl())->error(), QNetworkReply::ConnectionRefusedError);
    HttpTestServer server;
    server.SetBody("/f", "body");
    const QUrl url = server.Url("/f");
    QCOMPARE(StatusOf(Get(url)), 200);
    server.Stop();
    QVERIFY(!server.IsListening());
    QCOMPARE(Get(url)->error(), QNetworkReply::ConnectionRefusedError);
    QVERIFY(server.Start());
    QCOMPARE(server.Url("/f"), url);
    QCOMPARE(StatusOf(Get(url)), 200);
}

void TestHttpTestServer::ActsAsProxy()
{
    HttpTestServer server;
    server.SetBody("/f", "through the proxy");
    manager->setProxy(QNetworkProxy(QNetworkProxy::HttpProxy, "127.0.0.1", server.Port()));
    QCOMPARE(Get(QUrl("http://origin.invalid/f"))->readAll(), QByteArray("through the proxy"));
    QCOMPARE(server.Requests().first().target, QByteArray("http://origin.invalid/f"));
    QCOMPARE(server.Requests().first().path, QString("/f"));
}

void TestHttpTestServer::ProxyAsksForCredentials()
{
    HttpTestServer server;
    server.SetProxyAuthentication(true);
    manager->setProxy(QNetworkProxy(QNetworkProxy::HttpProxy, "127.0.0.1", server.Port()));
    QNetworkReply* reply = Get(QUrl("http://origin.invalid/f"));
    QCOMPARE(reply->error(), QNetworkReply::ProxyAuthenticationRequiredError);
}

void TestHttpTestServer::ServesTls()
{
    HttpTestServer server(HttpTestServer::Tls);
    // Without a TLS backend there is no server to try, and that must be seen.
    QCOMPARE(server.IsListening(), QSslSocket::supportsSsl());
    if (!server.IsListening())
        return;
    QCOMPARE(server.Url("/f").scheme(), QString("https"));
    server.SetBody("/f", "encrypted");
    QNetworkReply* reply = Get(server.Url("/f"));
    QCOMPARE(reply->readAll(), QByteArray("encrypted"));
}

QTEST_GUILESS_MAIN(TestHttpTestServer)
#include "tst_httptestserver.moc"
