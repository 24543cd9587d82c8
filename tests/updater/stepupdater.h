#pragma once

#include "updater.h"
#include "updaterjournal.h"

#include <QSet>

namespace kxtest {

/**
 * An updater whose state handlers do nothing but tell the journal that they were called: only the
 * machine is at work, and the test moves it by raising the updater's signals. Handlers named in
 * SetLive() do their work as well.
 */
class StepUpdater : public updater::Updater
{
public:
    explicit StepUpdater(Journal& journal, QNetworkAccessManager* manager = nullptr)
        : Updater(manager, nullptr), journal(journal)
    {
    }

    void SetLive(const QSet<QString>& names) { live = names; }

#define KX_STEP(handler)                                                                           \
    void handler() override                                                                        \
    {                                                                                              \
        journal.Add(QStringLiteral(#handler));                                                     \
        if (live.contains(QStringLiteral(#handler)))                                               \
            Updater::handler();                                                                    \
    }
    KX_STEP(OnQueryingStateEnter)
    KX_STEP(OnScanningStateEnter)
    KX_STEP(OnScanningStateExit)
    KX_STEP(OnAvailableStateEnter)
    KX_STEP(OnPreparingStateEnter)
    KX_STEP(OnCopyingStateEnter)
    KX_STEP(OnCopyingStateExit)
    KX_STEP(OnDownloadingStateEnter)
    KX_STEP(OnDownloadingStateExit)
    KX_STEP(OnCreatingSymlinksStateEnter)
    KX_STEP(OnCreatingSymlinksStateExit)
    KX_STEP(OnVerificationStateEnter)
    KX_STEP(OnVerificationStateExit)
    KX_STEP(OnAppCallbackStateEnter)
    KX_STEP(OnAppCallbackStateExit)
    KX_STEP(OnBackupRemovingStateEnter)
    KX_STEP(OnBackupRemovingStateExit)
    KX_STEP(OnBackupingStateEnter)
    KX_STEP(OnBackupingStateExit)
    KX_STEP(OnMovingStateEnter)
    KX_STEP(OnMovingStateExit)
    KX_STEP(OnBackupClearingStateEnter)
    KX_STEP(OnBackupClearingStateExit)
    KX_STEP(OnRevertingStateEnter)
    KX_STEP(OnRevertingStateExit)
    KX_STEP(OnRestoringStateEnter)
    KX_STEP(OnRestoringStateExit)
#undef KX_STEP

private:
    Journal& journal;
    QSet<QString> live;
};

/** Raises the updater's signal `name`; "error" with the code 1 and the text "text", and "timeout"
 *  that of the check timer. */
void Raise(updater::Updater& updater, const QString& name);

/** The signals that lead from WAITING into `state`, each raised in the state before. */
QStringList WayTo(const QString& state);

/** Runs the event loop until the machine waits, then goes to `state`. False when it does not get
 *  there. */
bool GoTo(updater::Updater& updater, const Journal& journal, const QString& state);

} // namespace kxtest
