#pragma once

#include <QByteArray>

namespace guard {

constexpr qsizetype keyIdSize = 8;
constexpr qsizetype keySize = 32;
constexpr qsizetype signatureSize = 64;

/** True when `signature` is the Ed25519 signature over `message` that belongs to the public `key`.
 *  Any thread. */
bool VerifyEd25519(const QByteArray& message, const QByteArray& signature, const QByteArray& key);
/** BLAKE2b with 64 bytes of output, without a key. Any thread. */
QByteArray Blake2b512(const QByteArray& message);

} // namespace guard
