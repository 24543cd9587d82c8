#include "transfererror.h"

#include <QNetworkAccessManager>
#include <QNetworkProxy>
#include <QNetworkReply>

namespace common::http {
namespace {

using Kind = TransferError::Kind;

constexpr int longestEncoding = 40; // of a text that the server chose

struct ProxyUse
{
    QString names;       // empty when the server is asked directly
    bool always = false; // never directly
};

ProxyUse ProxiesFor(const QNetworkAccessManager* manager, const QUrl& url)
{
    QList<QNetworkProxy> proxies;
    const QNetworkProxyQuery query(url);
    if (manager && manager->proxyFactory())
        proxies = manager->proxyFactory()->queryProxy(query);
    else if (manager && manager->proxy().type() != QNetworkProxy::DefaultProxy)
        proxies.append(manager->proxy());
    else
        proxies = QNetworkProxyFactory::proxyForQuery(query);
    ProxyUse use;
    QStringList names;
    for (const QNetworkProxy& proxy : proxies) {
        if (!proxy.hostName().isEmpty())
            names += QStringLiteral("%1:%2").arg(proxy.hostName()).arg(proxy.port());
    }
    use.names = names.join(QStringLiteral(", "));
    use.always = !names.isEmpty() && names.size() == proxies.size();
    return use;
}

QString ProxyReason(const QNetworkReply& reply, const ProxyUse& use)
{
    const QString proxy = use.names.isEmpty() ? QStringLiteral("a proxy on the way")
                                              : QStringLiteral("the proxy '%1'").arg(use.names);
    if (reply.error() == QNetworkReply::ProxyAuthenticationRequiredError)
        return QStringLiteral("%1 wants credentials: %2").arg(proxy, reply.errorString());
    return QStringLiteral("%1 failed: %2").arg(proxy, reply.errorString());
}

// Plain requests go to the proxy as if it were the server, and Qt reports its failures like that.
bool IsConnectionError(QNetworkReply::NetworkError error)
{
    return error == QNetworkReply::ConnectionRefusedError ||
           error == QNetworkReply::HostNotFoundError;
}

bool IsProxyError(QNetworkReply::NetworkError error)
{
    return error >= QNetworkReply::ProxyConnectionRefusedError &&
           error <= QNetworkReply::UnknownProxyError;
}

bool IsPassingStatus(int status)
{
    return status == 408 || status == 429 || status >= 500;
}

QString StatusReason(const QNetworkReply& reply, int status)
{
    const QString phrase =
        reply.attribute(QNetworkRequest::HttpReasonPhraseAttribute).toString().trimmed();
    const QString text = QStringLiteral("the server answered with status %1").arg(status);
    return phrase.isEmpty() ? text : text + QStringLiteral(" (%1)").arg(phrase);
}

} // namespace

TransferError ErrorOf(const QNetworkReply& reply, const QNetworkAccessManager* manager)
{
    TransferError result;
    const QNetworkReply::NetworkError error = reply.error();
    const int status = reply.attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    if (error == QNetworkReply::NoError && status < 400)
        return result;
    result.reason = reply.errorString();
    const ProxyUse use = ProxiesFor(manager, reply.url());
    if (IsProxyError(error) || status == 407 || (use.always && IsConnectionError(error))) {
        result.kind = Kind::Proxy;
        result.reason = ProxyReason(reply, use);
        result.passing = error != QNetworkReply::ProxyAuthenticationRequiredError && status != 407;
        return result;
    }
    if (status >= 400) {
        result.kind = Kind::Status;
        result.status = status;
        result.passing = IsPassingStatus(status);
        result.reason = StatusReason(reply, status);
        return result;
    }
    switch (error) {
    case QNetworkReply::SslHandshakeFailedError:
        result.kind = Kind::Tls;
        break;
    case QNetworkReply::TimeoutError:
    case QNetworkReply::OperationCanceledError:
        // Our own aborts are never seen here: what cancels is a timeout of the access manager.
        result.kind = Kind::Timeout;
        result.passing = true;
        break;
    case QNetworkReply::ConnectionRefusedError:
    case QNetworkReply::RemoteHostClosedError:
    case QNetworkReply::HostNotFoundError:
    case QNetworkReply::TemporaryNetworkFailureError:
    case QNetworkReply::NetworkSessionFailedError:
    case QNetworkReply::UnknownNetworkError:
        // A name that is not found is no different from a resolver that is away for a moment.
        result.kind = Kind::Network;
        result.passing = true;
        result.closed = error == QNetworkReply::RemoteHostClosedError;
        break;
    case QNetworkReply::UnknownContentError:
        // Qt gives no reason, and refuses with the same error what unpacks out of all proportion.
        result.kind = Kind::Network;
        result.reason = QStringLiteral(
            "the compressed reply is damaged, or unpacks to far more than it should");
        break;
    default:
        result.kind = Kind::Network;
        break;
    }
    if (!use.names.isEmpty())
        result.reason += QStringLiteral(" (through the proxy '%1')").arg(use.names);
    return result;
}

TransferError TimeoutError(int seconds)
{
    TransferError result;
    result.kind = Kind::Timeout;
    result.passing = true;
    result.reason = QStringLiteral("no data came for %1 seconds").arg(seconds);
    return result;
}

TransferError EncodingError(const QByteArray& encoding)
{
    TransferError result;
    result.kind = Kind::Network;
    result.reason =
        QStringLiteral("the reply has the content encoding '%1', which was not asked for")
            .arg(QString::fromLatin1(encoding.trimmed().left(longestEncoding)));
    return result;
}

TransferError RedirectError(const QString& reason)
{
    TransferError result;
    result.kind = Kind::Redirect;
    result.reason = reason;
    return result;
}

QString FetchFailureText(const QUrl& url, const QString& reason)
{
    return QStringLiteral("Cannot fetch '%1': %2.").arg(url.toDisplayString(), reason);
}

bool IsFetchable(const QUrl& url)
{
    const QString scheme = url.scheme();
    return url.isValid() && !url.host().isEmpty() &&
           (scheme == QLatin1String("http") || scheme == QLatin1String("https"));
}

} // namespace common::http
