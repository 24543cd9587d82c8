#pragma once

#include "exitstatus.h"
#include "output/problems.h"
#include "server/servertree.h"

#include <QString>

namespace publish {

struct PromoteSettings
{
    QString version;     //!< version to offer
    QString serverTree;  //!< directory that holds the builds
    int waitSeconds = 0; //!< how long to wait for another run, 0 to ServerTree::maxWait
};

/**
 * Offers a version to the clients. One reply speaks for every package and platform of a server
 * tree, so each of them has to have a build of the version.
 */
class PromoteCommand
{
public:
    explicit PromoteCommand(const PromoteSettings& settings);

    /** Does it all, with messages on stderr and the result on stdout. */
    ExitStatus Run();

private:
    Q_DISABLE_COPY(PromoteCommand)

    bool RecordHistory(const QString& before, QString& error);

    PromoteSettings settings;
    ServerTree server;
    Problems problems;
};

} // namespace publish
