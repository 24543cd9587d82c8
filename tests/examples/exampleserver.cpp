#include "exampleserver.h"

#include "treebuilder.h"

#include <QFile>

bool ExampleServer::StartExample()
{
    problem.clear();
    const bool started = Start();
    QFile::remove(root + QLatin1Char('/') + Token());
    if (!problem.isEmpty())
        qWarning("%s", qPrintable(problem));
    return started && problem.isEmpty();
}

QByteArray ExampleServer::AccessLog() const
{
    return kxtest::Read(AccessLogPath());
}

QByteArray ExampleServer::Example(const QString& name,
                                  const QList<QPair<QString, QString>>& replacements) const
{
    QString text =
        QString::fromUtf8(kxtest::Read(QStringLiteral(KX_SOURCE_DIR "/examples/") + name));
    for (const auto& replacement : replacements) {
        if (text.count(replacement.first) != 1)
            problem = QStringLiteral("'%1' stands in %2 %3 times")
                          .arg(replacement.first, name)
                          .arg(text.count(replacement.first));
        text.replace(replacement.first, replacement.second);
    }
    return text.toUtf8();
}

void ExampleServer::WriteProbe() const
{
    kxtest::Write(root + QLatin1Char('/') + Token(), Token().toLatin1());
}

QStringList NginxExample::Arguments() const
{
    return {QStringLiteral("-e"), WorkPath(QStringLiteral("error.log")),
            QStringLiteral("-p"), WorkPath(),
            QStringLiteral("-c"), ConfigurationPath()};
}

// The example is what Debian's nginx.conf includes, so the rest of it is here, with what it sets
// that the example has to stand up to.
QByteArray NginxExample::Configuration() const
{
    WriteProbe();
    const QByteArray site =
        Example(QStringLiteral("server-nginx/updates.conf"),
                {{QStringLiteral("    listen 80;\n    # listen [::]"),
                  QStringLiteral("    listen 127.0.0.1:%1;\n    # listen [::]").arg(Port())},
                 {QStringLiteral("root /srv/updates;"), QStringLiteral("root \"%1\";").arg(Root())},
                 {QStringLiteral("/var/log/nginx/updates.log"), AccessLogPath()}});
    return QStringLiteral("daemon off;\n"
                          "master_process off;\n"
                          "pid %1/nginx.pid;\n"
                          "error_log %1/error.log;\n"
                          "events { worker_connections 512; }\n"
                          "http {\n"
                          "    client_body_temp_path %1/body;\n"
                          "    proxy_temp_path %1/proxy;\n"
                          "    fastcgi_temp_path %1/fastcgi;\n"
                          "    uwsgi_temp_path %1/uwsgi;\n"
                          "    scgi_temp_path %1/scgi;\n"
                          "    sendfile on;\n"
                          "    tcp_nopush on;\n"
                          "    types { text/html html; text/xml xml; text/plain txt; }\n"
                          "    gzip on;\n"
                          "    gzip_types text/plain application/octet-stream;\n")
               .arg(WorkPath())
               .toUtf8() +
           site + "}\n";
}

QStringList CaddyExample::Arguments() const
{
    return {QStringLiteral("run"), QStringLiteral("--config"), ConfigurationPath(),
            QStringLiteral("--adapter"), QStringLiteral("caddyfile")};
}

QByteArray CaddyExample::Configuration() const
{
    WriteProbe();
    return Example(
        QStringLiteral("server-caddy/Caddyfile"),
        {{QStringLiteral("\n\tservers {"),
          QStringLiteral("\n\tadmin off\n\tauto_https off\n\tservers {")},
         {QStringLiteral("\n:80 {"), QStringLiteral("\nhttp://127.0.0.1:%1 {").arg(Port())},
         {QStringLiteral("root * /srv/updates"), QStringLiteral("root * \"%1\"").arg(Root())},
         {QStringLiteral("/var/log/caddy/updates.log"), AccessLogPath()}});
}

// Its certificates and its state belong in the server's directory as well.
QProcessEnvironment CaddyExample::Environment() const
{
    QProcessEnvironment environment = WebServer::Environment();
    for (const char* name : {"HOME", "XDG_DATA_HOME", "XDG_CONFIG_HOME"})
        environment.insert(QLatin1String(name), WorkPath());
    return environment;
}
