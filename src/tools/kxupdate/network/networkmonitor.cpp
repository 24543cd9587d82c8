#include "networkmonitor.h"

#include "networksettings.h"
#include "options.h"
#include "transferclock.h"

#include <QNetworkReply>
#include <QSslCertificate>
#include <QSslConfiguration>

NetworkMonitor::NetworkMonitor(const Options& options, QObject* parent)
    : QNetworkAccessManager(parent), timeout(options.timeout)
{
    QNetworkProxy chosen;
    if (!options.proxy.isEmpty() && networksettings::ReadProxy(options.proxy, chosen).isEmpty())
        setProxy(chosen);
    QList<QSslCertificate> certificates;
    if (!options.caFile.isEmpty() &&
        networksettings::ReadCertificates(options.caFile, certificates).isEmpty()) {
        QSslConfiguration configuration = QSslConfiguration::defaultConfiguration();
        configuration.setCaCertificates(QSslConfiguration::systemCaCertificates() + certificates);
        QSslConfiguration::setDefaultConfiguration(configuration);
    }
}

QNetworkReply* NetworkMonitor::createRequest(Operation operation, const QNetworkRequest& request,
                                             QIODevice* body)
{
    QNetworkReply* reply = QNetworkAccessManager::createRequest(operation, request, body);
    if (timeout > 0) {
        const auto* clock = new TransferClock(reply, timeout);
        connect(clock, &TransferClock::expired, this, [this] { Q_EMIT silent(timeout); });
    }
    return reply;
}
