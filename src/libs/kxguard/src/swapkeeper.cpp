#include "swapkeeper.h"

#include "fileidentity.h"
#include "recovery.h"

#include <kxcommon/durablefiles.h>

namespace guard {

void KeepOldVersion(const QString& app, const QString& oldVersion)
{
    if (oldVersion.isEmpty() || oldVersion == NoIdentity() || IdentityOf(app) != oldVersion)
        return;
    // Where something stands by now it is not replaced, and the updater removes the application:
    // it takes what stands there for the old version.
    static_cast<void>(common::DurableFiles::Rename(app, app + QStringLiteral(".old")));
}

SwapKeeper::SwapKeeper(updater::IUpdater* updater, std::unique_ptr<FileLock> lock,
                       const QString& app, const QString& oldVersion)
    : QObject(updater), lock(std::move(lock)), app(app), oldVersion(oldVersion)
{
    connect(updater, SIGNAL(stateChanged(const QString&)), SLOT(OnStateChanged(const QString&)));
    connect(updater, SIGNAL(finished()), SLOT(OnEnded()));
    connect(updater, SIGNAL(failed()), SLOT(OnEnded()));
    connect(updater, SIGNAL(canceled()), SLOT(OnEnded()));
    connect(updater, SIGNAL(waiting()), SLOT(OnEnded()));
}

void SwapKeeper::OnStateChanged(const QString& state)
{
    if (state == QLatin1String("REVERTING"))
        KeepOldVersion(app, oldVersion);
}

void SwapKeeper::OnEnded()
{
    if (!lock)
        return;
    RecoverLocked(app, Removals::Leave);
    lock.reset();
    deleteLater();
}

} // namespace guard
