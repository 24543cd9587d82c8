#pragma once

#include <kxguard/errors.h>
#include <kxguard/kxguard_export.h>

#include <QByteArray>
#include <QList>
#include <QString>

namespace guard {

/**
 * A public key as minisign writes it: 42 bytes in base64, which are "Ed", an id of 8 bytes and an
 * Ed25519 key of 32. A plain value.
 */
class KXGUARD_EXPORT PublicKey
{
public:
    /** No key. */
    PublicKey();
    /** From the two parts; no key when their lengths are wrong. */
    PublicKey(const QByteArray& id, const QByteArray& key);

    /** Reads a key file (a line "untrusted comment: ..." and one of base64) or the line of base64
     *  alone, at most 64 KiB, strictly: lines end in "\n", the last one need not, the base64 is
     *  canonical, and nothing follows. Problems have the code KeyMalformed and a reason without a
     *  file's name. */
    static Problem Parse(const QByteArray& text, PublicKey* key);
    /** Reads the regular file at `path`, links followed; the problem names it. */
    static Problem Load(const QString& path, PublicKey* key);

    /** Whether this is a key. */
    bool IsValid() const;
    /** 8 bytes. */
    QByteArray Id() const;
    /** 32 bytes. */
    QByteArray Key() const;
    /** The id as minisign prints it: a little-endian number in upper-case hexadecimal digits,
     *  without zeros in front. */
    QString IdText() const;
    /** The line of base64. */
    QByteArray Text() const;
    /** The text of a key file, both lines. */
    QByteArray FileText() const;

    /** Whether id and key are the same. */
    friend bool operator==(const PublicKey& a, const PublicKey& b)
    {
        return a.id == b.id && a.key == b.key;
    }
    /** Whether they are not. */
    friend bool operator!=(const PublicKey& a, const PublicKey& b) { return !(a == b); }

private:
    QByteArray id;
    QByteArray key;
};

/** The id of a key, 8 bytes, as PublicKey::IdText() writes it. */
KXGUARD_EXPORT QString KeyIdText(const QByteArray& id);

} // namespace guard
