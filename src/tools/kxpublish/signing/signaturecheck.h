#pragma once

#include "server/manifest.h"
#include "server/servertree.h"

#include <kxguard/publickey.h>

#include <QByteArray>
#include <QList>
#include <QString>

namespace publish {

class Problems;

/** Why the signature in `text`, the manifest of `build`, is none of `keys`; empty when it is. */
QString ManifestSignatureProblem(const QByteArray& text, const Build& build,
                                 const QList<guard::PublicKey>& keys);

/**
 * Checks that `sums`, with `signature`, is the list of digests of `build`, signed with one of
 * `keys`, and says the same as `manifest`. Links are compared with the manifest alone: a server has
 * none. Everything else is a problem.
 */
void CheckSums(const QByteArray& sums, const QByteArray& signature, const Manifest& manifest,
               const Build& build, const QList<guard::PublicKey>& keys, Problems* problems);

} // namespace publish
