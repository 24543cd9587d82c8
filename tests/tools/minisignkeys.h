#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

namespace kxtest {

/** What a program of the system said. */
struct ExecutedProgram
{
    int status = -1; //!< -1 when it did not end by itself
    QString output;  //!< standard output and error
};
/** Runs `program` in `directory` and gives it `input`. */
ExecutedProgram Execute(const QString& program, const QStringList& arguments,
                        const QString& directory = {}, const QByteArray& input = {});

/**
 * The parts of a secret key file of minisign, put together here without the code under test: each
 * can be spoilt before Text() is taken.
 */
struct SecretKeyParts
{
    /** The key that is the same for the same seed; encrypted when there is a passphrase, with the
     *  least memory that libsodium knows. */
    explicit SecretKeyParts(int seed, const QByteArray& passphrase = {});

    QByteArray Bytes() const;
    QByteArray Text() const;
    /** The file of the public key. */
    QByteArray PublicText() const;
    /** Seals the key anew, after the limits were changed. */
    void Encrypt(const QByteArray& passphrase);

    QByteArray comment = "untrusted comment: a key of the tests\n";
    QByteArray algorithm = "Ed";
    QByteArray kdf = QByteArray(2, '\0');
    QByteArray checksumAlgorithm = "B2";
    QByteArray salt = QByteArray(32, '\0');
    quint64 opsLimit = 0;
    quint64 memLimit = 0;
    QByteArray sealed; // id (8), secret key (64), checksum (32)

private:
    QByteArray plain;
    QByteArray publicKey;
};

} // namespace kxtest
