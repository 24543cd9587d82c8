#pragma once

#include "common/console.h"
#include "exitstatus.h"
#include "files/applicationdirectory.h"
#include "files/downloaddirectory.h"
#include "network/networkdiagnosis.h"
#include "options.h"
#include "runrecord.h"
#include "updaterhost.h"

#include <kxguard/filelock.h>
#include <kxguard/installguard.h>
#include <kxguard/recover.h>
#include <kxupdater/filescanner.h>
#include <kxupdater/iupdater.h>

#include <QDeadlineTimer>
#include <QList>
#include <QObject>

#include <memory>

namespace updater {
class TransferProgress;
}

/**
 * Runs one command, or one round of a watch: a row of steps, each of which ends by starting the
 * next one or by finishing.
 *
 *     Session session(options, console, host);
 *     connect(&session, SIGNAL(done(int)), SLOT(OnDone(int)));
 *     session.Start();
 *
 * done() comes once, and is the last thing that happens. Locks are held as long as the object
 * lives. Needs an event loop; owner thread only.
 */
class Session : public QObject
{
    Q_OBJECT
public:
    /** Neither the console nor the host is owned. */
    Session(const Options& options, tools::Console& console, UpdaterHost& host,
            QObject* parent = nullptr);
    ~Session() override;

    /** The updater is new, or waits. */
    void Start();
    /** The updater has just begun a check by itself: call this inside its checking(). */
    void JoinCheck();

    /** The version that the application holds after a success; empty while it is not known. */
    QString InstalledVersion() const { return installedVersion; }
    /** False while, or because, the directories and files given cannot be used at all. */
    bool PlacesAreGood() const { return placesAreGood; }

public Q_SLOTS:
    /** Gives up, or once the application is being replaced, goes on to the end of the swap. */
    void Interrupt();

Q_SIGNALS:
    /** The command has ended with an ExitStatus. */
    void done(int status);

private Q_SLOTS:
    void RunStep();

    void OnWaiting();
    void OnActual();
    void OnUpdateAvailable();
    void OnUpdateRequered();
    void OnAvailable();
    void OnFinished();
    void OnFailed();
    void OnCanceled();
    void OnCheckError();
    void OnSlowCheck();
    void OnSilent(int seconds);
    void OnError(int code, const QString& text);
    void OnStateChanged(const QString& name);
    void OnProgress(int percent);
    void OnTransferChanged();
    void OnVerified(bool result);
    void OnScanned();
    void OnScanFailed(int code, const QString& text);
    void OnDamageScanned();
    void OnDownloadScanned();

private:
    Q_DISABLE_COPY(Session)

    using Step = void (Session::*)();

    /** What the running step waits for; signals that it does not wait for are ignored. */
    enum class Awaited { Nothing, Waiting, Check, Download, Verification, Scan, Install };

    struct ReportedError
    {
        int code;
        QString text;
        QString state;
    };

    void ConnectUpdater();
    bool Swaps() const;
    bool Assembles() const;
    void Next();
    void Finish(ExitStatus status, const QString& word = QString());
    void Refuse(const QString& reason);
    void Refuse(const guard::Problem& problem);
    void Fail(const QString& reason, ExitStatus status = ExitStatus::Failed);

    // Steps
    void CheckDirectories();
    void TakeLocks();
    void MendApplication();
    void AwaitReady();
    void CheckServer();
    void ReportCheck();
    void RequireSameVersion();
    void RequireLaterVersion();
    void FindDamage();
    void CheckAttempts();
    void PrepareDownload();
    void CountAttempt();
    void Download();
    void KeepPackage();
    void Restart();
    void LoadPackage();
    void VerifyTree();
    void VerifySignature();
    void Install();
    void Conclude();
    void ReportStatus();
    /** The backup, when there is one: an install is under way, or was cut off. */
    void ReportSwap();
    void Recover();

    bool TakesApplicationLock() const;
    bool LockApplication();
    bool LockDownload();
    bool IsOwnLockFile(const QString& file);
    guard::Problem SignatureProblem(const QString& xml, const QString& version) const;
    bool IsDowngrade() const;
    QString NewVersion() const;
    QString FilePlaceViolation() const;
    void AnnounceCheck();
    void Scan(const QString& directory, const char* finishedSlot);
    void FinishUpToDate();
    void KeepVersion();
    void RunProgram();
    void RecordOutcome(ExitStatus status, const QString& word);
    bool FailurePasses() const;
    void ReportLock(const QString& name, const QString& file);
    void ReportDownload();
    void FinishStatus();
    void ReportVersions(const QString& verdict);
    void ShowProgress();
    void ReportDifferences();
    QList<tools::Difference> HiddenDifferences() const;
    void ConcludeRefusal(int code);
    void ConcludeFailedSwap();
    void FinishRecovery(const guard::Recovery& recovery);

    const Options options;
    tools::Console& console;
    const ApplicationDirectory application;
    const DownloadDirectory download;

    UpdaterHost& host;
    updater::IUpdater* const updater; // the host's
    guard::InstallGuard installGuard; // before the session hears of it, each end is mended
    NetworkDiagnosis diagnosis;
    std::unique_ptr<updater::TransferProgress> transfer;
    RunRecord record;
    std::unique_ptr<updater::FileScanner> scanner;
    std::unique_ptr<guard::FileLock> downloadLock;
    QDeadlineTimer recoveryDeadline;

    QList<Step> steps;
    Awaited awaited = Awaited::Nothing;
    QString stateName;
    int percent = 0; // of the assembly, then of the swap, as the updater counts them
    QList<ReportedError> errors;
    QString tree;               // what VerifyTree() compares with the package
    updater::FileList manifest; // files of the package in hand
    QString packageXml;         // of the same, once it is kept or read
    QString installedVersion;
    QString attemptKey;          // of the attempt that is counted
    bool repair = false;         // the server has the same version
    bool hadApplication = false; // when the swap began
    bool placesAreGood = false;
    bool joining = false; // in the check that the updater began
    bool swapBegan = false;
    bool waiting = false;   // for another process
    bool canceling = false; // the user wants to end
    bool finished = false;
};
