#pragma once

#include <kxupdater/iupdater.h>

#include <QObject>
#include <QPointer>
#include <QString>

QT_BEGIN_NAMESPACE
class QNetworkAccessManager;
QT_END_NAMESPACE

namespace common {
class FileRemover;
}
namespace updater {
class TransferProgress;
}

/** Asks the program's user, and shows what happens: the part that each application writes itself.
 */
class UserInterface
{
public:
    virtual ~UserInterface();
    virtual void Offer(const QString& version, bool repair) = 0;
    virtual void ShowStep(const QString& text) = 0;
    virtual void ShowProgress(int percent) = 0;
    virtual void ShowTransfers(const QString& text) = 0;
    virtual void ShowError(const QString& text) = 0;
    virtual void OfferRestart() = 0;
};

/** Moves the running program out of the way before the swap. */
class CloseProgram : public AppCallbackFunction
{
public:
    int Call(const QString& downloadPath, const QString& localPackagePath) override;
};

/** The updates of one application: every piece of docs/integration.md, put together. */
class UpdateController : public QObject
{
    Q_OBJECT
public:
    UpdateController(UserInterface* userInterface, QNetworkAccessManager* manager, QObject* parent);

    /** Downloads of an earlier run count if they are still whole; otherwise a check begins. */
    void Start();
    void Download();
    void Install();
    void GiveUp();

private Q_SLOTS:
    void OnWaiting();
    void OnUpdateAvailable();
    void OnUpdateRequired();
    void OnActual();
    void OnStateChanged(const QString& state);
    void OnTransfersChanged();
    void OnFinished();
    void OnError(int code, const QString& text);
    void OnFailed();
    void OnVerified(bool whole);

private:
    void Connect();
    void WatchTransfers();
    QString ManifestPath() const;
    bool SaveManifest() const;
    void RemoveDownload();

    UserInterface* userInterface;                   // not owned
    updater::IUpdater* updater;                     // a child
    updater::TransferProgress* transfers = nullptr; // a child
    CloseProgram closeProgram;
    QString lastError;
    QPointer<common::FileRemover> cleaning; // while the download directory is being removed
    bool ready = false;                     // the updater's event loop runs
    bool assembled = false;                 // the download directory holds the new version
    bool installing = false;                // the user said yes
};
