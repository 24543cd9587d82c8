#include "chaosserver.h"

#include <QTcpSocket>
#include <QUrl>

#include <sys/socket.h>

namespace kxtest {
namespace {

ChaosRequest RequestOf(const QByteArray& head)
{
    ChaosRequest request;
    const QList<QByteArray> lines = head.split('\n');
    request.path = QUrl::fromEncoded(lines.first().split(' ').value(1)).path(QUrl::FullyDecoded);
    for (const QByteArray& line : lines) {
        const QByteArray header = line.trimmed().toLower();
        if (header.startsWith("range: bytes=") && header.endsWith('-'))
            request.rangeBegin = header.mid(13).chopped(1).toLongLong();
    }
    return request;
}

} // namespace

ChaosServer::ChaosServer(const QString& directory, QObject* parent)
    : QObject(parent), plan(directory)
{
    connect(&server, &QTcpServer::pendingConnectionAvailable, this, &ChaosServer::OnConnection);
    downtime.setSingleShot(true);
    connect(&downtime, &QTimer::timeout, this, &ChaosServer::Listen);
    Listen();
}

ChaosServer::~ChaosServer()
{
    CutAll();
}

QString ChaosServer::Url() const
{
    return QStringLiteral("http://127.0.0.1:%1").arg(port);
}

void ChaosServer::Misbehave(const ChaosPlan::Settings& settings)
{
    CutAll();
    plan.SetSettings(settings);
    requestCount = 0;
    if (!server.isListening())
        Listen();
}

void ChaosServer::Behave()
{
    Misbehave({});
}

void ChaosServer::Listen()
{
    downtime.stop();
    // The port of the first time: clients come back to it.
    if (!server.listen(QHostAddress::LocalHost, port))
        qFatal("the server cannot listen on port %d: %s", port, qPrintable(server.errorString()));
    port = server.serverPort();
}

void ChaosServer::OnConnection()
{
    while (QTcpSocket* socket = server.nextPendingConnection())
        new ChaosConnection(socket, this);
}

void ChaosServer::CutAll()
{
    for (ChaosConnection* connection :
         findChildren<ChaosConnection*>(QString(), Qt::FindDirectChildrenOnly))
        connection->Reset();
}

void ChaosServer::Serve(ChaosConnection* connection, const ChaosRequest& request)
{
    ++requestCount;
    Q_EMIT active();
    const ChaosAnswer answer = plan.Answer(request, Url());
    if (answer.downtimeMs == 0) {
        connection->Run(answer.steps);
        return;
    }
    server.close();
    CutAll();
    downtime.start(answer.downtimeMs);
}

ChaosConnection::ChaosConnection(QTcpSocket* socket, ChaosServer* server)
    : QObject(server), server(server), socket(socket)
{
    socket->setParent(this);
    socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
    pause.setSingleShot(true);
    connect(&pause, &QTimer::timeout, this, &ChaosConnection::Next);
    connect(socket, &QTcpSocket::readyRead, this, &ChaosConnection::OnReadyRead);
    connect(socket, &QTcpSocket::bytesWritten, this, &ChaosConnection::OnBytesWritten);
    connect(socket, &QTcpSocket::disconnected, this, &QObject::deleteLater);
    // Data can have come before the connections above were made.
    QMetaObject::invokeMethod(this, &ChaosConnection::OnReadyRead, Qt::QueuedConnection);
}

void ChaosConnection::OnReadyRead()
{
    if (!socket->isOpen())
        return;
    incoming += socket->readAll();
    const qsizetype end = incoming.indexOf("\r\n\r\n");
    if (answering || end < 0)
        return;
    const ChaosRequest request = RequestOf(incoming.left(end));
    incoming.remove(0, end + 4);
    answering = true;
    server->Serve(this, request);
}

void ChaosConnection::Run(const QList<ChaosStep>& newSteps)
{
    steps = newSteps;
    Next();
}

void ChaosConnection::OnBytesWritten()
{
    Q_EMIT server->active();
    if (answering && !pause.isActive() && socket->bytesToWrite() == 0)
        Next();
}

void ChaosConnection::Next()
{
    while (!steps.isEmpty()) {
        const ChaosStep step = steps.takeFirst();
        switch (step.kind) {
        case ChaosStep::Send:
            // bytesWritten() goes on.
            if (socket->write(step.bytes) > 0)
                return;
            break;
        case ChaosStep::Pause:
            pause.start(step.milliseconds);
            return;
        case ChaosStep::Hold:
            answering = false;
            incoming.clear();
            socket->disconnect(this);
            connect(socket, &QTcpSocket::disconnected, this, &QObject::deleteLater);
            return;
        case ChaosStep::Close:
            socket->disconnectFromHost();
            return;
        case ChaosStep::Reset:
            Reset();
            return;
        }
    }
    answering = false;
    // The next request may have come meanwhile.
    QMetaObject::invokeMethod(this, &ChaosConnection::OnReadyRead, Qt::QueuedConnection);
}

void ChaosConnection::Reset()
{
    // With a linger time of zero, closing a socket resets its connection.
    const linger option = {1, 0};
    setsockopt(int(socket->socketDescriptor()), SOL_SOCKET, SO_LINGER, &option, sizeof option);
    steps.clear();
    pause.stop();
    socket->disconnect(this);
    socket->abort();
    deleteLater();
}

} // namespace kxtest
