#include "allocationfailure.h"
#include "logcapture.h"
#include "manifest.h"
#include "quietperiod.h"
#include "signaltrace.h"
#include "stepupdater.h"
#include "treebuilder.h"
#include "updaterjournal.h"
#include "wiringguard.h"

#include <kxupdater/filescanner.h>
#include <kxupdater/package.h>

#include <QFinalState>
#include <QNetworkAccessManager>
#include <QSignalTransition>
#include <QState>
#include <QStateMachine>
#include <QTest>
#include <QTimer>

#include <limits>

using kxtest::Entered;
using kxtest::Exited;
using kxtest::GoTo;
using kxtest::Journal;
using kxtest::StepUpdater;

namespace {

constexpr int waitMs = 30000;

struct State
{
    const char* name;
    const char* parent;
    const char* initialChild;
    QStringList onEntry; // handlers and signals, in order
    QStringList onExit;
};

const QList<State>& States()
{
    static const QList<State> states{
        {"WAITING", "", "", {"waiting()"}, {}},
        {"CHECKING", "", "QUERYING", {"checking()"}, {}},
        {"PREPARING", "", "COPYING", {"prepairing()", "OnPreparingStateEnter"}, {}},
        {"INSTALLING", "", "APPCALLBACK", {"installing()"}, {}},
        {"CANCELED", "", "", {"canceled()"}, {}},
        {"FAILED", "", "", {"failed()"}, {}},
        {"SUCCESS", "", "", {}, {}},
        {"QUERYING", "CHECKING", "", {"OnQueryingStateEnter"}, {}},
        {"SCANNING", "CHECKING", "", {"OnScanningStateEnter"}, {"OnScanningStateExit"}},
        {"AVAILABLE", "CHECKING", "", {"OnAvailableStateEnter", "available()"}, {}},
        {"ACTUAL", "CHECKING", "", {"actual()"}, {}},
        {"COPYING", "PREPARING", "", {"copying()", "OnCopyingStateEnter"}, {"OnCopyingStateExit"}},
        {"DOWNLOADING",
         "PREPARING",
         "",
         {"downloading()", "OnDownloadingStateEnter"},
         {"OnDownloadingStateExit"}},
        {"CREATINGSYMLINKS",
         "PREPARING",
         "",
         {"creatingSymlinks()", "OnCreatingSymlinksStateEnter"},
         {"OnCreatingSymlinksStateExit"}},
        {"VERIFICATION",
         "PREPARING",
         "",
         {"verification()", "OnVerificationStateEnter"},
         {"OnVerificationStateExit"}},
        {"APPCALLBACK", "INSTALLING", "", {"OnAppCallbackStateEnter"}, {"OnAppCallbackStateExit"}},
        {"BACKUPREMOVING",
         "INSTALLING",
         "",
         {"OnBackupRemovingStateEnter"},
         {"OnBackupRemovingStateExit"}},
        {"BACKUPING", "INSTALLING", "", {"OnBackupingStateEnter"}, {"OnBackupingStateExit"}},
        {"MOVING", "INSTALLING", "", {"OnMovingStateEnter"}, {"OnMovingStateExit"}},
        {"BACKUPCLEARING",
         "INSTALLING",
         "",
         {"OnBackupClearingStateEnter"},
         {"OnBackupClearingStateExit"}},
        {"REVERTING", "INSTALLING", "", {"OnRevertingStateEnter"}, {"OnRevertingStateExit"}},
        {"RESTORING", "INSTALLING", "", {"OnRestoringStateEnter"}, {"OnRestoringStateExit"}},
    };
    return states;
}

const State& StateRow(const QString& name)
{
    for (const State& state : States()) {
        if (name == QLatin1String(state.name))
            return state;
    }
    qFatal("no state %s", qPrintable(name));
}

struct Transition
{
    QString from;
    QString on;
    QString to;
};

const QList<Transition>& Transitions()
{
    static const QList<Transition> transitions{
        {"WAITING", "timeout", "CHECKING"},
        {"WAITING", "check", "CHECKING"},
        {"WAITING", "cancel", "CANCELED"},
        {"WAITING", "install", "INSTALLING"},
        {"QUERYING", "packageReady", "SCANNING"},
        {"SCANNING", "packageChanged", "AVAILABLE"},
        {"SCANNING", "packageActual", "ACTUAL"},
        {"AVAILABLE", "download", "PREPARING"},
        {"AVAILABLE", "check", "CHECKING"},
        {"ACTUAL", "finish", "SUCCESS"},
        {"CHECKING", "error", "FAILED"},
        {"CHECKING", "cancel", "CANCELED"},
        {"CHECKING", "wait", "WAITING"},
        {"COPYING", "copyingComplete", "DOWNLOADING"},
        {"DOWNLOADING", "downloadingComplete", "CREATINGSYMLINKS"},
        {"CREATINGSYMLINKS", "creatingSymlinksComplete", "VERIFICATION"},
        {"VERIFICATION", "verificationComplete", "SUCCESS"},
        {"PREPARING", "error", "FAILED"},
        {"PREPARING", "wait", "WAITING"},
        {"PREPARING", "cancel", "CANCELED"},
        {"FAILED", "check", "CHECKING"},
        {"FAILED", "wait", "WAITING"},
        {"FAILED", "cancel", "CANCELED"},
        {"CANCELED", "check", "CHECKING"},
        {"CANCELED", "wait", "WAITING"},
        {"APPCALLBACK", "appcallbackComplete", "BACKUPREMOVING"},
        {"APPCALLBACK", "error", "FAILED"},
        {"APPCALLBACK", "wait", "WAITING"},
        {"BACKUPREMOVING", "backupRemovingComplete", "BACKUPING"},
        {"BACKUPREMOVING", "error", "FAILED"},
        {"BACKUPREMOVING", "wait", "WAITING"},
        {"BACKUPING", "backupingComplete", "MOVING"},
        {"BACKUPING", "error", "FAILED"},
        {"MOVING", "movingComplete", "BACKUPCLEARING"},
        {"MOVING", "error", "REVERTING"},
        {"BACKUPCLEARING", "backupClearingComplete", "SUCCESS"},
        {"BACKUPCLEARING", "error", "SUCCESS"},
        {"BACKUPCLEARING", "wait", "WAITING"},
        {"REVERTING", "revertingComplete", "RESTORING"},
        {"REVERTING", "error", "FAILED"},
        {"RESTORING", "error", "FAILED"},
        {"FAILED", "wait", "WAITING"},
        {"INSTALLING", "cancel", "CANCELED"},
    };
    return transitions;
}

const QStringList& Triggers()
{
    static const QStringList triggers{
        "check",
        "wait",
        "download",
        "install",
        "cancel",
        "finish",
        "packageReady",
        "packageChanged",
        "packageActual",
        "copyingComplete",
        "downloadingComplete",
        "creatingSymlinksComplete",
        "verificationComplete",
        "appcallbackComplete",
        "backupingComplete",
        "backupRemovingComplete",
        "movingComplete",
        "revertingComplete",
        "backupClearingComplete",
        "error",
        "timeout",
    };
    return triggers;
}

/** States that hold no others: the machine is always in one of these. */
QStringList AtomicStates()
{
    QStringList names;
    for (const State& state : States()) {
        if (!*state.initialChild)
            names << state.name;
    }
    return names;
}

/** Where the atomic state `from` goes on `trigger`; empty when it stays. */
QString Target(const QString& from, const QString& trigger)
{
    for (const QString& source : {from, QString(StateRow(from).parent)}) {
        for (const Transition& transition : Transitions()) {
            if (transition.from == source && transition.on == trigger)
                return transition.to;
        }
    }
    return {};
}

/** `raised` as it stands in the journal; the check timer is none of the updater's signals. */
QStringList Raised(const QString& raised)
{
    if (raised == QLatin1String("timeout"))
        return {};
    return {raised == QLatin1String("error") ? QStringLiteral("error(1, text)") : raised + "()"};
}

QStringList EntryOf(const QString& name)
{
    const State& state = StateRow(name);
    QStringList lines{QStringLiteral("7 %1: entered state.").arg(name),
                      QStringLiteral("stateChanged(%1)").arg(name)};
    if (QStringList{"WAITING", "CHECKING", "PREPARING", "INSTALLING"}.contains(name))
        lines << QStringLiteral("7 %1: Invalidating actual sign.").arg(name);
    lines += state.onEntry;
    if (name == QLatin1String("SUCCESS"))
        lines << "finished()";
    if (*state.initialChild)
        lines += EntryOf(state.initialChild);
    return lines;
}

/** All that leaves a journal entry on the way from one atomic state to `to`. */
QStringList StepLines(const QString& from, const QString& to)
{
    QStringList lines;
    const QString parent = StateRow(from).parent;
    for (const QString& name : {from, parent}) {
        if (name.isEmpty() || (name == parent && StateRow(to).parent == parent))
            continue;
        lines << QStringLiteral("7 %1: exited state %2").arg(from, name);
        lines += StateRow(name).onExit;
    }
    return lines + EntryOf(to);
}

QString Innermost(const QString& name)
{
    const QString child = StateRow(name).initialChild;
    return child.isEmpty() ? name : child;
}

QString SignalName(const QByteArray& signal)
{
    // As SIGNAL() makes it: a code digit in front.
    return QString::fromLatin1(QMetaObject::normalizedSignature(
        signal.startsWith('2') ? signal.constData() + 1 : signal.constData()));
}

} // namespace

class TestUpdaterStates : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();

    void MachineHasTheTwentyTwoStates();
    void MachineHasTheTransitionsInTheirOrder();
    void TransitionRunsExitsAndEntriesInOrder_data();
    void TransitionRunsExitsAndEntriesInOrder();
    void SignalWithoutTransitionDoesNothing_data();
    void SignalWithoutTransitionDoesNothing();
    void CommandLogsAndActsAsTheTableSays_data();
    void CommandLogsAndActsAsTheTableSays();
    void StartsWaitingOnceTheEventLoopRuns();
    void CommandsBeforeTheEventLoopAreLost();
    void CancelAfterSuccessRestarts();
    void CancelTwiceRestartsOnce_data();
    void CancelTwiceRestartsOnce();
    void StoppedMachineIgnoresEverythingButCancel();
    void RestartedMachineChecksAgain();
    void CommandsInsideSignalsAct();

    void SetterLogsAndGetterAnswers_data();
    void SetterLogsAndGetterAnswers();
    void CallbackIsLoggedInHexadecimal();
    void ConstructorLogsTheDefaultInterval();
    void WithoutPackageConstructorLogsIt();
    void WithoutPackageSettersFailAndGettersAreEmpty();
    void CheckIntervalSetsTheTimer_data();
    void CheckIntervalSetsTheTimer();
    void CheckTimerRunsInWaitingOnly();
    void CheckTimerStartsACheck();
    void NegativeCheckIntervalStartsNoCheck_data();
    void NegativeCheckIntervalStartsNoCheck();
    void UrlIsCut_data();
    void UrlIsCut();
    void ExecutablePathIsClean_data();
    void ExecutablePathIsClean();
    void BackupPathIsASibling_data();
    void BackupPathIsASibling();
    void DestructionIsLogged_data();
    void DestructionIsLogged();
    void LeavingTheRestClearsActual_data();
    void LeavingTheRestClearsActual();

    void ProgressFollowsTheWeights_data();
    void ProgressFollowsTheWeights();
};

void TestUpdaterStates::init()
{
    kxtest::FailOnWiringWarnings();
}

void TestUpdaterStates::MachineHasTheTwentyTwoStates()
{
    Journal journal;
    StepUpdater updater(journal);
    const QStateMachine* machine = kxtest::MachineOf(updater);
    QCOMPARE(machine->parent(), &updater);

    const auto Names = [](const QObject* parent) {
        QStringList names;
        for (const QObject* child : parent->children()) {
            if (qobject_cast<const QAbstractState*>(child))
                names << child->objectName();
        }
        return names;
    };
    QCOMPARE(Names(machine), (QStringList{"WAITING", "CHECKING", "PREPARING", "INSTALLING",
                                          "CANCELED", "FAILED", "SUCCESS"}));
    QVERIFY(machine->initialState());
    QCOMPARE(machine->initialState()->objectName(), "WAITING");

    const auto all = machine->findChildren<QAbstractState*>();
    QCOMPARE(all.size(), 22);
    for (const QAbstractState* state : all) {
        const State& row = StateRow(state->objectName());
        const QString parent =
            state->parentState() == machine ? QString() : state->parentState()->objectName();
        QCOMPARE(parent, row.parent);
        QStringList children;
        for (const State& child : States()) {
            if (child.parent == state->objectName())
                children << child.name;
        }
        QCOMPARE(Names(state), children);
        if (state->objectName() == "SUCCESS") {
            QVERIFY(qobject_cast<const QFinalState*>(state));
            continue;
        }
        const auto* composite = qobject_cast<const QState*>(state);
        QVERIFY2(composite, row.name);
        const QAbstractState* initial = composite->initialState();
        QCOMPARE(initial ? initial->objectName() : QString(), row.initialChild);
        QCOMPARE(composite->childMode(), QState::ExclusiveStates);
    }
}

void TestUpdaterStates::MachineHasTheTransitionsInTheirOrder()
{
    Journal journal;
    StepUpdater updater(journal);
    const QTimer* timer = kxtest::CheckTimerOf(updater);
    QStringList expected;
    QStringList found;
    for (const State& row : States()) {
        for (const Transition& transition : Transitions()) {
            if (transition.from != QLatin1String(row.name))
                continue;
            const QString signal = transition.on == "error" ? "error(int,QString)"
                                                            : transition.on + QStringLiteral("()");
            expected << QStringLiteral("%1 %2.%3 %4")
                            .arg(transition.from, transition.on == "timeout" ? "timer" : "updater",
                                 signal, transition.to);
        }
        const auto* state = qobject_cast<QState*>(kxtest::StateOf(updater, row.name));
        if (!state)
            continue;
        for (const QAbstractTransition* transition : state->transitions()) {
            const auto* bySignal = qobject_cast<const QSignalTransition*>(transition);
            QVERIFY2(bySignal, row.name);
            const QObject* sender = bySignal->senderObject();
            const QString who = sender == &updater ? "updater" : sender == timer ? "timer" : "?";
            QCOMPARE(transition->transitionType(), QAbstractTransition::ExternalTransition);
            found << QStringLiteral("%1 %2.%3 %4")
                         .arg(row.name, who, SignalName(bySignal->signal()),
                              transition->targetState()->objectName());
        }
    }
    QCOMPARE(found, expected);
}

void TestUpdaterStates::TransitionRunsExitsAndEntriesInOrder_data()
{
    QTest::addColumn<QString>("from");
    QTest::addColumn<QString>("on");
    QTest::addColumn<QString>("to");
    for (const Transition& transition : Transitions()) {
        for (const QString& name : AtomicStates()) {
            const bool holds = name == transition.from || StateRow(name).parent == transition.from;
            if (!holds)
                continue;
            QTest::addRow("%s on %s to %s", qPrintable(name), qPrintable(transition.on),
                          qPrintable(transition.to))
                << name << transition.on << transition.to;
        }
    }
}

void TestUpdaterStates::TransitionRunsExitsAndEntriesInOrder()
{
    QFETCH(QString, from);
    QFETCH(QString, on);
    QFETCH(QString, to);
    Journal journal;
    StepUpdater updater(journal);
    journal.Trace(&updater);
    QVERIFY(GoTo(updater, journal, from));

    journal.Clear();
    kxtest::Raise(updater, on);
    QCOMPARE(journal.Lines(), Raised(on) + StepLines(from, to));
    QCOMPARE(kxtest::MachineOf(updater)->isRunning(), to != "SUCCESS");

    QSet<QString> active;
    for (const QAbstractState* state : kxtest::MachineOf(updater)->configuration())
        active.insert(state->objectName());
    QSet<QString> expected{Innermost(to)};
    const QString parent = StateRow(Innermost(to)).parent;
    if (!parent.isEmpty())
        expected.insert(parent);
    QCOMPARE(active, expected);
}

void TestUpdaterStates::SignalWithoutTransitionDoesNothing_data()
{
    QTest::addColumn<QString>("from");
    for (const QString& name : AtomicStates())
        QTest::newRow(qPrintable(name)) << name;
}

void TestUpdaterStates::SignalWithoutTransitionDoesNothing()
{
    QFETCH(QString, from);
    Journal journal;
    StepUpdater updater(journal);
    journal.Trace(&updater);
    QVERIFY(GoTo(updater, journal, from));
    const auto configuration = kxtest::MachineOf(updater)->configuration();

    int tried = 0;
    for (const QString& trigger : Triggers()) {
        if (!Target(from, trigger).isEmpty())
            continue;
        journal.Clear();
        kxtest::Raise(updater, trigger);
        // What the machine puts off would show here.
        QCoreApplication::processEvents();
        QCOMPARE(journal.Lines(), Raised(trigger));
        QCOMPARE(kxtest::MachineOf(updater)->configuration(), configuration);
        ++tried;
    }
    QVERIFY(tried > 10);
}

void TestUpdaterStates::CommandLogsAndActsAsTheTableSays_data()
{
    QTest::addColumn<QString>("from");
    QTest::addColumn<QString>("command");
    for (const QString& name : AtomicStates()) {
        for (const char* command : {"Check", "Wait", "Download", "Install", "Cancel", "Finish"})
            QTest::addRow("%s in %s", command, qPrintable(name)) << name << command;
    }
}

void TestUpdaterStates::CommandLogsAndActsAsTheTableSays()
{
    QFETCH(QString, from);
    QFETCH(QString, command);
    Journal journal;
    StepUpdater updater(journal);
    journal.Trace(&updater);
    QVERIFY(GoTo(updater, journal, from));

    journal.Clear();
    updater::IUpdater* face = &updater;
    QVERIFY(QMetaObject::invokeMethod(face, qPrintable(command), Qt::DirectConnection));
    const QString to = Target(from, command.toLower());
    QStringList expected{
        QStringLiteral("7 %1: <<<--- %2").arg(from, command.toUpper()),
    };
    if (from == "SUCCESS" && command == "Cancel") {
        expected << "7 SUCCESS: Restarting state machine...";
        expected += EntryOf("WAITING");
    } else {
        expected << command.toLower() + QStringLiteral("()");
        if (!to.isEmpty())
            expected += StepLines(from, to);
    }
    // A restart goes through the event loop, a transition does not.
    QTRY_COMPARE_WITH_TIMEOUT(journal.Lines().size(), expected.size(), waitMs);
    QCOMPARE(journal.Lines(), expected);
    QCoreApplication::processEvents();
    QCOMPARE(journal.Lines(), expected);
}

void TestUpdaterStates::StartsWaitingOnceTheEventLoopRuns()
{
    Journal journal;
    StepUpdater updater(journal);
    journal.Trace(&updater);
    journal.Clear();
    updater.SetCurrentVersion("1");
    QCOMPARE(journal.Lines(), QStringList{"6 INITIALIZING: Setting current version '1'."});
    journal.Clear();
    QTRY_VERIFY_WITH_TIMEOUT(journal.Lines().contains("waiting()"), waitMs);
    QCOMPARE(journal.Lines(), EntryOf("WAITING"));
}

void TestUpdaterStates::CommandsBeforeTheEventLoopAreLost()
{
    Journal journal;
    StepUpdater updater(journal);
    journal.Trace(&updater);
    journal.Clear();
    updater.Check();
    updater.Install();
    updater.Download();
    updater.Finish();
    updater.Wait();
    const QStringList commands{
        "7 INITIALIZING: <<<--- CHECK",    "check()",
        "7 INITIALIZING: <<<--- INSTALL",  "install()",
        "7 INITIALIZING: <<<--- DOWNLOAD", "download()",
        "7 INITIALIZING: <<<--- FINISH",   "finish()",
        "7 INITIALIZING: <<<--- WAIT",     "wait()",
    };
    QCOMPARE(journal.Lines(), commands);
    QTRY_COMPARE_WITH_TIMEOUT(journal.State(), "WAITING", waitMs);
    QCoreApplication::processEvents();
    QCOMPARE(journal.Lines(), commands + EntryOf("WAITING"));
}

void TestUpdaterStates::CancelAfterSuccessRestarts()
{
    Journal journal;
    StepUpdater updater(journal);
    journal.Trace(&updater);
    QVERIFY(GoTo(updater, journal, "SUCCESS"));
    QCOMPARE(journal.Count("finished()"), 1);

    journal.Clear();
    updater.Cancel();
    QTRY_COMPARE_WITH_TIMEOUT(journal.State(), "WAITING", waitMs);
    QCoreApplication::processEvents();
    QCOMPARE(journal.Lines(),
             (QStringList{"7 SUCCESS: <<<--- CANCEL", "7 SUCCESS: Restarting state machine..."} +
              EntryOf("WAITING")));
    QVERIFY(kxtest::CheckTimerOf(updater)->isActive());
}

void TestUpdaterStates::CancelTwiceRestartsOnce_data()
{
    QTest::addColumn<bool>("stopped");
    QTest::newRow("after SUCCESS") << true;
    QTest::newRow("before the event loop runs") << false;
}

void TestUpdaterStates::CancelTwiceRestartsOnce()
{
    QFETCH(bool, stopped);
    QTest::failOnWarning(QRegularExpression("."));
    Journal journal;
    StepUpdater updater(journal);
    journal.Trace(&updater);
    if (stopped)
        QVERIFY(GoTo(updater, journal, "SUCCESS"));
    journal.Clear();
    updater.Cancel();
    updater.Cancel();
    QTRY_COMPARE_WITH_TIMEOUT(journal.State(), "WAITING", waitMs);
    kxtest::PassTimersOf(0);
    QCOMPARE(journal.States(), QStringList{"WAITING"});
    QCOMPARE(journal.Count("waiting()"), 1);
}

void TestUpdaterStates::StoppedMachineIgnoresEverythingButCancel()
{
    Journal journal;
    StepUpdater updater(journal);
    journal.Trace(&updater);
    QVERIFY(GoTo(updater, journal, "SUCCESS"));
    journal.Clear();
    for (const QString& trigger : Triggers()) {
        if (trigger != "cancel")
            kxtest::Raise(updater, trigger);
    }
    QCoreApplication::processEvents();
    QCOMPARE(journal.States(), QStringList{});
    QVERIFY(!kxtest::MachineOf(updater)->isRunning());
}

void TestUpdaterStates::RestartedMachineChecksAgain()
{
    Journal journal;
    StepUpdater updater(journal);
    journal.Trace(&updater);
    QVERIFY(GoTo(updater, journal, "SUCCESS"));
    for (int round = 0; round < 3; ++round) {
        updater.Cancel();
        QTRY_COMPARE_WITH_TIMEOUT(journal.State(), "WAITING", waitMs);
        journal.Clear();
        for (const QString& signal : kxtest::WayTo("SUCCESS"))
            kxtest::Raise(updater, signal);
        QCOMPARE(journal.States(), (QStringList{"CHECKING", "QUERYING", "SCANNING", "AVAILABLE",
                                                "PREPARING", "COPYING", "DOWNLOADING",
                                                "CREATINGSYMLINKS", "VERIFICATION", "SUCCESS"}));
        QCOMPARE(journal.Count("finished()"), 1);
    }
}

void TestUpdaterStates::CommandsInsideSignalsAct()
{
    Journal journal;
    StepUpdater updater(journal);
    journal.Trace(&updater);
    journal.SetHook([&](const QString& line) {
        if (line == "waiting()")
            updater.Check();
        else if (line == "stateChanged(QUERYING)")
            updater.Cancel();
    });
    QTRY_COMPARE_WITH_TIMEOUT(journal.State(), "CANCELED", waitMs);
    QCOMPARE(journal.States(), (QStringList{"WAITING", "CHECKING", "QUERYING", "CANCELED"}));
}

void TestUpdaterStates::SetterLogsAndGetterAnswers_data()
{
    QTest::addColumn<QString>("setter");
    QTest::addColumn<QString>("value");
    QTest::addColumn<QString>("text");
    QTest::newRow("URL") << "SetURL"
                         << "http://host/base"
                         << "Setting URL 'http://host/base'.";
    QTest::newRow("empty URL") << "SetURL"
                               << ""
                               << "Setting URL ''.";
    QTest::newRow("package name") << "SetPackageName"
                                  << "demo app"
                                  << "Setting package name to 'demo app'.";
    QTest::newRow("version") << "SetCurrentVersion"
                             << "1.0-%1"
                             << "Setting current version '1.0-%1'.";
    QTest::newRow("download path") << "SetDownloadPath"
                                   << "/tmp/ä b"
                                   << "Setting download path '/tmp/ä b'.";
    QTest::newRow("local package path") << "SetLocalPackagePath"
                                        << "/opt/x/"
                                        << "Setting local package path to '/opt/x/'.";
}

void TestUpdaterStates::SetterLogsAndGetterAnswers()
{
    QFETCH(QString, setter);
    QFETCH(QString, value);
    QFETCH(QString, text);
    QNetworkAccessManager manager;
    kxtest::LogCapture log;
    updater::Updater updater(&manager, nullptr);
    log.Clear();
    QString answer;
    if (setter == "SetURL") {
        updater.SetURL(value);
        answer = updater.URL();
    } else if (setter == "SetPackageName") {
        updater.SetPackageName(value);
        answer = updater.PackageName();
    } else if (setter == "SetCurrentVersion") {
        updater.SetCurrentVersion(value);
        answer = updater.CurrentVersion();
    } else if (setter == "SetDownloadPath") {
        updater.SetDownloadPath(value);
        answer = updater.DownloadPath();
    } else {
        updater.SetLocalPackagePath(value);
        answer = updater.LocalPackagePath();
    }
    QCOMPARE(answer, value);
    QCOMPARE(log.Lines("updater.core"), QStringList{"6 INITIALIZING: " + text});
    const kxtest::LogRecord record = log.Last();
    QCOMPARE(record.function, "updater::Updater::" + setter);
    QVERIFY2(record.file.endsWith("/updater.cpp"), qPrintable(record.file));
    QVERIFY(record.line > 0);
}

void TestUpdaterStates::CallbackIsLoggedInHexadecimal()
{
    struct : updater::AppCallbackFunction
    {
        int Call(const QString&, const QString&) override { return 0; }
    } callback;
    Journal journal;
    updater::Updater updater(nullptr, nullptr);
    QCOMPARE(updater.AppCallback(), nullptr);
    journal.Clear();
    updater.SetAppCallback(&callback);
    QCOMPARE(updater.AppCallback(), &callback);
    updater.SetAppCallback(nullptr);
    QCOMPARE(updater.AppCallback(), nullptr);
    const QString address =
        QString::number(quintptr(static_cast<AppCallbackFunction*>(&callback)), 16);
    QCOMPARE(journal.Lines(),
             (QStringList{"6 INITIALIZING: Setting application callback to '0x" + address + "'.",
                          "6 INITIALIZING: Setting application callback to '0x0'."}));
}

void TestUpdaterStates::ConstructorLogsTheDefaultInterval()
{
    Journal journal;
    QObject parent;
    QNetworkAccessManager manager;
    auto* updater = new updater::Updater(&manager, &parent);
    QCOMPARE(journal.Lines(), QStringList{"6 INITIALIZING: Setting check interval '2592000'."});
    QCOMPARE(updater->parent(), &parent);
    QCOMPARE(updater->CheckInterval(), 2592000);
    QCOMPARE(kxtest::CheckTimerOf(*updater)->interval(), 2147483647);
    QCOMPARE(updater->URL(), "");
    QCOMPARE(updater->PackageName(), "");
    QCOMPARE(updater->ServerVersion(), "");
    QCOMPARE(updater->PackageXML(), "");
    QCOMPARE(updater->DownloadPath(), "");
    QCOMPARE(updater->LocalPackagePath(), "");
    QCOMPARE(updater->CurrentVersion(), "");
    QVERIFY(!updater->IsActual());
}

void TestUpdaterStates::WithoutPackageConstructorLogsIt()
{
    kxtest::LogCapture log;
    const auto failure = kxtest::AllocationFailure::Of<updater::Package>();
    updater::Updater updater(nullptr, nullptr);
    QCOMPARE(failure.Failures(), 1);
    QCOMPARE(log.Lines("updater.core"),
             (QStringList{"2 INITIALIZING: Failed to create package!",
                          "6 INITIALIZING: Setting check interval '2592000'."}));
    QCOMPARE(log.Records().first().function, "updater::Updater::CreatePackage");
    QVERIFY(!kxtest::PackageOf(updater));
}

void TestUpdaterStates::WithoutPackageSettersFailAndGettersAreEmpty()
{
    Journal journal;
    auto failure = kxtest::AllocationFailure::Of<updater::Package>();
    updater::Updater updater(nullptr, nullptr);
    failure.Disarm();
    journal.Trace(&updater);
    journal.Clear();
    updater.SetURL("http://host");
    updater.SetPackageName("demo");
    updater.SetCurrentVersion("1.0");
    updater.SetDownloadPath("/tmp/next");
    QCOMPARE(journal.Lines(), (QStringList{
                                  "2 INITIALIZING: Failed to set URL!",
                                  "2 INITIALIZING: Failed to set package name!",
                                  "6 INITIALIZING: Setting current version '1.0'.",
                                  "6 INITIALIZING: Setting download path '/tmp/next'.",
                              }));
    QCOMPARE(updater.URL(), "");
    QCOMPARE(updater.PackageName(), "");
    QCOMPARE(updater.ServerVersion(), "");
    QCOMPARE(updater.PackageXML(), "");
    QCOMPARE(updater.ExecutablePath(), "");
    QCOMPARE(updater.CurrentVersion(), "1.0");
}

void TestUpdaterStates::CheckIntervalSetsTheTimer_data()
{
    QTest::addColumn<int>("seconds");
    QTest::addColumn<int>("milliseconds");
    QTest::newRow("at once") << 0 << 0;
    QTest::newRow("a second") << 1 << 1000;
    QTest::newRow("a minute") << 60 << 60000;
    QTest::newRow("the last below the cap") << 2147483 << 2147483000;
    QTest::newRow("the first above the cap") << 2147484 << 2147483647;
    QTest::newRow("the default") << 2592000 << 2147483647;
    QTest::newRow("above the cap") << 3000000 << 2147483647;
    QTest::newRow("the longest") << std::numeric_limits<int>::max() << 2147483647;
}

void TestUpdaterStates::CheckIntervalSetsTheTimer()
{
    QFETCH(int, seconds);
    QFETCH(int, milliseconds);
    Journal journal;
    updater::Updater updater(nullptr, nullptr);
    const QTimer* timer = kxtest::CheckTimerOf(updater);
    journal.Clear();
    updater.SetCheckInterval(seconds);
    QCOMPARE(timer->interval(), milliseconds);
    QVERIFY(timer->isSingleShot());
    QCOMPARE(updater.CheckInterval(), seconds);
    QCOMPARE(
        journal.Lines(),
        QStringList{QStringLiteral("6 INITIALIZING: Setting check interval '%1'.").arg(seconds)});
}

void TestUpdaterStates::CheckTimerRunsInWaitingOnly()
{
    Journal journal;
    StepUpdater updater(journal);
    const QTimer* timer = kxtest::CheckTimerOf(updater);
    QList<bool> running;
    journal.Trace(&updater);
    journal.SetHook([&](const QString& line) {
        if (line == "waiting()")
            running << timer->isActive();
    });
    QVERIFY(!timer->isActive());
    QTRY_COMPARE_WITH_TIMEOUT(journal.State(), "WAITING", waitMs);
    QVERIFY(timer->isActive());
    for (const QString& away : QStringList{"cancel", "check", "install"}) {
        kxtest::Raise(updater, away);
        QVERIFY2(!timer->isActive(), qPrintable(away));
        kxtest::Raise(updater, away == "check" ? "error" : "wait");
        kxtest::Raise(updater, "wait");
        QCOMPARE(journal.State(), "WAITING");
        QVERIFY2(timer->isActive(), qPrintable(away));
    }
    // waiting() is raised before the timer starts.
    QCOMPARE(running, (QList<bool>{false, false, false, false}));
}

void TestUpdaterStates::CheckTimerStartsACheck()
{
    Journal journal;
    StepUpdater updater(journal);
    updater.SetCheckInterval(0);
    journal.Trace(&updater);
    journal.Clear();
    QTRY_COMPARE_WITH_TIMEOUT(journal.State(), "QUERYING", waitMs);
    QCOMPARE(journal.Lines(), EntryOf("WAITING") + StepLines("WAITING", "CHECKING"));
    // Once per entry.
    updater.SetCheckInterval(3600);
    updater.Wait();
    QCoreApplication::processEvents();
    QCOMPARE(journal.State(), "WAITING");
}

void TestUpdaterStates::NegativeCheckIntervalStartsNoCheck_data()
{
    QTest::addColumn<int>("seconds");
    QTest::newRow("-1") << -1;
    QTest::newRow("milliseconds beyond int") << -3000000;
    QTest::newRow("the lowest") << std::numeric_limits<int>::min();
}

void TestUpdaterStates::NegativeCheckIntervalStartsNoCheck()
{
    QFETCH(int, seconds);
    Journal journal;
    StepUpdater updater(journal);
    updater.SetCheckInterval(seconds);
    journal.Trace(&updater);
    QTRY_VERIFY_WITH_TIMEOUT(journal.Contains("waiting()"), waitMs);
    QCOMPARE(updater.CheckInterval(), seconds);
    // A timer refuses to run with a negative interval, but still calls itself active.
    const QTimer* timer = kxtest::CheckTimerOf(updater);
    QVERIFY(!timer->isActive() || timer->interval() < 0);
    kxtest::PassTimersOf(0);
    QCOMPARE(journal.State(), "WAITING");
}

void TestUpdaterStates::UrlIsCut_data()
{
    QTest::addColumn<QString>("set");
    QTest::addColumn<QString>("got");
    QTest::newRow("plain") << "http://host"
                           << "http://host";
    QTest::newRow("path") << "https://host:8080/a/b"
                          << "https://host:8080/a/b";
    QTest::newRow("separator at the end") << "http://host/"
                                          << "http://host/";
    QTest::newRow("ends like the suffix") << "http://host/packages"
                                          << "http://host/packages";
    QTest::newRow("query") << "http://host/a?b=c"
                           << "http://host/a";
    QTest::newRow("empty") << ""
                           << "";
}

void TestUpdaterStates::UrlIsCut()
{
    QFETCH(QString, set);
    QFETCH(QString, got);
    QNetworkAccessManager manager;
    updater::Updater updater(&manager, nullptr);
    updater.SetURL(set);
    QCOMPARE(updater.URL(), got);
}

void TestUpdaterStates::ExecutablePathIsClean_data()
{
    QTest::addColumn<QString>("directory");
    QTest::addColumn<QString>("executable");
    QTest::addColumn<QString>("path");
    QTest::newRow("plain") << "/tmp/next"
                           << "app"
                           << "/tmp/next/app";
    QTest::newRow("in a directory") << "/tmp/next"
                                    << "bin/app"
                                    << "/tmp/next/bin/app";
    QTest::newRow("unclean directory") << "/tmp//x/../next/"
                                       << "app"
                                       << "/tmp/next/app";
    QTest::newRow("unclean name") << "/tmp/next"
                                  << "./bin//app"
                                  << "/tmp/next/bin/app";
    QTest::newRow("no name") << "/tmp/next"
                             << ""
                             << "/tmp/next";
    QTest::newRow("no directory") << ""
                                  << "app"
                                  << "/app";
    QTest::newRow("relative directory") << "next"
                                        << "app"
                                        << "next/app";
}

void TestUpdaterStates::ExecutablePathIsClean()
{
    QFETCH(QString, directory);
    QFETCH(QString, executable);
    QFETCH(QString, path);
    updater::Updater updater(nullptr, nullptr);
    updater.SetPackageName("demo");
    updater.SetDownloadPath(directory);
    kxtest::PackageOf(updater)->SetPackageXML(
        kxtest::ManifestFor("demo", "http://host/files", executable, {}));
    QCOMPARE(updater.ExecutablePath(), path);
}

void TestUpdaterStates::BackupPathIsASibling_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("backup");
    QTest::newRow("plain") << "/opt/app"
                           << "/opt/app.old";
    QTest::newRow("separator at the end") << "/opt/app/"
                                          << "/opt/app.old";
    QTest::newRow("separators at the end") << "/opt/app///"
                                           << "/opt/app.old";
    QTest::newRow("blank and dot") << "/opt/my app.d"
                                   << "/opt/my app.d.old";
    QTest::newRow("relative") << "app/"
                              << "app.old";
    QTest::newRow("empty") << ""
                           << ".old";
    QTest::newRow("root") << "/"
                          << "/.old";
    QTest::newRow("root, twice") << "//"
                                 << "//.old";
}

void TestUpdaterStates::BackupPathIsASibling()
{
    QFETCH(QString, path);
    QFETCH(QString, backup);
    updater::Updater updater(nullptr, nullptr);
    updater.SetLocalPackagePath(path);
    QCOMPARE(updater.BackupPath(), backup);
    QCOMPARE(updater.LocalPackagePath(), path);
}

void TestUpdaterStates::DestructionIsLogged_data()
{
    QTest::addColumn<QString>("state");
    for (const QString& name : QStringList{"INITIALIZING"} + AtomicStates())
        QTest::newRow(qPrintable(name)) << name;
}

void TestUpdaterStates::DestructionIsLogged()
{
    QFETCH(QString, state);
    Journal journal;
    kxtest::LogCapture log;
    auto updater = std::make_unique<StepUpdater>(journal);
    journal.Trace(updater.get());
    if (state != "INITIALIZING")
        QVERIFY(GoTo(*updater, journal, state));
    log.Clear();
    journal.Clear();
    updater.reset();
    QCOMPARE(log.Lines("updater.core"), QStringList{"7 " + state + ": destroyed!"});
    QCOMPARE(log.Records().first().function, "updater::Updater::~Updater");
    // No signal leaves it.
    QCOMPARE(journal.Lines(), QStringList{});
}

void TestUpdaterStates::LeavingTheRestClearsActual_data()
{
    QTest::addColumn<QString>("signal");
    for (const char* name : {"waiting", "checking", "prepairing", "installing"})
        QTest::newRow(name) << name;
    QTest::newRow("the slot itself") << "";
}

void TestUpdaterStates::LeavingTheRestClearsActual()
{
    QFETCH(QString, signal);
    Journal journal;
    kxtest::TreeBuilder local;
    local.File("a", "a");
    StepUpdater updater(journal);
    journal.Trace(&updater);
    updater.SetLive({"OnScanningStateEnter"});
    updater.SetPackageName("demo");
    updater.SetLocalPackagePath(local.Root());
    kxtest::PackageOf(updater)->SetPackageXML(kxtest::ManifestFor(
        "demo", "http://host/files", {}, kxtest::ScanForManifest(local.Root())));
    QVERIFY(GoTo(updater, journal, "SCANNING"));
    QTRY_COMPARE_WITH_TIMEOUT(journal.State(), "ACTUAL", waitMs);
    QVERIFY(updater.IsActual());

    journal.Clear();
    QStringList expected{"7 ACTUAL: Invalidating actual sign."};
    if (signal.isEmpty()) {
        updater.OnInvalidateActual();
    } else {
        kxtest::Raise(updater, signal);
        expected << signal + "()";
    }
    QVERIFY(!updater.IsActual());
    QCOMPARE(journal.Lines(), expected);
}

void TestUpdaterStates::ProgressFollowsTheWeights_data()
{
    QTest::addColumn<QString>("state");
    QTest::addColumn<int>("copies");
    QTest::addColumn<int>("downloads");
    QTest::addColumn<int>("current");
    QTest::addColumn<int>("total");
    QTest::addColumn<int>("done");
    QTest::addColumn<int>("overall");
    struct Row
    {
        const char* state;
        int copies;
        int downloads;
        int current;
        int total;
        int done;
        int overall;
    };
    const Row rows[] = {
        {"COPYING", 2, 2, 0, 10, 0, 0},
        {"COPYING", 2, 2, 5, 10, 50, 25},
        {"COPYING", 2, 2, 10, 10, 100, 50},
        {"COPYING", 1, 2, 1, 1, 100, 33},
        {"COPYING", 1, 2, 1, 3, 33, 11},
        {"COPYING", 3, 0, 2, 3, 66, 66},
        {"COPYING", 0, 0, 1, 1, 100, 0},
        {"DOWNLOADING", 2, 2, 0, 10, 0, 50},
        {"DOWNLOADING", 2, 2, 5, 10, 50, 75},
        {"DOWNLOADING", 2, 2, 10, 10, 100, 100},
        {"DOWNLOADING", 1, 2, 0, 2, 0, 33},
        {"DOWNLOADING", 1, 2, 1, 2, 50, 66},
        {"DOWNLOADING", 1, 2, 2, 2, 100, 100},
        {"DOWNLOADING", 0, 3, 1, 3, 33, 33},
        {"DOWNLOADING", 0, 0, 1, 1, 100, 0},
        {"CREATINGSYMLINKS", 2, 2, 0, 1, 0, 100},
        {"CREATINGSYMLINKS", 2, 2, 1, 1, 100, 100},
        {"VERIFICATION", 2, 2, 1, 1, 100, 0},
        {"BACKUPREMOVING", 2, 2, 0, 10, 0, 0},
        {"BACKUPREMOVING", 2, 2, 5, 10, 50, 2},
        {"BACKUPREMOVING", 2, 2, 10, 10, 100, 5},
        {"BACKUPING", 2, 2, 0, 10, 0, 5},
        {"BACKUPING", 2, 2, 10, 10, 100, 10},
        {"MOVING", 2, 2, 0, 10, 0, 10},
        {"MOVING", 2, 2, 5, 10, 50, 45},
        {"MOVING", 2, 2, 10, 10, 100, 80},
        {"BACKUPCLEARING", 2, 2, 0, 10, 0, 80},
        {"BACKUPCLEARING", 2, 2, 5, 10, 50, 90},
        {"BACKUPCLEARING", 2, 2, 10, 10, 100, 100},
        {"REVERTING", 2, 2, 0, 10, 0, 80},
        {"REVERTING", 2, 2, 5, 10, 50, 85},
        {"REVERTING", 2, 2, 10, 10, 100, 90},
        {"RESTORING", 2, 2, 0, 10, 0, 90},
        {"RESTORING", 2, 2, 10, 10, 100, 100},
        {"MOVING", 2, 2, 0, 0, 0, 10},
        {"MOVING", 2, 2, 1, 0, 100, 80},
        {"MOVING", 2, 2, 2147483647, 2147483647, 100, 80},
        {"WAITING", 2, 2, 1, 1, 100, 0},
        {"QUERYING", 2, 2, 1, 1, 100, 0},
        {"APPCALLBACK", 2, 2, 1, 1, 100, 0},
        {"FAILED", 2, 2, 1, 1, 100, 0},
    };
    for (const Row& row : rows) {
        QTest::addRow("%s with %d to copy and %d to download at %d of %d", row.state, row.copies,
                      row.downloads, row.current, row.total)
            << row.state << row.copies << row.downloads << row.current << row.total << row.done
            << row.overall;
    }
}

void TestUpdaterStates::ProgressFollowsTheWeights()
{
    QFETCH(QString, state);
    QFETCH(int, copies);
    QFETCH(int, downloads);
    QFETCH(int, current);
    QFETCH(int, total);
    QFETCH(int, done);
    QFETCH(int, overall);

    // A real plan: the counters have no other way in.
    kxtest::TreeBuilder local;
    for (int i = 0; i < copies; ++i)
        local.File(QStringLiteral("copy%1").arg(i), "same");
    updater::FileList files = kxtest::ScanForManifest(local.Root());
    for (int i = 0; i < downloads; ++i) {
        files << updater::File(QStringLiteral("new%1").arg(i), kxtest::MD5Of("new"), 3, {}, {});
    }
    files << updater::File("link", kxtest::MD5Of("copy0"), 5, {}, "copy0");

    Journal journal;
    StepUpdater updater(journal);
    journal.Trace(&updater);
    updater.SetLive({"OnScanningStateEnter", "OnPreparingStateEnter"});
    updater.SetPackageName("demo");
    updater.SetLocalPackagePath(local.Root());
    kxtest::PackageOf(updater)->SetPackageXML(
        kxtest::ManifestFor("demo", "http://host/files", {}, files));
    QVERIFY(GoTo(updater, journal, "SCANNING"));
    QTRY_COMPARE_WITH_TIMEOUT(journal.State(), "AVAILABLE", waitMs);
    updater.SetLive({"OnPreparingStateEnter"});
    kxtest::Raise(updater, "download");
    QCOMPARE(journal.State(), "COPYING");
    QVERIFY(journal.Contains(
        QStringLiteral("6 PREPARING: %1 will be copied from local package.").arg(copies)));
    QVERIFY(journal.Contains(
        QStringLiteral("6 PREPARING: %1 will be downloaded from server.").arg(downloads)));
    const QStringList way = kxtest::WayTo(state);
    const qsizetype there = way.indexOf("download");
    if (there < 0)
        kxtest::Raise(updater, "wait");
    for (const QString& signal : way.mid(there + 1))
        kxtest::Raise(updater, signal);
    QCOMPARE(journal.State(), state);

    journal.Clear();
    updater.OnProgress(current, total);
    QCOMPARE(journal.Lines(), (QStringList{QStringLiteral("7 %1:  done: %2%,  Total done: %3%...")
                                               .arg(state)
                                               .arg(done)
                                               .arg(overall),
                                           QStringLiteral("progress(%1)").arg(overall)}));
}

QTEST_GUILESS_MAIN(TestUpdaterStates)
#include "tst_updater_states.moc"
