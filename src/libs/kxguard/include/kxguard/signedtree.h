#pragma once

#include <kxguard/errors.h>
#include <kxguard/kxguard_export.h>
#include <kxguard/signature.h>

#include <QByteArray>
#include <QMap>
#include <QString>

namespace guard {

/** Names of the two files that a signed tree carries in its root. */
KXGUARD_EXPORT QString SumsName();      //!< "SHA256SUMS"
KXGUARD_EXPORT QString SignatureName(); //!< "SHA256SUMS.minisig"

/**
 * The list of digests of a tree, which "sha256sum -c" reads: a line "DIGEST  NAME" for each regular
 * file but the two of the signature, and a comment "# link NAME -> TARGET" for each symbolic link,
 * each kind sorted by name.
 */
class KXGUARD_EXPORT Sums
{
public:
    QMap<QString, QByteArray> files; //!< SHA-256 as 64 lower-case hexadecimal digits, by name
    QMap<QString, QString> links;    //!< targets as they stand, by name

    /** The list as it is signed. */
    QByteArray Text() const;
    /** Reads a list, strictly: only what Text() writes, in its order. */
    static Problem Parse(const QByteArray& text, Sums* sums);
    /** Why `name` cannot stand in a list: control characters, backslashes, " -> ", and what
     *  common::PathGuard refuses. Empty when it can. */
    static QString NameViolation(const QString& name);
    /** Why a link with `target` cannot stand in a list, likewise. */
    static QString TargetViolation(const QString& target);
};

/**
 * Checks that the tree at `root` is exactly what one of `keys` has signed: the list of digests and
 * its signature are there, and the tree holds what the list says and nothing more, hidden entries
 * included; links are compared and never followed. Empty directories do not count. Reads every
 * byte: blocks. Any thread.
 * `identity`, may be null: what the signature vouches for.
 */
KXGUARD_EXPORT Problem CheckSignedTree(const QString& root, const QList<PublicKey>& keys,
                                       PackageIdentity* identity);

/** Compares what a signature vouches for with what is wanted; parts of `wanted` that are empty are
 *  not compared. */
KXGUARD_EXPORT Problem CompareIdentity(const PackageIdentity& signedOne,
                                       const PackageIdentity& wanted);

} // namespace guard
