// PREPARING         plans                         moves on by itself
// COPYING           copies what is unchanged      copyingComplete
// DOWNLOADING       fetches what is not           downloadingComplete
// CREATINGSYMLINKS  makes the links               creatingSymlinksComplete
// VERIFICATION      compares with the manifest    verificationComplete

#include "updater.h"

#include "filediff.h"
#include "partialsweep.h"
#include "transferledger.h"
#include "updater_log.h"

#include <kxcommon/errors.h>
#include <kxcommon/filecopier.h>
#include <kxcommon/ifiledownload.h>
#include <kxcommon/pathguard.h>
#include <kxupdater/downloader.h>
#include <kxupdater/errors.h>
#include <kxupdater/filescanner.h>
#include <kxupdater/package.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <new>

namespace updater {
namespace {

FileList Filtered(const FileList& files, bool symlinks)
{
    FileList filtered;
    std::copy_if(files.cbegin(), files.cend(), std::back_inserter(filtered),
                 [symlinks](const File& file) { return file.IsSymlink() == symlinks; });
    return filtered;
}

} // namespace

FileList Updater::CopyList() const
{
    return Intersection(localFiles, ServerFiles());
}

FileList Updater::DownloadList() const
{
    return Filtered(Difference(ServerFiles(), localFiles), false);
}

FileList Updater::SymlinkList() const
{
    return Filtered(Difference(ServerFiles(), localFiles), true);
}

FileList Updater::DeleteList() const
{
    return Difference(localFiles, ServerFiles());
}

QString Updater::LocalPath(const File& file) const
{
    return localPackagePath + QDir::separator() + file.Name();
}

QString Updater::AssembledPath(const File& file) const
{
    return downloadPath + QDir::separator() + file.Name();
}

void Updater::OnPreparingStateEnter()
{
    const FileList copies = CopyList();
    KX_LOG_STATE(Info) << qint64(copies.size()) << " will be copied from local package.";
    const FileList downloads = DownloadList();
    KX_LOG_STATE(Info) << qint64(downloads.size()) << " will be downloaded from server.";
    const qint64 symlinks = SymlinkList().size();
    KX_LOG_STATE(Info) << symlinks << " symlinks will be created.";
    KX_LOG_STATE(Info) << qint64(DeleteList().size()) << " will be deleted after update.";
    if (copies.isEmpty() && downloads.isEmpty() && symlinks == 0)
        KX_LOG_STATE(Critical) << "Nothing to do!!!";

    copyCount = static_cast<int>(copies.size());
    downloadCount = static_cast<int>(downloads.size());
    symlinkCount = static_cast<int>(symlinks);
    transfers->Begin({});
    SweepPartials(downloads + copies);
}

void Updater::SweepPartials(const FileList& plan)
{
    partialsSwept = false;
    partialSweep.reset();
    if (downloadPath.isEmpty())
        return;

    const QString root = QDir::cleanPath(downloadPath);
    // Downloads go on where theirs ended, and copies, which may be under way before the sweep has
    // ended, go by way of the same names and clear away what an earlier run left there.
    QSet<QString> keep;
    for (const File& file : plan) {
        const QString path = QDir::cleanPath(root + QLatin1Char('/') + file.Name());
        keep.insert(common::http::PartialFilePath(path));
    }
    partialSweep.reset(new (std::nothrow) PartialSweep(root, keep));
    if (!partialSweep)
        return;
    // The sweep itself is the receiver: a signal still under way goes with it.
    connect(partialSweep.get(), &QThread::finished, partialSweep.get(), [this] {
        partialsSwept = true;
        // Entered, but not yet there: a host has opened an event loop inside verification().
        if (stateName == QLatin1String("VERIFICATION") && fileScanner)
            StartVerification();
    });
    partialSweep->start();
}

void Updater::OnCopyingStateEnter()
{
    const FileList files = CopyList();
    if (files.isEmpty()) {
        KX_LOG_STATE(Info) << "No files need to be copied!";
        Q_EMIT copyingComplete();
        return;
    }
    if (downloadPath.isEmpty()) {
        // Joined with a name it would be a path below the root.
        const QString text = QStringLiteral("Cannot copy files: no download directory is set!");
        KX_LOG_STATE(Critical) << text;
        Q_EMIT error(common::CopyConfinement, text);
        return;
    }
    fileCopier.reset(new (std::nothrow) common::FileCopier);
    if (!fileCopier) {
        KX_LOG_STATE(Critical) << "Failed to create copier!";
        Q_EMIT error(CopierMissing, QStringLiteral("Failed to create copier!"));
        return;
    }
    fileCopier->SetDestinationRoot(downloadPath);
    for (const File& file : files) {
        if (file.IsSymlink())
            fileCopier->AddSymlink(LocalPath(file), AssembledPath(file));
        else
            fileCopier->AddFile(LocalPath(file), AssembledPath(file));
    }
    connect(fileCopier.get(), SIGNAL(succesed()), this, SIGNAL(copyingComplete()));
    connect(fileCopier.get(), SIGNAL(failed(int, const QString&)), this,
            SIGNAL(error(int, const QString&)));
    connect(fileCopier.get(), SIGNAL(progress(int, int)), this, SLOT(OnProgress(int, int)));
    fileCopier->Copy();
}

void Updater::OnCopyingStateExit()
{
    fileCopier.reset();
}

void Updater::OnDownloadingStateEnter()
{
    const FileList files = DownloadList();
    if (files.isEmpty()) {
        KX_LOG_STATE(Info) << "No files need be download!";
        Q_EMIT downloadingComplete();
        return;
    }
    downloader.reset(new (std::nothrow) Downloader(networkManager, this));
    if (!downloader) {
        KX_LOG_STATE(Critical) << "Failed to create downloader!";
        Q_EMIT error(DownloaderMissing, QStringLiteral("Failed to create downloader!"));
        return;
    }
    downloader->ledger = transfers;
    connect(downloader.get(), SIGNAL(complete()), this, SIGNAL(downloadingComplete()));
    connect(downloader.get(), SIGNAL(failed(int, const QString&)), this,
            SIGNAL(error(int, const QString&)));
    connect(downloader.get(), SIGNAL(progress(int, int)), this, SLOT(OnProgress(int, int)));
    downloader->SetDownloadPath(downloadPath);
    downloader->SetURL(package->DownloadURL());
    downloader->SetFiles(files);
    downloader->Start();
}

void Updater::OnDownloadingStateExit()
{
    // Still connected: running transfers end in an error of their own, 600502.
    downloader.reset();
}

void Updater::OnCreatingSymlinksStateEnter()
{
    const FileList files = SymlinkList();
    if (files.isEmpty()) {
        KX_LOG_STATE(Info) << "No symlinks to be created!";
        Q_EMIT creatingSymlinksComplete();
        return;
    }
    for (const File& file : files) {
        if (!CreateSymlink(file))
            return;
    }
    Q_EMIT creatingSymlinksComplete();
}

bool Updater::CreateSymlink(const File& file)
{
    const QString path = AssembledPath(file);
    const QString directory = QFileInfo(path).absolutePath();
    const bool confined = !downloadPath.isEmpty() &&
                          common::PathGuard::Violation(downloadPath, file.Name()).isEmpty();
    if (!confined || !QDir().mkpath(directory)) {
        const QString text = QStringLiteral("Cannot create path to '%1'").arg(path);
        KX_LOG_STATE(Error) << text;
        Q_EMIT error(SymlinkFailed, text);
        return false;
    }

    const QFileInfo present(path);
    if (present.exists() || present.isSymLink()) {
        KX_LOG_STATE(Warning)
            << QStringLiteral("'%1' already exists. Trying to remove before creating symlink...")
                   .arg(path);
        if (!QFile::remove(path)) {
            Q_EMIT error(SymlinkFailed, QStringLiteral("Cannot remove '%1'!").arg(path));
            return false;
        }
    }

    const QString target = file.SymlinkPath();
    if (!QFile::link(target, path)) {
        const QString text =
            QStringLiteral("Cannot create symlink '%1' -> '%2'!").arg(path, target);
        KX_LOG_STATE(Error) << text;
        Q_EMIT error(SymlinkFailed, text);
        return false;
    }
    KX_LOG_STATE(Debug)
        << QStringLiteral("Successfully created symlink '%1' --> '%2'!").arg(path, target);
    return true;
}

void Updater::OnCreatingSymlinksStateExit() {}

void Updater::OnVerificationStateEnter()
{
    fileScanner.reset(new (std::nothrow) FileScanner(downloadPath));
    if (!fileScanner) {
        KX_LOG_STATE(Critical) << "Failed to create verification file scanner!";
        Q_EMIT error(ScannerMissing, QStringLiteral("Failed to create verification file scanner!"));
        return;
    }
    connect(fileScanner.get(), SIGNAL(succesed()), this, SLOT(OnVerificationScanFinished()));
    connect(fileScanner.get(), SIGNAL(failed(int, const QString&)), this,
            SIGNAL(error(int, const QString&)));
    // Otherwise the end of the sweep starts it.
    if (partialsSwept || !partialSweep)
        StartVerification();
}

void Updater::StartVerification()
{
    if (!partialSweep || !partialSweep->Succeeded()) {
        Q_EMIT error(VerificationFailed, QStringLiteral("Verification failed"));
        return;
    }
    fileScanner->Scan();
}

void Updater::OnVerificationStateExit()
{
    OnScanningStateExit();
}

void Updater::OnVerificationScanFinished()
{
    if (!fileScanner)
        return;
    const FileList assembled = fileScanner->Files();
    if (IsChanged(assembled, ServerFiles())) {
        Q_EMIT error(VerificationFailed, QStringLiteral("Verification failed"));
        return;
    }
    KX_LOG_STATE(Info) << "Verification successfully completed.";
    Q_EMIT verificationComplete();
}

} // namespace updater
