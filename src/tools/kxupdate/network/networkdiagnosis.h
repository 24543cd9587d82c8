#pragma once

#include "output/errorhints.h"

#include <QObject>
#include <QUrl>

QT_BEGIN_NAMESPACE
class QNetworkAccessManager;
class QNetworkReply;
QT_END_NAMESPACE

/**
 * Watches the replies of a network manager for what the errors of the library do not tell. Owner
 * thread only.
 */
class NetworkDiagnosis : public QObject
{
    Q_OBJECT
public:
    /** The manager is not owned. `server`: where requests go as long as none has failed. */
    NetworkDiagnosis(QNetworkAccessManager& manager, const QUrl& server);

    /** As of now; right inside a signal that reports an error. Passwords are left out. */
    NetworkFinding Finding() const;

private Q_SLOTS:
    void OnFinished(QNetworkReply* reply);

private:
    Q_DISABLE_COPY(NetworkDiagnosis)

    const QNetworkAccessManager& manager;
    QUrl failed;
    QUrl webPage;
};
