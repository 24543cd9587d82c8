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

    /** Reads a key file, or the line of base64 alone. */
    static Problem Parse(const QByteArray& text, PublicKey* key);
    /** Reads a key file of at most 64 KiB; the problem names `path`. */
    static Problem Load(const QString& path, PublicKey* key);

    /** Whether this is a key. */
    bool IsValid() const;
    /** 8 bytes. */
    QByteArray Id() const;
    /** 32 bytes. */
    QByteArray Key() const;
    /** The id as minisign prints it: 16 upper-case hexadecimal digits. */
    QString IdText() const;
    /** The line of base64. */
    QByteArray Text() const;
    /** The text of a key file, both lines. */
    QByteArray FileText() const;

private:
    QByteArray id;
    QByteArray key;
};

} // namespace guard
