#include "localnginx.h"

#include "endwithparent.h"
#include "interrupt.h"
#include "output/console.h"
#include "server/disk.h"

#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QNetworkProxy>
#include <QStandardPaths>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>
#include <QUuid>

namespace publish {
namespace {

constexpr int startTimeoutMs = 30000;
constexpr int pollIntervalMs = 20;
// How long Ctrl-C may take to be noticed.
constexpr int interruptIntervalMs = 50;
constexpr int attempts = 10;

void Wait(int milliseconds)
{
    QEventLoop loop;
    QTimer::singleShot(milliseconds, &loop, &QEventLoop::quit);
    loop.exec();
}

// The port that can be listened on; 0 when it cannot.
quint16 UsablePort(quint16 wanted, QString& error)
{
    QTcpServer server;
    server.setProxy(QNetworkProxy::NoProxy);
    if (server.listen(QHostAddress::LocalHost, wanted))
        return server.serverPort();
    error =
        server.serverError() == QAbstractSocket::AddressInUseError
            ? QStringLiteral("port %1 is taken by another program").arg(wanted)
            : QStringLiteral("cannot listen on port %1: %2").arg(wanted).arg(server.errorString());
    return 0;
}

bool Answers(const NginxConfig& config)
{
    QTcpSocket socket;
    socket.setProxy(QNetworkProxy::NoProxy);
    QEventLoop loop;
    const QByteArray probe = config.probe.toLatin1();
    QTimer::singleShot(startTimeoutMs, &loop, &QEventLoop::quit);
    QObject::connect(&socket, &QTcpSocket::connected, &socket,
                     [&] { socket.write("GET /" + probe + " HTTP/1.0\r\n\r\n"); });
    QObject::connect(&socket, &QTcpSocket::disconnected, &loop, &QEventLoop::quit);
    QObject::connect(&socket, &QTcpSocket::errorOccurred, &loop, &QEventLoop::quit);
    socket.connectToHost(QHostAddress::LocalHost, config.port);
    loop.exec();
    return socket.readAll().contains("\r\n\r\n" + probe);
}

// What nginx says before it writes its own log begins with its name.
QByteArray WithoutName(const QByteArray& said)
{
    const QByteArray name("nginx: ");
    const qsizetype place = said.indexOf(name);
    return place < 0 ? said : said.mid(place + name.size());
}

// Some of it comes from clients.
QString Printable(QByteArray line)
{
    line = line.trimmed();
    for (char& c : line) {
        if (uchar(c) < 0x20 || uchar(c) >= 0x7f)
            c = '?';
    }
    return QString::fromLatin1(line);
}

} // namespace

LocalNginx::LocalNginx(const QString& tree)
    : tree(tree), directory(QDir::tempPath() + QStringLiteral("/kxpublish-serve-XXXXXX"))
{
}

LocalNginx::~LocalNginx()
{
    Stop();
}

QString LocalNginx::Program()
{
    const QString name = QStringLiteral("nginx");
    const QString found = QStandardPaths::findExecutable(name);
    if (!found.isEmpty())
        return found;
    // An ordinary user's search path often lacks the directories of system programs.
    QStringList paths;
    for (QString path : qEnvironmentVariable("PATH").split(QDir::listSeparator())) {
        if (path.endsWith(QLatin1String("/bin")))
            paths.append(path.replace(path.size() - 3, 3, QStringLiteral("sbin")));
    }
    return paths.isEmpty() ? QString() : QStandardPaths::findExecutable(name, paths);
}

bool LocalNginx::Start(NginxConfig& config, QString& error)
{
    const QString link = directory.filePath(QStringLiteral("tree"));
    if (!directory.isValid()) {
        error = QStringLiteral("cannot make a temporary directory: ") + directory.errorString();
        return false;
    }
    if (!QFile::link(tree, link)) {
        error = QStringLiteral("cannot make the link %1").arg(Shown(link));
        return false;
    }
    const quint16 wanted = config.port;
    // A free port may be taken by somebody else before nginx has it.
    for (int i = 0; i < (wanted ? 1 : attempts); ++i) {
        config.port = UsablePort(wanted, error);
        config.probe = QUuid::createUuid().toString(QUuid::Id128);
        const Outcome outcome = config.port ? StartOnce(config, error) : Outcome::Failed;
        if (outcome == Outcome::Answers)
            return true;
        Stop();
        if (outcome == Outcome::Failed)
            return false;
    }
    return false;
}

LocalNginx::Outcome LocalNginx::StartOnce(const NginxConfig& config, QString& error)
{
    const QString path = directory.filePath(QStringLiteral("nginx.conf"));
    QFile::remove(path);
    if (!WriteNewFile(path, config.Text(), error))
        return Outcome::Failed;
    EndWithParent(process);
    process.start(Program(), {QStringLiteral("-e"), QStringLiteral("stderr"), QStringLiteral("-p"),
                              directory.path(), QStringLiteral("-c"), path});
    QElapsedTimer clock;
    clock.start();
    while (clock.elapsed() < startTimeoutMs && !IsInterrupted()) {
        if (process.state() == QProcess::Running && Answers(config))
            return Outcome::Answers;
        if (process.state() == QProcess::NotRunning) {
            const QByteArray said = process.readAllStandardError();
            error = process.error() == QProcess::FailedToStart
                        ? QStringLiteral("cannot start nginx: ") + process.errorString()
                        : QStringLiteral("nginx does not start: ") +
                              Printable(WithoutName(said).split('\n').first());
            if (!said.contains("Address already in use"))
                return Outcome::Failed;
            error = QStringLiteral("port %1 is taken by another program").arg(config.port);
            return Outcome::PortTaken;
        }
        Wait(pollIntervalMs);
    }
    error = IsInterrupted() ? QString() : QStringLiteral("nginx does not answer");
    return Outcome::Failed;
}

bool LocalNginx::Run()
{
    QEventLoop loop;
    QTimer interrupt;
    QObject::connect(&interrupt, &QTimer::timeout, &loop,
                     [&loop] { IsInterrupted() ? loop.quit() : void(); });
    QObject::connect(&process, &QProcess::readyReadStandardOutput, &loop, [this] { PassLines(); });
    QObject::connect(&process, &QProcess::readyReadStandardError, &loop, [this] { PassLines(); });
    QObject::connect(&process, &QProcess::finished, &loop, &QEventLoop::quit);
    interrupt.start(interruptIntervalMs);
    PassLines();
    if (process.state() != QProcess::NotRunning)
        loop.exec();
    PassLines();
    return IsInterrupted();
}

void LocalNginx::Stop()
{
    if (process.state() == QProcess::NotRunning)
        return;
    process.terminate();
    if (!process.waitForFinished(startTimeoutMs)) {
        process.kill();
        process.waitForFinished();
    }
}

void LocalNginx::PassLines()
{
    process.setReadChannel(QProcess::StandardError);
    while (process.canReadLine())
        Warn(QStringLiteral("nginx: ") + Printable(process.readLine()));
    process.setReadChannel(QProcess::StandardOutput);
    while (process.canReadLine())
        Say(Printable(process.readLine()));
}

} // namespace publish
