#include "publishrun.h"

#include <QProcessEnvironment>

#include <csignal>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kxtest {
namespace {

constexpr int waitMs = 120000;

QStringList Lines(const QByteArray& bytes)
{
    QStringList lines = QString::fromUtf8(bytes).split(QLatin1Char('\n'));
    if (lines.constLast().isEmpty())
        lines.removeLast();
    return lines;
}

} // namespace

void PreparePublish(QProcess& process, const QStringList& arguments,
                    const std::function<void()>& inChild)
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("LC_ALL"), QStringLiteral("C.UTF-8"));
    // Servers of the tests are on this machine.
    for (const char* name : {"http_proxy", "HTTP_PROXY", "all_proxy", "ALL_PROXY"})
        environment.remove(QLatin1String(name));
    process.setProcessEnvironment(environment);
    process.setProgram(QStringLiteral(KXPUBLISH));
    process.setArguments(arguments);
    process.setChildProcessModifier([inChild] {
        ::umask(022);
        if (inChild)
            inChild();
    });
}

PublishResult RunPublish(const QStringList& arguments, const std::function<void()>& inChild)
{
    QProcess process;
    PreparePublish(process, arguments, inChild);
    process.start();
    process.waitForFinished(waitMs);
    return ResultOf(process, process.readAllStandardError());
}

PublishResult ResultOf(QProcess& process, const QByteArray& err)
{
    PublishResult result;
    if (process.state() == QProcess::NotRunning && process.error() != QProcess::FailedToStart)
        result.status =
            process.exitStatus() == QProcess::CrashExit ? -process.exitCode() : process.exitCode();
    result.out = Lines(process.readAllStandardOutput());
    result.err = Lines(err);
    for (QString& line : result.err) {
        if (line.startsWith(QLatin1String("kxpublish: ")))
            line.remove(0, 11);
    }
    return result;
}

QStringList AddArguments(const QString& tree, const QString& out)
{
    return {QStringLiteral("add"),        tree,
            QStringLiteral("--name"),     QStringLiteral("demo-app"),
            QStringLiteral("--version"),  QStringLiteral("2.4.1"),
            QStringLiteral("--platform"), QStringLiteral("x64"),
            QStringLiteral("--exec"),     QStringLiteral("app"),
            QStringLiteral("--base-url"), QStringLiteral("http://updates.example/demo"),
            QStringLiteral("--out"),      out};
}

QStringList With(QStringList arguments, const QString& option, const QString& value)
{
    arguments[arguments.indexOf(option) + 1] = value;
    return arguments;
}

QStringList PromoteArguments(const QString& version, const QString& out)
{
    return {QStringLiteral("promote"), QStringLiteral("--version"), version,
            QStringLiteral("--out"), out};
}

void DropFileRights()
{
    if (::geteuid() != 0)
        return;
    // A program that root starts gets what the bounding set leaves.
    if (::prctl(PR_CAPBSET_DROP, CAP_DAC_OVERRIDE, 0, 0, 0) != 0 ||
        ::prctl(PR_CAPBSET_DROP, CAP_DAC_READ_SEARCH, 0, 0, 0) != 0)
        ::_exit(99);
}

void LimitFileSize(qint64 bytes)
{
    const rlimit limit = {rlim_t(bytes), rlim_t(bytes)};
    ::setrlimit(RLIMIT_FSIZE, &limit);
    const rlimit noCore = {0, 0};
    ::setrlimit(RLIMIT_CORE, &noCore);
}

void LimitFileSizeGently(qint64 bytes)
{
    ::signal(SIGXFSZ, SIG_IGN);
    LimitFileSize(bytes);
}

} // namespace kxtest
