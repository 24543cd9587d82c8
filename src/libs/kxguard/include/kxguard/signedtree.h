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
 * file but the two of the signature, then a comment "# link NAME -> TARGET" for each symbolic link,
 * each kind sorted by the UTF-16 code units of the names. UTF-8; every line ends in "\n".
 */
class KXGUARD_EXPORT Sums
{
public:
    QMap<QString, QByteArray> files; //!< SHA-256 as 64 lower-case hexadecimal digits, by name
    QMap<QString, QString> links;    //!< targets as they stand, by name

    /** The list as it is signed; empty for entries that have a Violation(). */
    QByteArray Text() const;
    /** Why there can be no list of these entries, empty when there can: a name, a digest or a
     *  target that cannot stand in one, a name that is both a file and a link, a name below a file
     *  or a link, or no entry at all. */
    QString Violation() const;
    /** Reads a list of at most 64 MiB, strictly: only what Text() writes of entries without a
     *  violation, in its order. Problems have the code SumsMalformed and a reason without a file's
     *  name. */
    static Problem Parse(const QByteArray& text, Sums* sums);
    /** Why `name` cannot stand in a list, empty when it can: control characters, backslashes,
     *  " -> ", also at the end, halves of surrogate pairs, empty components, the names of the two
     *  files of the signature, "-", which sha256sum takes for its input, and what
     *  common::PathGuard refuses. */
    static QString NameViolation(const QString& name);
    /** The same for the target of a link: none at all, control characters, backslashes, " -> " and
     *  halves of surrogate pairs. Where it leads does not matter. */
    static QString TargetViolation(const QString& target);
};

/**
 * Checks that the tree at `root` is exactly what one of `keys` has signed: the list of digests and
 * its signature are there, and the tree holds what the list says and nothing more, hidden entries
 * included; links below `root` are compared and never followed, and `root` itself may be reached
 * through links. Empty directories do not count. Without keys nothing is trusted. Reads every byte:
 * blocks. Any thread.
 * Codes: 6203xx, and PackageUnreadable for what could not be read. The texts name the files.
 * `identity`, may be null: what the signature vouches for, for CompareIdentity(); a signature
 * whose trusted comment is not one of TrustedComment() is refused.
 */
KXGUARD_EXPORT Problem CheckSignedTree(const QString& root, const QList<PublicKey>& keys,
                                       PackageIdentity* identity);

/** Compares what a signature vouches for with what is wanted, letter by letter; parts of `wanted`
 *  that are empty are not compared. Codes: SignaturePackage for package and platform,
 *  SignatureVersion. */
KXGUARD_EXPORT Problem CompareIdentity(const PackageIdentity& signedOne,
                                       const PackageIdentity& wanted);

} // namespace guard
