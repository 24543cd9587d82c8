#pragma once

#include "secretbytes.h"

#include <kxguard/publickey.h>
#include <kxguard/signature.h>

#include <QByteArray>
#include <QString>

namespace publish {

/** The secret half of a key pair: an id of 8 bytes and an Ed25519 key of 64. */
class SecretKey
{
public:
    static constexpr qsizetype idSize = 8;
    static constexpr qsizetype keySize = 64;

    /** No key. */
    SecretKey() = default;
    /** From id and key, one behind the other. No key when the public half, which is the end of the
     *  key, does not belong to the secret one: signatures of such a key give it away. */
    explicit SecretKey(SecretBytes idAndKey);
    /** A new pair. */
    static SecretKey Generate();

    bool IsValid() const { return !bytes.IsEmpty(); }
    const unsigned char* Id() const { return bytes.Data(); }
    const unsigned char* Key() const { return bytes.Data() + idSize; }
    guard::PublicKey Public() const;
    /** Signs `message`, and `comment` together with that. */
    guard::Signature Sign(const QByteArray& message, const QString& comment) const;

private:
    QByteArray SignBytes(const QByteArray& message) const;

    SecretBytes bytes;
};

} // namespace publish
