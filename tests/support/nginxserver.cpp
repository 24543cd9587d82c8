#include "nginxserver.h"

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

#include <algorithm>
#include <csignal>

namespace kxtest {
namespace {

constexpr int startTimeoutMs = 30000;
constexpr int pollIntervalMs = 5;
constexpr int attempts = 10;

QString FindNginx()
{
    const QString name = QStringLiteral("nginx");
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

NginxServer::NginxServer(const QString& directory) : directory(directory)
{
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.setChildProcessModifier([] { prctl(PR_SET_PDEATHSIG, SIGTERM); });
}

NginxServer::~NginxServer()
{
    Stop();
}

void NginxServer::AddHeader(const QString& name, const QString& value)
{
    serverLines << QStringLiteral("add_header %1 \"%2\" always;").arg(name, value);
}

bool NginxServer::Start()
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

void NginxServer::Stop()
{
    if (process.state() == QProcess::NotRunning)
        return;
    process.terminate();
    if (!process.waitForFinished(startTimeoutMs)) {
        process.kill();
        process.waitForFinished();
    }
}

QString NginxServer::Url(const QString& path) const
{
    const QString base = QStringLiteral("http://127.0.0.1:%1").arg(port);
    return path.isEmpty() ? base : base + QLatin1Char('/') + path;
}

QStringList NginxServer::Requests() const
{
    QFile log(workspace.filePath(QStringLiteral("access.log")));
    if (!log.open(QIODevice::ReadOnly))
        return {};
    QStringList requests =
        QString::fromUtf8(log.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    requests.erase(std::remove_if(requests.begin(), requests.end(),
                                  [this](const QString& line) { return line.contains(token); }),
                   requests.end());
    return requests;
}

QByteArray NginxServer::Configuration() const
{
    QStringList lines = serverLines;
    if (rateLimit > 0)
        lines << QStringLiteral("limit_rate %1;").arg(rateLimit);
    // One process: nothing to change users for, and one signal ends it all.
    return QStringLiteral("daemon off;\n"
                          "master_process off;\n"
                          "pid %1/nginx.pid;\n"
                          "error_log %1/error.log;\n"
                          "events { worker_connections 512; }\n"
                          "http {\n"
                          "    log_format kx '$request_method $uri $status $body_bytes_sent "
                          "$http_range';\n"
                          "    access_log %1/access.log kx;\n"
                          "    client_body_temp_path %1/body;\n"
                          "    proxy_temp_path %1/proxy;\n"
                          "    fastcgi_temp_path %1/fastcgi;\n"
                          "    uwsgi_temp_path %1/uwsgi;\n"
                          "    scgi_temp_path %1/scgi;\n"
                          "    default_type application/octet-stream;\n"
                          "    server {\n"
                          "        listen 127.0.0.1:%2;\n"
                          "        root \"%3\";\n"
                          "        location = /%4 { return 200 \"%4\"; }\n"
                          "        %5\n"
                          "    }\n"
                          "}\n")
        .arg(workspace.path(), QString::number(port), directory, token,
             lines.join(QStringLiteral("\n        ")))
        .toUtf8();
}

NginxServer::Outcome NginxServer::StartOnce()
{
    const QString program = FindNginx();
    if (program.isEmpty()) {
        error = QStringLiteral("nginx is not installed");
        return Outcome::Failed;
    }
    port = FreePort();
    token = QUuid::createUuid().toString(QUuid::Id128);
    const QString path = workspace.filePath(QStringLiteral("nginx.conf"));
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(Configuration()) < 0) {
        error = QStringLiteral("cannot write '%1'").arg(path);
        return Outcome::Failed;
    }
    file.close();

    process.start(program, {QStringLiteral("-e"), workspace.filePath(QStringLiteral("error.log")),
                            QStringLiteral("-p"), workspace.path(), QStringLiteral("-c"), path});
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
    error = QStringLiteral("nginx does not answer");
    return Outcome::Failed;
}

bool NginxServer::Answers()
{
    QTcpSocket socket;
    socket.setProxy(QNetworkProxy::NoProxy);
    QEventLoop loop;
    QTimer::singleShot(startTimeoutMs, &loop, &QEventLoop::quit);
    QObject::connect(&socket, &QTcpSocket::connected, &socket,
                     [&] { socket.write("GET /" + token.toLatin1() + " HTTP/1.0\r\n\r\n"); });
    QObject::connect(&socket, &QTcpSocket::disconnected, &loop, &QEventLoop::quit);
    QObject::connect(&socket, &QTcpSocket::errorOccurred, &loop, &QEventLoop::quit);
    socket.connectToHost(QHostAddress::LocalHost, port);
    loop.exec();
    return socket.readAll().contains("\r\n\r\n" + token.toLatin1());
}

} // namespace kxtest
