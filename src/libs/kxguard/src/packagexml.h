#pragma once

#include <kxguard/signedmanifest.h>

#include <QString>

namespace guard {

/** The build of a package XML that an updater acts on, with the attributes of its signature. */
struct PackageXml
{
    bool hasBuild = false; //!< false: an updater finds nothing for the package in the text
    SignedBuild build;     //!< as it stands, not to be trusted
    QString signature;
    QString trustedComment;
    QString commentSignature;
};

/**
 * Reads `xml` exactly as updater::Package does, element by element and attribute by attribute: two
 * readings of one text would let a server have one of them signed and the other one installed.
 * False when the text is refused there.
 */
bool ReadPackageXml(const QString& xml, const QString& package, PackageXml* result);

} // namespace guard
