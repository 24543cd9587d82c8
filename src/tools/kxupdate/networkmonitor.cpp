#include "networkmonitor.h"

#include <QNetworkReply>

NetworkMonitor::NetworkMonitor(QObject* parent) : QNetworkAccessManager(parent) {}

QNetworkReply* NetworkMonitor::createRequest(Operation operation, const QNetworkRequest& request,
                                             QIODevice* body)
{
    QNetworkReply* reply = QNetworkAccessManager::createRequest(operation, request, body);
    connect(reply, &QNetworkReply::downloadProgress, this,
            [this, before = qint64(0)](qint64 bytes, qint64) mutable {
                // A redirected reply begins again.
                total += bytes < before ? bytes : bytes - before;
                before = bytes;
                Q_EMIT received(total);
            });
    return reply;
}
