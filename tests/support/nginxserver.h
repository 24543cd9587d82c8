#pragma once

#include "webserver.h"

namespace kxtest {

/**
 * The real nginx, serving one directory on a free port of the loopback interface.
 *
 *     kxtest::NginxServer server(directory);
 *     QVERIFY2(server.Start(), qPrintable(server.Error()));
 *     updater->SetURL(server.Url());
 *
 * Settings count from Start().
 */
class NginxServer : public WebServer
{
public:
    explicit NginxServer(const QString& directory);

    /** Bytes per second on each connection; 0, the default: as fast as it goes. */
    void SetRateLimit(qint64 bytesPerSecond) { rateLimit = bytesPerSecond; }
    /** Adds a header to every reply, for example "Cache-Control" with "max-age=3600". */
    void AddHeader(const QString& name, const QString& value);
    /** Adds lines to the server block of the configuration, each with its ";". */
    void AddConfiguration(const QString& line) { serverLines << line; }

    /** Requests served so far as "METHOD URI STATUS BYTES RANGE", in the order of their ends. */
    QStringList Requests() const;

protected:
    QString Program() const override { return QStringLiteral("nginx"); }
    QStringList Arguments() const override;
    QByteArray Configuration() const override;

private:
    QString directory;
    qint64 rateLimit = 0;
    QStringList serverLines;
};

} // namespace kxtest
