#pragma once

#include "transfererror.h"

#include <QNetworkRequest>
#include <QObject>
#include <QPointer>
#include <QTimer>

QT_BEGIN_NAMESPACE
class QNetworkAccessManager;
class QNetworkReply;
QT_END_NAMESPACE

namespace common::http {

/**
 * One GET over http or https: follows redirects, watches for silence, and says what went wrong.
 *
 * A reply that is not a redirect and no error gives headReceived(), then dataReceived() any number
 * of times; ended() comes once and last. The reply stays readable after ended(), until Close().
 * A chunked or compressed reply that is cut may end without an error, as Qt does not always see it:
 * the reader has to know its data.
 * Nothing is emitted from inside Start(), and nothing after Close(). May be deleted, closed and
 * started again inside each of its signals. Owner thread only.
 */
class HttpFetch : public QObject
{
    Q_OBJECT
public:
    HttpFetch(QNetworkAccessManager* manager, QObject* parent);
    ~HttpFetch() override;

    /** Whether the server may send the body compressed; what it sends is unpacked while it comes.
     */
    enum class Packing { Never, Allowed };

    /** A request with what every transfer asks for. */
    static QNetworkRequest MakeRequest(const QUrl& url, bool alwaysAskNetwork,
                                       Packing packing = Packing::Never);

    /** `bytes`: how much of the reply is held in memory before the server has to wait; 0: all. */
    void SetBufferSize(qint64 bytes) { bufferSize = bytes; }
    /** 0 seconds or less: never times out. */
    void Start(const QNetworkRequest& request, int timeoutSeconds);
    /** Ends what runs and releases the reply, silently. */
    void Close();

    /** False while the reader keeps the server waiting: its silence is not counted then. */
    void SetReading(bool reading);

    int Status() const { return status; }
    QByteArray Header(const char* name) const;
    /** Of the body as announced; -1 when it is not, and when the body is being unpacked. */
    qint64 ContentLength() const;
    qint64 BytesAvailable() const;
    QByteArray Read(qint64 most);
    /** After ended(): what became of it. */
    const TransferError& Error() const { return error; }

Q_SIGNALS:
    void headReceived();
    void dataReceived();
    void ended();

private:
    void Get();
    void OnHead();
    void OnData();
    void OnFinished();
    void OnClock();
    void Follow();
    bool IsLeftPacked() const;
    void End(const TransferError& result);
    void ReleaseReply();

    QNetworkAccessManager* manager;
    QPointer<QNetworkReply> reply;
    QNetworkRequest request;
    QUrl redirect; // target of the reply at hand; empty when it is no redirect
    QTimer clock;  // fires twice without data in between: timed out
    TransferError error;
    qint64 bufferSize = 0;
    qint64 discarded = 0;
    int timeout = 0;
    int redirects = 0;
    int status = 0;
    bool headSeen = false;
    bool discarding = false; // the body of a redirect or an error is of no interest
    bool silentOnce = false;
    bool over = true;
};

} // namespace common::http
