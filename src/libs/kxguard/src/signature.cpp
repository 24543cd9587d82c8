#include <kxguard/signature.h>

#include "crypto.h"
#include "strictcodec.h"

#include <QStringList>

namespace guard {
namespace {

constexpr qsizetype largestFile = 16 * 1024;
constexpr qsizetype largestComment = 8192;
const QByteArray algorithm = QByteArrayLiteral("ED");
const QByteArray legacyAlgorithm = QByteArrayLiteral("Ed");
const QByteArray untrustedStart = QByteArrayLiteral("untrusted comment: ");
const QByteArray trustedStart = QByteArrayLiteral("trusted comment: ");

Problem Malformed(const QString& reason)
{
    return {SignatureMalformed, reason};
}

// minisign separates the parts of its own comments by tabs.
bool IsComment(const QByteArray& comment)
{
    QString text;
    return comment.size() <= largestComment && DecodeUtf8(comment, &text) &&
           !HasControl(text.remove(QLatin1Char('\t')));
}

QString IdsOf(const QList<PublicKey>& keys)
{
    QStringList ids;
    for (const PublicKey& key : keys) {
        if (key.IsValid())
            ids.append(key.IdText());
    }
    return ids.isEmpty() ? QStringLiteral("none") : ids.join(QStringLiteral(", "));
}

} // namespace

Signature::Signature() = default;

Signature::Signature(const QByteArray& keyId, const QByteArray& signature,
                     const QByteArray& comment, const QByteArray& commentSignature)
    : keyId(keyId), signature(signature), comment(comment), commentSignature(commentSignature)
{
}

Problem Signature::Parse(const QByteArray& text, Signature* signature)
{
    if (text.size() > largestFile)
        return Malformed(
            QStringLiteral("it is larger than a signature can be, %1 bytes").arg(largestFile));
    const QList<QByteArray> lines = (text.endsWith('\n') ? text.chopped(1) : text).split('\n');
    if (lines.size() != 4)
        return Malformed(QStringLiteral("it has not four lines"));
    if (!lines.at(0).startsWith(untrustedStart))
        return Malformed(QStringLiteral("its first line is not 'untrusted comment: ...'"));
    if (!lines.at(2).startsWith(trustedStart))
        return Malformed(QStringLiteral("its third line is not 'trusted comment: ...'"));
    return ParseParts(lines.at(1), lines.at(2).mid(trustedStart.size()), lines.at(3), signature);
}

Problem Signature::ParseParts(const QByteArray& signature, const QByteArray& comment,
                              const QByteArray& commentSignature, Signature* result)
{
    QByteArray first;
    if (!DecodeBase64(signature, algorithm.size() + keyIdSize + signatureSize, &first))
        return Malformed(QStringLiteral("the signature is not 100 characters of base64"));
    if (first.startsWith(legacyAlgorithm))
        return Malformed(QStringLiteral("the signature is of minisign's legacy kind, which is not "
                                        "made over a digest and is not accepted"));
    if (!first.startsWith(algorithm))
        return Malformed(QStringLiteral("the signature has an unknown algorithm"));
    if (!IsComment(comment))
        return Malformed(QStringLiteral("the trusted comment is longer than %1 bytes, not in "
                                        "UTF-8, or has control characters")
                             .arg(largestComment));
    QByteArray second;
    if (!DecodeBase64(commentSignature, signatureSize, &second))
        return Malformed(
            QStringLiteral("the signature of the trusted comment is not 88 characters of base64"));
    *result = Signature(first.mid(algorithm.size(), keyIdSize), first.right(signatureSize), comment,
                        second);
    return {};
}

bool Signature::IsValid() const
{
    return keyId.size() == keyIdSize && signature.size() == signatureSize &&
           commentSignature.size() == signatureSize && IsComment(comment);
}

QByteArray Signature::FileText() const
{
    if (!IsValid())
        return {};
    return untrustedStart + "signature of key " + KeyIdText(keyId).toLatin1() + '\n' +
           SignatureText() + '\n' + trustedStart + comment + '\n' + CommentSignatureText() + '\n';
}

QString Signature::TrustedComment() const
{
    QString text;
    return DecodeUtf8(comment, &text) ? text : QString();
}

QByteArray Signature::SignatureText() const
{
    return (algorithm + keyId + signature).toBase64();
}

QByteArray Signature::CommentSignatureText() const
{
    return commentSignature.toBase64();
}

Problem Signature::Verify(const QByteArray& message, const QList<PublicKey>& keys) const
{
    if (!IsValid())
        return Malformed(QStringLiteral("it is no signature"));
    const QByteArray digest = Digest(message);
    const QByteArray commentMessage = CommentMessage(signature, comment);
    bool isKnown = false;
    for (const PublicKey& key : keys) {
        if (!key.IsValid() || key.Id() != keyId)
            continue;
        isKnown = true;
        if (VerifyEd25519(digest, signature, key.Key()) &&
            VerifyEd25519(commentMessage, commentSignature, key.Key())) {
            return {};
        }
    }
    if (!isKnown)
        return {SignatureUnknownKey,
                QStringLiteral("it is signed with the key %1, which is not trusted; trusted: %2")
                    .arg(KeyIdText(keyId), IdsOf(keys))};
    return {SignatureWrong,
            QStringLiteral("the signature is wrong: the files were changed after signing, or the "
                           "download is damaged")};
}

QByteArray Signature::Digest(const QByteArray& message)
{
    return Blake2b512(message);
}

QByteArray Signature::CommentMessage(const QByteArray& signature, const QByteArray& comment)
{
    return signature + comment;
}

} // namespace guard
