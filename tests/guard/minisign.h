#pragma once

#include <kxguard/publickey.h>
#include <kxguard/signature.h>
#include <kxguard/signedtree.h>

#include <QByteArray>
#include <QString>
#include <QStringList>

namespace kxtest {

/** A key pair that is the same for the same seed. */
class SeededKey
{
public:
    explicit SeededKey(quint32 seed = 1);

    guard::PublicKey Public() const { return publicKey; }
    /** The plain Ed25519 signature over `bytes`. */
    QByteArray SignBytes(const QByteArray& bytes) const;
    /** What minisign makes of a file with the content `message`. */
    guard::Signature Sign(const QByteArray& message, const QByteArray& comment) const;
    guard::Signature Sign(const QByteArray& message, const guard::PackageIdentity& identity) const;

private:
    QByteArray secret;
    guard::PublicKey publicKey;
};

/** The list of digests of the tree at `root`, hidden entries included; links are not followed. */
guard::Sums SumsOf(const QString& root);
/** Writes the list of digests and its signature into the tree at `root`, whatever it holds. */
void SignTree(const QString& root, const SeededKey& key, const guard::PackageIdentity& identity);

/** What a program of the system said. */
struct ProgramResult
{
    int status = -1;   //!< -1 when it could not be run or was killed
    QByteArray output; //!< standard output and error
};
ProgramResult RunProgram(const QString& program, const QStringList& arguments,
                         const QString& directory = {});

/** The real minisign with a key pair of its own, without a password, in `directory`. A failure of
 *  the program ends the test program: a test must never go on without its signature. */
class Minisign
{
public:
    explicit Minisign(const QString& directory);

    QString PublicKeyPath() const { return directory + QStringLiteral("/minisign.pub"); }
    guard::PublicKey Public() const;
    /** Signs the file at `path` into `path`.minisig, and returns the text of that. */
    QByteArray Sign(const QString& path, const QStringList& options = {}) const;
    /** "minisign -V" of the file at `path` with the signature and the public key in these files. */
    static ProgramResult Verify(const QString& path, const QString& signaturePath,
                                const QString& publicKeyPath);

private:
    QString directory;
};

} // namespace kxtest
