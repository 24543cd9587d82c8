#include "httptestconnection.h"

#include <QTimer>

#include <sys/socket.h>

namespace kxtest {
namespace {

constexpr qint64 pieceSize = 64 * 1024;
// Enough to keep a client busy, little enough to cost no memory.
constexpr qint64 highWater = 4 * pieceSize;

// With a linger time of zero, closing a socket resets its connection.
void ResetConnection(QTcpSocket* socket)
{
    const linger option = {1, 0};
    setsockopt(int(socket->socketDescriptor()), SOL_SOCKET, SO_LINGER, &option, sizeof option);
    socket->abort();
}

struct Range
{
    enum { Absent, Good, Bad } kind = Absent;
    qint64 begin = 0;
    qint64 size = 0;
};

Range ParseRange(const QByteArray& header, qint64 size)
{
    Range range;
    if (!header.startsWith("bytes=") || header.contains(','))
        return range;
    const QByteArray spec = header.mid(6);
    const qsizetype dash = spec.indexOf('-');
    if (dash < 0)
        return range;
    const QByteArray first = spec.left(dash);
    const QByteArray last = spec.mid(dash + 1);
    range.begin = first.isEmpty() ? qMax<qint64>(0, size - last.toLongLong()) : first.toLongLong();
    const qint64 end =
        first.isEmpty() || last.isEmpty() ? size - 1 : qMin(size - 1, last.toLongLong());
    range.size = end - range.begin + 1;
    range.kind = range.begin < size && range.size > 0 ? Range::Good : Range::Bad;
    return range;
}

} // namespace

HttpTestConnection::HttpTestConnection(QTcpSocket* socket, HttpTestServer* server)
    : QObject(server), socket(socket), server(server)
{
    socket->setParent(this);
    // As servers do: otherwise pieces wait for the client's delayed acknowledgement.
    socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
    connect(socket, &QTcpSocket::readyRead, this, &HttpTestConnection::OnReadyRead);
    connect(socket, &QTcpSocket::disconnected, this, &HttpTestConnection::OnDisconnected);
    connect(socket, &QTcpSocket::bytesWritten, this, [this] {
        if (answering && headSent && !stalled)
            Pump();
    });
    // Data can have come before the connections above were made.
    QMetaObject::invokeMethod(this, &HttpTestConnection::OnReadyRead, Qt::QueuedConnection);
}

HttpTestConnection::~HttpTestConnection()
{
    socket->disconnect(this);
    if (answering && server)
        --server->concurrent;
}

void HttpTestConnection::OnDisconnected()
{
    if (server) {
        server->connections.removeOne(this);
        if (answering)
            server->EndReply(path);
    }
    answering = false;
    stalled = false;
    deleteLater();
}

void HttpTestConnection::OnReadyRead()
{
    incoming += socket->readAll();
    Request request;
    while (server && !answering && !closing && socket->state() == QAbstractSocket::ConnectedState &&
           TakeRequest(request))
        Answer(request);
}

bool HttpTestConnection::TakeRequest(Request& request)
{
    const qsizetype end = incoming.indexOf("\r\n\r\n");
    if (end < 0)
        return false;
    const QList<QByteArray> lines = incoming.left(end).replace("\r\n", "\n").split('\n');
    incoming.remove(0, end + 4);
    request = Request();
    const QList<QByteArray> words = lines.first().split(' ');
    request.method = words.value(0);
    request.target = words.value(1);
    const QUrl url = QUrl::fromEncoded(request.target);
    request.path = url.path(QUrl::FullyDecoded);
    request.query = url.query(QUrl::FullyEncoded).toUtf8();
    for (qsizetype i = 1; i < lines.size(); ++i) {
        const qsizetype colon = lines.at(i).indexOf(':');
        request.headers.emplaceBack(lines.at(i).left(colon), lines.at(i).mid(colon + 1).trimmed());
    }
    return true;
}

void HttpTestConnection::Answer(const Request& request)
{
    answering = true;
    headSent = false;
    sent = 0;
    path = request.path;
    server->requests.append(request);
    server->BeginReply();
    reply = server->NextReply(request);
    MakeHead(request);
    const QPointer<HttpTestConnection> self(this);
    Q_EMIT server->requestReceived(path);
    if (!self || !answering)
        return;
    if (reply.fault == Reply::Fault::Drop) {
        socket->abort();
        return;
    }
    if (reply.fault == Reply::Fault::Hold) {
        stalled = true;
        Q_EMIT server->stalled(path);
        return;
    }
    Pump();
}

void HttpTestConnection::MakeHead(const Request& request)
{
    const HttpTestServer::Resource& resource = server->resources[path];
    file.close();
    begin = 0;
    HeaderList headers = reply.headers;
    const bool fromPath = !reply.body;
    if (reply.body) {
        source = Bytes;
        bytes = *reply.body;
        size = bytes.size();
    } else if (resource.body) {
        source = Bytes;
        bytes = *resource.body;
        size = bytes.size();
    } else if (resource.generatedSize >= 0) {
        source = Generated;
        size = resource.generatedSize;
    } else {
        source = File;
        file.setFileName(server->FileFor(path));
        size = file.open(QIODevice::ReadOnly) ? file.size() : 0;
    }
    if (fromPath) {
        if (!resource.etag.isEmpty())
            headers.emplaceBack("ETag", resource.etag);
        if (!resource.lastModified.isEmpty())
            headers.emplaceBack("Last-Modified", resource.lastModified);
    }
    const bool rangesServed =
        fromPath && reply.status == 200 && resource.ranges && !reply.ignoreRange;
    if (rangesServed) {
        headers.emplaceBack("Accept-Ranges", "bytes");
        const QByteArray condition = request.Header("If-Range");
        const bool unchanged = condition.isEmpty() ||
                               (condition == resource.etag && !condition.startsWith("W/")) ||
                               condition == resource.lastModified;
        const Range range = unchanged ? ParseRange(request.Header("Range"), size) : Range();
        if (range.kind == Range::Good) {
            reply.status = 206;
            headers.emplaceBack("Content-Range",
                                "bytes " + QByteArray::number(range.begin) + '-' +
                                    QByteArray::number(range.begin + range.size - 1) + '/' +
                                    QByteArray::number(size));
            begin = range.begin;
            size = range.size;
        } else if (range.kind == Range::Bad) {
            reply.status = 416;
            headers.emplaceBack("Content-Range", "bytes */" + QByteArray::number(size));
            size = 0;
        }
    }
    if (reply.framing == Reply::Framing::Chunked) {
        headers.emplaceBack("Transfer-Encoding", "chunked");
    } else if (reply.framing == Reply::Framing::Length) {
        const qint64 length = reply.declaredLength >= 0 ? reply.declaredLength : size;
        headers.emplaceBack("Content-Length", QByteArray::number(length));
    }
    if (reply.close || reply.framing == Reply::Framing::UntilClose)
        headers.emplaceBack("Connection", "close");
    if (request.method == "HEAD")
        size = 0;
    head = "HTTP/1.1 " + QByteArray::number(reply.status) + " Status\r\n";
    for (const auto& header : headers)
        head += header.first + ": " + header.second + "\r\n";
    head += "\r\n";
}

void HttpTestConnection::Release()
{
    stalled = false;
    reply.fault = Reply::Fault::None;
    Pump();
}

void HttpTestConnection::Cut()
{
    socket->abort();
}

bool HttpTestConnection::AtFault() const
{
    switch (reply.fault) {
    case Reply::Fault::Stall:
    case Reply::Fault::Truncate:
    case Reply::Fault::Reset:
        return sent == (reply.faultAt < 0 ? size : qMin(reply.faultAt, size));
    default:
        return false;
    }
}

void HttpTestConnection::Pump()
{
    if (!headSent) {
        headSent = true;
        socket->write(head);
    }
    const QPointer<HttpTestConnection> self(this);
    while (self && answering && !stalled && !closing) {
        if (AtFault()) {
            // Otherwise bytesWritten() brings us back.
            if (socket->bytesToWrite() == 0)
                StrikeFault();
            return;
        }
        if (sent == size) {
            Finish();
            return;
        }
        if (socket->bytesToWrite() >= highWater)
            return;
        WritePiece();
    }
}

void HttpTestConnection::StrikeFault()
{
    switch (reply.fault) {
    case Reply::Fault::Stall:
        stalled = true;
        Q_EMIT server->stalled(path);
        break;
    case Reply::Fault::Truncate:
        reply.fault = Reply::Fault::None;
        CloseSoon();
        break;
    default:
        ResetConnection(socket);
        break;
    }
}

void HttpTestConnection::WritePiece()
{
    qint64 count = qMin(pieceSize, size - sent);
    const bool cut = reply.fault != Reply::Fault::None && reply.fault != Reply::Fault::WrongBytes;
    if (cut && reply.faultAt > sent)
        count = qMin(count, reply.faultAt - sent);
    QByteArray piece = Read(begin + sent, count);
    // A file that shrinks while it is served ends its connection, as a real server does.
    if (piece.size() < count) {
        socket->abort();
        return;
    }
    if (reply.fault == Reply::Fault::WrongBytes) {
        for (qint64 i = qMax<qint64>(0, reply.faultAt - sent); i < piece.size(); ++i)
            piece[i] = char(~piece.at(i));
    }
    sent += count;
    server->bytesSent += count;
    if (reply.framing == Reply::Framing::Chunked) {
        // A cut falls inside a chunk: that is where most cuts fall.
        const bool last = AtFault() && reply.fault != Reply::Fault::Stall;
        piece.prepend(QByteArray::number(last ? count + 1 : count, 16) + "\r\n");
        if (!last)
            piece.append("\r\n");
    }
    socket->write(piece);
}

QByteArray HttpTestConnection::Read(qint64 offset, qint64 count)
{
    if (source == Bytes)
        return bytes.mid(offset, count);
    if (source == Generated)
        return HttpTestServer::GeneratedBytes(offset, count);
    return file.seek(offset) ? file.read(count) : QByteArray();
}

void HttpTestConnection::CloseSoon()
{
    // As over a real line, the end comes a little after the data. When both are there at once, Qt's
    // client may ask again, or take what it got for all there is; it still may when it is slow.
    closing = true;
    QTimer::singleShot(10, socket, &QTcpSocket::disconnectFromHost);
}

void HttpTestConnection::Finish()
{
    if (reply.framing == Reply::Framing::Chunked)
        socket->write("0\r\n\r\n");
    file.close();
    answering = false;
    const QPointer<HttpTestConnection> self(this);
    if (reply.close || reply.framing == Reply::Framing::UntilClose)
        CloseSoon();
    if (server)
        server->EndReply(path);
    // The next request may have come while this one was being answered.
    if (self)
        QMetaObject::invokeMethod(this, &HttpTestConnection::OnReadyRead, Qt::QueuedConnection);
}

} // namespace kxtest
