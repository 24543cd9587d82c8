#include "updatecontroller.h"

#include <kxupdater/transferprogress.h>

#include <QLocale>

//! [watch]
void UpdateController::WatchTransfers()
{
    transfers = new updater::TransferProgress(updater, this);
    connect(transfers, SIGNAL(changed()), SLOT(OnTransfersChanged()));
}
//! [watch]

//! [transfers]
void UpdateController::OnTransfersChanged()
{
    if (transfers->BytesTotal() == 0)
        return; // a new assembly begins, or nothing has to be fetched
    const QLocale locale;
    QString text = QStringLiteral("%1 of %2, %3 of %4 files")
                       .arg(locale.formattedDataSize(qint64(transfers->BytesDone())),
                            locale.formattedDataSize(qint64(transfers->BytesTotal())))
                       .arg(transfers->FilesDone())
                       .arg(transfers->FilesTotal());
    if (transfers->SecondsLeft() >= 0) {
        text += QStringLiteral(", %1 per second, %2 s left")
                    .arg(locale.formattedDataSize(qint64(transfers->BytesPerSecond())))
                    .arg(transfers->SecondsLeft());
    }
    userInterface->ShowTransfers(text);
}
//! [transfers]
