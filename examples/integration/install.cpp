#include "updatecontroller.h"

#include <kxcommon/fileremover.h>
#include <kxupdater/errors.h>

#include <QDir>
#include <QFile>
#include <QSaveFile>

//! [finished]
void UpdateController::OnFinished()
{
    // finished() ends an assembly as well as an install, and the updater has stopped.
    lastError.clear(); // the old version's remains could not be removed: no reason to worry a user
    if (installing) {
        installing = false;
        assembled = false;
        RemoveDownload();
        userInterface->OfferRestart();
    } else {
        assembled = SaveManifest();
        userInterface->ShowStep(QStringLiteral("The new version is ready to be installed."));
    }
    updater->Cancel(); // restarts it: OnWaiting() follows
}

void UpdateController::Install()
{
    if (!assembled)
        return;
    installing = true;
    updater->Install(); // in WAITING
}
//! [finished]

//! [cleanup]
void UpdateController::RemoveDownload()
{
    // Files of another version in the download directory would fail the next verification.
    QFile::remove(ManifestPath());
    cleaning = new common::FileRemover; // on a thread of its own
    cleaning->setParent(this);
    cleaning->AddDirectory(updater->DownloadPath());
    connect(cleaning, SIGNAL(succesed()), cleaning, SLOT(deleteLater()));
    connect(cleaning, SIGNAL(failed(int, const QString&)), cleaning, SLOT(deleteLater()));
    cleaning->Remove();
}
//! [cleanup]

//! [callback]
int CloseProgram::Call(const QString& downloadPath, const QString& localPackagePath)
{
    // On a thread of its own: nothing here may wait for the thread that owns the updater.
    Q_UNUSED(downloadPath)
    const QString lock = QDir(localPackagePath).filePath(QStringLiteral("documents-open"));
    return QFile::exists(lock) ? 1 : 0; // 0 goes on, anything else ends the install
}
//! [callback]

//! [restart]
QString UpdateController::ManifestPath() const
{
    // Beside the download directory: inside it would be a stray file.
    return updater->DownloadPath() + QStringLiteral(".xml");
}

bool UpdateController::SaveManifest() const
{
    QSaveFile file(ManifestPath());
    return file.open(QIODevice::WriteOnly) && file.write(updater->PackageXML().toUtf8()) >= 0 &&
           file.commit();
}

void UpdateController::OnWaiting()
{
    if (ready)
        return;
    ready = true;
    // A download of an earlier run of the program? If not, or if it is damaged: look for updates.
    if (!updater->VerifyLocalUpdate(updater->DownloadPath(), ManifestPath()))
        updater->Check();
}

void UpdateController::OnVerified(bool whole)
{
    assembled = whole;
    if (whole)
        userInterface->ShowStep(QStringLiteral("The new version is ready to be installed."));
    else
        updater->Check();
}
//! [restart]

//! [errors]
void UpdateController::OnError(int code, const QString& text)
{
    // One failure may give more than one error: the first is the cause, 600502 the other transfers.
    if (lastError.isEmpty())
        lastError = QStringLiteral("%1 (%2)").arg(text).arg(code);
    if (code == updater::VerificationFailed)
        RemoveDownload();
}

void UpdateController::OnFailed()
{
    installing = false;
    userInterface->ShowError(lastError);
    lastError.clear();
    updater->Wait(); // ready for the next command
}
//! [errors]
