#pragma once

#include <kxguard/publickey.h>
#include <kxguard/signature.h>

#include <QByteArray>
#include <QString>

namespace kxtest {

/** A publisher's pair of keys, made anew, that signs with libsodium alone. */
class SigningKey
{
public:
    SigningKey();
    /** Another pair that claims the id of `other`. */
    static SigningKey WithIdOf(const SigningKey& other);

    guard::PublicKey Public() const;
    guard::Signature Sign(const QByteArray& message, const QString& trustedComment) const;
    /** Puts the list of digests and its signature into the tree at `root`, in place of earlier
     *  ones. */
    void SignTree(const QString& root, const guard::PackageIdentity& identity) const;
    /** `xml`, a manifest of one build, signed: with SHA-256 of the files at `root`. */
    QByteArray SignManifest(const QByteArray& xml, const QString& root,
                            const guard::PackageIdentity& identity) const;

private:
    QByteArray id;
    QByteArray publicKey;
    QByteArray secretKey;
};

} // namespace kxtest
