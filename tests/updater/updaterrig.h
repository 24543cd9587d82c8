#pragma once

#include "httptestserver.h"
#include "logcapture.h"
#include "manifest.h"
#include "signaltrace.h"
#include "treebuilder.h"

#include "updater.h"

#include <QHash>
#include <QNetworkAccessManager>
#include <QPointer>
#include <QSemaphore>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <functional>
#include <memory>

namespace kxtest {

/** The time after which a wait gives up; long enough for a busy machine under a sanitizer. */
constexpr int patience = 60000;

/**
 * Runs the event loop until the condition holds, which is asked after every round; false when it
 * never does. Unlike QTRY_VERIFY it does not sleep between the rounds, so that a flow of many steps
 * takes no longer than its steps; what changes without an event is not seen.
 */
bool WaitFor(const std::function<bool()>& condition);

/** Calls a function with every message, on the thread that logs, after it was recorded. */
class HookedLog : public LogCapture
{
public:
    void Log(const common::logger::IMessage& message) override;
    void SetHook(std::function<void(const LogRecord&)> function);

private:
    QMutex hookMutex;
    std::function<void(const LogRecord&)> hook; // guarded by hookMutex
};

/** A callback that answers `code`, when `latch` lets it if it is told to wait for that. */
class TestCallback : public updater::AppCallbackFunction
{
public:
    explicit TestCallback(int code = 0, bool waits = false) : code(code), waits(waits) {}

    int Call(const QString& downloadPath, const QString& localPackagePath) override;

    const int code;
    const bool waits;
    QSemaphore entered;
    QSemaphore latch;
    std::atomic<int> calls{0};
    std::atomic<bool> returned{false};
    QString downloadPath;
    QString localPackagePath;
    std::atomic<Qt::HANDLE> thread{nullptr};
};

/**
 * One updater with all that it needs: a server, a log, and a directory Root() of its own that holds
 * the application ("app"), the download directory ("next"), a bystander ("outside") and nothing
 * else, so that a snapshot of it shows everything that an update did.
 */
class UpdaterRig
{
public:
    UpdaterRig();
    ~UpdaterRig();

    QString Root() const { return directory.path() + QStringLiteral("/root"); }
    QString App() const { return Root() + QStringLiteral("/app"); }
    QString Next() const { return Root() + QStringLiteral("/next"); }
    QString Backup() const { return Root() + QStringLiteral("/app.old"); }
    QString Outside() const { return Root() + QStringLiteral("/outside"); }
    /** A scratch directory beside Root(). */
    QString Scratch(const QString& name) const;

    /** Everything below Root() but the download directory. */
    QStringList Surroundings() const;

    /** Serves the tree as this version of the package. */
    updater::FileList Publish(const QString& version, const QString& tree);
    /** Serves a manifest with these records; the files are the caller's affair. */
    void PublishRecords(const QString& version, const updater::FileList& records);
    /** Path on the server of a file of that version. */
    static QString FilePath(const QString& version, const QString& name);
    static QString ManifestUrlPath(const QString& version);
    /** Requests of files, not of versions and manifests. */
    QStringList FetchedFiles() const;

    /** Makes a configured updater and waits until it rests in WAITING. */
    void Start();
    /** The same with another parent and without a trace. */
    updater::Updater* Make(QObject* parent = nullptr);
    /** State entered last. */
    QString State() const { return state; }
    /** Every state entered, since the start or the last Forget(). */
    const QStringList& States() const { return states; }
    /** Runs `function` each time when the state is entered, before its handlers. */
    void AtState(const QString& name, std::function<void()> function);
    /** Waits for one of the states. */
    bool Reach(const QStringList& names);
    bool Reach(const char* name) { return Reach({QString::fromLatin1(name)}); }

    /** True when finished() has followed SUCCESS: the machine takes no command but Cancel(). */
    bool HasStopped() const;

    /** Check() and the way to its result. */
    bool Check(const char* result = "AVAILABLE");
    /** Download() and the way to its end; from a check on if need be. */
    bool Assemble(const char* result = "SUCCESS");
    /** Restarts the updater if need be, Install() and the way to its end. */
    bool Install(const char* result = "SUCCESS");

    QStringList Errors() const { return trace->Only({QStringLiteral("error")}); }
    /** Lines "level text" of the updater. */
    QStringList Log() const { return log.Lines(QStringLiteral("updater.core")); }
    bool Logged(const QString& line) const { return Log().contains(line); }
    void Forget();

    HttpTestServer server;
    std::unique_ptr<QNetworkAccessManager> manager{new QNetworkAccessManager};
    HookedLog log;
    QPointer<updater::Updater> updater;
    std::unique_ptr<SignalTrace> trace;

    static const QString package;

private:
    Q_DISABLE_COPY(UpdaterRig)

    QTemporaryDir directory;
    QString state;
    QStringList states;
    QHash<QString, std::function<void()>> atState;
};

/** A record of a regular file that holds `bytes`. */
updater::File FileRecord(const QString& name, const QByteArray& bytes);
/** A record of a symbolic link. */
updater::File LinkRecord(const QString& name, const QString& target);

/** "error(CODE, TEXT)" as a SignalTrace writes it. */
QString ErrorLine(int code, const QString& text);

/** While it lives, no file of the process grows beyond `bytes`: the write fails. Not nested. */
class FileSizeLimit
{
public:
    explicit FileSizeLimit(quint64 bytes);
    ~FileSizeLimit();

private:
    Q_DISABLE_COPY(FileSizeLimit)

    quint64 before;
};

/** Threads of the process. */
QStringList Threads();
/** Open descriptors of the process. */
int DescriptorCount();

/**
 * Stops threads in their tracks, whatever they do, until they are released: a signal handler waits
 * on a pipe. One at a time.
 */
class ThreadHold
{
public:
    ThreadHold();
    ~ThreadHold();

    /** Stops every thread that is not among `others`; true when one was caught. */
    bool Catch(const QStringList& others);
    int Held() const;
    void Release();

private:
    Q_DISABLE_COPY(ThreadHold)

    int writeEnd = -1;
};

} // namespace kxtest
