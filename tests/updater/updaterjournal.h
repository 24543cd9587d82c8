#pragma once

#include <kxcommon/logger.h>

#include <QMutex>
#include <QObject>
#include <QPair>
#include <QString>
#include <QStringList>

#include <functional>
#include <memory>

QT_BEGIN_NAMESPACE
class QAbstractState;
class QStateMachine;
class QTimer;
QT_END_NAMESPACE

namespace updater {
class Package;
class Updater;
} // namespace updater

namespace kxtest {

class SignalTrace;

/**
 * One list of all that an updater does, in its order: the log lines of some categories and every
 * signal. A line of "updater.core" stands as "LEVEL TEXT", one of "updater.version" as "version
 * LEVEL TEXT", a signal as "name(arguments)". It is the process's logger for as long as it lives.
 */
class Journal : public common::logger::ILogger
{
public:
    explicit Journal(const QStringList& categories = {QStringLiteral("updater.core")});
    ~Journal() override;

    /** Records every signal of `object`; before any other connection, so that a signal stands
     *  before all that it causes. One object at a time. */
    void Trace(QObject* object);
    /** The state whose stateChanged() came last; empty before the first. */
    QString State() const { return state; }
    /** Runs `hook` with each signal's line, inside the emit, after it was recorded. */
    void SetHook(std::function<void(const QString& line)> function) { hook = std::move(function); }
    /** The same for each log line, inside the logging statement: to be used with care. */
    void SetLogHook(std::function<void(const QString& line)> function)
    {
        logHook = std::move(function);
    }
    /** Replaces `text` by `mask` in everything recorded from now on; the earliest mask first. */
    void Mask(const QString& text, const QString& mask);

    void Add(const QString& line);
    void Log(const common::logger::IMessage& message) override;

    QStringList Lines() const;
    /** Lines() with what differs from run to run made alike: of a run of progress reports only the
     *  last remains, and the names in a list of differences are sorted. */
    QStringList Steady() const;
    /** The arguments of stateChanged(), from the first or the last Clear() on. */
    QStringList States() const;
    bool Contains(const QString& line) const { return Count(line) > 0; }
    int Count(const QString& line) const { return int(Lines().count(line)); }
    /** Lines that begin with `prefix`. */
    QStringList Beginning(const QString& prefix) const;
    void Clear();

private:
    Q_DISABLE_COPY(Journal)

    const QStringList categories;
    common::logger::ILogger* previous;
    std::unique_ptr<SignalTrace> trace;
    std::function<void(const QString& line)> hook;
    std::function<void(const QString& line)> logHook; // set before threads log
    QString state;
    mutable QMutex mutex;
    QStringList lines;                    // guarded by mutex
    QList<QPair<QString, QString>> masks; // guarded by mutex
};

/** What entering `state` leaves in the journal when its work adds nothing. AVAILABLE announces
 *  itself after its work: "available()" is not included. */
QStringList Entered(const QString& state);
/** What leaving `states`, innermost first, leaves in the journal. */
QStringList Exited(const QStringList& states);

QStateMachine* MachineOf(const updater::Updater& updater);
/** The state of that name; ends the test program when there is none. */
QAbstractState* StateOf(const updater::Updater& updater, const QString& name);
/** The timer of the automatic check: what WAITING's transition listens to. */
const QTimer* CheckTimerOf(const updater::Updater& updater);
/** Null when it could not be created. */
updater::Package* PackageOf(const updater::Updater& updater);

} // namespace kxtest
