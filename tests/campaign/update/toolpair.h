#pragma once

#include "campaignsite.h"
#include "httptestserver.h"
#include "randomtree.h"

#include <QString>
#include <QStringList>

namespace kxtest {

/**
 * One pair of trees by way of the tools: published with kxpublish, installed, updated and repaired
 * with kxupdate.
 */
class ToolPair
{
public:
    /** `seed` decides the trees and the damage; `directory` is the round's. */
    ToolPair(quint32 seed, const QString& directory);

    /** What was wrong; empty when all was right. */
    QString Run();

private:
    QString Publish(const campaign::RandomTree& tree, const QString& version);
    /** Runs a command of kxupdate, and compares: the tree, and the files that were fetched. */
    QString Update(const QString& command, const QString& current,
                   const campaign::RandomTree& wanted, const campaign::RandomTree& present);

    quint32 seed;
    QString directory;
    HttpTestServer server;
    CampaignSite site;
};

/** Names of the files of `wanted` that `present` does not have, sorted. */
QStringList MissingFiles(const campaign::RandomTree& wanted, const campaign::RandomTree& present);

} // namespace kxtest
