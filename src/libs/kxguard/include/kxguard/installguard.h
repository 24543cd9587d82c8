#pragma once

#include <kxguard/errors.h>
#include <kxguard/kxguard_export.h>
#include <kxguard/publickey.h>
#include <kxguard/recover.h>
#include <kxupdater/iupdater.h>

#include <QList>
#include <QObject>
#include <QString>

#include <memory>

/** What keeps an application whole and a stranger's version out: checks before the swap, recovery
 *  after one that was cut off, signatures. */
namespace guard {

/**
 * Stands between the download of a new version and its install: the callback of an updater that
 * looks at everything once more, directly before the swap, and refuses what would end badly.
 *
 *     guard::InstallGuard guard(updater);          // becomes the updater's callback
 *     guard.SetKeys({publisherKey});               // from now on nothing unsigned is installed
 *     guard.SetCallback(&saveDocuments);           // the host's own, called last
 *     connect(updater, SIGNAL(error(int, const QString&)), SLOT(OnError(int, const QString&)));
 *     ... in OnError(): if (code == guard.LastErrorCode()) show(guard.LastError());
 *
 * In each install it locks the application directory, recovers what an earlier one left behind
 * (see Recover()), and checks: the application's place, the space, the download directory against
 * the package description, signatures, the order of versions, other processes. Then it calls the
 * host's callback, looks whether anything in the download directory has changed meanwhile, and
 * writes the journal that Recover() goes by. A refusal ends the install with a code of
 * <kxguard/errors.h>; the application is untouched. When the updater reports finished(), failed(),
 * canceled() or waiting(), an application that a cut-off swap has moved aside is put back, and the
 * lock is released.
 *
 * Owner thread only, which must be the updater's, except Call(), LastErrorCode() and LastError().
 * The updater must outlive the guard; the guard takes its callback back when it is deleted. Deleted
 * while an install is under way, it waits until its checks and the host's callback have returned;
 * the swap then goes on under the lock, which is released at its end.
 */
class KXGUARD_EXPORT InstallGuard : public QObject, public updater::AppCallbackFunction
{
    Q_OBJECT
public:
    /** Sets itself as the callback of `updater`, which is not owned; `parent` owns the guard. */
    explicit InstallGuard(updater::IUpdater* updater, QObject* parent = nullptr);
    ~InstallGuard() override;

    /** The host's own callback, not owned; null for none. Its result other than 0 ends the install
     *  and is passed on. */
    void SetCallback(updater::AppCallbackFunction* callback);
    /** Keys of which one must have signed what is installed: the list of digests in the tree, and
     *  the manifest where it carries a signature. Empty: nothing need be signed. */
    void SetKeys(const QList<PublicKey>& keys);
    /** Description of the package, for an updater that has not checked in this process; empty, the
     *  default: IUpdater::PackageXML(). */
    void SetPackageXML(const QString& xml);
    /** Version of that package; empty, the default: IUpdater::ServerVersion(), and if that is empty
     *  what the signature says. */
    void SetVersion(const QString& version);
    /** Whether a version earlier than IUpdater::CurrentVersion() may be installed; off by default.
     */
    void SetDowngradeAllowed(bool isAllowed);
    /** Whether an install is refused while another process, never this one, runs a program of the
     *  application directory; off by default. Processes that the system does not show are not
     *  noticed. */
    void SetRunningProgramRefused(bool isRefused);

    /** Takes the lock on the application directory before an install, for example before the
     *  download; it is held until Unlock() or the end of the object. `waitMs`: how long to try. */
    Problem Lock(int waitMs = 0);
    /** Releases the lock; nothing without one. */
    void Unlock();
    /** Whether this guard has the lock. */
    bool IsLocked() const;
    /** Recover() for the holder of the lock; Busy without Lock(). Blocks while a tree is removed.
     */
    Recovery Recover();

    /** Why nothing will be installed from the updater's download directory as it is now, because
     *  another user may change it (PackageExposed): worth knowing before the download. */
    Problem CheckDownloadPath() const;

    /** An ErrorCode: why the last install was refused; 0 when it was not, or by the host's
     *  callback. Any thread. */
    int LastErrorCode() const;
    /** The text beside LastErrorCode(); empty with 0. Any thread. */
    QString LastError() const;

    /** Called by the updater on a thread of its own. */
    int Call(const QString& downloadPath, const QString& localPackagePath) override;

private Q_SLOTS:
    void OnInstalling();
    void OnStateChanged(const QString& state);
    void OnEnded();

private:
    Q_DISABLE_COPY(InstallGuard)

    class KXGUARD_NO_EXPORT Private;
    std::unique_ptr<Private> d;
};

} // namespace guard
