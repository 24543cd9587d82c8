#include "networkdiagnosis.h"

#include <QNetworkAccessManager>
#include <QNetworkProxy>
#include <QNetworkReply>

NetworkDiagnosis::NetworkDiagnosis(QNetworkAccessManager& manager, const QUrl& server)
    : manager(manager), failed(server)
{
    // The manager tells of an end before the reply itself does, so that the finding is there when
    // the library reports what it makes of it.
    connect(&manager, SIGNAL(finished(QNetworkReply*)), SLOT(OnFinished(QNetworkReply*)));
}

void NetworkDiagnosis::OnFinished(QNetworkReply* reply)
{
    const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    if (reply->error() != QNetworkReply::NoError || status >= 400) {
        failed = reply->url();
        return;
    }
    if (status >= 300)
        return;
    const QString type = reply->header(QNetworkRequest::ContentTypeHeader).toString();
    const bool isPage = type.startsWith(QLatin1String("text/html"), Qt::CaseInsensitive) ||
                        type.startsWith(QLatin1String("application/xhtml"), Qt::CaseInsensitive);
    webPage = isPage ? reply->url() : QUrl();
}

NetworkFinding NetworkDiagnosis::Finding() const
{
    NetworkFinding finding;
    finding.webPage = webPage.toDisplayString(QUrl::RemovePassword);
    const QList<QNetworkProxy> proxies =
        manager.proxy().type() != QNetworkProxy::DefaultProxy
            ? QList<QNetworkProxy>{manager.proxy()}
            : QNetworkProxyFactory::proxyForQuery(QNetworkProxyQuery(failed));
    if (!proxies.isEmpty() && !proxies.first().hostName().isEmpty())
        finding.proxy =
            QStringLiteral("%1:%2").arg(proxies.first().hostName()).arg(proxies.first().port());
    return finding;
}
