#include "crypto.h"

#include <sodium.h>

namespace guard {
namespace {

static_assert(keySize == crypto_sign_PUBLICKEYBYTES);
static_assert(signatureSize == crypto_sign_BYTES);

// Chooses the implementations for this processor. A failure leaves nothing to be trusted.
bool IsReady()
{
    static const bool ready = sodium_init() >= 0;
    return ready;
}

const unsigned char* BytesOf(const QByteArray& bytes)
{
    return reinterpret_cast<const unsigned char*>(bytes.constData());
}

} // namespace

bool VerifyEd25519(const QByteArray& message, const QByteArray& signature, const QByteArray& key)
{
    return IsReady() && signature.size() == signatureSize && key.size() == keySize &&
           crypto_sign_verify_detached(BytesOf(signature), BytesOf(message),
                                       static_cast<unsigned long long>(message.size()),
                                       BytesOf(key)) == 0;
}

QByteArray Blake2b512(const QByteArray& message)
{
    QByteArray digest(crypto_generichash_BYTES_MAX, '\0');
    if (!IsReady() ||
        crypto_generichash(reinterpret_cast<unsigned char*>(digest.data()),
                           static_cast<size_t>(digest.size()), BytesOf(message),
                           static_cast<unsigned long long>(message.size()), nullptr, 0) != 0) {
        return {};
    }
    return digest;
}

} // namespace guard
