#pragma once

#include "httptestserver.h"

#include <QFile>
#include <QPointer>
#include <QTcpSocket>

namespace kxtest {

/** One accepted connection of an HttpTestServer: reads requests and sends replies, one at a time.
 */
class HttpTestConnection : public QObject
{
    Q_OBJECT
public:
    /** Takes the socket over. */
    HttpTestConnection(QTcpSocket* socket, HttpTestServer* server);
    ~HttpTestConnection() override;

    bool IsStalled() const { return stalled; }
    /** Goes on with a reply that is held or stalled. */
    void Release();
    /** Drops the connection; the object deletes itself. */
    void Cut();

private:
    void OnReadyRead();
    void OnDisconnected();
    bool TakeRequest(Request& request);
    void Answer(const Request& request);
    void MakeHead(const Request& request);
    void Pump();
    bool AtFault() const;
    void StrikeFault();
    void WritePiece();
    void CloseSoon();
    void Finish();
    QByteArray Read(qint64 offset, qint64 count);

    QTcpSocket* socket;
    QPointer<HttpTestServer> server;
    QByteArray incoming;

    // The reply being sent.
    bool answering = false;
    bool closing = false;
    bool stalled = false;
    bool headSent = false;
    Reply reply;
    QString path;
    QByteArray head;
    QByteArray bytes;
    QFile file;
    enum { Bytes, Generated, File } source = Bytes;
    qint64 begin = 0; // of the part of the body that is asked for
    qint64 size = 0;  // of that part
    qint64 sent = 0;
};

} // namespace kxtest
