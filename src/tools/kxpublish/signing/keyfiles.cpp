#include "keyfiles.h"

#include "output/console.h"
#include "output/problems.h"
#include "passphrase.h"
#include "secretfile.h"
#include "secretkeytext.h"
#include "server/disk.h"

namespace publish {
namespace {

QString Subject(const QString& option, const QString& path)
{
    return option + QLatin1Char(' ') + Shown(path);
}

void WarnOfReaders(const QString& subject, Problems* problems)
{
    problems->Warn(subject,
                   QStringLiteral("others than its owner may read it; chmod 600 closes it"));
}

// Empty for a key that has none, and after a problem.
SecretBytes PassphraseOf(const QString& keySubject, const SigningOptions& options,
                         Problems* problems)
{
    SecretBytes passphrase;
    if (options.passphraseFile.isEmpty()) {
        const QString problem = AskPassphrase(
            QStringLiteral("Passphrase of %1: ").arg(Shown(options.key)), &passphrase);
        if (!problem.isEmpty())
            problems->Refuse(keySubject, problem);
        return passphrase;
    }
    const QString subject = Subject(QStringLiteral("--passphrase-file"), options.passphraseFile);
    bool exposed = false;
    const QString problem = ReadPassphrase(options.passphraseFile, &passphrase, &exposed);
    if (!problem.isEmpty())
        problems->Refuse(subject, problem);
    else if (exposed)
        WarnOfReaders(subject, problems);
    return passphrase;
}

} // namespace

void LoadSecretKey(const QString& option, const SigningOptions& options, SecretKey* key,
                   Problems* problems)
{
    const QString subject = Subject(option, options.key);
    SecretBytes file;
    bool exposed = false;
    QString problem = ReadSecretFile(options.key, SecretKeyText::maxText, &file, &exposed);
    SecretKeyText text;
    if (problem.isEmpty())
        problem = text.Parse(file);
    if (!problem.isEmpty()) {
        problems->Refuse(subject, problem);
        return;
    }
    if (exposed)
        WarnOfReaders(subject, problems);
    SecretBytes passphrase;
    if (text.IsEncrypted()) {
        passphrase = PassphraseOf(subject, options, problems);
        if (passphrase.IsEmpty())
            return;
    }
    problem = text.Open(passphrase, key);
    if (!problem.isEmpty())
        problems->Refuse(subject, problem);
}

void CheckKeyIsOutside(const QString& option, const SigningOptions& options,
                       const QString& directory, Problems* problems)
{
    for (const QString& path : {options.key, options.passphraseFile}) {
        if (path.isEmpty() || !IsInside(ResolvedPath(path), directory))
            continue;
        problems->Refuse(
            Subject(path == options.key ? option : QStringLiteral("--passphrase-file"), path),
            QStringLiteral("lies inside %1, where others get it").arg(Shown(directory)));
    }
}

void CheckKeyHasNoCopy(const SigningOptions& options, const QString& tree,
                       const TreeContents& contents, Problems* problems)
{
    SecretBytes key;
    bool exposed = false;
    // A key that cannot be read, or lies in the tree itself, is refused by name.
    if (!ReadSecretFile(options.key, SecretKeyText::maxText, &key, &exposed).isEmpty() ||
        key.IsEmpty() || IsInside(ResolvedPath(options.key), tree))
        return;
    for (auto file = contents.files.begin(); file != contents.files.end(); ++file) {
        if (file.value().status.size != quint64(key.Size()))
            continue;
        SecretBytes other;
        const QString path = JoinPath(tree, file.key());
        if (ReadSecretFile(path, key.Size(), &other, &exposed).isEmpty() && other == key)
            problems->Refuse(Shown(file.key()),
                             QStringLiteral("a copy of the secret key; others would get it"));
    }
}

QList<guard::PublicKey> LoadPublicKeys(const QStringList& paths, Problems* problems)
{
    QList<guard::PublicKey> keys;
    for (const QString& path : paths) {
        guard::PublicKey key;
        const guard::Problem problem = guard::PublicKey::Load(path, &key);
        if (problem)
            problems->Refuse(Subject(QStringLiteral("--key"), path), Printable(problem.text));
        else
            keys.append(key);
    }
    return keys;
}

} // namespace publish
