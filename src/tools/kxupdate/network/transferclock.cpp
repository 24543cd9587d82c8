#include "transferclock.h"

#include <QNetworkReply>

namespace {

// Well below the seconds after which the library gives up by itself.
constexpr qint64 longestTickMs = 1000;

} // namespace

TransferClock::TransferClock(QNetworkReply* reply, int seconds)
    : QObject(reply), reply(reply), limitMs(qint64(seconds) * 1000)
{
    connect(reply, &QNetworkReply::readyRead, this, &TransferClock::OnActivity);
    connect(reply, &QNetworkReply::downloadProgress, this, &TransferClock::OnActivity);
    connect(reply, &QNetworkReply::encrypted, this, &TransferClock::OnActivity);
    connect(reply, &QNetworkReply::requestSent, this, &TransferClock::OnActivity);
    connect(reply, &QNetworkReply::finished, &ticks, &QTimer::stop);
    connect(&ticks, &QTimer::timeout, this, &TransferClock::OnTick);
    silence.start();
    ticks.start(int(qMin(limitMs / 2, longestTickMs)));
}

void TransferClock::OnActivity()
{
    silence.restart();
    silentTicks = 0;
}

void TransferClock::OnTick()
{
    // Data that nobody has taken yet is no silence of the network: the disk may be the slow one.
    if (reply->bytesAvailable() > 0)
        return OnActivity();
    // A loop that was held finds the time run out before it sees what has come meanwhile.
    ++silentTicks;
    if (silence.elapsed() < limitMs || silentTicks < 2) {
        // A sign of life to the library's own clock; the head is looked at once only.
        Q_EMIT reply->metaDataChanged();
        return;
    }
    ticks.stop();
    Q_EMIT expired();
    reply->abort();
}
