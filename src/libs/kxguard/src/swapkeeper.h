#pragma once

#include <kxguard/filelock.h>
#include <kxupdater/iupdater.h>

#include <QObject>
#include <QString>

#include <memory>

namespace guard {

/**
 * To be called when an updater enters REVERTING, which removes what stands in the application's
 * place: is that the old version, because somebody has put it back by hand, it is moved aside again
 * for RESTORING to find. `oldVersion`: its identity before the swap, see IdentityOf().
 */
void KeepOldVersion(const QString& app, const QString& oldVersion);

/**
 * Stands in for a guard that is deleted in the middle of a swap, which the updater goes on with:
 * holds the lock until the swap has ended, and mends then. Belongs to the updater.
 */
class SwapKeeper : public QObject
{
    Q_OBJECT
public:
    SwapKeeper(updater::IUpdater* updater, std::unique_ptr<FileLock> lock, const QString& app,
               const QString& oldVersion);

private Q_SLOTS:
    void OnStateChanged(const QString& state);
    void OnEnded();

private:
    std::unique_ptr<FileLock> lock;
    const QString app;
    const QString oldVersion;
};

} // namespace guard
