#pragma once

#include <QElapsedTimer>
#include <QObject>
#include <QTimer>

QT_BEGIN_NAMESPACE
class QNetworkReply;
QT_END_NAMESPACE

/**
 * Ends a reply that brings no data for a number of seconds, and keeps it from being ended sooner:
 * the library gives each of its requests 30 seconds. A child of the reply; owner thread only.
 */
class TransferClock : public QObject
{
    Q_OBJECT
public:
    /** `seconds`: above 0. */
    TransferClock(QNetworkReply* reply, int seconds);

Q_SIGNALS:
    /** The reply is about to be aborted. */
    void expired();

private Q_SLOTS:
    void OnActivity();
    void OnTick();

private:
    Q_DISABLE_COPY(TransferClock)

    QNetworkReply* reply;
    const qint64 limitMs;
    QElapsedTimer silence;
    QTimer ticks;
    int silentTicks = 0;
};
