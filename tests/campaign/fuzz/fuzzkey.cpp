#include "fuzzkey.h"

#include "fuzztarget.h"

#include <sodium.h>

namespace kxfuzz {
namespace {

unsigned char* Bytes(QByteArray& bytes)
{
    return reinterpret_cast<unsigned char*>(bytes.data());
}

const unsigned char* Bytes(const QByteArray& bytes)
{
    return reinterpret_cast<const unsigned char*>(bytes.constData());
}

} // namespace

Key::Key(char seed) : secret(crypto_sign_SECRETKEYBYTES, '\0')
{
    KX_FUZZ_REQUIRE(sodium_init() >= 0);
    const QByteArray bytes(crypto_sign_SEEDBYTES, seed);
    QByteArray key(crypto_sign_PUBLICKEYBYTES, '\0');
    crypto_sign_seed_keypair(Bytes(key), Bytes(secret), Bytes(bytes));
    publicKey = guard::PublicKey(QByteArray(8, seed), key);
}

guard::Signature Key::Sign(const QByteArray& message, const QByteArray& comment) const
{
    const QByteArray signature = SignBytes(guard::Signature::Digest(message));
    return {publicKey.Id(), signature, comment, SignBytes(signature + comment)};
}

QByteArray Key::SignBytes(const QByteArray& bytes) const
{
    QByteArray signature(crypto_sign_BYTES, '\0');
    crypto_sign_detached(Bytes(signature), nullptr, Bytes(bytes),
                         static_cast<unsigned long long>(bytes.size()), Bytes(secret));
    return signature;
}

} // namespace kxfuzz
