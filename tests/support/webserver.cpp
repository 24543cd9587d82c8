#include "webserver.h"

#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QHostAddress>
#include <QNetworkProxy>
#include <QStandardPaths>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>
#include <QUuid>

#include <sys/prctl.h>

#include <csignal>

namespace kxtest {
namespace {

constexpr int startTimeoutMs = 30000;
constexpr int pollIntervalMs = 5;
constexpr int attempts = 10;

QString Find(const QString& name)
{
    const QString found = QStandardPaths::findExecutable(name);
    if (!found.isEmpty())
        return found;
    // An ordinary user's search path often lacks the directories of system programs.
    return QStandardPaths::findExecutable(
        name,
        {QStringLiteral("/usr/sbin"), QStringLiteral("/usr/local/sbin"), QStringLiteral("/sbin")});
}

quint16 FreePort()
{
    QTcpServer probe;
    return probe.listen(QHostAddress::LocalHost, 0) ? probe.serverPort() : 0;
}

} // namespace

WebServer::WebServer()
{
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.setChildProcessModifier([] { prctl(PR_SET_PDEATHSIG, SIGTERM); });
}

WebServer::~WebServer()
{
    Stop();
}

bool WebServer::Start()
{
    error.clear();
    for (int i = 0; i < attempts; ++i) {
        switch (StartOnce()) {
        case Outcome::Answers:
            return true;
        case Outcome::Failed:
            Stop();
            return false;
        case Outcome::PortTaken:
            Stop();
            break;
        }
    }
    return false;
}

void WebServer::Stop()
{
    if (process.state() == QProcess::NotRunning)
        return;
    process.terminate();
    if (!process.waitForFinished(startTimeoutMs)) {
        process.kill();
        process.waitForFinished();
    }
}

QString WebServer::Url(const QString& path) const
{
    const QString base = QStringLiteral("http://127.0.0.1:%1").arg(port);
    return path.isEmpty() ? base : base + QLatin1Char('/') + path;
}

QProcessEnvironment WebServer::Environment() const
{
    return QProcessEnvironment::systemEnvironment();
}

QString WebServer::WorkPath(const QString& name) const
{
    return name.isEmpty() ? workspace.path() : workspace.filePath(name);
}

WebServer::Outcome WebServer::StartOnce()
{
    const QString program = Find(Program());
    if (program.isEmpty()) {
        error = QStringLiteral("%1 is not installed").arg(Program());
        return Outcome::Failed;
    }
    port = FreePort();
    token = QUuid::createUuid().toString(QUuid::Id128);
    QFile file(ConfigurationPath());
    if (!file.open(QIODevice::WriteOnly) || file.write(Configuration()) < 0) {
        error = QStringLiteral("cannot write '%1'").arg(file.fileName());
        return Outcome::Failed;
    }
    file.close();

    process.setProcessEnvironment(Environment());
    process.start(program, Arguments());
    QElapsedTimer clock;
    clock.start();
    while (clock.elapsed() < startTimeoutMs) {
        if (Answers())
            return Outcome::Answers;
        if (process.state() == QProcess::NotRunning && process.error() != QProcess::UnknownError) {
            error = process.errorString();
            return Outcome::Failed;
        }
        if (process.state() == QProcess::NotRunning) {
            error = QString::fromUtf8(process.readAll());
            return error.contains(QStringLiteral("in use")) ? Outcome::PortTaken : Outcome::Failed;
        }
        QEventLoop loop;
        QTimer::singleShot(pollIntervalMs, &loop, &QEventLoop::quit);
        loop.exec();
    }
    error = QStringLiteral("%1 does not answer").arg(Program());
    return Outcome::Failed;
}

bool WebServer::Answers()
{
    QTcpSocket socket;
    socket.setProxy(QNetworkProxy::NoProxy);
    QEventLoop loop;
    QTimer::singleShot(startTimeoutMs, &loop, &QEventLoop::quit);
    const QByteArray question = QStringLiteral("GET /%1 HTTP/1.0\r\nHost: 127.0.0.1:%2\r\n\r\n")
                                    .arg(token)
                                    .arg(port)
                                    .toLatin1();
    QObject::connect(&socket, &QTcpSocket::connected, &socket, [&] { socket.write(question); });
    QObject::connect(&socket, &QTcpSocket::disconnected, &loop, &QEventLoop::quit);
    QObject::connect(&socket, &QTcpSocket::errorOccurred, &loop, &QEventLoop::quit);
    socket.connectToHost(QHostAddress::LocalHost, port);
    loop.exec();
    return socket.readAll().contains("\r\n\r\n" + token.toLatin1());
}

} // namespace kxtest
