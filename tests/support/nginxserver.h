#pragma once

#include <QByteArray>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

namespace kxtest {

/**
 * The real nginx, serving one directory on a free port of the loopback interface.
 *
 *     kxtest::NginxServer server(directory);
 *     QVERIFY2(server.Start(), qPrintable(server.Error()));
 *     updater->SetURL(server.Url());
 *
 * Runs unprivileged, with configuration and temporary files in a directory of its own, and ends
 * with the object, or with the test program if that crashes. Settings count from Start().
 */
class NginxServer
{
public:
    explicit NginxServer(const QString& directory);
    ~NginxServer();

    /** Bytes per second on each connection; 0, the default: as fast as it goes. */
    void SetRateLimit(qint64 bytesPerSecond) { rateLimit = bytesPerSecond; }
    /** Adds a header to every reply, for example "Cache-Control" with "max-age=3600". */
    void AddHeader(const QString& name, const QString& value);
    /** Adds lines to the server block of the configuration, each with its ";". */
    void AddConfiguration(const QString& line) { serverLines << line; }

    /** Starts it and waits, in a local event loop, until it answers. */
    bool Start();
    void Stop();
    /** Why Start() returned false. */
    QString Error() const { return error; }

    quint16 Port() const { return port; }
    /** "http://127.0.0.1:PORT", or with "/" and `path` behind it. */
    QString Url(const QString& path = {}) const;
    /** Requests served so far as "METHOD URI STATUS BYTES RANGE", in the order of their ends. */
    QStringList Requests() const;

private:
    Q_DISABLE_COPY(NginxServer)

    enum class Outcome { Answers, PortTaken, Failed };

    QByteArray Configuration() const;
    Outcome StartOnce();
    bool Answers();

    QString directory;
    qint64 rateLimit = 0;
    QStringList serverLines;
    QTemporaryDir workspace;
    QProcess process;
    QString token; // tells this server from another one that took the port
    quint16 port = 0;
    QString error;
};

} // namespace kxtest
