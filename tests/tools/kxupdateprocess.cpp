#include "kxupdateprocess.h"

#include <QFileInfo>
#include <QTest>

#include <csignal>
#include <cstdlib>

#include <fcntl.h>
#include <linux/securebits.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

namespace {

constexpr int timeoutMs = 120000;

} // namespace

KxupdateProcess::KxupdateProcess()
{
    // An environment of its own: neither the language nor a proxy of the machine plays a part.
    environment.insert(QStringLiteral("PATH"), QStringLiteral("/usr/bin:/bin"));
    environment.insert(QStringLiteral("TERM"), QStringLiteral("xterm"));
    environment.insert(QStringLiteral("HOME"), QStringLiteral("/nonexistent"));
    const QProcessEnvironment own = QProcessEnvironment::systemEnvironment();
    for (const char* name : {"ASAN_OPTIONS", "LSAN_OPTIONS", "TSAN_OPTIONS", "UBSAN_OPTIONS"}) {
        if (own.contains(QLatin1String(name)))
            environment.insert(QLatin1String(name), own.value(QLatin1String(name)));
    }
}

KxupdateProcess::~KxupdateProcess()
{
    process.kill();
    process.waitForFinished();
    for (const int end : {master, slave}) {
        if (end >= 0)
            ::close(end);
    }
}

void KxupdateProcess::SetHome(const QString& directory)
{
    environment.insert(QStringLiteral("HOME"), directory);
}

void KxupdateProcess::InterruptAt(const QString& text, int times, int number)
{
    environment.insert(QStringLiteral("LD_PRELOAD"), QStringLiteral(KX_INTERRUPT_AT_LIBRARY));
    environment.insert(QStringLiteral("KX_INTERRUPT_AT"), text);
    environment.insert(QStringLiteral("KX_INTERRUPT_TIMES"), QString::number(times));
    environment.insert(QStringLiteral("KX_SIGNAL"), QString::number(number));
}

void KxupdateProcess::Start(const QStringList& arguments)
{
    if (terminal) {
        master = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
        ::grantpt(master);
        ::unlockpt(master);
        slave = ::open(::ptsname(master), O_RDWR | O_NOCTTY | O_CLOEXEC);
        Resize(columns);
    }
    process.setChildProcessModifier([this] {
        if (powerless && ::geteuid() == 0 &&
            ::prctl(PR_SET_SECUREBITS, SECBIT_NOROOT | SECBIT_NOROOT_LOCKED) != 0)
            ::_exit(125);
        if (fileSize >= 0) {
            const struct rlimit limit = {rlim_t(fileSize), rlim_t(fileSize)};
            ::setrlimit(RLIMIT_FSIZE, &limit);
            // Ignored, so that the write fails as one to a full disk does.
            ::signal(SIGXFSZ, SIG_IGN);
        }
        if (slave >= 0)
            ::dup2(slave, STDERR_FILENO);
        for (int stream = 0; closed && stream <= STDERR_FILENO; ++stream)
            ::close(stream);
    });
    process.setProcessEnvironment(environment);
    process.start(QStringLiteral(KXUPDATE_PROGRAM), arguments);
}

void KxupdateProcess::Signal(int number)
{
    ::kill(pid_t(process.processId()), number);
}

bool KxupdateProcess::AwaitOutput(const QString& text, int times)
{
    return QTest::qWaitFor(
        [&] {
            output += QString::fromUtf8(process.readAllStandardOutput());
            return output.count(text) >= times;
        },
        timeoutMs);
}

bool KxupdateProcess::AwaitErrors(const QString& text, int times)
{
    return QTest::qWaitFor(
        [&] {
            errors += QString::fromUtf8(process.readAllStandardError());
            return errors.count(text) >= times;
        },
        timeoutMs);
}

void KxupdateProcess::Resize(int width)
{
    struct winsize size = {};
    size.ws_col = static_cast<unsigned short>(width);
    size.ws_row = 24;
    ::ioctl(master, TIOCSWINSZ, &size);
}

void KxupdateProcess::Read()
{
    ReadTerminal();
    output += QString::fromUtf8(process.readAllStandardOutput());
    errors += QString::fromUtf8(process.readAllStandardError());
}

bool KxupdateProcess::Wait()
{
    const bool ended = QTest::qWaitFor(
        [this] {
            ReadTerminal();
            return process.state() == QProcess::NotRunning;
        },
        timeoutMs);
    Read();
    return ended && process.exitStatus() == QProcess::NormalExit;
}

bool KxupdateProcess::Run(const QStringList& arguments)
{
    Start(arguments);
    return Wait();
}

QString KxupdateProcess::OpenFile(int descriptor) const
{
    return QFileInfo(QStringLiteral("/proc/%1/fd/%2").arg(process.processId()).arg(descriptor))
        .symLinkTarget();
}

QString KxupdateProcess::Data(const QString& name) const
{
    QString value;
    for (const QString& line : output.split(u'\n')) {
        if (line.startsWith(name + QStringLiteral(": ")))
            value = line.mid(name.size() + 2);
    }
    return value;
}

QByteArray KxupdateProcess::Report() const
{
    return QStringLiteral("status %1\n--- stdout\n%2--- stderr\n%3")
        .arg(Status())
        .arg(output, errors)
        .toUtf8();
}

void KxupdateProcess::ReadTerminal()
{
    struct pollfd ready = {master, POLLIN, 0};
    char bytes[4096];
    while (master >= 0 && ::poll(&ready, 1, 0) > 0 && (ready.revents & POLLIN)) {
        const ssize_t count = ::read(master, bytes, sizeof bytes);
        if (count <= 0)
            return;
        errors += QString::fromUtf8(bytes, count);
    }
}
