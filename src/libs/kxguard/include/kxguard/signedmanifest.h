#pragma once

#include <kxguard/errors.h>
#include <kxguard/kxguard_export.h>
#include <kxguard/signature.h>

#include <QByteArray>
#include <QList>
#include <QString>

namespace guard {

/** One "file" element of a manifest, as it is signed. */
struct SignedRecord
{
    QString name;        //!< path in the tree
    QString md5;         //!< 32 lower-case hexadecimal digits
    QString sha256;      //!< 64 lower-case hexadecimal digits; empty for a symbolic link
    quint64 size = 0;    //!< bytes
    QString permissions; //!< as the manifest has it; may be empty
    QString symlink;     //!< target; empty for a regular file
};

/** Everything of a build that its signature covers. The address of the files is not among it: they
 *  may be fetched from a mirror. */
struct KXGUARD_EXPORT SignedBuild
{
    PackageIdentity identity;    //!< what it is
    QString executable;          //!< "PostExec"; may be empty
    QList<SignedRecord> records; //!< in any order

    /** Why there can be no canonical list of this, empty when there can: an identity, name, digest,
     *  target or other text that is none, a control character anywhere, two records of one name, a
     *  record below a file or a link, or no records. Names and targets are those that Sums allows,
     *  and the names of the two files that it does not list itself. */
    QString Violation() const;
};

/**
 * The canonical list of records: the bytes that the signature in a manifest is made over. UTF-8, a
 * line each for the format, the package, the version, the platform and the program, then one for
 * each record, sorted by the UTF-16 code units of the names. docs/manifest.md has the grammar.
 * Empty when the build has a violation.
 */
KXGUARD_EXPORT QByteArray CanonicalRecords(const SignedBuild& build);

/**
 * Checks the signature that a package XML carries in the attributes of its "build" and "file"
 * elements ("version", "platform", "signature", "trustedComment", "commentSignature"; "sha256"),
 * before anything is downloaded:
 *
 *     connect(updater, SIGNAL(available()), SLOT(OnAvailable()));
 *     ...
 *     guard::Problem problem = guard::CheckPackageXml(updater->PackageXML(), wanted, keys);
 *
 * `wanted`: package, version (IUpdater::ServerVersion()) and platform (Build::Platform()) that the
 * signature must be for; the package names the element, too, and an empty version or platform is
 * not compared. Nothing is checked when `keys` is empty. Any thread; needs no network.
 * Codes: 6203xx; SumsMalformed is a description that cannot be read or signed.
 */
KXGUARD_EXPORT Problem CheckPackageXml(const QString& xml, const PackageIdentity& wanted,
                                       const QList<PublicKey>& keys);

/** Whether the build that an updater reads from `xml` for the package `name` carries a signature,
 *  good or not. */
KXGUARD_EXPORT bool CarriesSignature(const QString& name, const QString& xml);

} // namespace guard
