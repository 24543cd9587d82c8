#include "secretkeytext.h"

#include <QtEndian>

#include <sodium.h>

#include <algorithm>
#include <cstring>

namespace publish {
namespace {

// Offsets of the parts.
constexpr qsizetype kdfAt = 2;
constexpr qsizetype checksumAlgorithmAt = 4;
constexpr qsizetype saltAt = 6;
constexpr qsizetype opsLimitAt = 38;
constexpr qsizetype memLimitAt = 46;
constexpr qsizetype keyAt = 54;
constexpr qsizetype checksumSize = 32;
constexpr qsizetype idAndKeySize = SecretKey::idSize + SecretKey::keySize;
constexpr qsizetype sealedSize = idAndKeySize + checksumSize;
constexpr qsizetype totalSize = keyAt + sealedSize;
static_assert(totalSize == 158);
static_assert(memLimitAt - opsLimitAt == 8 && keyAt - memLimitAt == 8);
static_assert(opsLimitAt - saltAt == crypto_pwhash_scryptsalsa208sha256_SALTBYTES);

constexpr quint64 leastOps = crypto_pwhash_scryptsalsa208sha256_OPSLIMIT_MIN;
constexpr quint64 mostOps = crypto_pwhash_scryptsalsa208sha256_OPSLIMIT_SENSITIVE;
constexpr quint64 leastMemory = crypto_pwhash_scryptsalsa208sha256_MEMLIMIT_MIN;
constexpr quint64 mostMemory = crypto_pwhash_scryptsalsa208sha256_MEMLIMIT_SENSITIVE;

constexpr char commentStart[] = "untrusted comment: ";
constexpr char commentLine[] = "untrusted comment: minisign encrypted secret key\n";
constexpr char algorithm[] = "Ed";
constexpr char scrypt[] = "Sc";
constexpr char noKdf[] = "\0";
constexpr char blake2b[] = "B2";

bool HasAt(const SecretBytes& bytes, qsizetype at, const char* two)
{
    return std::memcmp(bytes.Data() + at, two, 2) == 0;
}

// Over the algorithm and what is sealed, without the checksum itself.
void Checksum(const unsigned char* idAndKey, unsigned char* checksum)
{
    crypto_generichash_state state;
    crypto_generichash_init(&state, nullptr, 0, size_t(checksumSize));
    crypto_generichash_update(&state, reinterpret_cast<const unsigned char*>(algorithm), 2);
    crypto_generichash_update(&state, idAndKey, size_t(idAndKeySize));
    crypto_generichash_final(&state, checksum, size_t(checksumSize));
    sodium_memzero(&state, sizeof state);
}

// Encrypts or decrypts; false when there is too little memory.
bool Xor(const SecretBytes& header, const SecretBytes& passphrase, unsigned char* sealed)
{
    SecretBytes stream(sealedSize);
    if (crypto_pwhash_scryptsalsa208sha256(
            stream.Data(), quint64(stream.Size()), passphrase.Text(), quint64(passphrase.Size()),
            header.Data() + saltAt, qFromLittleEndian<quint64>(header.Data() + opsLimitAt),
            size_t(qFromLittleEndian<quint64>(header.Data() + memLimitAt))) != 0)
        return false;
    for (qsizetype i = 0; i < sealedSize; ++i)
        sealed[i] ^= stream.Data()[i];
    return true;
}

} // namespace

QString SecretKeyText::Parse(const SecretBytes& text)
{
    const char* begin = text.Text();
    const char* end = begin + text.Size();
    const char* line = std::find(begin, end, '\n');
    if (line == end || size_t(line - begin) < sizeof commentStart - 1 ||
        std::memcmp(begin, commentStart, sizeof commentStart - 1) != 0)
        return QStringLiteral("not a secret key, its first line is no comment");
    ++line;
    const char* lineEnd = std::find(line, end, '\n');
    SecretBytes read(totalSize);
    size_t length = 0;
    if (end - lineEnd > 1 ||
        sodium_base642bin(read.Data(), size_t(totalSize), line, size_t(lineEnd - line), nullptr,
                          &length, nullptr, sodium_base64_VARIANT_ORIGINAL) != 0 ||
        qsizetype(length) != totalSize)
        return QStringLiteral("not a secret key, its second line is not %1 bytes in base64")
            .arg(totalSize);
    if (!HasAt(read, 0, algorithm))
        return QStringLiteral("a key of an unknown algorithm, not Ed25519");
    isEncrypted = HasAt(read, kdfAt, scrypt);
    if (!isEncrypted && !HasAt(read, kdfAt, noKdf))
        return QStringLiteral("encrypted in an unknown way, not with scrypt");
    if (!HasAt(read, checksumAlgorithmAt, blake2b))
        return QStringLiteral("has a checksum of an unknown algorithm, not BLAKE2b");
    const quint64 ops = qFromLittleEndian<quint64>(read.Data() + opsLimitAt);
    const quint64 memory = qFromLittleEndian<quint64>(read.Data() + memLimitAt);
    if (isEncrypted &&
        (ops < leastOps || ops > mostOps || memory < leastMemory || memory > mostMemory))
        return QStringLiteral("asks for %1 steps and %2 bytes of memory to be decrypted, which is "
                              "beyond what any key needs: it is damaged")
            .arg(ops)
            .arg(memory);
    bytes = std::move(read);
    return {};
}

QString SecretKeyText::Open(const SecretBytes& passphrase, SecretKey* key) const
{
    SecretBytes sealed(sealedSize);
    std::memcpy(sealed.Data(), bytes.Data() + keyAt, size_t(sealedSize));
    if (isEncrypted && !Xor(bytes, passphrase, sealed.Data()))
        return QStringLiteral("cannot be decrypted: there are not %1 bytes of memory")
            .arg(qFromLittleEndian<quint64>(bytes.Data() + memLimitAt));
    unsigned char checksum[checksumSize];
    Checksum(sealed.Data(), checksum);
    const unsigned char* found = sealed.Data() + idAndKeySize;
    const bool isGood = sodium_memcmp(found, checksum, size_t(checksumSize)) == 0 ||
                        (!isEncrypted && sodium_is_zero(found, size_t(checksumSize)));
    sealed.Truncate(idAndKeySize);
    *key = isGood ? SecretKey(std::move(sealed)) : SecretKey();
    if (key->IsValid())
        return {};
    return isEncrypted ? QStringLiteral("the passphrase is wrong, or the key is damaged")
                       : QStringLiteral("the key is damaged");
}

bool SecretKeyText::Write(const SecretKey& key, const SecretBytes& passphrase, SecretBytes* text)
{
    SecretBytes bytes(totalSize);
    std::memcpy(bytes.Data(), algorithm, 2);
    std::memcpy(bytes.Data() + checksumAlgorithmAt, blake2b, 2);
    unsigned char* sealed = bytes.Data() + keyAt;
    std::memcpy(sealed, key.Id(), size_t(SecretKey::idSize));
    std::memcpy(sealed + SecretKey::idSize, key.Key(), size_t(SecretKey::keySize));
    Checksum(sealed, sealed + idAndKeySize);
    if (!passphrase.IsEmpty()) {
        std::memcpy(bytes.Data() + kdfAt, scrypt, 2);
        randombytes_buf(bytes.Data() + saltAt, size_t(opsLimitAt - saltAt));
        qToLittleEndian(mostOps, bytes.Data() + opsLimitAt);
        qToLittleEndian(mostMemory, bytes.Data() + memLimitAt);
        if (!Xor(bytes, passphrase, sealed))
            return false;
    }
    constexpr size_t commentSize = sizeof commentLine - 1;
    // The encoder ends what it writes with a zero, in whose place the line's end comes.
    constexpr size_t encodedSize =
        sodium_base64_ENCODED_LEN(size_t(totalSize), sodium_base64_VARIANT_ORIGINAL);
    *text = SecretBytes(qsizetype(commentSize + encodedSize));
    std::memcpy(text->Data(), commentLine, commentSize);
    sodium_bin2base64(text->Text() + commentSize, encodedSize, bytes.Data(), size_t(totalSize),
                      sodium_base64_VARIANT_ORIGINAL);
    text->Data()[text->Size() - 1] = '\n';
    return true;
}

} // namespace publish
