#pragma once

#include "secretkey.h"
#include "source/treecheck.h"

#include <kxguard/publickey.h>

#include <QList>
#include <QString>
#include <QStringList>

namespace publish {

class Problems;

/** What the command line says of the key to sign with. */
struct SigningOptions
{
    QString key;            //!< secret key file; empty: nothing is signed
    QString passphraseFile; //!< empty: an encrypted key's is asked for on the terminal

    bool IsSet() const { return !key.isEmpty(); }
};

/**
 * Reads the key, and asks for its passphrase where it has one. What speaks against it is a problem;
 * a file that others may read is a warning. `option` is the one that names the key, as "--sign".
 */
void LoadSecretKey(const QString& option, const SigningOptions& options, SecretKey* key,
                   Problems* problems);

/** Refuses a key that lies in `directory`, whose content others are given. Both resolved. */
void CheckKeyIsOutside(const QString& option, const SigningOptions& options,
                       const QString& directory, Problems* problems);

/** Refuses each file of the tree that is a copy of the key, or another name of it. */
void CheckKeyHasNoCopy(const SigningOptions& options, const QString& tree,
                       const TreeContents& contents, Problems* problems);

/** Reads public key files; each that cannot be used is a problem. */
QList<guard::PublicKey> LoadPublicKeys(const QStringList& paths, Problems* problems);

} // namespace publish
