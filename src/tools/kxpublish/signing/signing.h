#pragma once

#include "secretkey.h"
#include "server/manifest.h"
#include "server/servertree.h"
#include "source/treecheck.h"

#include <kxguard/signedtree.h>

#include <QByteArray>
#include <QMap>
#include <QString>
#include <QStringList>

namespace publish {

class Problems;

/** What a signature of `build` vouches for. */
guard::PackageIdentity IdentityOf(const Build& build);

/** Names of the two files that signing adds to a tree. */
QStringList SigningFileNames();

/** Leaves out the two files of an earlier signature, whatever they are; which ones there were. */
QStringList LeaveOutSums(TreeContents* contents);

/** Refuses a build whose name, version or platform cannot stand in a signature. */
void CheckSignable(const Build& build, Problems* problems);

/** Refuses what cannot stand in a list of digests or beside one, by name. */
void CheckSignable(const TreeContents& contents, Problems* problems);

/** The two files that make a tree a signed one. */
struct SignedSums
{
    QByteArray text;
    QByteArray signature;
};

/** Signs a list of digests for `build`. */
SignedSums SignSums(const guard::Sums& sums, const Build& build, const SecretKey& key);

/** The list for what was listed and read; `sha256` in hexadecimal digits by file name. */
guard::Sums SumsOf(const TreeContents& contents, const QMap<QString, QByteArray>& sha256);

/** Signs the records of a manifest, which has the SHA-256 digests of all its files, for `build`. */
void SignManifest(Manifest* manifest, const Build& build, const SecretKey& key);

} // namespace publish
