#pragma once

#include "webserver.h"

#include <QList>
#include <QPair>

/**
 * A web server with one of the example configurations as it stands in the repository. Only what
 * ties it to one machine is replaced: address, paths, and what would need root. Each of those texts
 * has to stand in the file exactly once, or Start() fails.
 */
class ExampleServer : public kxtest::WebServer
{
public:
    /** Serves the directory `root`, into which it writes a file while it starts. */
    explicit ExampleServer(const QString& root) : root(root) {}

    /** Starts it, and says in Error() what kept it from that. */
    bool StartExample();
    QByteArray AccessLog() const;

protected:
    QString AccessLogPath() const { return WorkPath(QStringLiteral("access.log")); }
    QString Root() const { return root; }
    /** The file `name` of the repository with `replacements` made. */
    QByteArray Example(const QString& name,
                       const QList<QPair<QString, QString>>& replacements) const;
    void WriteProbe() const;

private:
    QString root;
    mutable QString problem;
};

class NginxExample : public ExampleServer
{
public:
    using ExampleServer::ExampleServer;

protected:
    QString Program() const override { return QStringLiteral("nginx"); }
    QStringList Arguments() const override;
    QByteArray Configuration() const override;
};

class CaddyExample : public ExampleServer
{
public:
    using ExampleServer::ExampleServer;

protected:
    QString Program() const override { return QStringLiteral("caddy"); }
    QStringList Arguments() const override;
    QByteArray Configuration() const override;
    QProcessEnvironment Environment() const override;
};
