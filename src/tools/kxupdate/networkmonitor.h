#pragma once

#include <QNetworkAccessManager>

QT_BEGIN_NAMESPACE
class QNetworkReply;
QT_END_NAMESPACE

/**
 * A network manager that counts what arrives. The updater tells how many files are done; this tells
 * that a large one is under way. Owner thread only.
 */
class NetworkMonitor : public QNetworkAccessManager
{
    Q_OBJECT
public:
    explicit NetworkMonitor(QObject* parent = nullptr);

Q_SIGNALS:
    /** Bytes of all replies since the manager was made, some ten times a second and transfer. */
    void received(qint64 bytes);

protected:
    QNetworkReply* createRequest(Operation operation, const QNetworkRequest& request,
                                 QIODevice* body) override;

private:
    Q_DISABLE_COPY(NetworkMonitor)

    qint64 total = 0;
};
