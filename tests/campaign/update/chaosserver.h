#pragma once

#include "chaosplan.h"

#include <QObject>
#include <QPointer>
#include <QString>
#include <QTcpServer>
#include <QTimer>

QT_BEGIN_NAMESPACE
class QTcpSocket;
QT_END_NAMESPACE

namespace kxtest {

class ChaosConnection;

/**
 * A web server on 127.0.0.1 and a free port that serves the files of a directory and misbehaves as
 * a ChaosPlan says, down to resets of its connections and to a port that is closed for a while.
 * Lives in the event loop of the thread that made it.
 */
class ChaosServer : public QObject
{
    Q_OBJECT
public:
    explicit ChaosServer(const QString& directory, QObject* parent = nullptr);
    ~ChaosServer() override;

    /** "http://127.0.0.1:PORT". */
    QString Url() const;
    /** From now on it misbehaves like this; open connections are cut. */
    void Misbehave(const ChaosPlan::Settings& settings);
    /** From now on nothing goes wrong. */
    void Behave();

    const ChaosPlan& Plan() const { return plan; }
    /** Requests since the last change of behaviour. */
    int RequestCount() const { return requestCount; }

Q_SIGNALS:
    /** A request came, or bytes went: something goes on. */
    void active();

private:
    friend class ChaosConnection;

    void OnConnection();
    void Listen();
    void CutAll();
    /** Answers a request, or takes the server down. */
    void Serve(ChaosConnection* connection, const ChaosRequest& request);

    ChaosPlan plan;
    QTcpServer server;
    QTimer downtime;
    quint16 port = 0;
    int requestCount = 0;
};

/** One accepted connection of a ChaosServer. */
class ChaosConnection : public QObject
{
    Q_OBJECT
public:
    /** Takes the socket over. */
    ChaosConnection(QTcpSocket* socket, ChaosServer* server);

    void Run(const QList<ChaosStep>& newSteps);
    void Reset();

private:
    void OnReadyRead();
    void OnBytesWritten();
    void Next();

    ChaosServer* server;
    QTcpSocket* socket;
    QTimer pause;
    QByteArray incoming;
    QList<ChaosStep> steps;
    bool answering = false;
};

} // namespace kxtest
