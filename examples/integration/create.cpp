#include "updatecontroller.h"

#include <QCoreApplication>
#include <QDir>
#include <QNetworkAccessManager>
#include <QStandardPaths>

UserInterface::~UserInterface() = default;

//! [create]
UpdateController::UpdateController(UserInterface* userInterface, QNetworkAccessManager* manager,
                                   QObject* parent)
    : QObject(parent), userInterface(userInterface), updater(updater::CreateUpdater(manager, this))
{
    updater->SetURL(QStringLiteral("https://updates.example.org"));
    updater->SetPackageName(QStringLiteral("demo-app"));
    updater->SetCurrentVersion(QCoreApplication::applicationVersion());
    updater->SetLocalPackagePath(QCoreApplication::applicationDirPath());
    const QDir cache(QStandardPaths::writableLocation(QStandardPaths::CacheLocation));
    updater->SetDownloadPath(cache.absoluteFilePath(QStringLiteral("next")));
    updater->SetAppCallback(&closeProgram);
    Connect();
    WatchTransfers();
}
//! [create]

//! [connect]
void UpdateController::Connect()
{
    connect(updater, SIGNAL(waiting()), SLOT(OnWaiting()));
    connect(updater, SIGNAL(updateAvailable()), SLOT(OnUpdateAvailable()));
    connect(updater, SIGNAL(updateRequered()), SLOT(OnUpdateRequired()));
    connect(updater, SIGNAL(actual()), SLOT(OnActual()));
    connect(updater, SIGNAL(stateChanged(const QString&)), SLOT(OnStateChanged(const QString&)));
    connect(updater, SIGNAL(finished()), SLOT(OnFinished()));
    connect(updater, SIGNAL(error(int, const QString&)), SLOT(OnError(int, const QString&)));
    connect(updater, SIGNAL(failed()), SLOT(OnFailed()));
    connect(updater, SIGNAL(localUpdateVerificationFinished(bool)), SLOT(OnVerified(bool)));
    connect(updater, &updater::IUpdater::progress, this,
            [this](int percent) { userInterface->ShowProgress(percent); });
}
//! [connect]

//! [automatic]
void CheckEveryDay(updater::IUpdater* updater)
{
    // Counts from each time the updater begins to wait; -1 switches automatic checks off.
    updater->SetCheckInterval(24 * 60 * 60);
}
//! [automatic]
