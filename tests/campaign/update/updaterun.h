#pragma once

#include <QEventLoop>
#include <QList>
#include <QNetworkAccessManager>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QStringList>
#include <QTimer>

#include <functional>
#include <memory>

namespace guard {
class InstallGuard;
}
namespace updater {
class IUpdater;
}

namespace kxtest {

/** What an update needs to know. */
struct UpdatePlaces
{
    QString url;
    QString package;
    QString current; //!< version that is installed
    QString application;
    QString download;
};

/** How an update went. */
struct UpdateOutcome
{
    enum class End {
        Installed, //!< the new version is in place
        Current,   //!< there was nothing to do
        Failed,
        Canceled,
        Hung //!< nothing happened for as long as the limit allows
    };
    struct Error
    {
        int code = 0;
        QString text; //!< of the guard, where the refusal is the guard's
    };

    End end = End::Hung;
    QList<Error> errors;
    QStringList states; //!< in the order in which they were entered

    /** For a message: the end, the states and the errors. */
    QString Text() const;
};

/**
 * One update as a host makes it, with an InstallGuard, in this process: check, download, install.
 *
 *     kxtest::UpdateRun run(&manager, places);
 *     connect(&server, SIGNAL(active()), &run, SLOT(Live()));
 *     kxtest::UpdateOutcome outcome = run.Run(&updater);
 *
 * A watchdog ends a run that does not go on: it ticks in the event loop and counts how often since
 * anything was signalled.
 */
class UpdateRun : public QObject
{
    Q_OBJECT
public:
    /** `manager` is not owned. */
    UpdateRun(QNetworkAccessManager* manager, const UpdatePlaces& places);
    ~UpdateRun() override;

    /** `tickMs`: the longest silence that is to be expected of a single step, a timeout for
     *  instance. The run hangs when nothing is signalled for `ticks` of them. */
    void SetPatience(int tickMs, int ticks);
    /** Cancels when this state is entered for the `times`-th time. */
    void CancelAt(const QString& state, int times = 1);
    /** Deletes the updater there instead, as a host that ends does. */
    void DeleteAt(const QString& state);
    /** Called on the thread of the guard's checks, once all of them are made. */
    void SetCallback(std::function<int()> function) { callback = std::move(function); }
    /** Only checks; ends in Current, or in Canceled when there is something to do. */
    void CheckOnly() { checksOnly = true; }

    /** Runs an event loop until the update has ended. */
    UpdateOutcome Run();

public Q_SLOTS:
    /** A sign of life: the watchdog counts anew. */
    void Live();

private Q_SLOTS:
    void OnWaiting();
    void OnAvailable();
    void OnFinished();
    void OnFailed();
    void OnCanceled();
    void OnError(int code, const QString& text);
    void OnStateChanged(const QString& name);
    void OnTick();

private:
    void End(UpdateOutcome::End end);

    class Callback;

    std::unique_ptr<Callback> hostCallback;
    std::function<int()> callback;
    QPointer<updater::IUpdater> updater;
    std::unique_ptr<guard::InstallGuard> guard;
    QEventLoop loop;
    QTimer ticker;
    int ticks = 0;
    int mostTicks = 0;
    bool checksOnly = false;
    bool assembled = false;
    bool installs = false;
    QString cancelState;
    int cancelTimes = 0;
    QString deleteState;
    UpdateOutcome outcome;
};

} // namespace kxtest
