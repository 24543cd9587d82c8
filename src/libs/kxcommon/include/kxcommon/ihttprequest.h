#pragma once

#include <kxcommon/kxcommon_export.h>

#include <QObject>
#include <QString>
#include <QUrl>

QT_BEGIN_NAMESPACE
class QNetworkAccessManager;
QT_END_NAMESPACE

/** What speaks HTTP: one request, one file. */
namespace common::http {

/**
 * Fetches one URL at a time with a plain GET and hands back the body as text.
 *
 *     auto* request = common::http::CreateHttpRequest(&manager, this);
 *     request->SetIntParameter(30);   // seconds without data until it has timed out
 *     request->SetBoolParameter(true);
 *     connect(request, SIGNAL(requestFinished(const QString&)), SLOT(OnReply(const QString&)));
 *     connect(request, SIGNAL(requestError(int, const QString&)),
 *             SLOT(OnError(int, const QString&)));
 *     request->SetUrl(url);
 *     request->Send();
 *
 * Every successful Send() is followed by exactly one of the two signals, unless Abort() or the
 * destructor comes first. Redirects are followed, but never from https to http nor to another
 * scheme. A status of 400 or above and a reply larger than 64 MiB are errors. The body is decoded
 * as UTF-8.
 *
 * The server is told that it may compress the body (gzip, deflate, and what else Qt was built
 * with), unless the manager sets "Accept-Encoding" itself. The body is unpacked while it comes; the
 * limit is of what it unpacks to. A reply that is damaged, that grows out of all proportion, or
 * that is packed in a way that was not asked for is an error. A compressed reply that is cut may
 * count as complete, since Qt does not always see it: the text is then short, so its reader has to
 * know where it ends.
 *
 * The object may be reused after each outcome, from inside the slot too, and may be
 * deleted at any moment, which ends the request silently. Owner thread only.
 */
class KXCOMMON_EXPORT IHttpRequest : public QObject
{
    Q_OBJECT
public:
    /** For classes that implement a request; `parent` owns it. */
    explicit IHttpRequest(QObject* parent = nullptr);
    ~IHttpRequest() override;

    /** URL of the next send; http and https only. A running request keeps the one it has. */
    virtual void SetUrl(const QUrl& url) = 0;
    /** The URL as set; a redirect never changes it. */
    virtual QUrl Url() const = 0;
    /** Seconds without any data before the request has timed out; 0 or less never times out.
     *  Default 30. Counts from the next send. */
    virtual void SetIntParameter(int seconds) = 0;
    /** The seconds as set. */
    virtual int IntParameter() const = 0;
    /** Starts fetching; false, and nothing else, while running or for a URL that is empty, invalid
     *  or not http(s). Emits nothing from inside the call. */
    virtual bool Send() = 0;
    /** True from a successful Send() until just before its outcome is signalled. */
    virtual bool IsRunning() = 0;
    /** True: always ask the network, never a cache on the way. Default false. Counts from the next
     *  send. */
    virtual void SetBoolParameter(bool alwaysAskNetwork) = 0;
    /** True when the network is always asked. */
    virtual bool BoolParameter() const = 0;
    /** Ends a running request without a signal; does nothing otherwise. */
    virtual void Abort() = 0;

Q_SIGNALS:
    /** The request completed; `reply` is the whole body, possibly empty. */
    void requestFinished(const QString& reply);
    /** The request failed; codes HttpRequest... of <kxcommon/errors.h>. */
    void requestError(int code, const QString& description);
};

/**
 * Makes a request; null when `manager` is null or memory ran out.
 * The manager is not owned and must outlive the request; `parent` owns the request.
 */
KXCOMMON_EXPORT IHttpRequest* CreateHttpRequest(QNetworkAccessManager* manager, QObject* parent);

} // namespace common::http
