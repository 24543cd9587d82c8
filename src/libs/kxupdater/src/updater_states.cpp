#include "updater.h"

#include "partialsweep.h"
#include "stepmachine.h"
#include "updater_log.h"

#include <kxupdater/package.h>

#include <QEvent>
#include <QFinalState>
#include <QPointer>

#include <utility>
#include <vector>

namespace updater {
namespace {

struct StateRow
{
    const char* name;
    const char* parent; // empty: the machine itself
    std::vector<const char*> onEntry;
    std::vector<const char*> onExit;
};

struct TransitionRow
{
    const char* from;
    const char* on;
    const char* to;
};

void Wire(const QObject* sender, const char* signal, const QObject* receiver, const char* member)
{
    const bool connected = QObject::connect(sender, signal, receiver, member);
    Q_ASSERT(connected);
    Q_UNUSED(connected)
}

} // namespace

QState* Updater::CreateState(const QString& name, QState* parent)
{
    auto* state = new QState(parent);
    state->setObjectName(name);
    Wire(state, SIGNAL(entered()), this, SLOT(OnStateEnter()));
    Wire(state, SIGNAL(exited()), this, SLOT(OnStateExit()));
    return state;
}

void Updater::BuildStateMachine()
{
    // clang-format off
    // Parents stand before their children, and the first child of a parent is its initial state.
    static const StateRow states[] = {
        // name              parent        on entry, in this order                                                      on exit
        {"WAITING",          "",           {SIGNAL(waiting())},                                                         {}},
        {"CHECKING",         "",           {SIGNAL(checking())},                                                        {}},
        {"QUERYING",         "CHECKING",   {SLOT(OnQueryingStateEnter())},                                              {}},
        {"SCANNING",         "CHECKING",   {SLOT(OnScanningStateEnter())},                                              {SLOT(OnScanningStateExit())}},
        // The verdict comes before the announcement, so that a host knows which one it answers.
        {"AVAILABLE",        "CHECKING",   {SLOT(OnAvailableStateEnter()), SIGNAL(available())},                        {}},
        {"ACTUAL",           "CHECKING",   {SIGNAL(actual())},                                                          {}},
        {"PREPARING",        "",           {SIGNAL(prepairing()), SLOT(OnPreparingStateEnter())},                       {}},
        {"COPYING",          "PREPARING",  {SIGNAL(copying()), SLOT(OnCopyingStateEnter())},                            {SLOT(OnCopyingStateExit())}},
        {"DOWNLOADING",      "PREPARING",  {SIGNAL(downloading()), SLOT(OnDownloadingStateEnter())},                    {SLOT(OnDownloadingStateExit())}},
        {"CREATINGSYMLINKS", "PREPARING",  {SIGNAL(creatingSymlinks()), SLOT(OnCreatingSymlinksStateEnter())},          {SLOT(OnCreatingSymlinksStateExit())}},
        {"VERIFICATION",     "PREPARING",  {SIGNAL(verification()), SLOT(OnVerificationStateEnter())},                  {SLOT(OnVerificationStateExit())}},
        {"INSTALLING",       "",           {SIGNAL(installing())},                                                      {}},
        {"APPCALLBACK",      "INSTALLING", {SLOT(OnAppCallbackStateEnter())},                                           {SLOT(OnAppCallbackStateExit())}},
        {"BACKUPREMOVING",   "INSTALLING", {SLOT(OnBackupRemovingStateEnter())},                                        {SLOT(OnBackupRemovingStateExit())}},
        {"BACKUPING",        "INSTALLING", {SLOT(OnBackupingStateEnter())},                                             {SLOT(OnBackupingStateExit())}},
        {"MOVING",           "INSTALLING", {SLOT(OnMovingStateEnter())},                                                {SLOT(OnMovingStateExit())}},
        {"BACKUPCLEARING",   "INSTALLING", {SLOT(OnBackupClearingStateEnter())},                                        {SLOT(OnBackupClearingStateExit())}},
        {"REVERTING",        "INSTALLING", {SLOT(OnRevertingStateEnter())},                                             {SLOT(OnRevertingStateExit())}},
        {"RESTORING",        "INSTALLING", {SLOT(OnRestoringStateEnter())},                                             {SLOT(OnRestoringStateExit())}},
        {"CANCELED",         "",           {SIGNAL(canceled())},                                                        {}},
        {"FAILED",           "",           {SIGNAL(failed())},                                                          {}},
        // SUCCESS follows below the loop: the final state.
    };

    // A row of a parent holds in all its children.
    static const TransitionRow transitions[] = {
        // from              on                                   to
        {"WAITING",          SIGNAL(check()),                     "CHECKING"},
        {"WAITING",          SIGNAL(cancel()),                    "CANCELED"},
        {"WAITING",          SIGNAL(install()),                   "INSTALLING"},
        {"QUERYING",         SIGNAL(packageReady()),              "SCANNING"},
        {"SCANNING",         SIGNAL(packageChanged()),            "AVAILABLE"},
        {"SCANNING",         SIGNAL(packageActual()),             "ACTUAL"},
        {"AVAILABLE",        SIGNAL(download()),                  "PREPARING"},
        {"AVAILABLE",        SIGNAL(check()),                     "CHECKING"},
        {"ACTUAL",           SIGNAL(finish()),                    "SUCCESS"},
        {"CHECKING",         SIGNAL(error(int, const QString&)),  "FAILED"},
        {"CHECKING",         SIGNAL(cancel()),                    "CANCELED"},
        {"CHECKING",         SIGNAL(wait()),                      "WAITING"},
        {"COPYING",          SIGNAL(copyingComplete()),           "DOWNLOADING"},
        {"DOWNLOADING",      SIGNAL(downloadingComplete()),       "CREATINGSYMLINKS"},
        {"CREATINGSYMLINKS", SIGNAL(creatingSymlinksComplete()),  "VERIFICATION"},
        // The assembled tree is a result of its own: the host decides when to install it.
        {"VERIFICATION",     SIGNAL(verificationComplete()),      "SUCCESS"},
        {"PREPARING",        SIGNAL(error(int, const QString&)),  "FAILED"},
        {"PREPARING",        SIGNAL(wait()),                      "WAITING"},
        {"PREPARING",        SIGNAL(cancel()),                    "CANCELED"},
        {"FAILED",           SIGNAL(check()),                     "CHECKING"},
        {"FAILED",           SIGNAL(wait()),                      "WAITING"},
        {"FAILED",           SIGNAL(cancel()),                    "CANCELED"},
        {"CANCELED",         SIGNAL(check()),                     "CHECKING"},
        {"CANCELED",         SIGNAL(wait()),                      "WAITING"},
        {"APPCALLBACK",      SIGNAL(appcallbackComplete()),       "BACKUPREMOVING"},
        {"APPCALLBACK",      SIGNAL(error(int, const QString&)),  "FAILED"},
        {"APPCALLBACK",      SIGNAL(wait()),                      "WAITING"},
        {"BACKUPREMOVING",   SIGNAL(backupRemovingComplete()),    "BACKUPING"},
        {"BACKUPREMOVING",   SIGNAL(error(int, const QString&)),  "FAILED"},
        {"BACKUPREMOVING",   SIGNAL(wait()),                      "WAITING"},
        {"BACKUPING",        SIGNAL(backupingComplete()),         "MOVING"},
        {"BACKUPING",        SIGNAL(error(int, const QString&)),  "FAILED"},
        {"MOVING",           SIGNAL(movingComplete()),            "BACKUPCLEARING"},
        {"MOVING",           SIGNAL(error(int, const QString&)),  "REVERTING"},
        {"BACKUPCLEARING",   SIGNAL(backupClearingComplete()),    "SUCCESS"},
        // The new version is in place: what is left of the old one does no harm.
        {"BACKUPCLEARING",   SIGNAL(error(int, const QString&)),  "SUCCESS"},
        {"BACKUPCLEARING",   SIGNAL(wait()),                      "WAITING"},
        {"REVERTING",        SIGNAL(revertingComplete()),         "RESTORING"},
        {"REVERTING",        SIGNAL(error(int, const QString&)),  "FAILED"},
        // The only way out: a rollback that works is still a failed update.
        {"RESTORING",        SIGNAL(error(int, const QString&)),  "FAILED"},
        // Listed a second time; the first of the two is taken.
        {"FAILED",           SIGNAL(wait()),                      "WAITING"},
        {"INSTALLING",       SIGNAL(cancel()),                    "CANCELED"},
    };
    // clang-format on

    stateMachine = new StepMachine(this);
    connect(stateMachine, &StepMachine::stepEnded, this, &Updater::CarryOutDeletion);
    QHash<QString, QAbstractState*> byName;
    byName.insert(QString(), stateMachine);
    for (const StateRow& row : states) {
        auto* parent = static_cast<QState*>(byName.value(QLatin1String(row.parent)));
        QState* state = CreateState(QLatin1String(row.name), parent);
        byName.insert(state->objectName(), state);
        if (!parent->initialState())
            parent->setInitialState(state);
        for (const char* action : row.onEntry)
            Wire(state, SIGNAL(entered()), this, action);
        for (const char* action : row.onExit)
            Wire(state, SIGNAL(exited()), this, action);
    }
    auto* success = new QFinalState(stateMachine);
    success->setObjectName(QStringLiteral("SUCCESS"));
    Wire(success, SIGNAL(entered()), this, SLOT(OnStateEnter()));
    Wire(success, SIGNAL(exited()), this, SLOT(OnStateExit()));
    byName.insert(success->objectName(), success);

    auto* waitingState = static_cast<QState*>(byName.value(QStringLiteral("WAITING")));
    QAbstractState* checkingState = byName.value(QStringLiteral("CHECKING"));
    connect(waitingState, &QState::entered, &checkTimer, [this] {
        if (checkInterval >= 0)
            checkTimer.start();
    });
    Wire(waitingState, SIGNAL(exited()), &checkTimer, SLOT(stop()));
    waitingState->addTransition(&checkTimer, SIGNAL(timeout()), checkingState);
    // A query that is still under way when its check is left would answer into a later one.
    if (package)
        Wire(checkingState, SIGNAL(exited()), package.get(), SLOT(Abort()));
    connect(byName.value(QStringLiteral("PREPARING")), &QAbstractState::exited, this,
            [this] { partialSweep.reset(); });

    for (const TransitionRow& row : transitions) {
        auto* from = static_cast<QState*>(byName.value(QLatin1String(row.from)));
        const auto* added = from->addTransition(this, row.on, byName.value(QLatin1String(row.to)));
        Q_ASSERT(added);
        Q_UNUSED(added)
    }

    connect(stateMachine, &StepMachine::finished, this, &Updater::FinishMachine);
    for (const char* signal :
         {SIGNAL(waiting()), SIGNAL(checking()), SIGNAL(prepairing()), SIGNAL(installing())}) {
        Wire(this, signal, this, SLOT(OnInvalidateActual()));
    }
    stateMachine->start();
}

void Updater::FinishMachine()
{
    const QPointer<Updater> self(this);
    isFinishing = true;
    Q_EMIT finished();
    if (!self)
        return;
    isFinishing = false;
    CarryOutDeletion();
}

bool Updater::event(QEvent* event)
{
    // A host may open an event loop of its own inside a signal, a dialog for instance, and call
    // deleteLater() there. That loop would delete the machine in the middle of its step.
    if (event->type() == QEvent::DeferredDelete && (stateMachine->IsStepping() || isFinishing)) {
        isDeletionPending = true;
        return true;
    }
    return IUpdater::event(event);
}

void Updater::CarryOutDeletion()
{
    if (std::exchange(isDeletionPending, false))
        deleteLater();
}

void Updater::OnStateEnter()
{
    if (const QObject* state = sender())
        stateName = state->objectName();
    KX_LOG_STATE(Debug) << "entered state.";
    Q_EMIT stateChanged(stateName);
}

void Updater::OnStateExit()
{
    const QObject* state = sender();
    KX_LOG_STATE(Debug) << "exited state " << (state ? state->objectName() : QString());
}

void Updater::OnInvalidateActual()
{
    KX_LOG_STATE(Debug) << "Invalidating actual sign.";
    actual = false;
}

} // namespace updater
