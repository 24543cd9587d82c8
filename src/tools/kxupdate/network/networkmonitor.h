#pragma once

#include <QNetworkAccessManager>

QT_BEGIN_NAMESPACE
class QNetworkReply;
QT_END_NAMESPACE

struct Options;

/**
 * A network manager that applies the settings of the network to every request. Owner thread only.
 */
class NetworkMonitor : public QNetworkAccessManager
{
    Q_OBJECT
public:
    /** Takes proxy, certificates and timeout of `options`, which ReadOptions() has found good. */
    explicit NetworkMonitor(const Options& options, QObject* parent = nullptr);

Q_SIGNALS:
    /** A reply brought nothing for the `seconds` of --timeout and is given up. */
    void silent(int seconds);

protected:
    QNetworkReply* createRequest(Operation operation, const QNetworkRequest& request,
                                 QIODevice* body) override;

private:
    Q_DISABLE_COPY(NetworkMonitor)

    const int timeout; // seconds; 0: the library's own
};
