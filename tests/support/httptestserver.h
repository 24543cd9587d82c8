#pragma once

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QMap>
#include <QObject>
#include <QPair>
#include <QString>
#include <QUrl>

#include <functional>
#include <memory>
#include <optional>

QT_BEGIN_NAMESPACE
class QTcpServer;
QT_END_NAMESPACE

namespace kxtest {

class HttpTestConnection;

using HeaderList = QList<QPair<QByteArray, QByteArray>>;

/** One answer of the server: what it says, and what goes wrong while it says it. */
struct Reply
{
    enum class Fault {
        None,
        Drop,       //!< closes the connection without a byte of reply
        Hold,       //!< sends nothing until HttpTestServer::ReleaseStalled()
        Stall,      //!< stops after faultAt bytes of the body until ReleaseStalled()
        Truncate,   //!< declares the whole body, closes after faultAt bytes of it
        Reset,      //!< declares the whole body, resets the connection after faultAt bytes
        WrongBytes, //!< inverts every byte of the body from faultAt on
    };
    /** How the reader learns where the body ends. */
    enum class Framing { Length, Chunked, UntilClose };

    int status = 200;
    std::optional<QByteArray> body; //!< unset: what stands at the path, a 404 if nothing does
    HeaderList headers;             //!< sent besides the usual ones
    Fault fault = Fault::None;
    qint64 faultAt = 0;         //!< in bytes of the body as sent; -1: after all of it
    qint64 declaredLength = -1; //!< Content-Length as told; -1: the true one
    Framing framing = Framing::Length;
    bool ignoreRange = false; //!< answers a range request with 200 and everything
    bool close = false;       //!< closes the connection after the reply

    static Reply Body(const QByteArray& body);
    /** An error page of this status, with a short text as body. */
    static Reply Status(int status);
    static Reply Drop();
    static Reply Hold();
    static Reply StallAfter(qint64 bytes);
    static Reply TruncateAfter(qint64 bytes);
    static Reply ResetAfter(qint64 bytes);
    static Reply WrongBytes(qint64 from = 0);
    static Reply Redirect(const QString& location, int status = 302);
    static Reply Chunked();
    /** Chunked, and cut after `bytes` of the body, -1 for all: the end mark never comes. */
    static Reply ChunkedWithoutEnd(qint64 bytes = -1);
    /** No length told; the body ends with the connection. */
    static Reply UntilClose();
    static Reply IgnoreRange();
    /** The path's body, with a Content-Length that is `length`. */
    static Reply DeclaredLength(qint64 length);
};

/** One request as it came. */
struct Request
{
    QByteArray method;
    QByteArray target; //!< as sent; absolute when the client took the server for a proxy
    QString path;      //!< percent-decoded, without the query
    QByteArray query;  //!< as sent, without the question mark
    HeaderList headers;

    /** Value of the first header of that name in any case; empty when there is none. */
    QByteArray Header(const QByteArray& name) const;
    bool HasHeader(const QByteArray& name) const;
};

/**
 * An HTTP/1.1 server for tests, on 127.0.0.1 and a free port, that answers as it is told to.
 *
 *     kxtest::HttpTestServer server;
 *     server.SetBody("/file", content);
 *     server.Enqueue("/file", kxtest::Reply::TruncateAfter(100)); // the first request
 *     server.Enqueue("/file", kxtest::Reply::Status(503));        // the second one
 *     fetch(server.Url("/file"));                                 // from the third on: content
 *
 * Each path has a script of replies, consumed request by request; then its handler, its default
 * reply, its body, and the directories are asked in this order. What has a body serves ranges (206,
 * 416, If-Range) unless that is switched off. A request in proxy form (an absolute URL) is answered
 * from the path of that URL, as if the server had fetched it. Lives in the event loop of the thread
 * that made it and never blocks it; bodies are sent piece by piece, so that a large one takes no
 * memory.
 */
class HttpTestServer : public QObject
{
    Q_OBJECT
public:
    enum Transport { Plain, Tls };

    explicit HttpTestServer(Transport transport = Plain, QObject* parent = nullptr);
    ~HttpTestServer() override;

    /** False when the TLS backend of Qt is missing, or no port could be had. */
    bool IsListening() const;
    quint16 Port() const { return port; }
    /** `path` is decoded text; the query, if any, is appended to the result by the caller. */
    QUrl Url(const QString& path = QStringLiteral("/")) const;

    /** Stops listening and cuts every connection: from now on connections are refused. */
    void Stop();
    /** Listens again, on the same port. */
    bool Start();

    void SetBody(const QString& path, const QByteArray& body);
    /** A body of that size, made while it is sent: GeneratedBytes(0, size). */
    void SetGeneratedBody(const QString& path, qint64 size);
    static QByteArray GeneratedBytes(qint64 offset, qint64 count);
    void RemoveBody(const QString& path);
    /** Serves the files below `directory` as they are at the time of the request. */
    void ServeDirectory(const QString& urlPrefix, const QString& directory);

    /** Appends to the script of the path; a reply is used once. */
    void Enqueue(const QString& path, const Reply& reply);
    /** Replies of a path whose script has run out, every time. */
    void SetDefaultReply(const QString& path, const Reply& reply);
    void SetHandler(const QString& path, std::function<Reply(const Request&)> handler);

    /** Whether a path honours Range; true at first. */
    void SetRangeSupport(const QString& path, bool supported);
    /** Validators that go with a body, and that If-Range is compared with; none at first. */
    void SetETag(const QString& path, const QByteArray& etag);
    void SetLastModified(const QString& path, const QByteArray& date);

    /** True: answers every request 407, as a proxy that wants credentials. */
    void SetProxyAuthentication(bool required) { proxyAuthentication = required; }

    /** Requests in the order in which they came, of all paths or of one. */
    const QList<Request>& Requests() const { return requests; }
    QList<Request> Requests(const QString& path) const;
    int RequestCount() const { return int(requests.size()); }
    int RequestCount(const QString& path) const { return int(Requests(path).size()); }
    void ClearRequests();
    /** Most requests that were being answered at once, since the last ClearRequests(). */
    int MaxConcurrent() const { return maxConcurrent; }
    /** Connections that were accepted. */
    int ConnectionCount() const { return connectionCount; }

    /** Bytes of bodies that were handed to connections: not all of them need have been read. */
    qint64 BytesSent() const { return bytesSent; }

    /** Replies that are held or stalled now. */
    int StalledCount() const;
    /** Lets every held or stalled reply go on, and end as it should. */
    void ReleaseStalled();

Q_SIGNALS:
    void requestReceived(const QString& path);
    /** A reply has reached the point where it is held or stalls; all bytes before are sent. */
    void stalled(const QString& path);
    /** A reply is sent to its end, or its connection is gone. */
    void replyEnded(const QString& path);

private:
    friend class HttpTestConnection;

    struct Resource
    {
        std::optional<QByteArray> body;
        qint64 generatedSize = -1;
        QByteArray etag;
        QByteArray lastModified;
        bool ranges = true;
        QList<Reply> script;
        std::optional<Reply> defaultReply;
        std::function<Reply(const Request&)> handler;
    };

    void OnConnection();
    // Called by the connections.
    Reply NextReply(const Request& request);
    QString FileFor(const QString& path) const;
    void BeginReply();
    void EndReply(const QString& path);

    std::unique_ptr<QTcpServer> server;
    quint16 port = 0;
    bool tls;
    QHash<QString, Resource> resources;
    QMap<QString, QString> directories;
    bool proxyAuthentication = false;
    QList<Request> requests;
    QList<HttpTestConnection*> connections;
    int concurrent = 0;
    int maxConcurrent = 0;
    int connectionCount = 0;
    qint64 bytesSent = 0;
};

/** A TLS configured server with a self-signed certificate for 127.0.0.1; null without a backend. */
std::unique_ptr<QTcpServer> MakeTlsTestServer();

/** That certificate, as PEM. */
QByteArray TlsTestCertificate();

/** A URL on 127.0.0.1 where nobody listens. */
QUrl RefusedUrl();

} // namespace kxtest
