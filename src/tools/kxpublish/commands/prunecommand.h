#pragma once

#include "exitstatus.h"
#include "server/servertree.h"

#include <QJsonObject>
#include <QList>
#include <QString>
#include <QStringList>

namespace publish {

struct PruneSettings
{
    QString serverTree; //!< directory that holds the builds
    int keep = 1;       //!< latest versions of each package and platform that stay; at least 1
    bool dryRun = false;
    int waitSeconds = 0; //!< how long to wait for another run, 0 to ServerTree::maxWait
};

/** What `prune` removed, or would remove. */
struct PruneResult
{
    struct Kept
    {
        Build build;
        QString reason; //!< why it stays although it is none of the latest
    };

    QList<Build> removed; //!< by package, platform and version
    QList<Kept> kept;
    quint64 freedBytes = 0; //!< on the disk; files that other builds share stay
    bool dryRun = false;

    QStringList Lines() const;
    QJsonObject ToJson() const;
};

/**
 * Removes old builds. Those stay that are among the latest of their package and platform, that
 * clients are offered, or that a rollback would offer next. Builds that no client could use do not
 * count as latest.
 *
 * A client that is downloading a removed build gets a 404 for its next file, reports the failure,
 * and begins with the offered version at its next check.
 */
class PruneCommand
{
public:
    explicit PruneCommand(const PruneSettings& settings);

    /** Does it all, with messages on stderr. */
    ExitStatus Run();
    const PruneResult& Result() const { return result; }

private:
    Q_DISABLE_COPY(PruneCommand)

    QList<Build> Plan();
    ExitStatus Remove(const QList<Build>& builds);

    PruneSettings settings;
    ServerTree server;
    PruneResult result;
};

} // namespace publish
