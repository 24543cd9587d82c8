#include "nginxconfig.h"

namespace publish {
namespace {

// One process: nothing to change users for, and one signal ends it all. Clients are asked to come
// again each time, since a tree that is tried out may be thrown away and published anew. What has a
// hidden name is a publisher's work in the making.
constexpr char configuration[] = R"(daemon off;
master_process off;
pid nginx.pid;
error_log stderr warn;
events { worker_connections 512; }
http {
    client_body_temp_path body;
    proxy_temp_path proxy;
    fastcgi_temp_path fastcgi;
    uwsgi_temp_path uwsgi;
    scgi_temp_path scgi;
    log_format request '$request_method $request_uri $status $body_bytes_sent';
    access_log %LOG%;
    log_not_found off;
    types { application/xml xml; "text/markdown; charset=utf-8" md; }
    default_type application/octet-stream;
    geo $dollar { default "$"; }
    server {
        listen 127.0.0.1:%PORT%;
        root tree;
        server_tokens off;
        max_ranges 1;
        add_header Cache-Control no-cache always;
        %RATE%
        if ($request_method !~ ^(GET|HEAD)$) { return 405; }
        location = /%PROBE% { access_log off; return 200 %PROBE%; }
        location ~ /(\.|$) { return 404; }
        location ~ ^/packages/[^/]+/[^/]+/[^/]+/files/ { types {} }
        location ~ ^/packages/[^/]+/[^/]+/[^/]+/index\.xml$ {
            sub_filter_types *;
            %FILTERS%
        }
    }
}
)";

// A text in which nginx finds no variables.
QString Quoted(QString text)
{
    text.replace(QLatin1Char('\\'), QLatin1String("\\\\"));
    text.replace(QLatin1Char('"'), QLatin1String("\\\""));
    text.replace(QLatin1Char('$'), QLatin1String("${dollar}"));
    return QLatin1Char('"') + text + QLatin1Char('"');
}

} // namespace

QString NginxConfig::Url() const
{
    return QStringLiteral("http://127.0.0.1:%1").arg(port);
}

QByteArray NginxConfig::Text() const
{
    const QString below = QStringLiteral("/packages/");
    QStringList filters;
    for (const QString& baseUrl : baseUrls)
        filters.append(QStringLiteral("sub_filter %1 %2;")
                           .arg(Quoted(baseUrl.toHtmlEscaped() + below), Quoted(Url() + below)));
    QString text = QString::fromLatin1(configuration);
    text.replace(QLatin1String("%LOG%"),
                 logRequests ? QLatin1String("/dev/stdout request") : QLatin1String("off"));
    text.replace(QLatin1String("%PORT%"), QString::number(port));
    text.replace(QLatin1String("%PROBE%"), probe);
    text.replace(QLatin1String("%RATE%"),
                 limitRate.isEmpty() ? QString() : QStringLiteral("limit_rate %1;").arg(limitRate));
    // Last: an address may hold anything.
    text.replace(QLatin1String("%FILTERS%"), filters.join(QLatin1String("\n            ")));
    return text.toUtf8();
}

} // namespace publish
