#pragma once

#include <QByteArray>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

namespace kxtest {

/**
 * A real web server on a free port of the loopback interface. Runs unprivileged, with configuration
 * and temporary files in a directory of its own, and ends with the object, or with the test program
 * if that crashes. What program it is, and what it serves, is up to the derived class.
 */
class WebServer
{
public:
    virtual ~WebServer();

    /** Starts it and waits, in a local event loop, until it answers. */
    bool Start();
    void Stop();
    /** Why Start() returned false. */
    QString Error() const { return error; }

    quint16 Port() const { return port; }
    /** "http://127.0.0.1:PORT", or with "/" and `path` behind it. */
    QString Url(const QString& path = {}) const;

protected:
    WebServer();

    /** Name of the program, which is looked for where programs of the system lie. */
    virtual QString Program() const = 0;
    virtual QStringList Arguments() const = 0;
    /** Text of ConfigurationPath(). The server has to listen on Port(), and to answer "/TOKEN" with
     *  Token(), which tells it from another one that took the port. */
    virtual QByteArray Configuration() const = 0;
    /** Environment of the process; that of the test program by default. */
    virtual QProcessEnvironment Environment() const;

    QString Token() const { return token; }
    QString ConfigurationPath() const { return WorkPath(QStringLiteral("configuration")); }
    /** Path in the server's own directory, or that directory. */
    QString WorkPath(const QString& name = {}) const;

private:
    Q_DISABLE_COPY(WebServer)

    enum class Outcome { Answers, PortTaken, Failed };

    Outcome StartOnce();
    bool Answers();

    QTemporaryDir workspace;
    QProcess process;
    QString token;
    quint16 port = 0;
    QString error;
};

} // namespace kxtest
