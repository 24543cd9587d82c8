#include "httpexchange.h"

#include <QEventLoop>
#include <QNetworkAccessManager>
#include <QNetworkProxy>
#include <QNetworkReply>

#include <memory>

namespace kxtest {

constexpr int waitMs = 60000;

QByteArray HttpExchange::Header(const QByteArray& name) const
{
    QByteArray value;
    for (const auto& header : headers) {
        if (header.first.compare(name, Qt::CaseInsensitive) == 0)
            value += (value.isEmpty() ? "" : ", ") + header.second;
    }
    return value;
}

HttpExchange Exchange(const QString& url, const QList<QPair<QByteArray, QByteArray>>& headers,
                      const QByteArray& method, const QByteArray& body)
{
    QNetworkAccessManager manager;
    manager.setProxy(QNetworkProxy::NoProxy);
    QNetworkRequest request{QUrl(url)};
    request.setTransferTimeout(waitMs);
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
                         QNetworkRequest::ManualRedirectPolicy);
    request.setRawHeader("Accept-Encoding", "identity");
    for (const auto& header : headers)
        request.setRawHeader(header.first, header.second);
    // Of a custom method Qt expects the body that the head announces.
    const std::unique_ptr<QNetworkReply> reply(
        method == "HEAD" ? manager.head(request)
                         : manager.sendCustomRequest(request, method, body));
    QEventLoop loop;
    QObject::connect(reply.get(), &QNetworkReply::finished, &loop, &QEventLoop::quit);
    loop.exec();

    HttpExchange exchange;
    exchange.status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    if (reply->isOpen())
        exchange.body = reply->readAll();
    exchange.headers = reply->rawHeaderPairs();
    return exchange;
}

} // namespace kxtest
