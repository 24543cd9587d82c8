#pragma once

#include "server/servertree.h"

#include <QString>
#include <QStringList>

namespace publish {

/** Where the manifests of a server tree send the clients for the files. */
struct ServedAddresses
{
    /** Addresses below which builds expect the tree to be served; each once, in order of builds. */
    QStringList baseUrls;
    /** Manifests that lead to another place than the tree's own files. */
    QStringList elsewhere;
};

/**
 * Reads the address of the files in every manifest of `server`. Reads no further than to that
 * address, however long the manifest is. `error` names a manifest that cannot be read.
 */
bool FindAddresses(const ServerTree& server, ServedAddresses& addresses, QString& error);

} // namespace publish
