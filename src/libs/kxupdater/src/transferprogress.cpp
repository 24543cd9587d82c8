#include <kxupdater/transferprogress.h>

#include "transferledger.h"
#include "transferrate.h"
#include "updater.h"

#include <kxcommon/logger.h>

#include <QElapsedTimer>
#include <QThread>
#include <QTimer>

#include <limits>
#include <tuple>
#include <utility>

KX_LOG_CATEGORY("updater.download")

namespace updater {
namespace {
constexpr int interval = 100; // milliseconds between two looks at the ledger
} // namespace

class TransferMeter
{
public:
    using Figures = std::tuple<quint64, quint64, int, int, quint64>;

    void Sample() { rate.Add(clock.elapsed(), ledger->BytesFetched()); }
    quint64 BytesPerSecond() const { return underWay ? rate.BytesPerSecond() : 0; }
    /** All that the getters answer follows from these, and from the time. */
    Figures Now() const
    {
        return {ledger->BytesDone(), ledger->BytesTotal(), ledger->FilesDone(),
                ledger->FilesBegun(), BytesPerSecond()};
    }

    QExplicitlySharedDataPointer<const TransferLedger> ledger;
    TransferRate rate;
    QElapsedTimer clock;
    QTimer timer;
    Figures told{};
    bool underWay = false; // the updater is in DOWNLOADING
    bool ended = false;    // it has left it, and nobody was told
};

TransferProgress::TransferProgress(IUpdater* updater, QObject* parent)
    : QObject(parent), meter(std::make_unique<TransferMeter>())
{
    const auto* own = qobject_cast<Updater*>(updater);
    if (!own || own->thread() != QThread::currentThread()) {
        const char* const reason = !updater ? "there is no updater"
                                   : !own   ? "the updater is not one of this library"
                                            : "the updater lives on another thread";
        KX_LOG(Warning) << "Nothing will be told of transfers: " << reason << ".";
        meter->ledger = new TransferLedger;
        return;
    }
    meter->ledger = own->Transfers();
    meter->clock.start();
    meter->timer.setSingleShot(true);
    connect(&meter->timer, &QTimer::timeout, this, &TransferProgress::OnTick);
    connect(own, &IUpdater::stateChanged, this, &TransferProgress::OnStateChanged);
    connect(own, &QObject::destroyed, this, &TransferProgress::OnStepOver);
    meter->told = meter->Now();
    if (own->IsDownloading())
        OnStateChanged(QStringLiteral("DOWNLOADING"));
}

TransferProgress::~TransferProgress() = default;

void TransferProgress::OnStateChanged(const QString& state)
{
    // A state is announced before its handler runs: the ledger is still that of the state before.
    // It is looked at from the event loop, where a host may delete whatever it likes.
    if (state == QLatin1String("DOWNLOADING")) {
        meter->underWay = true;
        meter->rate.Clear();
        meter->Sample();
        meter->timer.start(interval);
    } else if (meter->underWay) {
        OnStepOver();
    } else if (state == QLatin1String("PREPARING")) {
        meter->timer.start(0);
    }
}

void TransferProgress::OnStepOver()
{
    if (!std::exchange(meter->underWay, false))
        return;
    meter->ended = true;
    meter->timer.start(0);
}

void TransferProgress::OnTick()
{
    if (meter->underWay) {
        meter->Sample();
        meter->timer.start(interval);
    }
    const TransferMeter::Figures now = meter->Now();
    if (now == std::exchange(meter->told, now) && !meter->ended)
        return;
    meter->ended = false;
    Q_EMIT changed();
}

quint64 TransferProgress::BytesDone() const
{
    return meter->ledger->BytesDone();
}

quint64 TransferProgress::BytesTotal() const
{
    return meter->ledger->BytesTotal();
}

int TransferProgress::FilesDone() const
{
    return meter->ledger->FilesDone();
}

int TransferProgress::FilesTotal() const
{
    return meter->ledger->FilesTotal();
}

quint64 TransferProgress::BytesPerSecond() const
{
    return meter->BytesPerSecond();
}

int TransferProgress::SecondsLeft() const
{
    const quint64 speed = BytesPerSecond();
    if (speed == 0)
        return -1;
    const quint64 left = BytesTotal() - BytesDone();
    const quint64 seconds = left / speed + (left % speed > 0 ? 1 : 0);
    return static_cast<int>(qMin<quint64>(seconds, std::numeric_limits<int>::max()));
}

QList<TransferProgress::FileProgress> TransferProgress::ActiveFiles() const
{
    QList<FileProgress> files;
    for (const TransferLedger::Transfer& transfer : meter->ledger->Running())
        files.append({transfer.name, transfer.BytesDone(), transfer.size});
    return files;
}

} // namespace updater
