#include "minisign.h"

#include "treebuilder.h"

#include <QCryptographicHash>
#include <QDirIterator>
#include <QFileInfo>
#include <QProcess>

#include <sodium.h>

namespace kxtest {
namespace {

constexpr int programMs = 60000;

unsigned char* Bytes(QByteArray& bytes)
{
    return reinterpret_cast<unsigned char*>(bytes.data());
}

const unsigned char* Bytes(const QByteArray& bytes)
{
    return reinterpret_cast<const unsigned char*>(bytes.constData());
}

} // namespace

SeededKey::SeededKey(quint32 seed) : secret(crypto_sign_SECRETKEYBYTES, '\0')
{
    if (sodium_init() < 0)
        qFatal("libsodium cannot be used");
    QByteArray key(crypto_sign_PUBLICKEYBYTES, '\0');
    const QByteArray bytes = RandomBytes(crypto_sign_SEEDBYTES, seed);
    crypto_sign_seed_keypair(Bytes(key), Bytes(secret), Bytes(bytes));
    publicKey = guard::PublicKey(RandomBytes(8, ~seed), key);
}

QByteArray SeededKey::SignBytes(const QByteArray& bytes) const
{
    QByteArray signature(crypto_sign_BYTES, '\0');
    crypto_sign_detached(Bytes(signature), nullptr, Bytes(bytes),
                         static_cast<unsigned long long>(bytes.size()), Bytes(secret));
    return signature;
}

guard::Signature SeededKey::Sign(const QByteArray& message, const QByteArray& comment) const
{
    const QByteArray signature = SignBytes(guard::Signature::Digest(message));
    return {publicKey.Id(), signature, comment,
            SignBytes(guard::Signature::CommentMessage(signature, comment))};
}

guard::Signature SeededKey::Sign(const QByteArray& message,
                                 const guard::PackageIdentity& identity) const
{
    return Sign(message, guard::TrustedComment(identity).toUtf8());
}

guard::Sums SumsOf(const QString& root)
{
    guard::Sums sums;
    QDirIterator entries(
        root, QDir::Files | QDir::Dirs | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
        QDirIterator::Subdirectories);
    while (entries.hasNext()) {
        const QFileInfo entry(entries.next());
        const QString name = entry.filePath().mid(root.size() + 1);
        if (entry.isSymLink())
            sums.links.insert(name, LinkText(entry.filePath()));
        else if (entry.isFile() && name != guard::SumsName() && name != guard::SignatureName())
            sums.files.insert(
                name, QCryptographicHash::hash(Read(entry.filePath()), QCryptographicHash::Sha256)
                          .toHex());
    }
    return sums;
}

void SignTree(const QString& root, const SeededKey& key, const guard::PackageIdentity& identity)
{
    const QByteArray list = SumsOf(root).Text();
    Write(root + QLatin1Char('/') + guard::SumsName(), list);
    Write(root + QLatin1Char('/') + guard::SignatureName(), key.Sign(list, identity).FileText());
}

ProgramResult RunProgram(const QString& program, const QStringList& arguments,
                         const QString& directory)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.setWorkingDirectory(directory);
    process.start(program, arguments, QIODevice::ReadOnly);
    ProgramResult result;
    if (process.waitForFinished(programMs) && process.exitStatus() == QProcess::NormalExit)
        result.status = process.exitCode();
    result.output = process.readAll();
    return result;
}

Minisign::Minisign(const QString& directory) : directory(directory)
{
    const ProgramResult made = RunProgram(
        QStringLiteral("minisign"),
        {QStringLiteral("-G"), QStringLiteral("-W"), QStringLiteral("-p"), PublicKeyPath(),
         QStringLiteral("-s"), directory + QStringLiteral("/minisign.key")});
    if (made.status != 0)
        qFatal("minisign makes no keys: %s", made.output.constData());
}

guard::PublicKey Minisign::Public() const
{
    guard::PublicKey key;
    if (const guard::Problem problem = guard::PublicKey::Load(PublicKeyPath(), &key))
        qFatal("%s", qPrintable(problem.text));
    return key;
}

QByteArray Minisign::Sign(const QString& path, const QStringList& options) const
{
    const ProgramResult signing = RunProgram(
        QStringLiteral("minisign"),
        QStringList{QStringLiteral("-S"), QStringLiteral("-s"),
                    directory + QStringLiteral("/minisign.key"), QStringLiteral("-m"), path} +
            options);
    if (signing.status != 0)
        qFatal("minisign signs nothing: %s", signing.output.constData());
    return Read(path + QStringLiteral(".minisig"));
}

ProgramResult Minisign::Verify(const QString& path, const QString& signaturePath,
                               const QString& publicKeyPath)
{
    return RunProgram(QStringLiteral("minisign"),
                      {QStringLiteral("-V"), QStringLiteral("-m"), path, QStringLiteral("-x"),
                       signaturePath, QStringLiteral("-p"), publicKeyPath});
}

} // namespace kxtest
