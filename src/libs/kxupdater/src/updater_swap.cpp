// APPCALLBACK     runs the host's callback                 appcallbackComplete
// BACKUPREMOVING  removes a backup of an earlier run       backupRemovingComplete
// BACKUPING       moves the application directory aside    backupingComplete
// MOVING          copies the new tree into its place       movingComplete
// BACKUPCLEARING  removes the backup                       backupClearingComplete
// REVERTING       removes what MOVING left                 revertingComplete
// RESTORING       moves the backup back                    always error

#include "updater.h"

#include "appcallback.h"
#include "updater_log.h"

#include <kxcommon/filecommands.h>
#include <kxcommon/filecopier.h>
#include <kxcommon/fileremover.h>
#include <kxupdater/errors.h>

#include <QDir>
#include <QFile>

#include <filesystem>
#include <new>
#include <type_traits>

namespace updater {
namespace {

enum class DirectoryStatus { Missing, Present, Unknown };

// Unlike QDir, tells a directory that the system could not look at from one that is not there.
DirectoryStatus StatusOf(const QString& path)
{
    namespace fs = std::filesystem;
    fs::path native;
    if constexpr (std::is_same_v<fs::path::value_type, char>)
        native = QFile::encodeName(path).toStdString();
    else
        native = QDir::toNativeSeparators(path).toStdWString();
    std::error_code error;
    switch (fs::status(native, error).type()) {
    case fs::file_type::directory:
        return DirectoryStatus::Present;
    case fs::file_type::none:
        return DirectoryStatus::Unknown;
    default:
        return DirectoryStatus::Missing;
    }
}

} // namespace

void Updater::OnAppCallbackStateEnter()
{
    appCallbackThread.reset(new (std::nothrow) updater::AppCallback(this));
    if (!appCallbackThread) {
        KX_LOG_STATE(Critical) << "Failed to create application callback thread!";
        Q_EMIT error(CallbackFailed, QStringLiteral("Application callback failed!"));
        return;
    }
    // The thread object itself is the receiver: a result still under way goes with it.
    connect(appCallbackThread.get(), &AppCallback::result, appCallbackThread.get(),
            [this](int code) { OnAppCallbackResult(code); });
    appCallbackThread->callback = appCallback;
    appCallbackThread->SetDownloadPath(downloadPath);
    appCallbackThread->SetLocalPackagePath(localPackagePath);
    appCallbackThread->start(QThread::InheritPriority);
}

void Updater::OnAppCallbackResult(int code)
{
    if (code == 0)
        Q_EMIT appcallbackComplete();
    else
        Q_EMIT error(code, QStringLiteral("Application callback failed!"));
}

void Updater::OnAppCallbackStateExit()
{
    appCallbackThread.reset();
}

void Updater::RemoveTree(const QString& path, void (Updater::*complete)())
{
    if (!QDir(path).exists()) {
        KX_LOG_STATE(Debug) << QStringLiteral("Nothing to remove in '%1'!").arg(path);
        Q_EMIT(this->*complete)();
        return;
    }
    fileRemover.reset(new (std::nothrow) common::FileRemover);
    if (!fileRemover) {
        KX_LOG_STATE(Critical) << "Failed to create remover!";
        Q_EMIT error(RemoverMissing, QStringLiteral("Failed to create remover!"));
        return;
    }
    fileRemover->AddDirectory(path);
    connect(fileRemover.get(), &common::FileRemover::succesed, this, complete);
    connect(fileRemover.get(), SIGNAL(failed(int, const QString&)), this,
            SIGNAL(error(int, const QString&)));
    connect(fileRemover.get(), SIGNAL(progress(int, int)), this, SLOT(OnProgress(int, int)));
    fileRemover->Remove();
}

void Updater::OnBackupRemovingStateEnter()
{
    RemoveTree(BackupPath(), &Updater::backupRemovingComplete);
}

void Updater::OnBackupRemovingStateExit()
{
    fileRemover.reset();
}

void Updater::OnBackupingStateEnter()
{
    const QString backup = BackupPath();
    const DirectoryStatus status = StatusOf(localPackagePath);
    if (status == DirectoryStatus::Unknown) {
        // Taken for a missing one, the new version would be copied over the old one, unsaved.
        const QString text =
            QStringLiteral("Cannot rename directory '%1' to '%2'!").arg(localPackagePath, backup);
        KX_LOG_STATE(Error) << text;
        Q_EMIT error(BackupFailed, text);
        return;
    }
    if (status == DirectoryStatus::Missing) {
        KX_LOG_STATE(Warning)
            << QStringLiteral("Cannot create backup. Application directory '%1' isn't exist!")
                   .arg(localPackagePath);
        Q_EMIT backupingComplete();
        return;
    }
    if (QDir(backup).exists()) {
        const QString text = QStringLiteral("Backup directory '%1' already exists!").arg(backup);
        KX_LOG_STATE(Error) << text;
        Q_EMIT error(BackupFailed, text);
        return;
    }
    QDir directory(localPackagePath);
    if (!common::FileCommands::RenameDirectory(directory, localPackagePath, backup)) {
        const QString text =
            QStringLiteral("Cannot rename directory '%1' to '%2'!").arg(localPackagePath, backup);
        KX_LOG_STATE(Error) << text;
        Q_EMIT error(BackupFailed, text);
        return;
    }
    KX_LOG_STATE(Debug)
        << QStringLiteral("Successfully renamed from '%1' to '%2'!").arg(localPackagePath, backup);
    Q_EMIT backupingComplete();
}

void Updater::OnBackupingStateExit() {}

void Updater::OnMovingStateEnter()
{
    fileCopier.reset(new (std::nothrow) common::FileCopier);
    if (!fileCopier) {
        KX_LOG_STATE(Critical) << "Failed to create copier!";
        Q_EMIT error(CopierMissing, QStringLiteral("Failed to create copier!"));
        return;
    }
    fileCopier->AddDirectory(downloadPath, localPackagePath);
    connect(fileCopier.get(), SIGNAL(succesed()), this, SIGNAL(movingComplete()));
    connect(fileCopier.get(), SIGNAL(failed(int, const QString&)), this,
            SIGNAL(error(int, const QString&)));
    connect(fileCopier.get(), SIGNAL(progress(int, int)), this, SLOT(OnProgress(int, int)));
    fileCopier->Copy();
}

void Updater::OnMovingStateExit()
{
    fileCopier.reset();
}

void Updater::OnBackupClearingStateEnter()
{
    RemoveTree(BackupPath(), &Updater::backupClearingComplete);
}

void Updater::OnBackupClearingStateExit()
{
    Q_EMIT progress(100);
    fileRemover.reset();
}

void Updater::OnRevertingStateEnter()
{
    RemoveTree(localPackagePath, &Updater::revertingComplete);
}

void Updater::OnRevertingStateExit()
{
    fileRemover.reset();
}

void Updater::OnRestoringStateEnter()
{
    const QString backup = BackupPath();
    if (QDir(localPackagePath).exists()) {
        const QString text =
            QStringLiteral("Cannot restore! Local package directory '%1' already exists!")
                .arg(localPackagePath);
        KX_LOG_STATE(Error) << text;
        Q_EMIT error(RestoreFailed, text);
        return;
    }
    QDir directory(backup);
    if (!common::FileCommands::RenameDirectory(directory, backup, localPackagePath)) {
        const QString text =
            QStringLiteral("Cannot rename directory '%1' to '%2'!").arg(backup, localPackagePath);
        KX_LOG_STATE(Error) << text;
        Q_EMIT error(RestoreFailed, text);
        return;
    }
    const QString text = QStringLiteral("Update failed! Restored from '%1'!").arg(backup);
    KX_LOG_STATE(Error) << text;
    Q_EMIT error(UpdateReverted, text);
}

void Updater::OnRestoringStateExit() {}

} // namespace updater
