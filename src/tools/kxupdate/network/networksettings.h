#pragma once

#include <QList>
#include <QNetworkProxy>
#include <QString>

QT_BEGIN_NAMESPACE
class QSslCertificate;
QT_END_NAMESPACE

/** What the settings of the network mean. Problems are empty for success, and never hold a
 *  password. */
namespace networksettings {

/** "none" or http:// or socks5:// with a host, a port, and perhaps a login. */
QString ReadProxy(const QString& text, QNetworkProxy& proxy);

/** The certificates of a PEM file; at least one. */
QString ReadCertificates(const QString& path, QList<QSslCertificate>& certificates);

} // namespace networksettings
