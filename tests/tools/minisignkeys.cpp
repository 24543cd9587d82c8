#include "minisignkeys.h"

#include <QProcess>
#include <QtEndian>

#include <sodium.h>

namespace kxtest {
namespace {

unsigned char* Data(QByteArray& bytes)
{
    return reinterpret_cast<unsigned char*>(bytes.data());
}

const unsigned char* Data(const QByteArray& bytes)
{
    return reinterpret_cast<const unsigned char*>(bytes.constData());
}

QByteArray LittleEndian(quint64 number)
{
    QByteArray bytes(8, '\0');
    qToLittleEndian(number, bytes.data());
    return bytes;
}

} // namespace

ExecutedProgram Execute(const QString& program, const QStringList& arguments,
                        const QString& directory, const QByteArray& input)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    if (!directory.isEmpty())
        process.setWorkingDirectory(directory);
    process.start(program, arguments);
    process.write(input);
    process.closeWriteChannel();
    if (!process.waitForFinished(300000))
        return {-1, process.errorString()};
    ExecutedProgram result;
    if (process.exitStatus() == QProcess::NormalExit)
        result.status = process.exitCode();
    result.output = QString::fromUtf8(process.readAll());
    return result;
}

SecretKeyParts::SecretKeyParts(int seed, const QByteArray& passphrase)
{
    if (sodium_init() < 0)
        qFatal("libsodium cannot be used");
    const QByteArray seedBytes(crypto_sign_ed25519_SEEDBYTES, char(seed));
    publicKey = QByteArray(crypto_sign_ed25519_PUBLICKEYBYTES, '\0');
    QByteArray secret(crypto_sign_ed25519_SECRETKEYBYTES, '\0');
    crypto_sign_ed25519_seed_keypair(Data(publicKey), Data(secret), Data(seedBytes));
    const QByteArray id(8, char(seed + 1));
    QByteArray checksum(32, '\0');
    const QByteArray covered = algorithm + id + secret;
    crypto_generichash(Data(checksum), 32, Data(covered), size_t(covered.size()), nullptr, 0);
    plain = id + secret + checksum;
    sealed = plain;
    if (passphrase.isEmpty())
        return;
    kdf = "Sc";
    salt = QByteArray(32, 's');
    opsLimit = crypto_pwhash_scryptsalsa208sha256_OPSLIMIT_MIN;
    memLimit = crypto_pwhash_scryptsalsa208sha256_MEMLIMIT_MIN;
    Encrypt(passphrase);
}

void SecretKeyParts::Encrypt(const QByteArray& passphrase)
{
    QByteArray stream(plain.size(), '\0');
    if (crypto_pwhash_scryptsalsa208sha256(Data(stream), quint64(stream.size()),
                                           passphrase.constData(), quint64(passphrase.size()),
                                           Data(salt), opsLimit, size_t(memLimit)) != 0)
        qFatal("too little memory for scrypt");
    sealed = plain;
    for (qsizetype i = 0; i < sealed.size(); ++i)
        sealed[i] = char(sealed.at(i) ^ stream.at(i));
}

QByteArray SecretKeyParts::Bytes() const
{
    return algorithm + kdf + checksumAlgorithm + salt + LittleEndian(opsLimit) +
           LittleEndian(memLimit) + sealed;
}

QByteArray SecretKeyParts::Text() const
{
    return comment + Bytes().toBase64() + '\n';
}

QByteArray SecretKeyParts::PublicText() const
{
    return "untrusted comment: a key of the tests\n" +
           ("Ed" + plain.left(8) + publicKey).toBase64() + '\n';
}

} // namespace kxtest
