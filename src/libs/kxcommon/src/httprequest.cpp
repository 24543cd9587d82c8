#include "httprequest.h"

#include "transfertuning.h"

#include <kxcommon/errors.h>

#include <QStringDecoder>

#include <new>

namespace common::http {
namespace {

int CodeOf(TransferError::Kind kind)
{
    switch (kind) {
    case TransferError::Kind::Timeout:
        return HttpRequestTimeout;
    case TransferError::Kind::Status:
        return HttpRequestStatus;
    case TransferError::Kind::Redirect:
        return HttpRequestRedirect;
    case TransferError::Kind::Proxy:
        return HttpRequestProxy;
    case TransferError::Kind::Tls:
        return HttpRequestTls;
    default:
        return HttpRequestNetwork;
    }
}

bool IsUtf8(const QByteArray& text)
{
    QStringDecoder decoder(QStringDecoder::Utf8);
    const QString decoded = decoder(text);
    return !decoder.hasError();
}

} // namespace

HttpRequest::HttpRequest(QNetworkAccessManager* manager, QObject* parent)
    : IHttpRequest(parent), fetch(manager, this)
{
    connect(&fetch, &HttpFetch::headReceived, this, &HttpRequest::OnHead);
    connect(&fetch, &HttpFetch::dataReceived, this, &HttpRequest::OnData);
    connect(&fetch, &HttpFetch::ended, this, &HttpRequest::OnEnded);
}

HttpRequest::~HttpRequest()
{
    Abort();
}

bool HttpRequest::Send()
{
    if (running || !IsFetchable(url))
        return false;
    running = true;
    sentUrl = url;
    body.clear();
    fetch.Start(HttpFetch::MakeRequest(url, askNetwork, HttpFetch::Packing::Allowed), timeout);
    return true;
}

void HttpRequest::Abort()
{
    running = false;
    fetch.Close();
    body = QByteArray();
}

void HttpRequest::OnHead()
{
    if (fetch.ContentLength() > Tuning().largestReply)
        FailTooLarge();
}

void HttpRequest::OnData()
{
    if (!Take())
        FailTooLarge();
}

// False when there is more than is allowed. A little data can unpack to very much, so no more is
// unpacked than it takes to see that.
bool HttpRequest::Take()
{
    const qint64 most = Tuning().largestReply;
    body += fetch.Read(most + 1 - body.size());
    return body.size() <= most;
}

void HttpRequest::OnEnded()
{
    const TransferError error = fetch.Error();
    if (error.kind != TransferError::Kind::None) {
        Fail(CodeOf(error.kind), error.reason);
        return;
    }
    if (!Take()) {
        FailTooLarge();
        return;
    }
    if (fetch.Header("Transfer-Encoding").isEmpty() && body.size() < fetch.ContentLength()) {
        Fail(HttpRequestNetwork, QStringLiteral("Connection closed after %1 of %2 bytes")
                                     .arg(body.size())
                                     .arg(fetch.ContentLength()));
        return;
    }
    // Qt can be built without these two, and does not tell. What is still packed is not UTF-8.
    const QByteArray encoding = fetch.Header("Content-Encoding").trimmed().toLower();
    if ((encoding == "br" || encoding == "zstd") && !IsUtf8(body)) {
        Fail(HttpRequestNetwork, EncodingError(encoding).reason);
        return;
    }
    const QString reply = QString::fromUtf8(body);
    Abort();
    Q_EMIT requestFinished(reply);
}

void HttpRequest::FailTooLarge()
{
    Fail(HttpRequestTooLarge,
         QStringLiteral("the reply is larger than %1 bytes").arg(Tuning().largestReply));
}

void HttpRequest::Fail(int code, const QString& reason)
{
    const QString text = FetchFailureText(sentUrl, reason);
    Abort();
    Q_EMIT requestError(code, text);
}

IHttpRequest* CreateHttpRequest(QNetworkAccessManager* manager, QObject* parent)
{
    return manager ? new (std::nothrow) HttpRequest(manager, parent) : nullptr;
}

} // namespace common::http
