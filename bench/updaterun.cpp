#include "updaterun.h"

#include "workload.h"

#include <kxupdater/iupdater.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QNetworkAccessManager>
#include <QTimer>

#include <cstdio>
#include <memory>

namespace kxbench {
namespace {

/** Measures the longest time between two rounds of the event loop. */
class GapMeter : public QObject
{
public:
    GapMeter()
    {
        connect(&timer, &QTimer::timeout, this,
                [this] { longest = qMax(longest, clock.restart()); });
        timer.setTimerType(Qt::PreciseTimer);
        clock.start();
        timer.start(1);
    }
    qint64 Longest() const { return longest; }

private:
    QTimer timer;
    QElapsedTimer clock;
    qint64 longest = 0;
};

/** VmHWM: the most memory that this process has held. */
qint64 PeakKiB()
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return 0;
    const QList<QByteArray> lines = status.readAll().split('\n');
    for (const QByteArray& line : lines) {
        if (line.startsWith("VmHWM:"))
            return line.mid(6).simplified().split(' ').value(0).toLongLong();
    }
    return 0;
}

} // namespace

int RunUpdate(const QStringList& arguments)
{
    QNetworkAccessManager manager;
    std::unique_ptr<updater::IUpdater> updater(updater::CreateUpdater(&manager, nullptr));
    updater->SetURL(arguments.value(0));
    updater->SetPackageName(QStringLiteral("app"));
    updater->SetCurrentVersion(QStringLiteral("1.0"));
    updater->SetLocalPackagePath(arguments.value(1));
    updater->SetDownloadPath(arguments.value(2));
    QObject::connect(updater.get(), &updater::IUpdater::error, [](int code, const QString& text) {
        qFatal("%d %s", code, qPrintable(text));
    });

    const GapMeter meter;
    const char* const failed = SIGNAL(failed());
    WaitFor(updater.get(), SIGNAL(waiting()), failed);
    QTimer::singleShot(0, updater.get(), SLOT(Check()));
    WaitFor(updater.get(), SIGNAL(available()), failed);
    QTimer::singleShot(0, updater.get(), SLOT(Download()));
    WaitFor(updater.get(), SIGNAL(finished()), failed);
    QTimer::singleShot(0, updater.get(), SLOT(Cancel()));
    WaitFor(updater.get(), SIGNAL(waiting()), failed);
    QTimer::singleShot(0, updater.get(), SLOT(Install()));
    WaitFor(updater.get(), SIGNAL(finished()), failed);

    std::printf("%lld %lld\n", static_cast<long long>(PeakKiB()),
                static_cast<long long>(meter.Longest()));
    return 0;
}

} // namespace kxbench
