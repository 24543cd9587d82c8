#include "signingkey.h"

#include "treebuilder.h"

#include <kxguard/signedmanifest.h>
#include <kxguard/signedtree.h>

#include <QCryptographicHash>
#include <QDirIterator>
#include <QDomDocument>

#include <sodium.h>

namespace kxtest {
namespace {

unsigned char* Bytes(QByteArray& bytes)
{
    return reinterpret_cast<unsigned char*>(bytes.data());
}

const unsigned char* Bytes(const QByteArray& bytes)
{
    return reinterpret_cast<const unsigned char*>(bytes.constData());
}

QByteArray Detached(const QByteArray& message, const QByteArray& secretKey)
{
    QByteArray signature(crypto_sign_BYTES, '\0');
    crypto_sign_detached(Bytes(signature), nullptr, Bytes(message),
                         static_cast<unsigned long long>(message.size()), Bytes(secretKey));
    return signature;
}

QByteArray Sha256(const QString& path)
{
    return QCryptographicHash::hash(Read(path), QCryptographicHash::Sha256).toHex();
}

} // namespace

SigningKey::SigningKey()
    : id(8, '\0'),
      publicKey(crypto_sign_PUBLICKEYBYTES, '\0'),
      secretKey(crypto_sign_SECRETKEYBYTES, '\0')
{
    if (sodium_init() < 0)
        qFatal("libsodium cannot be used");
    randombytes_buf(id.data(), static_cast<size_t>(id.size()));
    crypto_sign_keypair(Bytes(publicKey), Bytes(secretKey));
}

SigningKey SigningKey::WithIdOf(const SigningKey& other)
{
    SigningKey key;
    key.id = other.id;
    return key;
}

guard::PublicKey SigningKey::Public() const
{
    return guard::PublicKey(id, publicKey);
}

guard::Signature SigningKey::Sign(const QByteArray& message, const QString& trustedComment) const
{
    const QByteArray comment = trustedComment.toUtf8();
    const QByteArray signature = Detached(guard::Signature::Digest(message), secretKey);
    return guard::Signature(
        id, signature, comment,
        Detached(guard::Signature::CommentMessage(signature, comment), secretKey));
}

void SigningKey::SignTree(const QString& root, const guard::PackageIdentity& identity) const
{
    Remove(root + QLatin1Char('/') + guard::SumsName());
    Remove(root + QLatin1Char('/') + guard::SignatureName());
    guard::Sums sums;
    QDirIterator entries(root, QDir::Files | QDir::Hidden | QDir::System,
                         QDirIterator::Subdirectories);
    while (entries.hasNext()) {
        const QString path = entries.next();
        const QString name = path.mid(root.size() + 1);
        if (!LinkText(path).isEmpty())
            sums.links.insert(name, LinkText(path));
        else
            sums.files.insert(name, Sha256(path));
    }
    TreeBuilder(root)
        .File(guard::SumsName(), sums.Text())
        .File(guard::SignatureName(),
              Sign(sums.Text(), guard::TrustedComment(identity)).FileText());
}

QByteArray SigningKey::SignManifest(const QByteArray& xml, const QString& root,
                                    const guard::PackageIdentity& identity) const
{
    QDomDocument document;
    document.setContent(xml);
    QDomElement build = document.documentElement().firstChildElement().firstChildElement();
    guard::SignedBuild signedBuild{identity, build.attribute(QStringLiteral("PostExec")), {}};
    for (QDomElement file = build.firstChildElement(); !file.isNull();
         file = file.nextSiblingElement()) {
        guard::SignedRecord record;
        record.name = file.attribute(QStringLiteral("name"));
        record.md5 = file.attribute(QStringLiteral("md5"));
        record.size = file.attribute(QStringLiteral("size")).toULongLong();
        record.permissions = file.attribute(QStringLiteral("permissions"));
        record.symlink = file.attribute(QStringLiteral("symlink"));
        if (record.symlink.isEmpty()) {
            record.sha256 = QString::fromLatin1(Sha256(root + QLatin1Char('/') + record.name));
            file.setAttribute(QStringLiteral("sha256"), record.sha256);
        }
        signedBuild.records.append(record);
    }
    const guard::Signature signature =
        Sign(guard::CanonicalRecords(signedBuild), guard::TrustedComment(identity));
    const QList<QByteArray> lines = signature.FileText().split('\n');
    build.setAttribute(QStringLiteral("version"), identity.version);
    build.setAttribute(QStringLiteral("platform"), identity.platform);
    build.setAttribute(QStringLiteral("signature"), QString::fromLatin1(lines.value(1)));
    build.setAttribute(QStringLiteral("trustedComment"), signature.TrustedComment());
    build.setAttribute(QStringLiteral("commentSignature"), QString::fromLatin1(lines.value(3)));
    return document.toByteArray();
}

} // namespace kxtest
