#include "nginxserver.h"

#include <QFile>

#include <algorithm>

namespace kxtest {

NginxServer::NginxServer(const QString& directory) : directory(directory) {}

void NginxServer::AddHeader(const QString& name, const QString& value)
{
    serverLines << QStringLiteral("add_header %1 \"%2\" always;").arg(name, value);
}

QStringList NginxServer::Requests() const
{
    QFile log(WorkPath(QStringLiteral("access.log")));
    if (!log.open(QIODevice::ReadOnly))
        return {};
    QStringList requests =
        QString::fromUtf8(log.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    requests.erase(std::remove_if(requests.begin(), requests.end(),
                                  [this](const QString& line) { return line.contains(Token()); }),
                   requests.end());
    return requests;
}

QStringList NginxServer::Arguments() const
{
    return {QStringLiteral("-e"), WorkPath(QStringLiteral("error.log")),
            QStringLiteral("-p"), WorkPath(),
            QStringLiteral("-c"), ConfigurationPath()};
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
        .arg(WorkPath(), QString::number(Port()), directory, Token(),
             lines.join(QStringLiteral("\n        ")))
        .toUtf8();
}

} // namespace kxtest
