#pragma once

#include "exitstatus.h"
#include "output/problems.h"
#include "server/servertree.h"

#include <QString>

namespace publish {

struct NginxConfig;

struct ServeSettings
{
    QString serverTree;    //!< directory that holds the published builds
    QString port;          //!< port of the loopback interface, 0 for a free one
    QString limitRate;     //!< bytes a second of each connection, with "k" or "m"; empty: no limit
    bool keepUrls = false; //!< manifests go out with the addresses that they hold
    bool quiet = false;    //!< no line for each request
};

/**
 * Serves a server tree on the loopback interface with nginx, for trying out, until the user wants
 * it to end. Manifests hold the address at which the tree will be on the internet; on the way out
 * it is replaced by the local one, and nothing in the tree changes.
 */
class ServeCommand
{
public:
    explicit ServeCommand(const ServeSettings& settings);

    /** Does it all, with messages and requests on stderr and the address on stdout. */
    ExitStatus Run();

private:
    Q_DISABLE_COPY(ServeCommand)

    void CheckSettings();
    void Announce(const NginxConfig& config, const QStringList& elsewhere) const;

    ServeSettings settings;
    ServerTree server;
    Problems problems;
};

} // namespace publish
