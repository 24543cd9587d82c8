#pragma once

#include <kxguard/errors.h>
#include <kxguard/kxguard_export.h>
#include <kxguard/publickey.h>

#include <QByteArray>
#include <QList>
#include <QString>

namespace guard {

/** What a signature vouches for; a part that is empty is not known. */
struct KXGUARD_EXPORT PackageIdentity
{
    QString package;  //!< name on the server
    QString version;  //!< text as the server announces it
    QString platform; //!< "x64" or "x86"

    /** Why this cannot be signed, empty when it can: each part has 1 to 128 letters of ASCII,
     *  digits and "._+~-", so that no two identities have one trusted comment. */
    QString Violation() const;
};

/**
 * A signature as minisign writes it: four lines, of which the first is a comment that nobody signs,
 * the second the signature over the BLAKE2b-512 digest of the file, the third the trusted comment,
 * the fourth the signature over both. A plain value. Problems have a reason as their text, without
 * the name of a file.
 */
class KXGUARD_EXPORT Signature
{
public:
    Signature();
    /** From the parts; `keyId` has 8 bytes, both signatures have 64. */
    Signature(const QByteArray& keyId, const QByteArray& signature, const QByteArray& comment,
              const QByteArray& commentSignature);

    /**
     * Reads a signature file of at most 16 KiB, strictly: four lines that end in "\n", which only
     * the last may lack, and nothing after them; the algorithm "ED", canonical base64, and a
     * trusted comment of at most 8192 bytes in UTF-8 without control characters other than the tab,
     * which minisign writes by default. Problems have the code SignatureMalformed.
     */
    static Problem Parse(const QByteArray& text, Signature* signature);
    /** Reads the three signed parts of a file as strictly; they have no line ends and no captions.
     *  `signature` and `commentSignature` are base64 of 74 and 64 bytes. */
    static Problem ParseParts(const QByteArray& signature, const QByteArray& comment,
                              const QByteArray& commentSignature, Signature* result);

    /** True when every part has a form that Parse() accepts. */
    bool IsValid() const;
    /** The text of a signature file; empty when this is not valid. */
    QByteArray FileText() const;
    /** 8 bytes: the id of the key that it says it was made with. */
    QByteArray KeyId() const { return keyId; }
    /** The text of the third line, of which Verify() finds out whether it is to be trusted. */
    QString TrustedComment() const;
    /** The second line of a file: base64 of the algorithm, the key's id and the signature. */
    QByteArray SignatureText() const;
    /** The fourth line of a file: base64 of the signature over the trusted comment. */
    QByteArray CommentSignatureText() const;

    /**
     * Checks both signatures with the one of `keys` that has the id. Any thread.
     * `message`: the signed bytes. Codes: SignatureMalformed, SignatureUnknownKey, SignatureWrong.
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

/** The trusted comment that binds a signature to a build: "package:NAME version:V platform:P";
 *  empty when the identity cannot be signed, see PackageIdentity::Violation(). */
KXGUARD_EXPORT QString TrustedComment(const PackageIdentity& identity);
/** Reads one back, strictly: only what TrustedComment() writes. Problems have the code
 *  SignatureMalformed. */
KXGUARD_EXPORT Problem ReadTrustedComment(const QString& comment, PackageIdentity* identity);

} // namespace guard
