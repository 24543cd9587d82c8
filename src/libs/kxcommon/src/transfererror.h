#pragma once

#include <QByteArray>
#include <QString>
#include <QUrl>

QT_BEGIN_NAMESPACE
class QNetworkAccessManager;
class QNetworkReply;
QT_END_NAMESPACE

namespace common::http {

/** Why a transfer failed on its way over the network. */
struct TransferError
{
    enum class Kind { None, Timeout, Status, Network, Redirect, Proxy, Tls };

    Kind kind = Kind::None;
    /** True when the same request may succeed by itself a little later. */
    bool passing = false;
    bool closed = false; //!< the connection ended before the reply did
    int status = 0;      //!< of a reply whose status is the failure, else 0
    /** What happened, as the end of a sentence; names the proxy where one is involved. */
    QString reason;
};

/** What became of a finished reply. */
TransferError ErrorOf(const QNetworkReply& reply, const QNetworkAccessManager* manager);

/** The failure of a transfer that got no data for so long. */
TransferError TimeoutError(int seconds);

/** The failure of a body that is packed in a way that cannot be undone; `encoding` as it came. */
TransferError EncodingError(const QByteArray& encoding);

/** The failure of a redirect that is not followed. */
TransferError RedirectError(const QString& reason);

/** "Cannot fetch 'URL': reason." The URL is shown without its password. */
QString FetchFailureText(const QUrl& url, const QString& reason);

/** True for a URL that can be fetched: valid, http or https, and with a host. */
bool IsFetchable(const QUrl& url);

} // namespace common::http
