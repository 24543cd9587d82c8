#pragma once

#include <kxupdater/file.h>
#include <kxupdater/iupdater.h>

#include <QHash>
#include <QSharedDataPointer>
#include <QString>
#include <QTimer>

#include <memory>

QT_BEGIN_NAMESPACE
class QState;
QT_END_NAMESPACE

namespace common {
class FileCopier;
class FileRemover;
} // namespace common

namespace updater {

class AppCallback;
class Downloader;
class FileScanner;
class Package;
class PartialSweep;
class StepMachine;
class TransferLedger;

/**
 * The updater behind IUpdater: a state machine and the handlers of its states.
 *
 * updater_states.cpp holds the machine as two tables; the handlers stand in the files of their
 * phases (check, assemble, swap). Commands become the signals below, and only those and `error`
 * move the machine. An idle machine moves inside the emit, so a handler's emit is its last
 * statement.
 */
class Updater : public IUpdater
{
    Q_OBJECT
public:
    Updater(QNetworkAccessManager* manager, QObject* parent);
    ~Updater() override;

    void SetURL(const QString& url) override;
    QString URL() const override;
    void SetDownloadPath(const QString& path) override;
    QString DownloadPath() const override;
    void SetCurrentVersion(const QString& version) override;
    QString CurrentVersion() const override;
    QString ServerVersion() const override;
    bool IsActual() const override;
    void SetCheckInterval(int seconds) override;
    int CheckInterval() const override;
    void SetPackageName(const QString& name) override;
    QString PackageName() const override;
    void SetLocalPackagePath(const QString& path) override;
    QString LocalPackagePath() const override;
    void SetAppCallback(AppCallbackFunction* callback) override;
    AppCallbackFunction* AppCallback() const override;
    QString ExecutablePath() const override;
    bool VerifyLocalUpdate(const QString& path, const QString& xmlFile) override;
    QString PackageXML() const override;

public Q_SLOTS:
    void Check() override;
    void Wait() override;
    void Download() override;
    void Install() override;
    void Cancel() override;
    void Finish() override;

public:
    /** The application directory's path with ".old" appended; separators at its end do not count.
     */
    virtual QString BackupPath() const;

    /** The transfers of the DOWNLOADING step that is under way or was the last; empty from
     * PREPARING on. The same one for the updater's whole life. */
    const QExplicitlySharedDataPointer<TransferLedger>& Transfers() const { return transfers; }
    /** True from the announcement of DOWNLOADING to that of the next state. */
    bool IsDownloading() const { return stateName == QLatin1String("DOWNLOADING"); }

    // The order of these slots is the order of the meta-object and of the virtual table.
public Q_SLOTS:
    virtual void OnProgress(int current, int total);
    virtual void OnInvalidateActual();
    virtual void OnStateEnter();
    virtual void OnStateExit();

    // check
    virtual void OnQueryingStateEnter();
    virtual void OnScanningStateEnter();
    virtual void OnScanningFinished();
    virtual void OnScanningStateExit();
    virtual void OnAvailableStateEnter();

    // assemble
    virtual void OnPreparingStateEnter();
    virtual void OnCopyingStateEnter();
    virtual void OnCopyingStateExit();
    virtual void OnDownloadingStateEnter();
    virtual void OnDownloadingStateExit();
    virtual void OnCreatingSymlinksStateEnter();
    virtual void OnCreatingSymlinksStateExit();
    virtual void OnVerificationStateEnter();
    virtual void OnVerificationStateExit();
    virtual void OnVerificationScanFinished();

    // swap
    virtual void OnAppCallbackStateEnter();
    virtual void OnAppCallbackResult(int code);
    virtual void OnAppCallbackStateExit();
    virtual void OnBackupRemovingStateEnter();
    virtual void OnBackupRemovingStateExit();
    virtual void OnBackupingStateEnter();
    virtual void OnBackupingStateExit();
    virtual void OnMovingStateEnter();
    virtual void OnMovingStateExit();
    virtual void OnBackupClearingStateEnter();
    virtual void OnBackupClearingStateExit();
    virtual void OnRevertingStateEnter();
    virtual void OnRevertingStateExit();
    virtual void OnRestoringStateEnter();
    virtual void OnRestoringStateExit();

    // local verification
    virtual void OnVerifyLocalUpdateScanFinished();
    virtual void OnVerifyLocalUpdateScanFailed(int error, const QString& errorText);

Q_SIGNALS:
    // commands
    void check();
    void wait();
    void download();
    void install();
    void cancel();
    void finish();
    // completions
    void packageReady();
    void packageChanged();
    void packageActual();
    void copyingComplete();
    void downloadingComplete();
    void creatingSymlinksComplete();
    void verificationComplete();
    void appcallbackComplete();
    void backupingComplete();
    void backupRemovingComplete();
    void movingComplete();
    void revertingComplete();
    void backupClearingComplete();

protected:
    bool event(QEvent* event) override;

private:
    Q_DISABLE_COPY(Updater)

    // updater_states.cpp
    void FinishMachine();
    void CarryOutDeletion();
    void BuildStateMachine();
    QState* CreateState(const QString& name, QState* parent);

    // updater_progress.cpp
    double StateWeight(const QString& name) const;
    double StateOffset(const QString& name) const;

    // updater_check.cpp
    Package* CreatePackage(QNetworkAccessManager* manager);
    const FileList& ServerFiles() const;
    bool IsChanged(const FileList& local, const FileList& server);
    void LogDifference(const char* title, const FileList& files);

    // updater_assemble.cpp
    FileList CopyList() const;
    FileList DownloadList() const;
    FileList SymlinkList() const;
    FileList DeleteList() const;
    QString LocalPath(const File& file) const;
    QString AssembledPath(const File& file) const;
    void SweepPartials(const FileList& plan);
    void StartVerification();
    bool CreateSymlink(const File& file);

    // updater_swap.cpp
    void RemoveTree(const QString& path, void (Updater::*complete)());

    // Owner thread only, all of it. The order is that of construction; the workers go in reverse.
    QNetworkAccessManager* networkManager; // not owned
    StepMachine* stateMachine;             // a child
    QTimer checkTimer;
    QString stateName;
    std::unique_ptr<Package> package;
    std::unique_ptr<FileScanner> fileScanner;
    QExplicitlySharedDataPointer<TransferLedger> transfers;
    std::unique_ptr<Downloader> downloader;
    std::unique_ptr<common::FileCopier> fileCopier;
    std::unique_ptr<common::FileRemover> fileRemover;
    std::unique_ptr<updater::AppCallback> appCallbackThread;
    AppCallbackFunction* appCallback = nullptr; // not owned
    FileList localFiles;
    QHash<FileScanner*, FileList> localPackageFiles; // the manifest of each local verification
    QString localPackagePath;
    QString downloadPath;
    QString currentVersion;
    bool actual = false;
    int checkInterval = 0;
    int copyCount = 0;
    int downloadCount = 0;
    int symlinkCount = 0;
    std::unique_ptr<PartialSweep> partialSweep; // from PREPARING's entry to its exit
    bool partialsSwept = false;                 // it has ended
    bool isFinishing = false;                   // finished() is being emitted
    bool isDeletionPending = false;             // deleteLater() came in the middle of a step
};

} // namespace updater
