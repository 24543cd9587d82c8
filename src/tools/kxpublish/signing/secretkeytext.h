#pragma once

#include "secretbytes.h"
#include "secretkey.h"

#include <QString>

namespace publish {

/**
 * The text of a secret key file, as minisign 0.11 reads and writes it: a comment line and one of
 * base64, which holds 158 bytes:
 *
 *     2   "Ed", the algorithm of signatures
 *     2   "Sc" for a key that is encrypted with a passphrase and scrypt, two zero bytes for another
 *     2   "B2", the algorithm of the checksum
 *     32  salt   \
 *     8   opslimit, little-endian  | of crypto_pwhash_scryptsalsa208sha256()
 *     8   memlimit, little-endian  /
 *     104 id of the key (8), the key (64), BLAKE2b-256 over algorithm, id and key (32); all of it
 *         XORed with the output of scrypt when the key is encrypted
 *
 * minisign leaves zeros as the checksum of a key without a passphrase, so they are accepted there.
 */
class SecretKeyText
{
public:
    /** Longest text that is read, and longest passphrase that minisign takes, in bytes. */
    static constexpr qsizetype maxText = 4096;
    static constexpr qsizetype maxPassphrase = 1023;

    /**
     * Reads a text: what is wrong with it, as the end of a message; empty when nothing is. Limits
     * beyond those of a new key are wrong, before any memory is allocated for them.
     */
    QString Parse(const SecretBytes& text);
    bool IsEncrypted() const { return isEncrypted; }
    /**
     * The key, once Parse() found nothing. With a passphrase this takes a second and the memory
     * that the text names, 1 GiB at most. An empty text, or what is wrong as the end of a message.
     */
    QString Open(const SecretBytes& passphrase, SecretKey* key) const;

    /**
     * The text of `key`, encrypted when `passphrase` is not empty: then it takes 1 GiB for a
     * second. False when that memory is not there.
     */
    static bool Write(const SecretKey& key, const SecretBytes& passphrase, SecretBytes* text);

private:
    SecretBytes bytes;
    bool isEncrypted = false;
};

} // namespace publish
