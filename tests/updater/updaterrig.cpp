#include "updaterrig.h"

#include <kxupdater/build.h>

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFileInfo>
#include <QStorageInfo>
#include <QThread>
#include <QTimer>

#include <atomic>
#include <cerrno>

#include <csignal>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace kxtest {

const QString UpdaterRig::package = QStringLiteral("demo");

void HookedLog::Log(const common::logger::IMessage& message)
{
    LogCapture::Log(message);
    std::function<void(const LogRecord&)> function;
    {
        const QMutexLocker lock(&hookMutex);
        function = hook;
    }
    if (!function)
        return;
    LogRecord record;
    record.level = message.Level();
    record.category = QString::fromLatin1(message.Category());
    record.text = message.Text();
    function(record);
}

void HookedLog::SetHook(std::function<void(const LogRecord&)> function)
{
    const QMutexLocker lock(&hookMutex);
    hook = std::move(function);
}

bool WaitFor(const std::function<bool()>& condition)
{
    QTimer limit;
    limit.setSingleShot(true);
    limit.start(patience);
    while (!condition()) {
        if (!limit.isActive())
            return false;
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }
    return true;
}

int TestCallback::Call(const QString& download, const QString& local)
{
    downloadPath = download;
    localPackagePath = local;
    thread = QThread::currentThreadId();
    ++calls;
    entered.release();
    if (waits)
        latch.acquire();
    returned = true;
    return code;
}

namespace {

// In memory where that is possible: each swap is brought to disk, and many of them are made.
QString Template()
{
    const QStorageInfo memory(QStringLiteral("/dev/shm"));
    const bool suits = memory.isValid() && memory.fileSystemType() == "tmpfs" &&
                       memory.bytesAvailable() > (qint64(1) << 30);
    const QString place = suits ? memory.rootPath() : QDir::tempPath();
    return place + QStringLiteral("/kxrig-XXXXXX");
}

} // namespace

UpdaterRig::UpdaterRig() : directory(Template())
{
    if (!directory.isValid())
        qFatal("no temporary directory");
    QDir().mkpath(App());
    QDir().mkpath(Outside());
    TreeBuilder(Outside()).File(QStringLiteral("bystander"), "keep me");
}

UpdaterRig::~UpdaterRig()
{
    trace.reset();
    delete updater;
}

QString UpdaterRig::Scratch(const QString& name) const
{
    const QString path = directory.path() + QLatin1Char('/') + name;
    QDir().mkpath(path);
    return path;
}

QStringList UpdaterRig::Surroundings() const
{
    QStringList lines;
    for (const QString& line : Snapshot(Root())) {
        if (!line.startsWith(QLatin1String("next/")) && !line.startsWith(QLatin1String("next ")))
            lines << line;
    }
    return lines;
}

QString UpdaterRig::ManifestUrlPath(const QString& version)
{
    return QLatin1Char('/') + ManifestPath(package, version, updater::Build::Platform());
}

QString UpdaterRig::FilePath(const QString& version, const QString& name)
{
    return QStringLiteral("/files/%1/%2/%3/%4")
        .arg(package, version, updater::Build::Platform(), name);
}

updater::FileList UpdaterRig::Publish(const QString& version, const QString& tree)
{
    const QString base = server.Url().toString().chopped(1);
    const QString www = Scratch(QStringLiteral("www"));
    server.ServeDirectory(QStringLiteral("/"), www);
    return PublishTree(www, package, version, updater::Build::Platform(), tree, base,
                       QStringLiteral("bin/app"));
}

void UpdaterRig::PublishRecords(const QString& version, const updater::FileList& records)
{
    const QString files = server.Url(FilePath(version, QString()).chopped(1)).toString();
    server.SetBody(QStringLiteral("/packages/version.xml"), VersionReply(version).toUtf8());
    server.SetBody(ManifestUrlPath(version),
                   ManifestFor(package, files, QStringLiteral("bin/app"), records).toUtf8());
}

QStringList UpdaterRig::FetchedFiles() const
{
    QStringList paths;
    for (const Request& request : server.Requests()) {
        if (request.path.startsWith(QLatin1String("/files/")))
            paths << request.path;
    }
    return paths;
}

updater::Updater* UpdaterRig::Make(QObject* parent)
{
    auto* made = new updater::Updater(manager.get(), parent);
    made->SetURL(server.Url().toString().chopped(1));
    made->SetPackageName(package);
    made->SetCurrentVersion(QStringLiteral("1.0"));
    made->SetLocalPackagePath(App());
    made->SetDownloadPath(Next());
    return made;
}

void UpdaterRig::Start()
{
    updater = Make();
    trace = std::make_unique<SignalTrace>(updater);
    QObject::connect(updater, &updater::IUpdater::stateChanged, trace.get(),
                     [this](const QString& name) {
                         state = name;
                         states << name;
                         const std::function<void()> function = atState.value(name);
                         if (function)
                             function();
                     });
    // It may be elsewhere already, if a test acts at once.
    if (!WaitFor([this] { return states.contains(QStringLiteral("WAITING")); }))
        qFatal("the updater does not start");
}

void UpdaterRig::AtState(const QString& name, std::function<void()> function)
{
    atState.insert(name, std::move(function));
}

bool UpdaterRig::Reach(const QStringList& names)
{
    // FAILED and CANCELED are rests that nothing leaves by itself: no use to wait on.
    return WaitFor([&] { return names.contains(state); });
}

bool UpdaterRig::HasStopped() const
{
    return state == QLatin1String("SUCCESS") &&
           trace->CountOf(QStringLiteral("finished")) ==
               trace->Count(QStringLiteral("stateChanged(SUCCESS)"));
}

bool UpdaterRig::Check(const char* result)
{
    updater->Check();
    return WaitFor([&] {
               return states.contains(QStringLiteral("CHECKING")) &&
                      QStringList{QStringLiteral("AVAILABLE"), QStringLiteral("ACTUAL"),
                                  QStringLiteral("FAILED")}
                          .contains(state);
           }) &&
           state == QLatin1String(result);
}

bool UpdaterRig::Assemble(const char* result)
{
    if (state != QLatin1String("AVAILABLE") && !Check())
        return false;
    updater->Download();
    return Reach({QStringLiteral("SUCCESS"), QStringLiteral("FAILED")}) &&
           state == QLatin1String(result);
}

bool UpdaterRig::Install(const char* result)
{
    if (state == QLatin1String("SUCCESS")) {
        // The machine stops a moment after it has entered its final state.
        if (!WaitFor([&] { return HasStopped(); }))
            return false;
        updater->Cancel();
    } else if (state != QLatin1String("WAITING")) {
        updater->Wait();
    }
    if (!Reach("WAITING"))
        return false;
    updater->Install();
    return Reach({QStringLiteral("SUCCESS"), QStringLiteral("FAILED")}) &&
           state == QLatin1String(result);
}

void UpdaterRig::Forget()
{
    trace->Clear();
    log.Clear();
    server.ClearRequests();
    states.clear();
}

updater::File FileRecord(const QString& name, const QByteArray& bytes)
{
    return updater::File(name, MD5Of(bytes), static_cast<quint64>(bytes.size()),
                         QStringLiteral("-rw-r--r--"), {});
}

updater::File LinkRecord(const QString& name, const QString& target)
{
    return updater::File(name, MD5Of(target.toUtf8()), static_cast<quint64>(target.size()), {},
                         target);
}

QString ErrorLine(int code, const QString& text)
{
    return QStringLiteral("error(%1, %2)").arg(code).arg(text);
}

namespace {

quint64 SetFileSizeLimit(quint64 bytes)
{
    rlimit limit = {};
    getrlimit(RLIMIT_FSIZE, &limit);
    const quint64 before = limit.rlim_cur;
    limit.rlim_cur = bytes;
    if (setrlimit(RLIMIT_FSIZE, &limit) != 0)
        qFatal("cannot limit the size of files");
    return before;
}

} // namespace

FileSizeLimit::FileSizeLimit(quint64 bytes)
{
    signal(SIGXFSZ, SIG_IGN);
    before = SetFileSizeLimit(bytes);
}

FileSizeLimit::~FileSizeLimit()
{
    SetFileSizeLimit(before);
}

QStringList Threads()
{
    return QDir(QStringLiteral("/proc/self/task")).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
}

int DescriptorCount()
{
    // The listing itself holds one descriptor, always.
    return static_cast<int>(QDir(QStringLiteral("/proc/self/fd"))
                                .entryList(QDir::NoDotAndDotDot | QDir::AllEntries | QDir::System)
                                .size());
}

namespace {

std::atomic<int> heldThreads{0};
std::atomic<int> gate{-1};

void WaitAtTheGate(int)
{
    const int before = errno;
    ++heldThreads;
    char byte = 0;
    while (read(gate, &byte, 1) < 0 && errno == EINTR) {
    }
    --heldThreads;
    errno = before;
}

} // namespace

ThreadHold::ThreadHold()
{
    struct sigaction action = {};
    action.sa_handler = WaitAtTheGate;
    action.sa_flags = SA_RESTART;
    sigaction(SIGUSR1, &action, nullptr);
}

ThreadHold::~ThreadHold()
{
    Release();
}

bool ThreadHold::Catch(const QStringList& others)
{
    int ends[2];
    if (gate < 0) {
        if (pipe(ends) != 0)
            qFatal("no pipe");
        gate = ends[0];
        writeEnd = ends[1];
    }
    const int before = heldThreads;
    int asked = 0;
    for (const QString& thread : Threads()) {
        if (!others.contains(thread) && syscall(SYS_tgkill, getpid(), thread.toInt(), SIGUSR1) == 0)
            ++asked;
    }
    if (asked == 0)
        return false;
    QElapsedTimer timer;
    timer.start();
    while (heldThreads == before && timer.elapsed() < 2000)
        QThread::yieldCurrentThread();
    return heldThreads > before;
}

int ThreadHold::Held() const
{
    return heldThreads;
}

void ThreadHold::Release()
{
    if (gate < 0)
        return;
    // The end of the pipe lets everybody pass; who comes later finds no gate.
    const int readEnd = gate.exchange(-1);
    close(writeEnd);
    writeEnd = -1;
    while (heldThreads > 0)
        QThread::yieldCurrentThread();
    close(readEnd);
}

} // namespace kxtest
