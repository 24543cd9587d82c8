#include "httptestserver.h"

#include "httptestconnection.h"

#include <QFileInfo>
#include <QHostAddress>
#include <QTcpServer>

namespace kxtest {

Reply Reply::Body(const QByteArray& body)
{
    Reply reply;
    reply.body = body;
    return reply;
}

Reply Reply::Status(int status)
{
    Reply reply;
    reply.status = status;
    reply.body = "status " + QByteArray::number(status) + "\n";
    return reply;
}

static Reply WithFault(Reply::Fault fault, qint64 at)
{
    Reply reply;
    reply.fault = fault;
    reply.faultAt = at;
    return reply;
}

Reply Reply::Drop()
{
    return WithFault(Fault::Drop, 0);
}
Reply Reply::Hold()
{
    return WithFault(Fault::Hold, 0);
}
Reply Reply::StallAfter(qint64 bytes)
{
    return WithFault(Fault::Stall, bytes);
}
Reply Reply::TruncateAfter(qint64 bytes)
{
    return WithFault(Fault::Truncate, bytes);
}
Reply Reply::ResetAfter(qint64 bytes)
{
    return WithFault(Fault::Reset, bytes);
}
Reply Reply::WrongBytes(qint64 from)
{
    return WithFault(Fault::WrongBytes, from);
}

Reply Reply::Redirect(const QString& location, int status)
{
    Reply reply = Status(status);
    reply.headers.emplaceBack("Location", location.toUtf8());
    return reply;
}

Reply Reply::Chunked()
{
    Reply reply;
    reply.framing = Framing::Chunked;
    return reply;
}

Reply Reply::ChunkedWithoutEnd(qint64 bytes)
{
    Reply reply = TruncateAfter(bytes);
    reply.framing = Framing::Chunked;
    return reply;
}

Reply Reply::UntilClose()
{
    Reply reply;
    reply.framing = Framing::UntilClose;
    return reply;
}

Reply Reply::IgnoreRange()
{
    Reply reply;
    reply.ignoreRange = true;
    return reply;
}

Reply Reply::DeclaredLength(qint64 length)
{
    Reply reply;
    reply.declaredLength = length;
    // What follows the declared bytes would be taken for the next reply.
    reply.close = true;
    return reply;
}

QByteArray Request::Header(const QByteArray& name) const
{
    for (const auto& header : headers) {
        if (header.first.compare(name, Qt::CaseInsensitive) == 0)
            return header.second;
    }
    return QByteArray();
}

bool Request::HasHeader(const QByteArray& name) const
{
    for (const auto& header : headers) {
        if (header.first.compare(name, Qt::CaseInsensitive) == 0)
            return true;
    }
    return false;
}

HttpTestServer::HttpTestServer(Transport transport, QObject* parent)
    : QObject(parent), tls(transport == Tls)
{
    Start();
}

HttpTestServer::~HttpTestServer()
{
    Stop();
}

bool HttpTestServer::IsListening() const
{
    return server && server->isListening();
}

QUrl HttpTestServer::Url(const QString& path) const
{
    QUrl url;
    url.setScheme(tls ? QStringLiteral("https") : QStringLiteral("http"));
    url.setHost(QStringLiteral("127.0.0.1"));
    url.setPort(port);
    url.setPath(path, QUrl::DecodedMode);
    return url;
}

void HttpTestServer::Stop()
{
    if (server)
        server->close();
    for (HttpTestConnection* connection : QList<HttpTestConnection*>(connections)) {
        if (connections.contains(connection))
            connection->Cut();
    }
}

bool HttpTestServer::Start()
{
    server = tls ? MakeTlsTestServer() : std::make_unique<QTcpServer>();
    if (!server || !server->listen(QHostAddress::LocalHost, port))
        return false;
    port = server->serverPort();
    connect(server.get(), &QTcpServer::pendingConnectionAvailable, this,
            &HttpTestServer::OnConnection);
    return true;
}

void HttpTestServer::OnConnection()
{
    while (QTcpSocket* socket = server->nextPendingConnection()) {
        ++connectionCount;
        connections.append(new HttpTestConnection(socket, this));
    }
}

void HttpTestServer::SetBody(const QString& path, const QByteArray& body)
{
    resources[path].body = body;
    resources[path].generatedSize = -1;
}

void HttpTestServer::SetGeneratedBody(const QString& path, qint64 size)
{
    resources[path].body.reset();
    resources[path].generatedSize = size;
}

QByteArray HttpTestServer::GeneratedBytes(qint64 offset, qint64 count)
{
    // A prime length keeps the pattern out of step with every block size.
    constexpr qint64 period = 65521;
    static const QByteArray pattern = [] {
        QByteArray bytes(period, Qt::Uninitialized);
        quint32 state = 12345;
        for (char& c : bytes) {
            state = state * 1664525u + 1013904223u;
            c = char(state >> 24);
        }
        return bytes;
    }();
    QByteArray result;
    result.reserve(count);
    while (result.size() < count) {
        const qint64 at = (offset + result.size()) % period;
        result.append(pattern.constData() + at, qMin(period - at, count - result.size()));
    }
    return result;
}

void HttpTestServer::RemoveBody(const QString& path)
{
    resources[path].body.reset();
    resources[path].generatedSize = -1;
}

void HttpTestServer::ServeDirectory(const QString& urlPrefix, const QString& directory)
{
    QString prefix = urlPrefix;
    if (!prefix.endsWith(QLatin1Char('/')))
        prefix += QLatin1Char('/');
    directories.insert(prefix, directory);
}

void HttpTestServer::Enqueue(const QString& path, const Reply& reply)
{
    resources[path].script.append(reply);
}

void HttpTestServer::SetDefaultReply(const QString& path, const Reply& reply)
{
    resources[path].defaultReply = reply;
}

void HttpTestServer::SetHandler(const QString& path, std::function<Reply(const Request&)> handler)
{
    resources[path].handler = std::move(handler);
}

void HttpTestServer::SetRangeSupport(const QString& path, bool supported)
{
    resources[path].ranges = supported;
}

void HttpTestServer::SetETag(const QString& path, const QByteArray& etag)
{
    resources[path].etag = etag;
}

void HttpTestServer::SetLastModified(const QString& path, const QByteArray& date)
{
    resources[path].lastModified = date;
}

QList<Request> HttpTestServer::Requests(const QString& path) const
{
    QList<Request> result;
    for (const Request& request : requests) {
        if (request.path == path)
            result.append(request);
    }
    return result;
}

void HttpTestServer::ClearRequests()
{
    requests.clear();
    maxConcurrent = concurrent;
}

int HttpTestServer::StalledCount() const
{
    int count = 0;
    for (const HttpTestConnection* connection : connections)
        count += connection->IsStalled() ? 1 : 0;
    return count;
}

void HttpTestServer::ReleaseStalled()
{
    for (HttpTestConnection* connection : QList<HttpTestConnection*>(connections)) {
        if (connections.contains(connection) && connection->IsStalled())
            connection->Release();
    }
}

Reply HttpTestServer::NextReply(const Request& request)
{
    if (proxyAuthentication) {
        Reply reply = Reply::Status(407);
        reply.headers.emplaceBack("Proxy-Authenticate", "Basic realm=\"test proxy\"");
        return reply;
    }
    if (request.method != "GET" && request.method != "HEAD")
        return Reply::Status(405);
    Resource& resource = resources[request.path];
    Reply reply;
    if (!resource.script.isEmpty())
        reply = resource.script.takeFirst();
    else if (resource.handler)
        reply = resource.handler(request);
    else if (resource.defaultReply)
        reply = *resource.defaultReply;
    if (!reply.body && !resource.body && resource.generatedSize < 0 &&
        FileFor(request.path).isEmpty() && reply.status < 300) {
        // A fault of a path that has nothing to send still is a fault.
        const Reply missing = Reply::Status(404);
        reply.status = missing.status;
        reply.body = missing.body;
    }
    return reply;
}

QString HttpTestServer::FileFor(const QString& path) const
{
    // The longest prefix wins, and the map is sorted.
    for (auto it = directories.constEnd(); it != directories.constBegin();) {
        --it;
        if (!path.startsWith(it.key()))
            continue;
        const QString name = it.value() + QLatin1Char('/') + path.mid(it.key().size());
        if (QFileInfo(name).isFile())
            return name;
    }
    return QString();
}

void HttpTestServer::BeginReply()
{
    maxConcurrent = qMax(maxConcurrent, ++concurrent);
}

void HttpTestServer::EndReply(const QString& path)
{
    --concurrent;
    Q_EMIT replyEnded(path);
}

QUrl RefusedUrl()
{
    HttpTestServer server;
    return server.Url();
}

} // namespace kxtest
