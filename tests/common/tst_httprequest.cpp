#include "httprequest.h"
#include "httptestserver.h"
#include "transfertuning.h"
#include "wiringguard.h"

#include <kxcommon/errors.h>

#include <QEventLoop>
#include <QFile>
#include <QNetworkAccessManager>
#include <QNetworkProxy>
#include <QNetworkReply>
#include <QPointer>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>
#include <QTimer>

#include <cstring>

using namespace common;
using common::http::IHttpRequest;
using kxtest::HttpTestServer;
using kxtest::Reply;

Q_DECLARE_METATYPE(kxtest::Reply)

namespace {

constexpr int patience = 30000;
constexpr qint64 megabyte = 1024 * 1024;

// What HTTP calls deflate is what stands behind the length that Qt puts first.
QByteArray Deflated(const QByteArray& text)
{
    return qCompress(text).mid(4);
}

Reply Encoded(const char* encoding, const QByteArray& body, Reply reply = Reply())
{
    reply.body = body;
    reply.headers.emplaceBack("Content-Encoding", encoding);
    return reply;
}

// Text that packs about as a manifest does.
QByteArray ListText(qint64 size)
{
    const QByteArray noise = HttpTestServer::GeneratedBytes(0, size / 8 + 1).toHex();
    QByteArray text;
    text.reserve(size + 100);
    for (qsizetype i = 0; text.size() < size; i += 16)
        text += "<file name=\"share/application/resource\" md5=\"" + noise.mid(i, 16) + "\"/>\n";
    text.truncate(size);
    return text;
}

// Bytes that pack to a thirtieth: too much for nothing but the limit.
QByteArray SparseBytes(qint64 size)
{
    const QByteArray noise = HttpTestServer::GeneratedBytes(0, 65521);
    QByteArray bytes(size, 'x');
    for (qint64 at = 0, i = 0; at + 1500 <= size; at += 50000, ++i)
        memcpy(bytes.data() + at, noise.constData() + i * 13 % 60000, 1500);
    return bytes;
}

// Kilobytes of this process' memory: VmRSS now, VmHWM at most since ResetPeak().
qint64 Memory(const QByteArray& name)
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray& line : status.readAll().split('\n')) {
        if (line.startsWith(name + ':'))
            return line.simplified().split(' ').value(1).toLongLong();
    }
    return -1;
}

bool ResetPeak()
{
    QFile references(QStringLiteral("/proc/self/clear_refs"));
    return references.open(QIODevice::WriteOnly | QIODevice::Unbuffered) &&
           references.write("5") == 1;
}

/** A manager of a host that knows better what to ask for. */
class OwnEncodingManager : public QNetworkAccessManager
{
protected:
    QNetworkReply* createRequest(Operation operation, const QNetworkRequest& original,
                                 QIODevice* data) override
    {
        QNetworkRequest request(original);
        request.setRawHeader("Accept-Encoding", "gzip, deflate, br");
        return QNetworkAccessManager::createRequest(operation, request, data);
    }
};

} // namespace

class TestHttpRequest : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void init();
    void cleanup();
    void ShippedValuesAreWhatIsDocumented();
    void NullManagerGivesNoRequest();
    void BodyIsDelivered_data();
    void BodyIsDelivered();
    void RequestCarriesUrlAndHeaders();
    void CacheIsAskedForUnlessForbidden();
    void FailuresAreReported_data();
    void FailuresAreReported();
    void RefusedConnectionIsReported();
    void UnknownHostIsReported();
    void SilenceTimesOut_data();
    void SilenceTimesOut();
    void SlowDataDoesNotTimeOut();
    void ZeroSecondsNeverTimeOut();
    void ReplyUpToTheLimitIsDelivered();
    void LargerReplyFailsWhileItComes_data();
    void LargerReplyFailsWhileItComes();
    void CompressedBodyIsDelivered_data();
    void CompressedBodyIsDelivered();
    void EncodingNotAskedForIsAnError_data();
    void EncodingNotAskedForIsAnError();
    void LateEncodingsAreUnpackedIfAskedFor_data();
    void LateEncodingsAreUnpackedIfAskedFor();
    void DamagedCompressedReplyIsAnError_data();
    void DamagedCompressedReplyIsAnError();
    void CutCompressedReplyIsNeverWhole_data();
    void CutCompressedReplyIsNeverWhole();
    void LimitCountsWhatIsUnpacked_data();
    void LimitCountsWhatIsUnpacked();
    void BombIsRefusedInLittleMemory_data();
    void BombIsRefusedInLittleMemory();
    void CompressedBodyOfNoInterestDoesNoHarm();
    void RedirectsAreFollowed_data();
    void RedirectsAreFollowed();
    void RedirectsElsewhereAreRefused_data();
    void RedirectsElsewhereAreRefused();
    void RedirectLoopEnds();
    void RedirectFromHttpsToHttpIsRefused();
    void UntrustedCertificateIsReported();
    void ProxyThatWantsCredentialsIsNamed();
    void UnreachableProxyIsNamed();
    void PasswordIsNotShown();
    void SendIsRefused_data();
    void SendIsRefused();
    void SendWhileRunningIsRefused();
    void NoSignalFromInsideSend();
    void RequestIsUsableAgainInsideItsSlots_data();
    void RequestIsUsableAgainInsideItsSlots();
    void UrlChangedWhileRunningCountsFromTheNextSend();
    void AbortIsSilent();
    void DeletionIsFineAtEachMoment_data();
    void DeletionIsFineAtEachMoment();

private:
    // The outcome of one send: "finished: TEXT" or "CODE: TEXT".
    QString Outcome(IHttpRequest* request);

    std::unique_ptr<QNetworkAccessManager> manager;
    std::unique_ptr<HttpTestServer> server;
    std::unique_ptr<IHttpRequest> request;
};

void TestHttpRequest::init()
{
    kxtest::FailOnWiringWarnings();
    manager = std::make_unique<QNetworkAccessManager>();
    manager->setProxy(QNetworkProxy::NoProxy);
    server = std::make_unique<HttpTestServer>();
    request.reset(http::CreateHttpRequest(manager.get(), nullptr));
}

void TestHttpRequest::cleanup()
{
    request.reset();
    server.reset();
    manager.reset();
    http::Tuning() = http::TransferTuning();
}

QString TestHttpRequest::Outcome(IHttpRequest* sender)
{
    QSignalSpy finished(sender, SIGNAL(requestFinished(const QString&)));
    QSignalSpy failed(sender, SIGNAL(requestError(int, const QString&)));
    if (!sender->Send())
        return QStringLiteral("not sent");
    if (!finished.isEmpty() || !failed.isEmpty())
        return QStringLiteral("signalled from inside Send()");
    // An event loop of its own, because the waiting functions of the framework sleep between looks.
    QEventLoop loop;
    connect(sender, &IHttpRequest::requestFinished, &loop, &QEventLoop::quit);
    connect(sender, &IHttpRequest::requestError, &loop, &QEventLoop::quit);
    QTimer::singleShot(patience, &loop, &QEventLoop::quit);
    loop.exec();
    if (finished.isEmpty() && failed.isEmpty())
        return QStringLiteral("no outcome");
    if (finished.size() + failed.size() != 1)
        return QStringLiteral("several outcomes");
    if (!finished.isEmpty())
        return QStringLiteral("finished: ") + finished.first().first().toString();
    const QList<QVariant> error = failed.first();
    return QStringLiteral("%1: %2").arg(error.at(0).toInt()).arg(error.at(1).toString());
}

void TestHttpRequest::ShippedValuesAreWhatIsDocumented()
{
    QCOMPARE(http::Tuning().timeoutUnitMs, 1000);
    QCOMPARE(http::Tuning().largestReply, qint64(67108864));
    QCOMPARE(request->IntParameter(), 30);
    QCOMPARE(request->BoolParameter(), false);
    QVERIFY(!request->IsRunning());
}

void TestHttpRequest::NullManagerGivesNoRequest()
{
    QVERIFY(!http::CreateHttpRequest(nullptr, this));
    QObject parent;
    QPointer<IHttpRequest> owned = http::CreateHttpRequest(manager.get(), &parent);
    QCOMPARE(owned->parent(), &parent);
}

void TestHttpRequest::BodyIsDelivered_data()
{
    QTest::addColumn<Reply>("reply");
    QTest::addColumn<QString>("text");
    const QByteArray utf8 = "gr\xc3\xbc\xc3\x9f \xe2\x82\xac";
    QTest::newRow("plain") << Reply::Body("<a/>") << "<a/>";
    QTest::newRow("empty") << Reply::Body("") << "";
    QTest::newRow("UTF-8") << Reply::Body(utf8) << QString::fromUtf8(utf8);
    QTest::newRow("invalid UTF-8")
        << Reply::Body("a\xff\xc3z") << QString::fromUtf16(u"a\ufffd\ufffdz");
    QTest::newRow("long") << Reply::Body(QByteArray(3000000, 'x')) << QString(3000000, 'x');
    Reply chunked = Reply::Chunked();
    chunked.body = QByteArray(300000, 'x');
    QTest::newRow("chunked") << chunked << QString(300000, 'x');
    Reply unframed = Reply::UntilClose();
    unframed.body = "until the end";
    QTest::newRow("ended by the connection") << unframed << "until the end";
}

void TestHttpRequest::BodyIsDelivered()
{
    QFETCH(Reply, reply);
    QFETCH(QString, text);
    server->Enqueue("/f", reply);
    request->SetUrl(server->Url("/f"));
    const QString outcome = Outcome(request.get());
    QVERIFY2(outcome == "finished: " + text, qPrintable(outcome.left(200)));
}

void TestHttpRequest::RequestCarriesUrlAndHeaders()
{
    const QString path = QStringLiteral("/p\u00e4th with/space");
    server->SetBody(path, "body");
    QUrl url = server->Url(path);
    url.setQuery("os=linux&name=a%20b");
    request->SetUrl(url);
    QCOMPARE(Outcome(request.get()), "finished: body");
    const kxtest::Request seen = server->Requests().first();
    QCOMPARE(seen.method, QByteArray("GET"));
    QCOMPARE(seen.path, path);
    QCOMPARE(seen.query, QByteArray("os=linux&name=a%20b"));
    const QList<QByteArray> encodings = seen.Header("Accept-Encoding").replace(" ", "").split(',');
    QVERIFY2(encodings.contains("gzip") && encodings.contains("deflate"),
             seen.Header("Accept-Encoding"));
    QCOMPARE(request->Url(), url);
}

void TestHttpRequest::CacheIsAskedForUnlessForbidden()
{
    server->SetBody("/f", "body");
    request->SetUrl(server->Url("/f"));
    QCOMPARE(Outcome(request.get()), "finished: body");
    QCOMPARE(server->Requests().last().Header("Cache-Control"), QByteArray());
    request->SetBoolParameter(true);
    QVERIFY(request->BoolParameter());
    QCOMPARE(Outcome(request.get()), "finished: body");
    QCOMPARE(server->Requests().last().Header("Cache-Control"), QByteArray("no-cache"));
}

void TestHttpRequest::FailuresAreReported_data()
{
    QTest::addColumn<Reply>("reply");
    QTest::addColumn<int>("code");
    QTest::addColumn<QString>("reason");
    for (const int status : {400, 401, 403, 404, 408, 410, 416, 429, 500, 502, 503, 504}) {
        QTest::addRow("status %d", status)
            << Reply::Status(status) << int(HttpRequestStatus)
            << QStringLiteral("the server answered with status %1").arg(status);
    }
    Reply endless = Reply::Status(404);
    endless.body = QByteArray(1000000, 'x');
    endless.fault = Reply::Fault::Stall;
    endless.faultAt = 500000;
    QTest::newRow("error page that does not end")
        << endless << int(HttpRequestStatus) << "the server answered with status 404";
    QTest::newRow("dropped") << Reply::Drop() << int(HttpRequestNetwork) << "closed";
    QTest::newRow("truncated") << Reply::TruncateAfter(3) << int(HttpRequestNetwork) << "closed";
    QTest::newRow("reset") << Reply::ResetAfter(3) << int(HttpRequestNetwork) << "closed";
    QTest::newRow("shorter than announced")
        << Reply::DeclaredLength(100) << int(HttpRequestNetwork) << "closed";
}

void TestHttpRequest::FailuresAreReported()
{
    QFETCH(Reply, reply);
    QFETCH(int, code);
    QFETCH(QString, reason);
    server->SetBody("/f", "0123456789");
    server->SetDefaultReply("/f", reply);
    request->SetUrl(server->Url("/f"));
    const QString outcome = Outcome(request.get());
    const QString start =
        QStringLiteral("%1: Cannot fetch '%2': ").arg(code).arg(server->Url("/f").toString());
    QVERIFY2(outcome.startsWith(start), qPrintable(outcome));
    QVERIFY2(outcome.mid(start.size()).contains(reason), qPrintable(outcome));
}

void TestHttpRequest::RefusedConnectionIsReported()
{
    const QUrl url = kxtest::RefusedUrl();
    request->SetUrl(url);
    QCOMPARE(Outcome(request.get()),
             QString("610103: Cannot fetch '%1': Connection refused.").arg(url.toString()));
}

void TestHttpRequest::UnknownHostIsReported()
{
    // The resolver refuses so long a name by itself and asks no name server.
    const QString host = QStringList(5, QString(63, QLatin1Char('h'))).join(QLatin1Char('.'));
    const QString url = QStringLiteral("http://%1/f").arg(host);
    request->SetUrl(QUrl(url));
    const QString outcome = Outcome(request.get());
    QVERIFY2(outcome.startsWith(QStringLiteral("610103: Cannot fetch '%1': ").arg(url)),
             qPrintable(outcome));
}

void TestHttpRequest::SilenceTimesOut_data()
{
    QTest::addColumn<Reply>("reply");
    QTest::newRow("before the reply") << Reply::Hold();
    QTest::newRow("after the head") << Reply::StallAfter(0);
    QTest::newRow("inside the body") << Reply::StallAfter(4);
    Reply redirect = Reply::Redirect("/elsewhere");
    redirect.fault = Reply::Fault::Stall;
    redirect.faultAt = 2;
    QTest::newRow("inside a redirect") << redirect;
}

void TestHttpRequest::SilenceTimesOut()
{
    QFETCH(Reply, reply);
    http::Tuning().timeoutUnitMs = 20;
    server->SetBody("/f", "0123456789");
    server->SetDefaultReply("/f", reply);
    request->SetUrl(server->Url("/f"));
    request->SetIntParameter(7);
    QCOMPARE(Outcome(request.get()),
             QString("610101: Cannot fetch '%1': no data came for 7 seconds.")
                 .arg(server->Url("/f").toString()));
}

void TestHttpRequest::SlowDataDoesNotTimeOut()
{
    // In all, the reply takes many times the timeout; between two portions there is less.
    http::Tuning().timeoutUnitMs = 1000;
    request->SetIntParameter(1);
    QSignalSpy finished(request.get(), SIGNAL(requestFinished(const QString&)));
    QSignalSpy failed(request.get(), SIGNAL(requestError(int, const QString&)));
    QTcpServer slow;
    QVERIFY(slow.listen(QHostAddress::LocalHost));
    QTcpSocket* peer = nullptr;
    QTimer drip;
    int portions = 0;
    connect(&slow, &QTcpServer::newConnection, this, [&] {
        peer = slow.nextPendingConnection();
        peer->write("HTTP/1.1 200 OK\r\nContent-Length: 25\r\n\r\n");
        drip.start(100);
    });
    connect(&drip, &QTimer::timeout, this, [&] {
        peer->write("x");
        if (++portions == 25)
            drip.stop();
    });
    request->SetUrl(QUrl(QString("http://127.0.0.1:%1/").arg(slow.serverPort())));
    QVERIFY(request->Send());
    QTRY_COMPARE_WITH_TIMEOUT(finished.size() + failed.size(), 1, patience);
    QCOMPARE(failed.size(), 0);
    QCOMPARE(finished.first().first().toString(), QString(25, 'x'));
}

void TestHttpRequest::ZeroSecondsNeverTimeOut()
{
    http::Tuning().timeoutUnitMs = 1;
    server->SetBody("/f", "body");
    server->SetBody("/other", "body");
    server->Enqueue("/f", Reply::Hold());
    server->Enqueue("/other", Reply::Hold());
    request->SetUrl(server->Url("/f"));
    request->SetIntParameter(0);
    QSignalSpy failed(request.get(), SIGNAL(requestError(int, const QString&)));
    QSignalSpy finished(request.get(), SIGNAL(requestFinished(const QString&)));
    QVERIFY(request->Send());
    // A second request, with a timeout, tells when the first would have run out.
    std::unique_ptr<IHttpRequest> other(http::CreateHttpRequest(manager.get(), nullptr));
    other->SetUrl(server->Url("/other"));
    other->SetIntParameter(100);
    QVERIFY(Outcome(other.get()).startsWith("610101"));
    QCOMPARE(failed.size(), 0);
    QVERIFY(request->IsRunning());
    server->ReleaseStalled();
    QTRY_COMPARE_WITH_TIMEOUT(finished.size(), 1, patience);
}

void TestHttpRequest::ReplyUpToTheLimitIsDelivered()
{
    http::Tuning().largestReply = 1000000;
    server->SetBody("/f", QByteArray(1000000, 'x'));
    request->SetUrl(server->Url("/f"));
    QCOMPARE(Outcome(request.get()).size(), 1000000 + int(qstrlen("finished: ")));
}

void TestHttpRequest::LargerReplyFailsWhileItComes_data()
{
    QTest::addColumn<Reply>("reply");
    QTest::addColumn<qint64>("sent");
    // What is announced fails at once: of this one, nothing but the head ever comes.
    QTest::newRow("announced") << Reply::StallAfter(0) << qint64(0);
    Reply chunked = Reply::Chunked();
    chunked.fault = Reply::Fault::Stall;
    chunked.faultAt = 67108864 + 1;
    QTest::newRow("chunked") << chunked << chunked.faultAt;
    Reply unframed = Reply::UntilClose();
    unframed.fault = Reply::Fault::Stall;
    unframed.faultAt = 67108864 + 1;
    QTest::newRow("ended by the connection") << unframed << unframed.faultAt;
}

void TestHttpRequest::LargerReplyFailsWhileItComes()
{
    QFETCH(Reply, reply);
    server->SetGeneratedBody("/f", qint64(1) << 40);
    server->SetDefaultReply("/f", reply);
    request->SetUrl(server->Url("/f"));
    QCOMPARE(Outcome(request.get()),
             QString("610104: Cannot fetch '%1': the reply is larger than 67108864 bytes.")
                 .arg(server->Url("/f").toString()));
    QVERIFY(!request->IsRunning());
}

void TestHttpRequest::CompressedBodyIsDelivered_data()
{
    QTest::addColumn<Reply>("reply");
    QTest::addColumn<QByteArray>("text");
    const QByteArray text = ListText(3000000);
    const QByteArray packed = Deflated(text);
    QTest::newRow("with its length") << Encoded("deflate", packed) << text;
    QTest::newRow("chunked") << Encoded("deflate", packed, Reply::Chunked()) << text;
    QTest::newRow("ended by the connection")
        << Encoded("deflate", packed, Reply::UntilClose()) << text;
    QTest::newRow("encoding in upper case") << Encoded("Deflate", packed) << text;
    QTest::newRow("identity") << Encoded("identity", text) << text;
    const QByteArray noise = HttpTestServer::GeneratedBytes(0, 20).toHex();
    QTest::newRow("larger when packed")
        << Encoded("deflate", Deflated(noise.left(3))) << noise.left(3);
    QTest::newRow("nothing") << Encoded("deflate", Deflated("")) << QByteArray();
    // As qCompress() makes none: by gzip -n.
    const QByteArray gzip = QByteArray::fromHex("1f8b0800000000000003b349d4b70300d41cd10104000000");
    QTest::newRow("gzip") << Encoded("gzip", gzip) << QByteArray("<a/>");
}

void TestHttpRequest::CompressedBodyIsDelivered()
{
    QFETCH(Reply, reply);
    QFETCH(QByteArray, text);
    server->Enqueue("/f", reply);
    request->SetUrl(server->Url("/f"));
    const QString outcome = Outcome(request.get());
    QVERIFY2(outcome == "finished: " + QString::fromUtf8(text), qPrintable(outcome.left(200)));
}

void TestHttpRequest::EncodingNotAskedForIsAnError_data()
{
    QTest::addColumn<bool>("ownHeader");
    QTest::addColumn<Reply>("reply");
    const QByteArray packed = Deflated("<a/>");
    QTest::newRow("unknown") << false << Encoded("compress", "<a/>");
    QTest::newRow("unknown, chunked") << false << Encoded("compress", "<a/>", Reply::Chunked());
    QTest::newRow("two") << false << Encoded("deflate, deflate", Deflated(packed));
    QTest::newRow("two, chunked") << false
                                  << Encoded("deflate, deflate", Deflated(packed),
                                             Reply::Chunked());
    // As if Qt had not unpacked it, which it does not if it was built without brotli.
    QTest::newRow("no text") << false
                             << Encoded("br", "\x0b\x02\x80\xff\xfe\xfd\xfc\xfb\x03",
                                        Reply::Chunked());
    // Qt unpacks nothing when the manager asks by itself.
    QTest::newRow("the manager's own") << true << Encoded("deflate", packed);
    QTest::newRow("the manager's own, chunked")
        << true << Encoded("deflate", packed, Reply::Chunked());
    QTest::newRow("the manager's own, brotli, chunked")
        << true << Encoded("br", "\x0b\x02\x80hello\x03", Reply::Chunked());
}

void TestHttpRequest::EncodingNotAskedForIsAnError()
{
    QFETCH(bool, ownHeader);
    QFETCH(Reply, reply);
    if (ownHeader) {
        request.reset();
        manager = std::make_unique<OwnEncodingManager>();
        manager->setProxy(QNetworkProxy::NoProxy);
        request.reset(http::CreateHttpRequest(manager.get(), nullptr));
    }
    server->SetDefaultReply("/f", reply);
    request->SetUrl(server->Url("/f"));
    const QString expected =
        QString("610103: Cannot fetch '%1': the reply has the content encoding "
                "'%2', which was not asked for.")
            .arg(server->Url("/f").toString(), reply.headers.last().second);
    QCOMPARE(Outcome(request.get()), expected);
    QVERIFY(!request->IsRunning());
    // Again, for what a first failure may have left.
    QCOMPARE(Outcome(request.get()), expected);
}

void TestHttpRequest::LateEncodingsAreUnpackedIfAskedFor_data()
{
    QTest::addColumn<QByteArray>("encoding");
    QTest::addColumn<Reply>("reply");
    const QByteArray brotli("\x0b\x02\x80hello\x03");
    const QByteArray zstd("\x28\xb5\x2f\xfd\x20\x05\x29\0\0hello", 14);
    QTest::newRow("brotli") << QByteArray("br") << Encoded("br", brotli);
    QTest::newRow("brotli, chunked") << QByteArray("br") << Encoded("br", brotli, Reply::Chunked());
    QTest::newRow("zstd") << QByteArray("zstd") << Encoded("zstd", zstd);
    QTest::newRow("zstd, chunked") << QByteArray("zstd") << Encoded("zstd", zstd, Reply::Chunked());
}

// Qt may be built with them or without.
void TestHttpRequest::LateEncodingsAreUnpackedIfAskedFor()
{
    QFETCH(QByteArray, encoding);
    QFETCH(Reply, reply);
    server->SetDefaultReply("/f", reply);
    request->SetUrl(server->Url("/f"));
    const QString outcome = Outcome(request.get());
    QByteArray asked = server->Requests().first().Header("Accept-Encoding");
    if (asked.replace(" ", "").split(',').contains(encoding))
        QCOMPARE(outcome, "finished: hello");
    else
        QVERIFY2(outcome.contains("which was not asked for"), qPrintable(outcome));
}

void TestHttpRequest::DamagedCompressedReplyIsAnError_data()
{
    QTest::addColumn<Reply>("reply");
    const QByteArray packed = Deflated(ListText(300000));
    const qint64 middle = packed.size() / 2;
    QTest::newRow("from the middle on") << Encoded("deflate", packed, Reply::WrongBytes(middle));
    Reply chunked = Reply::WrongBytes(middle);
    chunked.framing = Reply::Framing::Chunked;
    QTest::newRow("chunked") << Encoded("deflate", packed, chunked);
    QTest::newRow("checksum") << Encoded("deflate", packed, Reply::WrongBytes(packed.size() - 1));
    QTest::newRow("bytes behind it") << Encoded("deflate", packed + "<a/>");
    QTest::newRow("not packed at all") << Encoded("gzip", ListText(3000));
}

void TestHttpRequest::DamagedCompressedReplyIsAnError()
{
    QFETCH(Reply, reply);
    server->SetDefaultReply("/f", reply);
    request->SetUrl(server->Url("/f"));
    QCOMPARE(
        Outcome(request.get()),
        QString("610103: Cannot fetch '%1': the compressed reply is damaged, or unpacks to far "
                "more than it should.")
            .arg(server->Url("/f").toString()));
}

void TestHttpRequest::CutCompressedReplyIsNeverWhole_data()
{
    QTest::addColumn<Reply>("reply");
    const QByteArray packed = Deflated(ListText(300000));
    const qint64 middle = packed.size() / 2;
    QTest::newRow("with its length") << Encoded("deflate", packed, Reply::TruncateAfter(middle));
    QTest::newRow("reset") << Encoded("deflate", packed, Reply::ResetAfter(middle));
    QTest::newRow("chunked") << Encoded("deflate", packed, Reply::ChunkedWithoutEnd(middle));
    QTest::newRow("cut before it was sent") << Encoded("deflate", packed.left(middle));
    QTest::newRow("ended by the connection")
        << Encoded("deflate", packed.left(middle), Reply::UntilClose());
}

// Qt sees it at times. Where it does not, the text is short, and its reader finds that out.
void TestHttpRequest::CutCompressedReplyIsNeverWhole()
{
    QFETCH(Reply, reply);
    server->SetDefaultReply("/f", reply);
    request->SetUrl(server->Url("/f"));
    const QString outcome = Outcome(request.get());
    if (outcome.startsWith("610103: "))
        return;
    const QString whole = "finished: " + QString::fromUtf8(ListText(300000));
    QVERIFY2(whole.startsWith(outcome), qPrintable(outcome.left(200)));
    QVERIFY(outcome.size() < whole.size());
}

void TestHttpRequest::LimitCountsWhatIsUnpacked_data()
{
    QTest::addColumn<Reply>("reply");
    QTest::addColumn<qint64>("most");
    QTest::addColumn<bool>("fits");
    for (const qint64 size : {1000000, 1000001}) {
        const QByteArray packed = Deflated(ListText(size));
        QTest::addRow("%lld bytes", size)
            << Encoded("deflate", packed) << qint64(1000000) << (size == 1000000);
        QTest::addRow("%lld bytes, chunked", size)
            << Encoded("deflate", packed, Reply::Chunked()) << qint64(1000000) << (size == 1000000);
    }
    const QByteArray large = Deflated(SparseBytes(64 * megabyte + 1));
    QTest::newRow("shipped limit") << Encoded("deflate", large) << 64 * megabyte << false;
}

void TestHttpRequest::LimitCountsWhatIsUnpacked()
{
    QFETCH(Reply, reply);
    QFETCH(qint64, most);
    QFETCH(bool, fits);
    http::Tuning().largestReply = most;
    server->Enqueue("/f", reply);
    request->SetUrl(server->Url("/f"));
    const QString outcome = Outcome(request.get());
    if (fits)
        QVERIFY(outcome == "finished: " + QString::fromUtf8(ListText(most)));
    else
        QCOMPARE(outcome.left(200),
                 QString("610104: Cannot fetch '%1': the reply is larger than %2 bytes.")
                     .arg(server->Url("/f").toString())
                     .arg(most));
}

void TestHttpRequest::BombIsRefusedInLittleMemory_data()
{
    QTest::addColumn<Reply>("reply");
    const QByteArray bomb = Deflated(QByteArray(256 * megabyte, '\0'));
    QTest::newRow("with its length") << Encoded("deflate", bomb);
    QTest::newRow("chunked") << Encoded("deflate", bomb, Reply::Chunked());
}

void TestHttpRequest::BombIsRefusedInLittleMemory()
{
    QFETCH(Reply, reply);
    server->Enqueue("/f", reply);
    request->SetUrl(server->Url("/f"));
    const qint64 before = Memory("VmRSS");
    const bool measured = ResetPeak() && before > 0;
    const QString outcome = Outcome(request.get());
    QVERIFY2(outcome.startsWith("610103: ") && outcome.contains("far more than it should"),
             qPrintable(outcome.left(200)));
    if (measured) {
        const qint64 grown = Memory("VmHWM") - before;
        QVERIFY2(grown < 32 * 1024, QByteArray::number(grown));
    }
}

void TestHttpRequest::CompressedBodyOfNoInterestDoesNoHarm()
{
    const QByteArray bomb = Deflated(QByteArray(64 * megabyte, '\0'));
    Reply missing = Encoded("deflate", bomb, Reply::Status(404));
    server->SetDefaultReply("/missing", missing);
    request->SetUrl(server->Url("/missing"));
    const QString outcome = Outcome(request.get());
    QVERIFY2(outcome.contains("the server answered with status 404"), qPrintable(outcome));
    Reply unknown = Encoded("compress", "xyz", Reply::Status(404));
    server->SetDefaultReply("/unknown", unknown);
    request->SetUrl(server->Url("/unknown"));
    QVERIFY(Outcome(request.get()).contains("the server answered with status 404"));
    server->SetDefaultReply("/moved", Encoded("deflate", bomb, Reply::Redirect("/f")));
    server->SetBody("/f", "body");
    request->SetUrl(server->Url("/moved"));
    QCOMPARE(Outcome(request.get()), "finished: body");
}

void TestHttpRequest::RedirectsAreFollowed_data()
{
    QTest::addColumn<int>("status");
    for (const int status : {301, 302, 303, 307, 308})
        QTest::addRow("status %d", status) << status;
}

void TestHttpRequest::RedirectsAreFollowed()
{
    QFETCH(int, status);
    server->Enqueue("/dir/f", Reply::Redirect("../second?x=1", status));
    server->Enqueue("/second", Reply::Redirect(server->Url("/third").toString(), status));
    server->SetBody("/third", "body");
    request->SetUrl(server->Url("/dir/f"));
    request->SetBoolParameter(true);
    QCOMPARE(Outcome(request.get()), "finished: body");
    QCOMPARE(request->Url(), server->Url("/dir/f"));
    QCOMPARE(server->RequestCount(), 3);
    QCOMPARE(server->Requests().at(1).query, QByteArray("x=1"));
    QCOMPARE(server->Requests().at(2).Header("Cache-Control"), QByteArray("no-cache"));
    QVERIFY(server->Requests().at(2).Header("Accept-Encoding").contains("gzip"));
}

void TestHttpRequest::RedirectsElsewhereAreRefused_data()
{
    QTest::addColumn<QString>("location");
    QTest::addColumn<QString>("reason");
    const QString scheme = "redirected to '%1', which is neither http nor https";
    for (const char* const location :
         {"file:///etc/passwd", "data:text/plain,x", "qrc:/x", "ftp://127.0.0.1/x"})
        QTest::newRow(location) << location << scheme.arg(location);
    QTest::newRow("empty") << ""
                           << "without a valid location";
    QTest::newRow("no URL") << "http://[x"
                            << "without a valid location";
    QTest::newRow("no host") << "http:///x"
                             << "neither http nor https";
}

void TestHttpRequest::RedirectsElsewhereAreRefused()
{
    QFETCH(QString, location);
    QFETCH(QString, reason);
    server->SetDefaultReply("/f", Reply::Redirect(location));
    request->SetUrl(server->Url("/f"));
    const QString outcome = Outcome(request.get());
    QVERIFY2(outcome.startsWith(
                 QString("610105: Cannot fetch '%1': ").arg(server->Url("/f").toString())),
             qPrintable(outcome));
    QVERIFY2(outcome.contains(reason), qPrintable(outcome));
}

void TestHttpRequest::RedirectLoopEnds()
{
    server->SetDefaultReply("/f", Reply::Redirect("/g"));
    server->SetDefaultReply("/g", Reply::Redirect("/f"));
    request->SetUrl(server->Url("/f"));
    const QString outcome = Outcome(request.get());
    QVERIFY2(outcome.startsWith("610105: "), qPrintable(outcome));
    QVERIFY2(outcome.contains("more than 20 times"), qPrintable(outcome));
    QCOMPARE(server->RequestCount(), 21);
}

void TestHttpRequest::RedirectFromHttpsToHttpIsRefused()
{
    HttpTestServer secure(HttpTestServer::Tls);
    QVERIFY(secure.IsListening());
    connect(manager.get(), &QNetworkAccessManager::sslErrors, this,
            [](QNetworkReply* reply) { reply->ignoreSslErrors(); });
    server->SetBody("/f", "body");
    secure.SetDefaultReply("/down", Reply::Redirect(server->Url("/f").toString()));
    request->SetUrl(secure.Url("/down"));
    QCOMPARE(Outcome(request.get()),
             QString("610105: Cannot fetch '%1': redirected from https to '%2'.")
                 .arg(secure.Url("/down").toString(), server->Url("/f").toString()));
    QCOMPARE(server->RequestCount(), 0);
    // The other way round is fine.
    secure.SetBody("/f", "secure body");
    server->Enqueue("/up", Reply::Redirect(secure.Url("/f").toString()));
    request->SetUrl(server->Url("/up"));
    QCOMPARE(Outcome(request.get()), "finished: secure body");
}

void TestHttpRequest::UntrustedCertificateIsReported()
{
    HttpTestServer secure(HttpTestServer::Tls);
    QVERIFY(secure.IsListening());
    secure.SetBody("/f", "body");
    request->SetUrl(secure.Url("/f"));
    const QString outcome = Outcome(request.get());
    QVERIFY2(
        outcome.startsWith(QString("610107: Cannot fetch '%1': ").arg(secure.Url("/f").toString())),
        qPrintable(outcome));
    QVERIFY2(outcome.contains("self-signed"), qPrintable(outcome));
}

void TestHttpRequest::ProxyThatWantsCredentialsIsNamed()
{
    server->SetProxyAuthentication(true);
    manager->setProxy(QNetworkProxy(QNetworkProxy::HttpProxy, "127.0.0.1", server->Port()));
    request->SetUrl(QUrl("http://origin.invalid/f"));
    const QString outcome = Outcome(request.get());
    QVERIFY2(outcome.startsWith(QString("610106: Cannot fetch 'http://origin.invalid/f': the proxy "
                                        "'127.0.0.1:%1' wants credentials")
                                    .arg(server->Port())),
             qPrintable(outcome));
}

void TestHttpRequest::UnreachableProxyIsNamed()
{
    const int port = kxtest::RefusedUrl().port();
    manager->setProxy(QNetworkProxy(QNetworkProxy::HttpProxy, "127.0.0.1", quint16(port)));
    request->SetUrl(QUrl("http://origin.invalid/f"));
    const QString outcome = Outcome(request.get());
    QVERIFY2(outcome.startsWith(
                 QString("610106: Cannot fetch 'http://origin.invalid/f': the proxy '127.0.0.1:%1' "
                         "failed: ")
                     .arg(port)),
             qPrintable(outcome));
}

void TestHttpRequest::PasswordIsNotShown()
{
    QUrl url = server->Url("/missing");
    url.setUserName("user");
    url.setPassword("secret");
    request->SetUrl(url);
    const QString outcome = Outcome(request.get());
    QVERIFY(outcome.startsWith("610102: "));
    QVERIFY2(outcome.contains("/missing") && !outcome.contains("secret"), qPrintable(outcome));
}

void TestHttpRequest::SendIsRefused_data()
{
    QTest::addColumn<QUrl>("url");
    QTest::newRow("empty") << QUrl();
    QTest::newRow("invalid") << QUrl("http://[x");
    QTest::newRow("relative") << QUrl("manifest.xml");
    QTest::newRow("no host") << QUrl("http:///f");
    QTest::newRow("file") << QUrl("file:///etc/passwd");
    QTest::newRow("ftp") << QUrl("ftp://127.0.0.1/f");
    QTest::newRow("data") << QUrl("data:text/plain,x");
}

void TestHttpRequest::SendIsRefused()
{
    QFETCH(QUrl, url);
    QSignalSpy failed(request.get(), SIGNAL(requestError(int, const QString&)));
    request->SetUrl(url);
    QVERIFY(!request->Send());
    QVERIFY(!request->IsRunning());
    // Nothing follows: a later request has its outcome, and this one still has none.
    std::unique_ptr<IHttpRequest> later(http::CreateHttpRequest(manager.get(), nullptr));
    server->SetBody("/f", "body");
    later->SetUrl(server->Url("/f"));
    QCOMPARE(Outcome(later.get()), "finished: body");
    QCOMPARE(failed.size(), 0);
    QCOMPARE(request->Url(), url);
}

void TestHttpRequest::SendWhileRunningIsRefused()
{
    server->SetBody("/f", "body");
    server->Enqueue("/f", Reply::Hold());
    request->SetUrl(server->Url("/f"));
    QSignalSpy finished(request.get(), SIGNAL(requestFinished(const QString&)));
    QVERIFY(request->Send());
    QVERIFY(request->IsRunning());
    QVERIFY(!request->Send());
    QTRY_COMPARE_WITH_TIMEOUT(server->StalledCount(), 1, patience);
    QVERIFY(!request->Send());
    server->ReleaseStalled();
    QTRY_COMPARE_WITH_TIMEOUT(finished.size(), 1, patience);
    QCOMPARE(server->RequestCount(), 1);
}

void TestHttpRequest::NoSignalFromInsideSend()
{
    // Outcome() looks right after Send(): here for a failure that is known at once.
    request->SetUrl(kxtest::RefusedUrl());
    QVERIFY(Outcome(request.get()).startsWith("610103"));
}

void TestHttpRequest::RequestIsUsableAgainInsideItsSlots_data()
{
    QTest::addColumn<Reply>("reply");
    QTest::addColumn<QStringList>("trace");
    QTest::newRow("after success") << Reply::Body("x") << QStringList({"x", "x", "x"});
    QTest::newRow("after a status")
        << Reply::Status(500) << QStringList({"610102", "610102", "610102"});
    QTest::newRow("after a cut") << Reply::TruncateAfter(1)
                                 << QStringList({"610103", "610103", "610103"});
    QTest::newRow("after too much")
        << Reply::StallAfter(1) << QStringList({"610104", "610104", "610104"});
    QTest::newRow("after a redirect")
        << Reply::Redirect("file:///x") << QStringList({"610105", "610105", "610105"});
}

void TestHttpRequest::RequestIsUsableAgainInsideItsSlots()
{
    QFETCH(Reply, reply);
    QFETCH(QStringList, trace);
    http::Tuning().largestReply = 10;
    server->SetBody("/f", QByteArray(reply.fault == Reply::Fault::Stall ? 11 : 5, 'b'));
    server->SetDefaultReply("/f", reply);
    request->SetUrl(server->Url("/f"));
    QStringList seen;
    const auto again = [&](const QString& outcome) {
        seen += outcome;
        QVERIFY(!request->IsRunning());
        // No reply is open any more: all that are left wait for their deletion.
        for (QNetworkReply* open : manager->findChildren<QNetworkReply*>())
            QVERIFY(!open->isOpen() || open->isFinished());
        if (seen.size() < 3)
            QVERIFY(request->Send());
    };
    connect(request.get(), &IHttpRequest::requestFinished, this, again);
    connect(request.get(), &IHttpRequest::requestError, this,
            [&](int code) { again(QString::number(code)); });
    QVERIFY(request->Send());
    QTRY_COMPARE_WITH_TIMEOUT(seen, trace, patience);
    QVERIFY(!request->IsRunning());
}

void TestHttpRequest::UrlChangedWhileRunningCountsFromTheNextSend()
{
    server->SetBody("/one", "one");
    server->SetBody("/two", "two");
    server->Enqueue("/one", Reply::Hold());
    request->SetUrl(server->Url("/one"));
    QSignalSpy finished(request.get(), SIGNAL(requestFinished(const QString&)));
    QVERIFY(request->Send());
    request->SetUrl(server->Url("/two"));
    QTRY_COMPARE_WITH_TIMEOUT(server->StalledCount(), 1, patience);
    server->ReleaseStalled();
    QTRY_COMPARE_WITH_TIMEOUT(finished.size(), 1, patience);
    QCOMPARE(finished.first().first().toString(), QString("one"));
    QCOMPARE(Outcome(request.get()), "finished: two");
}

void TestHttpRequest::AbortIsSilent()
{
    request->Abort(); // with nothing running
    server->SetBody("/f", "0123456789");
    server->Enqueue("/f", Reply::StallAfter(5));
    request->SetUrl(server->Url("/f"));
    QSignalSpy finished(request.get(), SIGNAL(requestFinished(const QString&)));
    QSignalSpy failed(request.get(), SIGNAL(requestError(int, const QString&)));
    QVERIFY(request->Send());
    QTRY_COMPARE_WITH_TIMEOUT(server->StalledCount(), 1, patience);
    request->Abort();
    QVERIFY(!request->IsRunning());
    QTRY_COMPARE_WITH_TIMEOUT(server->StalledCount(), 0, patience); // the connection is gone
    QCOMPARE(finished.size() + failed.size(), 0);
    // What came before the abort is no part of the next reply.
    QCOMPARE(Outcome(request.get()), "finished: 0123456789");
}

void TestHttpRequest::DeletionIsFineAtEachMoment_data()
{
    QTest::addColumn<QString>("moment");
    for (const char* const moment : {"before the send", "after the send", "before the reply",
                                     "inside the body", "in finished", "in error"})
        QTest::newRow(moment) << moment;
}

void TestHttpRequest::DeletionIsFineAtEachMoment()
{
    QFETCH(QString, moment);
    server->SetBody("/f", "0123456789");
    if (moment == "before the reply")
        server->Enqueue("/f", Reply::Hold());
    else if (moment == "inside the body")
        server->Enqueue("/f", Reply::StallAfter(5));
    else if (moment == "in error")
        server->Enqueue("/f", Reply::Status(404));
    int outcomes = 0;
    const auto end = [&] {
        ++outcomes;
        request.reset();
    };
    connect(request.get(), &IHttpRequest::requestFinished, this, end);
    connect(request.get(), &IHttpRequest::requestError, this, end);
    request->SetUrl(server->Url("/f"));
    if (moment != "before the send")
        QVERIFY(request->Send());
    if (moment == "before the send" || moment == "after the send") {
        request.reset();
    } else if (moment.startsWith("in ")) {
        QTRY_VERIFY_WITH_TIMEOUT(!request, patience);
    } else {
        QTRY_COMPARE_WITH_TIMEOUT(server->StalledCount(), 1, patience);
        request.reset();
        QTRY_COMPARE_WITH_TIMEOUT(server->StalledCount(), 0, patience);
    }
    // The manager is as good as before, and no late signal comes.
    std::unique_ptr<IHttpRequest> later(http::CreateHttpRequest(manager.get(), nullptr));
    server->SetBody("/later", "body");
    later->SetUrl(server->Url("/later"));
    QCOMPARE(Outcome(later.get()), "finished: body");
    QCOMPARE(outcomes, moment.startsWith("in ") ? 1 : 0);
}

QTEST_GUILESS_MAIN(TestHttpRequest)
#include "tst_httprequest.moc"
