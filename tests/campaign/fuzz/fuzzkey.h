#pragma once

#include <kxguard/publickey.h>
#include <kxguard/signature.h>

#include <QByteArray>

namespace kxfuzz {

/** A key pair that is the same in each run, and signs as minisign does. */
class Key
{
public:
    /** Keys with different seeds have nothing in common, their ids included. */
    explicit Key(char seed);

    guard::PublicKey Public() const { return publicKey; }
    guard::Signature Sign(const QByteArray& message, const QByteArray& comment) const;

private:
    QByteArray SignBytes(const QByteArray& bytes) const;

    QByteArray secret;
    guard::PublicKey publicKey;
};

} // namespace kxfuzz
