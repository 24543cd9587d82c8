#pragma once

#include "manifest.h"
#include "servertree.h"

#include <QByteArray>
#include <QString>
#include <QStringList>

namespace publish {

class Problems;

/** False, with a message that names `path`, when there is no server tree at `server`. */
bool CheckServerTree(const ServerTree& server, const QString& path);

/** Reads the manifest of `build` as clients do. Why they could not use it, as the end of a message;
 *  empty when they can. `text`, may be null: the text of the manifest. */
QString ReadManifestOf(const ServerTree& server, const Build& build, Manifest& manifest,
                       QByteArray* text = nullptr);

/** Why a file that `manifest` lists cannot be what it says, without reading the files: one is
 *  missing or has another size. Empty when there is none. */
QString FilesProblem(const ServerTree& server, const Build& build, const Manifest& manifest);

/**
 * Refuses `version` for each package and platform of the tree that has no build of it, or one
 * without a usable manifest: one reply speaks for all of them.
 */
void CheckPromotable(const ServerTree& server, const QString& version, Problems* problems);

/** Warns of each package and platform whose build of the version `before` is signed, and that of
 *  `offered` is not: clients that want signatures take the former only. */
void WarnOfLostSignatures(const ServerTree& server, const QString& before, const QString& offered);

/** The versions of `usable` that each package and platform of `all` has, in their order. */
QStringList CommonVersions(const QList<Build>& all, const QList<Build>& usable);

} // namespace publish
