#include "networksettings.h"

#include <QFile>
#include <QFileInfo>
#include <QSslCertificate>
#include <QSslSocket>
#include <QUrl>

namespace networksettings {

QString ReadProxy(const QString& text, QNetworkProxy& proxy)
{
    if (text == QLatin1String("none")) {
        proxy = QNetworkProxy(QNetworkProxy::NoProxy);
        return QString();
    }
    const QUrl url(text, QUrl::StrictMode);
    // Qt's own description of what is wrong quotes the text.
    if (!url.isValid() || url.host().isEmpty())
        return QStringLiteral("is neither 'none' nor a URL with a host, http://HOST:PORT or "
                              "socks5://HOST:PORT");
    const bool socks = url.scheme() == QLatin1String("socks5");
    if (!socks && url.scheme() != QLatin1String("http"))
        return QStringLiteral("begins with neither http:// nor socks5://");
    if (url.port() <= 0)
        return QStringLiteral("names no port");
    if ((!url.path().isEmpty() && url.path() != QLatin1String("/")) || url.hasQuery() ||
        url.hasFragment())
        return QStringLiteral("holds more than a host, a port and a login");
    proxy = QNetworkProxy(socks ? QNetworkProxy::Socks5Proxy : QNetworkProxy::HttpProxy, url.host(),
                          quint16(url.port()), url.userName(QUrl::FullyDecoded),
                          url.password(QUrl::FullyDecoded));
    return QString();
}

QString ReadCertificates(const QString& path, QList<QSslCertificate>& certificates)
{
    if (!QSslSocket::supportsSsl())
        return QStringLiteral("cannot be used: this Qt has no TLS");
    const QFileInfo info(path);
    QFile file(path);
    if (info.exists() && !info.isFile())
        return QStringLiteral("is not a regular file");
    if (!file.open(QIODevice::ReadOnly))
        return QStringLiteral("cannot be read: %1").arg(file.errorString());
    certificates = QSslCertificate::fromDevice(&file, QSsl::Pem);
    return certificates.isEmpty() ? QStringLiteral("holds no certificate in PEM form") : QString();
}

} // namespace networksettings
