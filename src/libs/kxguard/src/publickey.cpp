#include <kxguard/publickey.h>

#include "crypto.h"
#include "strictcodec.h"

#include <QFile>
#include <QFileInfo>

#include <algorithm>

namespace guard {
namespace {

constexpr qsizetype largestFile = 64 * 1024;
const QByteArray algorithm = QByteArrayLiteral("Ed");
const QByteArray commentStart = QByteArrayLiteral("untrusted comment: ");

// A line of a secret key: algorithm, key derivation and checksum, salt and two limits, then id, key
// and digest.
constexpr qsizetype secretKeySize = 158;

Problem Malformed(const QString& reason)
{
    return {KeyMalformed, reason};
}

// The two files of a pair are easily confused, and the secret one should not be here at all.
bool IsSecretKey(const QByteArray& line)
{
    QByteArray bytes;
    return DecodeBase64(line, secretKeySize, &bytes) && bytes.startsWith(algorithm);
}

} // namespace

PublicKey::PublicKey() = default;

PublicKey::PublicKey(const QByteArray& id, const QByteArray& key)
{
    if (id.size() != keyIdSize || key.size() != keySize)
        return;
    this->id = id;
    this->key = key;
}

Problem PublicKey::Parse(const QByteArray& text, PublicKey* key)
{
    if (text.size() > largestFile)
        return Malformed(
            QStringLiteral("it is larger than a public key can be, %1 bytes").arg(largestFile));
    QByteArray line = text.endsWith('\n') ? text.chopped(1) : text;
    const qsizetype end = line.indexOf('\n');
    if (end >= 0) {
        if (!line.startsWith(commentStart))
            return Malformed(QStringLiteral("its first line is not 'untrusted comment: ...'"));
        line.remove(0, end + 1);
    }
    if (IsSecretKey(line))
        return Malformed(QStringLiteral("it is a secret key, which is for the publisher alone"));
    QByteArray bytes;
    if (!DecodeBase64(line, algorithm.size() + keyIdSize + keySize, &bytes))
        return Malformed(QStringLiteral("it has no line of 56 characters of base64, or more lines "
                                        "than it should"));
    if (!bytes.startsWith(algorithm))
        return Malformed(QStringLiteral("its algorithm is not Ed25519"));
    *key = PublicKey(bytes.mid(algorithm.size(), keyIdSize), bytes.right(keySize));
    return {};
}

Problem PublicKey::Load(const QString& path, PublicKey* key)
{
    const auto failed = [&path](const QString& reason) {
        return Malformed(QStringLiteral("Cannot read the public key '%1': %2.").arg(path, reason));
    };
    const QFileInfo info(path);
    // Opening a pipe would wait for its other end.
    if (info.exists() && !info.isFile())
        return failed(QStringLiteral("it is not a regular file"));
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return failed(file.errorString());
    const QByteArray text = file.read(largestFile + 1);
    if (file.error() != QFileDevice::NoError)
        return failed(file.errorString());
    const Problem problem = Parse(text, key);
    return problem ? failed(problem.text) : Problem();
}

bool PublicKey::IsValid() const
{
    return !key.isEmpty();
}

QByteArray PublicKey::Id() const
{
    return id;
}

QByteArray PublicKey::Key() const
{
    return key;
}

QString PublicKey::IdText() const
{
    return KeyIdText(id);
}

QByteArray PublicKey::Text() const
{
    return IsValid() ? (algorithm + id + key).toBase64() : QByteArray();
}

QByteArray PublicKey::FileText() const
{
    if (!IsValid())
        return {};
    return commentStart + "minisign public key " + IdText().toLatin1() + '\n' + Text() + '\n';
}

QString KeyIdText(const QByteArray& id)
{
    QByteArray number = id;
    std::reverse(number.begin(), number.end());
    return QString::number(number.toHex().toULongLong(nullptr, 16), 16).toUpper();
}

} // namespace guard
