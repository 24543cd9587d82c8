#include "updatecontroller.h"

#include <kxcommon/fileremover.h>

#include <QHash>

//! [check]
void UpdateController::Start()
{
    // Commands before the first waiting() are lost: OnWaiting() goes on.
    if (ready)
        updater->Check();
}

void UpdateController::OnUpdateAvailable()
{
    userInterface->Offer(updater->ServerVersion(), false);
}

void UpdateController::OnUpdateRequired()
{
    userInterface->Offer(updater->ServerVersion(), true); // same version, damaged files
}

void UpdateController::OnActual()
{
    userInterface->ShowStep(QStringLiteral("Everything is up to date."));
    updater->Wait(); // starts the interval of the next automatic check
}
//! [check]

//! [download]
void UpdateController::Download()
{
    if (!cleaning)
        updater->Download(); // after available(); error() and failed(), or finished(), will follow
}

void UpdateController::GiveUp()
{
    // In the middle of a swap the old version would stay in the backup directory.
    if (!installing)
        updater->Cancel();
}
//! [download]

//! [progress]
void UpdateController::OnStateChanged(const QString& state)
{
    static const QHash<QString, QString> texts = {
        {QStringLiteral("QUERYING"), QStringLiteral("Asking the server...")},
        {QStringLiteral("SCANNING"), QStringLiteral("Reading the installed files...")},
        {QStringLiteral("COPYING"), QStringLiteral("Copying what is unchanged...")},
        {QStringLiteral("DOWNLOADING"), QStringLiteral("Downloading...")},
        {QStringLiteral("VERIFICATION"), QStringLiteral("Verifying...")},
        {QStringLiteral("MOVING"), QStringLiteral("Installing...")},
        {QStringLiteral("REVERTING"), QStringLiteral("Putting the old version back...")},
    };
    if (texts.contains(state))
        userInterface->ShowStep(texts.value(state));
}
//! [progress]
