#pragma once

#include <kxguard/errors.h>
#include <kxguard/kxguard_export.h>
#include <kxguard/publickey.h>

#include <QByteArray>
#include <QList>
#include <QString>

namespace guard {

/** What a signature vouches for; a part that is empty is not known. */
struct PackageIdentity
{
    QString package;  //!< name on the server
    QString version;  //!< text as the server announces it
    QString platform; //!< "x64" or "x86"
};

/**
 * A signature as minisign writes it: four lines, of which the first is a comment that nobody signs,
 * the second the signature over the BLAKE2b-512 digest of the file, the third the trusted comment,
 * the fourth the signature over both.
 */
class KXGUARD_EXPORT Signature
{
public:
    Signature();
    /** From the parts; `keyId` has 8 bytes, both signatures have 64. */
    Signature(const QByteArray& keyId, const QByteArray& signature, const QByteArray& comment,
              const QByteArray& commentSignature);

    /** Reads a signature file, strictly: four lines, one algorithm ("ED"), canonical base64, a
     *  trusted comment of at most 8192 printable bytes in UTF-8. */
    static Problem Parse(const QByteArray& text, Signature* signature);

    /** The text of a signature file. */
    QByteArray FileText() const;
    /** 8 bytes: the id of the key that it says it was made with. */
    QByteArray KeyId() const { return keyId; }
    /** The text of the third line, of which Verify() finds out whether it is to be trusted. */
    QString TrustedComment() const;

    /**
     * Checks both signatures with the one of `keys` that has the id. Any thread.
     * `message`: the signed bytes.
     */
    Problem Verify(const QByteArray& message, const QList<PublicKey>& keys) const;

    /** BLAKE2b-512 of `message`: what is signed. 64 bytes. */
    static QByteArray Digest(const QByteArray& message);
    /** What the second signature is made over. */
    static QByteArray CommentMessage(const QByteArray& signature, const QByteArray& comment);

private:
    QByteArray keyId;
    QByteArray signature;
    QByteArray comment;
    QByteArray commentSignature;
};

/** The trusted comment that binds a signature to a build: "package:NAME version:V platform:P". */
KXGUARD_EXPORT QString TrustedComment(const PackageIdentity& identity);
/** Reads one back; problems have the code SignatureMalformed. */
KXGUARD_EXPORT Problem ReadTrustedComment(const QString& comment, PackageIdentity* identity);

} // namespace guard
