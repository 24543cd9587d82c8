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
    QString md5;         //!< as the manifest has it
    QString sha256;      //!< 64 lower-case hexadecimal digits; empty for a symbolic link
    quint64 size = 0;    //!< bytes
    QString permissions; //!< as the manifest has them
    QString symlink;     //!< target; empty for a regular file
};

/** Everything of a build that its signature covers. The address of the files is not among it: they
 *  may be fetched from a mirror. */
struct SignedBuild
{
    PackageIdentity identity;    //!< what it is
    QString executable;          //!< "PostExec"
    QList<SignedRecord> records; //!< in any order
};

/**
 * The canonical list of records: the bytes that the signature in a manifest is made over. UTF-8, a
 * line each for the format, the package, the version, the platform and the program, then one for
 * each record, sorted by name. docs/manifest.md has the grammar.
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
 * signature must be for; the package names the element, too. Nothing is checked when `keys` is
 * empty. Any thread; needs no network.
 */
KXGUARD_EXPORT Problem CheckPackageXml(const QString& xml, const PackageIdentity& wanted,
                                       const QList<PublicKey>& keys);

/** Whether the build that an updater reads from `xml` for the package `name` carries a signature,
 *  good or not. */
KXGUARD_EXPORT bool CarriesSignature(const QString& name, const QString& xml);

} // namespace guard
