#pragma once

#include "signingkey.h"
#include "updatesite.h"

#include <QString>
#include <QStringList>

/** An UpdateSite whose publisher signs what is offered, and who has the publisher's public key. */
class SignedSite : public UpdateSite
{
public:
    SignedSite();

    const kxtest::SigningKey& Key() const { return key; }
    QString KeyFile() const { return Path(QStringLiteral("hello.pub")); }
    /** What the key signs for "1.0" or "2.0". */
    static guard::PackageIdentity Identity(const QString& version);

    /** Signs the tree and publishes it with a signed manifest. */
    void PublishSigned(const QString& version) { PublishSigned(version, key, Identity(version)); }
    void PublishSigned(const QString& version, const kxtest::SigningKey& by,
                       const guard::PackageIdentity& identity);
    QString ManifestFile(const QString& version) const;
    /** The published manifest with `before` replaced; ends the test program if it is not there. */
    void ChangeManifest(const QString& version, const QByteArray& before, const QByteArray& after);
    /** The published manifest without the attributes of its signature. */
    void StripManifest(const QString& version);

    /** Command() with the publisher's key. */
    QStringList Trusting(const QString& command, const QString& current = QStringLiteral("1.0"),
                         const QStringList& more = {}) const;
    /** Whether the server was asked for one of the files of a version. */
    bool WereFilesFetched();

private:
    kxtest::SigningKey key;
};

/** A description without the attributes of its signature. */
QByteArray Unsigned(const QByteArray& description);
/** Writes the public key of `key` to a file at `path`. */
void WriteKey(const QString& path, const kxtest::SigningKey& key);
