#pragma once

#include "options.h"
#include "updaterhost.h"

#include <QObject>

#include <memory>

namespace tools {
class Console;
}

class Session;

/**
 * Runs a command again and again: at once, and then each time the updater's own timer begins a
 * check. Every round is a session with locks and a result of its own; between rounds the updater
 * waits, and other processes may work on the directories. Ends when it is interrupted, when the
 * first round finds directories that cannot be used, and when a swap leaves an application that
 * needs attention.
 */
class Watch : public QObject
{
    Q_OBJECT
public:
    /** The console is not owned. */
    Watch(const Options& options, tools::Console& console, QObject* parent = nullptr);
    ~Watch() override;

    void Start();

public Q_SLOTS:
    /** Ends the watch; a swap that has begun is finished first. */
    void Interrupt();

Q_SIGNALS:
    /** The watch has ended with an ExitStatus. */
    void done(int status);

private Q_SLOTS:
    void OnChecking();
    void OnStateChanged(const QString& name);
    void OnRoundDone(int status);

private:
    Q_DISABLE_COPY(Watch)

    void BeginRound();
    void ReadVersion();
    void AwaitNextRound();
    void End(int status);

    Options options; // `current` follows what is installed
    tools::Console& console;
    UpdaterHost host;
    updater::IUpdater* const updater; // the host's
    std::unique_ptr<Session> session; // while a round runs
    QString stateName;
    bool hasBegun = false; // one round is over
    bool ending = false;
};
