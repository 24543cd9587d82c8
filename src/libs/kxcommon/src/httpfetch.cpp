#include "httpfetch.h"

#include "transfertuning.h"

#include <QNetworkAccessManager>
#include <QNetworkReply>

#include <limits>

namespace common::http {
namespace {

constexpr int mostRedirects = 20;
// Reading a short error page to its end lets the connection be used again.
constexpr qint64 mostDiscarded = 64 * 1024;

bool IsRedirect(int status)
{
    return status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
}

// Bytes read, as many as fit. A function of its own, so that HttpFetch::Read() stands in the stacks
// that the thread sanitizer compares with its suppressions.
qint64 ReadInto(QByteArray& data, QNetworkReply& reply)
{
    return qMax<qint64>(0, reply.read(data.data(), data.size()));
}

} // namespace

HttpFetch::HttpFetch(QNetworkAccessManager* manager, QObject* parent)
    : QObject(parent), manager(manager), clock(this)
{
    clock.setSingleShot(true);
    connect(&clock, &QTimer::timeout, this, &HttpFetch::OnClock);
}

HttpFetch::~HttpFetch()
{
    Close();
}

QNetworkRequest HttpFetch::MakeRequest(const QUrl& url, bool alwaysAskNetwork, Packing packing)
{
    QNetworkRequest request(url);
    // Without this header Qt asks for every encoding that it can unpack, and unpacks it.
    if (packing == Packing::Never)
        request.setRawHeader("Accept-Encoding", "identity");
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
                         QNetworkRequest::ManualRedirectPolicy);
    // Qt's HTTP/2 ignores the limit of the read buffer, and costs small files a round trip more.
    request.setAttribute(QNetworkRequest::Http2AllowedAttribute, false);
    if (alwaysAskNetwork) {
        request.setRawHeader("Cache-Control", "no-cache");
        request.setAttribute(QNetworkRequest::CacheLoadControlAttribute,
                             QNetworkRequest::AlwaysNetwork);
    }
    return request;
}

void HttpFetch::Start(const QNetworkRequest& newRequest, int timeoutSeconds)
{
    Close();
    request = newRequest;
    timeout = timeoutSeconds;
    redirects = 0;
    over = false;
    error = TransferError();
    Get();
}

void HttpFetch::Close()
{
    over = true;
    clock.stop();
    ReleaseReply();
}

void HttpFetch::ReleaseReply()
{
    if (!reply)
        return;
    QNetworkReply* old = reply;
    reply.clear();
    old->disconnect(this);
    old->abort();
    // It may be emitting just now.
    old->deleteLater();
}

void HttpFetch::Get()
{
    redirect.clear();
    headSeen = false;
    discarding = false;
    discarded = 0;
    status = 0;
    reply = manager->get(request);
    if (bufferSize > 0)
        reply->setReadBufferSize(bufferSize);
    connect(reply, &QNetworkReply::metaDataChanged, this, &HttpFetch::OnHead);
    connect(reply, &QNetworkReply::readyRead, this, &HttpFetch::OnData);
    connect(reply, &QNetworkReply::finished, this, &HttpFetch::OnFinished);
    if (reply->isFinished()) {
        QNetworkReply* finished = reply;
        QMetaObject::invokeMethod(
            finished, [this, finished] { finished == reply ? OnFinished() : void(); },
            Qt::QueuedConnection);
    }
    SetReading(true);
}

void HttpFetch::SetReading(bool reading)
{
    silentOnce = false;
    if (!reading || over || timeout <= 0) {
        clock.stop();
        return;
    }
    const qint64 half = qint64(timeout) * Tuning().timeoutUnitMs / 2;
    clock.start(int(qMin<qint64>(half, std::numeric_limits<int>::max())));
}

void HttpFetch::OnClock()
{
    // Twice half the time, because a host that held its event loop finds the clock run out before
    // it sees the data that has been waiting: the second half is time in which data was looked for.
    if (!silentOnce) {
        SetReading(true);
        silentOnce = true;
        return;
    }
    const TransferError result = discarding && reply && redirect.isEmpty()
                                     ? ErrorOf(*reply, manager)
                                     : TimeoutError(timeout);
    End(result);
}

void HttpFetch::OnHead()
{
    SetReading(true);
    if (headSeen || !reply)
        return;
    const QVariant code = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    if (!code.isValid() && !reply->isFinished() && reply->bytesAvailable() == 0)
        return;
    headSeen = true;
    status = code.toInt();
    if (IsRedirect(status)) {
        redirect = QUrl::fromEncoded(reply->rawHeader("Location"));
        discarding = true;
        return;
    }
    if (status >= 400) {
        discarding = true;
        return;
    }
    if (IsLeftPacked()) {
        End(EncodingError(Header("Content-Encoding")));
        return;
    }
    Q_EMIT headReceived();
}

void HttpFetch::OnData()
{
    const QPointer<HttpFetch> self(this);
    const QPointer<QNetworkReply> current(reply);
    OnHead();
    if (!self || over || !current || reply != current)
        return;
    if (!discarding) {
        Q_EMIT dataReceived();
        return;
    }
    discarded += reply->read(mostDiscarded + 1 - discarded).size();
    if (discarded > mostDiscarded)
        OnFinished();
}

void HttpFetch::OnFinished()
{
    if (over || !reply)
        return;
    const QPointer<HttpFetch> self(this);
    const QPointer<QNetworkReply> current(reply);
    // A reply without a body, or one cut in its head, has not been looked at yet.
    if (!headSeen && reply->error() == QNetworkReply::NoError) {
        OnHead();
        if (!self || over || reply != current)
            return;
    }
    if (discarding && status < 400) {
        Follow();
        return;
    }
    End(ErrorOf(*reply, manager));
}

void HttpFetch::Follow()
{
    const QUrl from = reply->url();
    const QUrl target = from.resolved(redirect);
    const QString shown = target.toDisplayString();
    if (redirect.isEmpty() || !target.isValid()) {
        End(RedirectError(
            QStringLiteral("redirected (status %1) without a valid location").arg(status)));
    } else if (!IsFetchable(target)) {
        End(RedirectError(
            QStringLiteral("redirected to '%1', which is neither http nor https").arg(shown)));
    } else if (from.scheme() == QLatin1String("https") &&
               target.scheme() != QLatin1String("https")) {
        End(RedirectError(QStringLiteral("redirected from https to '%1'").arg(shown)));
    } else if (++redirects > mostRedirects) {
        End(RedirectError(QStringLiteral("redirected more than %1 times, at last to '%2'")
                              .arg(mostRedirects)
                              .arg(shown)));
    } else {
        ReleaseReply();
        request.setUrl(target);
        Get();
    }
}

// A body that was allowed to be packed, and is in a way that Qt did not undo.
bool HttpFetch::IsLeftPacked() const
{
    const QByteArray encoding = Header("Content-Encoding").trimmed().toLower();
    if (request.hasRawHeader("Accept-Encoding") || encoding.isEmpty() || encoding == "identity")
        return false;
    // An access manager may have put its own header in, and then Qt unpacks nothing.
    if (reply->request().hasRawHeader("Accept-Encoding"))
        return true;
    // Qt can be built without the last two.
    return encoding != "gzip" && encoding != "deflate" && encoding != "br" && encoding != "zstd";
}

void HttpFetch::End(const TransferError& result)
{
    over = true;
    clock.stop();
    error = result;
    if (redirects > 0 && error.kind != TransferError::Kind::None)
        error.reason = QStringLiteral("%1 (redirected to '%2')")
                           .arg(error.reason, request.url().toDisplayString());
    Q_EMIT ended();
}

QByteArray HttpFetch::Header(const char* name) const
{
    if (!reply)
        return QByteArray();
    // A copy, as in Read().
    const QByteArray value = reply->rawHeader(name);
    return QByteArray(value.constData(), value.size());
}

qint64 HttpFetch::ContentLength() const
{
    bool given = false;
    const qint64 length = Header("Content-Length").trimmed().toLongLong(&given);
    return given && length >= 0 ? length : -1;
}

qint64 HttpFetch::BytesAvailable() const
{
    return reply ? reply->bytesAvailable() : 0;
}

QByteArray HttpFetch::Read(qint64 most)
{
    const qint64 count = qMin(most, BytesAvailable());
    if (count <= 0)
        return QByteArray();
    // A copy: what the reply hands out may share its memory with the network thread, and a small
    // portion may sit in a large buffer.
    QByteArray data(count, Qt::Uninitialized);
    data.truncate(ReadInto(data, *reply));
    return data;
}

} // namespace common::http
