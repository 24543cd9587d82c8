#include <kxguard/installguard.h>

#include "fileidentity.h"
#include "journal.h"
#include "nativepath.h"
#include "ownership.h"
#include "packagecheck.h"
#include "recovery.h"
#include "runningprograms.h"
#include "swapkeeper.h"

#include <kxcommon/durablefiles.h>
#include <kxcommon/version.h>
#include <kxguard/diskspace.h>
#include <kxguard/filelock.h>
#include <kxguard/signedmanifest.h>
#include <kxguard/signedtree.h>
#include <kxupdater/build.h>

#include <QDir>
#include <QFileInfo>
#include <QMutex>
#include <QPointer>
#include <QWaitCondition>

#include <filesystem>

namespace guard {
namespace {

/** What a host has set, and what the updater knew when the install began. */
struct Settings
{
    updater::AppCallbackFunction* callback = nullptr;
    QList<PublicKey> keys;
    QString packageXml;
    QString version;
    bool isDowngradeAllowed = false;
    bool isRunningRefused = false;

    // The updater's
    QString package;
    QString checkedXml;
    QString serverVersion;
    QString currentVersion;

    QString Xml() const { return packageXml.isEmpty() ? checkedXml : packageXml; }
    // A version that goes with a description that the host gives is the host's to give, too.
    QString Version() const
    {
        return version.isEmpty() && packageXml.isEmpty() ? serverVersion : version;
    }
};

QString BackupPath(const QString& app)
{
    return app + QStringLiteral(".old");
}

// Makes and removes a directory: the only test of rights that also holds for read-only volumes and
// for the administrator. Always the same one, so that a process that is killed here leaves nothing
// that the next one does not remove; two at once are in nobody's way.
QString WriteProblem(const QString& path)
{
    namespace fs = std::filesystem;
    const fs::path probe = ToNative(path);
    std::error_code error;
    // Between the attempt and the look at what is in the way, another process may have removed it.
    for (int tries = 0; tries < 100; ++tries) {
        fs::create_directory(probe, error);
        if (error != std::errc::file_exists)
            break;
    }
    if (!error)
        fs::remove(probe, error);
    return error ? QString::fromStdString(error.message()) : QString();
}

Problem CheckPlace(const QString& app)
{
    const QString violation = ApplicationViolation(app);
    if (!violation.isEmpty())
        return {InstallApplication,
                QStringLiteral("Nothing is installed: the application path %1.").arg(violation)};
    const QString parent = QFileInfo(app).absolutePath();
    if (!QFileInfo(parent).isDir())
        return {InstallParent,
                QStringLiteral("The directory '%1', in which the application is to stand, does not "
                               "exist.")
                    .arg(parent)};
    const QString reason =
        WriteProblem(common::DurableFiles::HiddenSibling(app, QStringLiteral(".kxprobe")));
    if (reason.isEmpty())
        return {};
    return {InstallParent,
            QStringLiteral("The directory '%1' cannot be written (%2), but a swap renames the "
                           "application inside it.")
                .arg(parent, reason)};
}

Problem CheckSpace(const QString& app, const updater::FileList& manifest)
{
    SpaceDemand demand;
    demand.application = app;
    demand.freedBesideApplication =
        TreeSize(common::DurableFiles::HiddenSibling(app, QStringLiteral(".kxnew")));
    if (QFileInfo::exists(app))
        demand.freedBesideApplication += TreeSize(BackupPath(app));
    const QString text = SpaceProblem(manifest, demand);
    return text.isEmpty() ? Problem() : Problem{InstallNoSpace, text};
}

// The list of digests that is signed has no modes: what nobody vouches for must not tell which
// files every user of the machine may write.
updater::FileList WithoutModes(const updater::FileList& records)
{
    updater::FileList result;
    for (const updater::File& record : records)
        result.append(updater::File(record.Name(), record.MD5(), record.Size(), QString(),
                                    record.SymlinkPath()));
    return result;
}

Problem CheckSignature(const QString& download, const Settings& settings, QString* version)
{
    if (settings.keys.isEmpty())
        return {};
    PackageIdentity identity;
    if (const Problem problem = CheckSignedTree(download, settings.keys, &identity))
        return problem;
    const PackageIdentity wanted{settings.package, settings.Version(), updater::Build::Platform()};
    if (const Problem problem = CompareIdentity(identity, wanted))
        return problem;
    *version = identity.version;
    return {};
}

Problem CheckOrder(const QString& version, const Settings& settings)
{
    if (settings.isDowngradeAllowed || version.isEmpty() ||
        !(common::Version(settings.currentVersion) > common::Version(version)))
        return {};
    return {InstallDowngrade, QStringLiteral("Version %1 is earlier than the installed %2, and "
                                             "downgrades are not allowed.")
                                  .arg(version, settings.currentVersion)};
}

Problem CheckRunning(const QString& app, const Settings& settings)
{
    if (!settings.isRunningRefused)
        return {};
    const RunningProgram program = FindRunningProgram(app);
    if (program.process == 0)
        return {};
    return {InstallRunning,
            QStringLiteral("The application is in use: process %1 runs '%2'. Close it, and try "
                           "again.")
                .arg(program.process)
                .arg(program.path)};
}

Problem WriteJournal(const QString& app, const QList<InventoryEntry>& entries, QString* oldVersion)
{
    Journal journal;
    *oldVersion = journal.application = IdentityOf(app);
    journal.entries = entries;
    const QString text = common::DurableFiles::Write(Journal::PathFor(app), journal.Text());
    GiveToOwnerOfDirectory(Journal::PathFor(app));
    return text.isEmpty() ? Problem()
                          : Problem{InstallJournal, QStringLiteral("Nothing is installed without a "
                                                                   "journal. %1.")
                                                        .arg(text)};
}

} // namespace

class KXGUARD_NO_EXPORT InstallGuard::Private
{
public:
    Problem TakeLock(const QString& app, int waitMs);
    Problem Prepare(const QString& download, const QString& app, const Settings& settings,
                    QList<InventoryEntry>* inventory);
    int Refuse(const Problem& problem);
    void ReleaseAfterInstall();
    /** The whole of Call(). */
    int Check(const QString& download, const QString& localPackagePath);
    bool IsUnderWay() const { return isCalled || isSwapPending; }

    QPointer<updater::IUpdater> updater;

    mutable QMutex mutex; // for all that follows: the owner's thread and the callback's
    Settings settings;
    Problem last;
    std::unique_ptr<FileLock> lock;
    QString lockedApp;
    QString oldVersion; // identity of the application directory that a swap moves aside
    QWaitCondition callEnded;
    bool isLockKept = false;    // by the host, beyond one install
    bool isCalled = false;      // the callback's thread is at work
    bool isSwapPending = false; // the journal is written
};

Problem InstallGuard::Private::TakeLock(const QString& app, int waitMs)
{
    if (lock && lock->IsHeld() && lockedApp == app)
        return {};
    auto taken = std::make_unique<FileLock>(ApplicationLockPath(app));
    switch (taken->Take(waitMs)) {
    case FileLock::Result::Taken:
        lock = std::move(taken);
        lockedApp = app;
        return {};
    case FileLock::Result::Busy:
        return {InstallBusy,
                QStringLiteral("Another updater is working on '%1'. %2").arg(app, taken->Reason())};
    case FileLock::Result::Failed:
        break;
    }
    return {InstallLock, taken->Reason()};
}

Problem InstallGuard::Private::Prepare(const QString& download, const QString& app,
                                       const Settings& with, QList<InventoryEntry>* inventory)
{
    if (const Problem problem = CheckPlace(app))
        return problem;
    QMutexLocker locker(&mutex);
    if (const Problem problem = TakeLock(app, 0))
        return problem;
    locker.unlock();
    const Recovery recovery = RecoverLocked(app, Removals::Do);
    if (recovery.state == RecoveryState::Failed)
        return {InstallRecovery, recovery.text};

    updater::FileList manifest = RecordsOf(with.package, with.Xml());
    const bool isDescriptionSigned = CarriesSignature(with.package, with.Xml());
    if (!with.keys.isEmpty() && !isDescriptionSigned)
        manifest = WithoutModes(manifest);
    if (const Problem problem = CheckPackage(download, manifest, inventory))
        return problem;
    QString version = with.Version();
    if (!with.keys.isEmpty() && isDescriptionSigned) {
        const PackageIdentity wanted{with.package, version, updater::Build::Platform()};
        if (const Problem problem = CheckPackageXml(with.Xml(), wanted, with.keys))
            return problem;
    }
    if (const Problem problem = CheckSignature(download, with, &version))
        return problem;
    if (const Problem problem = CheckOrder(version, with))
        return problem;
    if (const Problem problem = CheckSpace(app, manifest))
        return problem;
    return CheckRunning(app, with);
}

int InstallGuard::Private::Refuse(const Problem& problem)
{
    const QMutexLocker locker(&mutex);
    last = problem;
    ReleaseAfterInstall();
    return problem.code;
}

void InstallGuard::Private::ReleaseAfterInstall()
{
    isSwapPending = false;
    if (isLockKept)
        return;
    lock.reset();
    lockedApp.clear();
}

int InstallGuard::Private::Check(const QString& download, const QString& localPackagePath)
{
    const QString app = QDir::cleanPath(localPackagePath);
    QMutexLocker locker(&mutex);
    last = Problem();
    const Settings with = settings;
    locker.unlock();

    QList<InventoryEntry> inventory;
    if (const Problem problem = Prepare(download, app, with, &inventory))
        return Refuse(problem);
    const int code = with.callback ? with.callback->Call(download, localPackagePath) : 0;
    if (code != 0) {
        Refuse(Problem());
        return code;
    }
    // Names and times only, but of the moment before the swap: what the callback has let in, or
    // somebody has changed while the files were read, is seen.
    if (const Problem problem = CheckUnchanged(download, inventory))
        return Refuse(problem);
    // Its file may have been removed meanwhile.
    locker.relock();
    const Problem unlocked = TakeLock(app, 0);
    locker.unlock();
    if (unlocked)
        return Refuse(unlocked);
    QString identity;
    if (const Problem problem = WriteJournal(app, inventory, &identity))
        return Refuse(problem);
    locker.relock();
    oldVersion = identity;
    isSwapPending = true;
    return 0;
}

InstallGuard::InstallGuard(updater::IUpdater* updater, QObject* parent)
    : QObject(parent), d(std::make_unique<Private>())
{
    d->updater = updater;
    connect(updater, SIGNAL(installing()), SLOT(OnInstalling()));
    connect(updater, SIGNAL(stateChanged(const QString&)), SLOT(OnStateChanged(const QString&)));
    connect(updater, SIGNAL(finished()), SLOT(OnEnded()));
    connect(updater, SIGNAL(failed()), SLOT(OnEnded()));
    connect(updater, SIGNAL(canceled()), SLOT(OnEnded()));
    connect(updater, SIGNAL(waiting()), SLOT(OnEnded()));
    OnInstalling();
    updater->SetAppCallback(this);
}

InstallGuard::~InstallGuard()
{
    if (d->updater && d->updater->AppCallback() == this)
        d->updater->SetAppCallback(nullptr);
    QMutexLocker locker(&d->mutex);
    while (d->isCalled)
        d->callEnded.wait(&d->mutex);
    // The updater goes on: another process must not take the swap for an interrupted one.
    if (d->updater && d->isSwapPending)
        new SwapKeeper(d->updater, std::move(d->lock), d->lockedApp, d->oldVersion);
}

void InstallGuard::SetCallback(updater::AppCallbackFunction* callback)
{
    const QMutexLocker locker(&d->mutex);
    d->settings.callback = callback;
}

void InstallGuard::SetKeys(const QList<PublicKey>& keys)
{
    const QMutexLocker locker(&d->mutex);
    d->settings.keys = keys;
}

void InstallGuard::SetPackageXML(const QString& xml)
{
    const QMutexLocker locker(&d->mutex);
    d->settings.packageXml = xml;
}

void InstallGuard::SetVersion(const QString& version)
{
    const QMutexLocker locker(&d->mutex);
    d->settings.version = version;
}

void InstallGuard::SetDowngradeAllowed(bool isAllowed)
{
    const QMutexLocker locker(&d->mutex);
    d->settings.isDowngradeAllowed = isAllowed;
}

void InstallGuard::SetRunningProgramRefused(bool isRefused)
{
    const QMutexLocker locker(&d->mutex);
    d->settings.isRunningRefused = isRefused;
}

Problem InstallGuard::Lock(int waitMs)
{
    const QString app = QDir::cleanPath(d->updater->LocalPackagePath());
    const QMutexLocker locker(&d->mutex);
    // The lock of an install that is under way is not given up for another one.
    if (d->IsUnderWay() && !d->lockedApp.isEmpty() && d->lockedApp != app)
        return {InstallBusy, QStringLiteral("An install of '%1' is under way.").arg(d->lockedApp)};
    const Problem problem = d->TakeLock(app, waitMs);
    if (!problem)
        d->isLockKept = true;
    return problem;
}

void InstallGuard::Unlock()
{
    const QMutexLocker locker(&d->mutex);
    d->isLockKept = false;
    if (!d->IsUnderWay())
        d->ReleaseAfterInstall();
}

bool InstallGuard::IsLocked() const
{
    const QMutexLocker locker(&d->mutex);
    return d->lock && d->lock->IsHeld();
}

Recovery InstallGuard::Recover()
{
    const QMutexLocker locker(&d->mutex);
    if (d->lock && d->lock->IsHeld() && !d->IsUnderWay())
        return RecoverLocked(d->lockedApp, Removals::Do);
    return {RecoveryState::Busy, QStringLiteral("The application is not locked by this guard, or "
                                                "being replaced.")};
}

Problem InstallGuard::CheckDownloadPath() const
{
    return CheckDownloadPlace(d->updater->DownloadPath());
}

int InstallGuard::LastErrorCode() const
{
    const QMutexLocker locker(&d->mutex);
    return d->last.code;
}

QString InstallGuard::LastError() const
{
    const QMutexLocker locker(&d->mutex);
    return d->last.text;
}

int InstallGuard::Call(const QString& downloadPath, const QString& localPackagePath)
{
    QMutexLocker locker(&d->mutex);
    d->isCalled = true;
    locker.unlock();
    const int code = d->Check(downloadPath, localPackagePath);
    locker.relock();
    d->isCalled = false;
    d->callEnded.wakeAll();
    return code;
}

void InstallGuard::OnInstalling()
{
    if (!d->updater)
        return;
    const QMutexLocker locker(&d->mutex);
    d->settings.package = d->updater->PackageName();
    d->settings.checkedXml = d->updater->PackageXML();
    d->settings.serverVersion = d->updater->ServerVersion();
    d->settings.currentVersion = d->updater->CurrentVersion();
}

void InstallGuard::OnStateChanged(const QString& state)
{
    const QMutexLocker locker(&d->mutex);
    if (d->isSwapPending && state == QLatin1String("REVERTING"))
        KeepOldVersion(d->lockedApp, d->oldVersion);
}

void InstallGuard::OnEnded()
{
    const QMutexLocker locker(&d->mutex);
    // What takes long is left for the next install, which looks for it first.
    if (d->isSwapPending)
        RecoverLocked(d->lockedApp, Removals::Leave);
    d->ReleaseAfterInstall();
}

} // namespace guard
