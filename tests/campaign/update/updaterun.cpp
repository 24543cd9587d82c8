#include "updaterun.h"

#include <kxguard/installguard.h>
#include <kxupdater/iupdater.h>

namespace kxtest {
namespace {

constexpr int defaultTickMs = 1000;
constexpr int defaultTicks = 120;

const char* NameOf(UpdateOutcome::End end)
{
    switch (end) {
    case UpdateOutcome::End::Installed:
        return "installed";
    case UpdateOutcome::End::Current:
        return "nothing to do";
    case UpdateOutcome::End::Failed:
        return "failed";
    case UpdateOutcome::End::Canceled:
        return "canceled";
    default:
        return "HUNG";
    }
}

} // namespace

QString UpdateOutcome::Text() const
{
    QString text =
        QString::fromLatin1(NameOf(end)) + QStringLiteral(" by way of ") + states.join(' ');
    for (const Error& error : errors)
        text += QStringLiteral("\n    error %1: %2").arg(error.code).arg(error.text);
    return text;
}

class UpdateRun::Callback : public updater::AppCallbackFunction
{
public:
    explicit Callback(const std::function<int()>& function) : function(function) {}
    int Call(const QString&, const QString&) override { return function ? function() : 0; }

private:
    const std::function<int()>& function;
};

UpdateRun::UpdateRun(QNetworkAccessManager* manager, const UpdatePlaces& places)
    : hostCallback(std::make_unique<Callback>(callback)),
      updater(updater::CreateUpdater(manager, nullptr))
{
    updater->SetURL(places.url);
    updater->SetPackageName(places.package);
    updater->SetCurrentVersion(places.current);
    updater->SetLocalPackagePath(places.application);
    updater->SetDownloadPath(places.download);
    guard = std::make_unique<guard::InstallGuard>(updater);
    guard->SetCallback(hostCallback.get());
    guard->SetDowngradeAllowed(true);

    connect(updater, SIGNAL(waiting()), SLOT(OnWaiting()));
    connect(updater, SIGNAL(available()), SLOT(OnAvailable()));
    connect(updater, SIGNAL(actual()), updater, SLOT(Finish()));
    connect(updater, SIGNAL(finished()), SLOT(OnFinished()));
    connect(updater, SIGNAL(failed()), SLOT(OnFailed()));
    connect(updater, SIGNAL(canceled()), SLOT(OnCanceled()));
    connect(updater, SIGNAL(error(int, const QString&)), SLOT(OnError(int, const QString&)));
    connect(updater, SIGNAL(stateChanged(const QString&)), SLOT(OnStateChanged(const QString&)));
    connect(updater, SIGNAL(progress(int)), SLOT(Live()));
    connect(&ticker, SIGNAL(timeout()), SLOT(OnTick()));
    SetPatience(defaultTickMs, defaultTicks);
}

UpdateRun::~UpdateRun()
{
    if (updater)
        updater->disconnect(this);
    guard.reset();
    delete updater;
}

void UpdateRun::SetPatience(int tickMs, int newTicks)
{
    ticker.setInterval(tickMs);
    mostTicks = newTicks;
}

void UpdateRun::CancelAt(const QString& state, int times)
{
    cancelState = state;
    cancelTimes = times;
}

void UpdateRun::DeleteAt(const QString& state)
{
    deleteState = state;
}

UpdateOutcome UpdateRun::Run()
{
    ticker.start();
    loop.exec();
    ticker.stop();
    return outcome;
}

void UpdateRun::Live()
{
    ticks = 0;
}

void UpdateRun::OnTick()
{
    if (++ticks >= mostTicks)
        End(UpdateOutcome::End::Hung);
}

void UpdateRun::End(UpdateOutcome::End end)
{
    outcome.end = end;
    loop.quit();
}

void UpdateRun::OnWaiting()
{
    installs = assembled;
    if (assembled)
        updater->Install();
    else
        updater->Check();
}

void UpdateRun::OnAvailable()
{
    if (checksOnly)
        End(UpdateOutcome::End::Canceled);
    else
        updater->Download();
}

void UpdateRun::OnFinished()
{
    if (installs) {
        End(UpdateOutcome::End::Installed);
    } else if (updater->IsActual()) {
        End(UpdateOutcome::End::Current);
    } else {
        assembled = true;
        updater->Cancel(); // restarts the stopped updater, which then waits
    }
}

void UpdateRun::OnFailed()
{
    End(UpdateOutcome::End::Failed);
}

void UpdateRun::OnCanceled()
{
    End(UpdateOutcome::End::Canceled);
}

void UpdateRun::OnError(int code, const QString& text)
{
    Live();
    const bool isOfGuard = installs && code == guard->LastErrorCode();
    outcome.errors << UpdateOutcome::Error{code, isOfGuard ? guard->LastError() : text};
}

void UpdateRun::OnStateChanged(const QString& name)
{
    Live();
    outcome.states << name;
    if (name == cancelState && --cancelTimes == 0)
        updater->Cancel();
    if (name == deleteState) {
        // The guard goes first: the updater must outlive it.
        deleteState.clear();
        updater->disconnect(this);
        guard.release()->deleteLater();
        updater->deleteLater();
        connect(updater, SIGNAL(destroyed()), SLOT(OnCanceled()));
    }
}

} // namespace kxtest
