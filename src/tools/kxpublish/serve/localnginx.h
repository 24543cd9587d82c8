#pragma once

#include "nginxconfig.h"

#include <QProcess>
#include <QTemporaryDir>

namespace publish {

/**
 * An nginx of this process alone, with its configuration in a temporary directory. Both go with the
 * object. Waits in local event loops, and stops waiting when the user wants the run to end.
 */
class LocalNginx
{
public:
    /** `tree` is the absolute path of the directory to serve. */
    explicit LocalNginx(const QString& tree);
    ~LocalNginx();

    /** Absolute path of the program; empty when there is none. */
    static QString Program();

    /**
     * Starts it with `config`, whose port 0 means a free one, and waits until it answers. The port
     * and the probe of `config` are set. On failure `error` says why; empty when interrupted.
     */
    bool Start(NginxConfig& config, QString& error);
    /** Passes the lines of nginx on to stderr until the user wants the run to end; false when nginx
     *  ended before that. */
    bool Run();

private:
    Q_DISABLE_COPY(LocalNginx)

    enum class Outcome { Answers, Failed, PortTaken };

    Outcome StartOnce(const NginxConfig& config, QString& error);
    void Stop();
    void PassLines();

    QString tree;
    QTemporaryDir directory;
    QProcess process;
};

} // namespace publish
