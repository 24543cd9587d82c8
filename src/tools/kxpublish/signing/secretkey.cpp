#include "secretkey.h"

#include <sodium.h>

#include <utility>

namespace publish {

static_assert(SecretKey::keySize == crypto_sign_ed25519_SECRETKEYBYTES);

SecretKey::SecretKey(SecretBytes idAndKey)
{
    if (idAndKey.Size() != idSize + keySize)
        return;
    SecretBytes derived(keySize);
    unsigned char publicHalf[crypto_sign_ed25519_PUBLICKEYBYTES];
    crypto_sign_ed25519_seed_keypair(publicHalf, derived.Data(), idAndKey.Data() + idSize);
    if (sodium_memcmp(derived.Data(), idAndKey.Data() + idSize, size_t(keySize)) == 0)
        bytes = std::move(idAndKey);
}

SecretKey SecretKey::Generate()
{
    SecretKey key;
    key.bytes = SecretBytes(idSize + keySize);
    unsigned char publicHalf[crypto_sign_ed25519_PUBLICKEYBYTES];
    randombytes_buf(key.bytes.Data(), size_t(idSize));
    crypto_sign_ed25519_keypair(publicHalf, key.bytes.Data() + idSize);
    return key;
}

guard::PublicKey SecretKey::Public() const
{
    QByteArray publicHalf(crypto_sign_ed25519_PUBLICKEYBYTES, '\0');
    crypto_sign_ed25519_sk_to_pk(reinterpret_cast<unsigned char*>(publicHalf.data()), Key());
    return guard::PublicKey(QByteArray(bytes.Text(), idSize), publicHalf);
}

guard::Signature SecretKey::Sign(const QByteArray& message, const QString& comment) const
{
    const QByteArray signature = SignBytes(guard::Signature::Digest(message));
    const QByteArray commentBytes = comment.toUtf8();
    return guard::Signature(QByteArray(bytes.Text(), idSize), signature, commentBytes,
                            SignBytes(guard::Signature::CommentMessage(signature, commentBytes)));
}

QByteArray SecretKey::SignBytes(const QByteArray& message) const
{
    QByteArray signature(crypto_sign_ed25519_BYTES, '\0');
    crypto_sign_ed25519_detached(reinterpret_cast<unsigned char*>(signature.data()), nullptr,
                                 reinterpret_cast<const unsigned char*>(message.constData()),
                                 static_cast<unsigned long long>(message.size()), Key());
    return signature;
}

} // namespace publish
