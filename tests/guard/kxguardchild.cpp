// Another process for the tests of locks, recovery and guarded installs: one that holds a lock, one
// that is killed at a chosen moment.
//
//     kxguardchild idle                    waits for the end of its input
//     kxguardchild lock PATH WAITMS        takes a lock; then obeys "release", "take" and "spawn"
//     kxguardchild race PATH DIR ROUNDS    takes and releases, and counts in DIR
//     kxguardchild owner PATH              prints who has a lock
//     kxguardchild recover APP WAITMS [STEP]
//     kxguardchild install [--die-at STATE] [--die-first] [--die-after STATE STEP] [--revert]
//                          [--not-running] APP NEXT XML
//
// STEP kills it at that step of a copy or removal, counted from 1. --die-first does so before the
// guard has heard of the state. --revert makes the copy of MOVING fail.

#include "fileops.h"

#include <kxguard/filelock.h>
#include <kxguard/installguard.h>
#include <kxguard/recover.h>
#include <kxupdater/iupdater.h>

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QNetworkAccessManager>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <iostream>
#include <string>

#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

std::atomic<int> stepsLeft{0};

void Die()
{
    ::kill(::getpid(), SIGKILL);
}

int DieAtStep(common::fileops::Step)
{
    if (stepsLeft > 0 && --stepsLeft == 0)
        Die();
    return 0;
}

void DieAfterSteps(int steps)
{
    stepsLeft = steps;
    common::fileops::stepHook = DieAtStep;
}

void Say(const QString& text)
{
    std::printf("%s\n", qPrintable(text));
    std::fflush(stdout);
}

void Take(guard::FileLock& lock, int waitMs)
{
    switch (lock.Take(waitMs)) {
    case guard::FileLock::Result::Taken:
        return Say(QStringLiteral("taken"));
    case guard::FileLock::Result::Busy:
        return Say(QStringLiteral("busy ") + lock.Reason());
    case guard::FileLock::Result::Failed:
        return Say(QStringLiteral("failed ") + lock.Reason());
    }
}

/** A program that this one starts and leaves alone. */
void Spawn(const QString& self)
{
    int ready[2];
    if (::pipe2(ready, O_CLOEXEC) != 0)
        return;
    const pid_t process = ::fork();
    if (process == 0) {
        // Input that does not end with its parent's, and an output that nobody waits for.
        int never[2];
        const int nowhere = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
        if (nowhere < 0 || ::pipe(never) != 0)
            ::_exit(126);
        ::dup2(never[0], STDIN_FILENO);
        ::dup2(nowhere, STDOUT_FILENO);
        ::dup2(nowhere, STDERR_FILENO);
        ::execl(qPrintable(self), qPrintable(self), "idle", nullptr);
        ::_exit(127);
    }
    // The end of the pipe comes when the other program runs.
    ::close(ready[1]);
    char byte = 0;
    while (::read(ready[0], &byte, 1) > 0) {
    }
    ::close(ready[0]);
    Say(QStringLiteral("spawned %1").arg(process));
}

int Lock(const QString& self, const QString& path, int waitMs)
{
    guard::FileLock lock(path);
    Say(QStringLiteral("trying"));
    Take(lock, waitMs);
    std::string line;
    while (std::getline(std::cin, line)) {
        if (line == "release") {
            lock.Release();
            Say(QStringLiteral("released"));
        } else if (line == "take") {
            Take(lock, 0);
        } else if (line == "spawn") {
            Spawn(self);
        }
    }
    return 0;
}

/** Two files that only the owner of the lock touches: a mark of its presence, and a count. */
bool CountOnce(const QString& directory)
{
    const QByteArray mark = QFile::encodeName(directory + QStringLiteral("/inside"));
    const int presence = ::open(mark.constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (presence < 0)
        return false;
    ::close(presence);
    QFile counter(directory + QStringLiteral("/count"));
    int count = 0;
    if (counter.open(QIODevice::ReadOnly)) {
        count = counter.readAll().toInt();
        counter.close();
    }
    ::sched_yield();
    const bool isWritten = counter.open(QIODevice::WriteOnly | QIODevice::Truncate) &&
                           counter.write(QByteArray::number(count + 1)) > 0;
    counter.close();
    return ::unlink(mark.constData()) == 0 && isWritten;
}

int Race(const QString& path, const QString& directory, int rounds)
{
    guard::FileLock lock(path);
    for (int done = 0; done < rounds;) {
        const guard::FileLock::Result result = lock.Take();
        if (result == guard::FileLock::Result::Failed) {
            Say(QStringLiteral("failed ") + lock.Reason());
            return 1;
        }
        if (result == guard::FileLock::Result::Busy) {
            ::sched_yield();
            continue;
        }
        if (!CountOnce(directory)) {
            Say(QStringLiteral("two owners"));
            return 1;
        }
        lock.Release();
        ++done;
    }
    return 0;
}

int Recover(const QStringList& arguments)
{
    if (arguments.size() > 2)
        DieAfterSteps(arguments[2].toInt());
    const guard::Recovery recovery = guard::Recover(arguments.value(0), arguments.value(1).toInt());
    Say(QStringLiteral("%1 %2").arg(int(recovery.state)).arg(recovery.text));
    return 0;
}

int Install(QStringList arguments)
{
    QString dieAt;
    QString dieAfter;
    int step = 0;
    bool isFirst = false;
    bool reverts = false;
    bool refusesRunning = false;
    while (arguments.value(0).startsWith(QLatin1String("--"))) {
        const QString option = arguments.takeFirst();
        if (option == QLatin1String("--die-at"))
            dieAt = arguments.takeFirst();
        else if (option == QLatin1String("--die-first"))
            isFirst = true;
        else if (option == QLatin1String("--revert"))
            reverts = true;
        else if (option == QLatin1String("--not-running"))
            refusesRunning = true;
        else if (option == QLatin1String("--die-after")) {
            dieAfter = arguments.takeFirst();
            step = arguments.takeFirst().toInt();
        }
    }
    QFile xml(arguments.value(2));
    if (!xml.open(QIODevice::ReadOnly))
        return 3;

    QNetworkAccessManager manager;
    updater::IUpdater* updater = updater::CreateUpdater(&manager, QCoreApplication::instance());
    updater->SetLocalPackagePath(arguments.value(0));
    updater->SetDownloadPath(arguments.value(1));
    updater->SetPackageName(QStringLiteral("demo"));
    const auto listen = [&] {
        QObject::connect(updater, &updater::IUpdater::stateChanged, [&](const QString& state) {
            if (state == dieAt)
                Die();
            if (state == dieAfter)
                DieAfterSteps(step);
            // Copying a special file fails.
            if (reverts && state == QLatin1String("MOVING"))
                ::mkfifo(qPrintable(arguments.value(1) + QStringLiteral("/fifo")), 0600);
        });
    };
    if (isFirst)
        listen();
    guard::InstallGuard guard(updater);
    if (!isFirst)
        listen();
    guard.SetPackageXML(QString::fromUtf8(xml.readAll()));
    guard.SetRunningProgramRefused(refusesRunning);
    QObject::connect(updater, &updater::IUpdater::error, [&](int code, const QString& text) {
        Say(QStringLiteral("error %1 %2").arg(code).arg(text));
        if (guard.LastErrorCode() != 0)
            Say(QStringLiteral("guard %1 %2").arg(guard.LastErrorCode()).arg(guard.LastError()));
    });
    QObject::connect(updater, &updater::IUpdater::waiting, updater, &updater::IUpdater::Install);
    QObject::connect(updater, &updater::IUpdater::finished, [] {
        Say(QStringLiteral("finished"));
        QCoreApplication::exit(0);
    });
    // Queued: the guard acts on the same signal.
    QObject::connect(
        updater, &updater::IUpdater::failed, QCoreApplication::instance(),
        [] { QCoreApplication::exit(1); }, Qt::QueuedConnection);
    return QCoreApplication::exec();
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QStringList arguments = app.arguments().mid(1);
    const QString command = arguments.isEmpty() ? QString() : arguments.takeFirst();
    if (command == QLatin1String("idle")) {
        while (std::cin.get() != EOF) {
        }
        return 0;
    }
    if (command == QLatin1String("lock"))
        return Lock(app.applicationFilePath(), arguments.value(0), arguments.value(1).toInt());
    if (command == QLatin1String("race"))
        return Race(arguments.value(0), arguments.value(1), arguments.value(2).toInt());
    if (command == QLatin1String("owner")) {
        Say(QString::number(guard::FileLock::OwnerOf(arguments.value(0)).process));
        return 0;
    }
    if (command == QLatin1String("recover"))
        return Recover(arguments);
    if (command == QLatin1String("install"))
        return Install(arguments);
    return 2;
}
