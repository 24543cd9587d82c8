#include "keygencommand.h"

#include "interrupt.h"
#include "output/console.h"
#include "server/disk.h"
#include "signing/passphrase.h"
#include "signing/secretfile.h"
#include "signing/secretkey.h"
#include "signing/secretkeytext.h"

#include <QFile>
#include <QFileInfo>

#include <utility>

namespace publish {

KeygenCommand::KeygenCommand(const KeygenSettings& given) : settings(given) {}

ExitStatus KeygenCommand::Run()
{
    CheckPlaces();
    if (problems.IsEmpty() && !settings.noPassphrase)
        TakePassphrase();
    if (IsInterrupted()) {
        Complain(QStringLiteral("interrupted, no key is made"));
        return ExitInterrupted;
    }
    problems.PrintWarnings();
    return problems.IsEmpty() ? MakeFiles() : Refuse();
}

void KeygenCommand::CheckPlaces()
{
    const auto check = [this](const char* option, const QString& path) {
        const QString subject = QLatin1String(option) + QLatin1Char(' ') + Shown(path);
        const QFileInfo info(path);
        // A link that leads nowhere is in the way as well.
        if (info.exists() || info.isSymLink())
            problems.Refuse(subject, QStringLiteral("exists already, and is never overwritten"));
        else if (!QFileInfo(info.path()).isDir())
            problems.Refuse(subject, QStringLiteral("its directory does not exist"));
    };
    check("--secret", settings.secretFile);
    check("--public", settings.publicFile);
    if (ResolvedPath(settings.secretFile) == ResolvedPath(settings.publicFile))
        problems.Refuse(QStringLiteral("--public ") + Shown(settings.publicFile),
                        QStringLiteral("the same file as that of the secret key"));
}

void KeygenCommand::TakePassphrase()
{
    if (!settings.passphraseFile.isEmpty()) {
        const QString subject =
            QStringLiteral("--passphrase-file ") + Shown(settings.passphraseFile);
        bool exposed = false;
        const QString problem = ReadPassphrase(settings.passphraseFile, &passphrase, &exposed);
        if (!problem.isEmpty())
            problems.Refuse(subject, problem);
        else if (exposed)
            problems.Warn(subject, QStringLiteral("others than its owner may read it; chmod 600 "
                                                  "closes it"));
        return;
    }
    const QString subject = QStringLiteral("--secret ") + Shown(settings.secretFile);
    SecretBytes again;
    QString problem = AskPassphrase(QStringLiteral("Passphrase of the new key: "), &passphrase);
    if (problem.isEmpty())
        problem = AskPassphrase(QStringLiteral("The same passphrase again: "), &again);
    if (problem.isEmpty() && !(passphrase == again))
        problem = QStringLiteral("the two passphrases differ");
    if (!problem.isEmpty())
        problems.Refuse(subject, problem);
}

ExitStatus KeygenCommand::MakeFiles()
{
    const SecretKey key = SecretKey::Generate();
    const guard::PublicKey publicKey = key.Public();
    SecretBytes text;
    QString error;
    if (!SecretKeyText::Write(key, passphrase, &text)) {
        Complain(QStringLiteral("cannot encrypt the key: that takes 1 GiB of memory"));
        return ExitFailed;
    }
    // A secret key alone is not lost, its public half is in it; the other way round it would be.
    if (!WriteSecretFile(settings.secretFile, text, error)) {
        Complain(error);
        return ExitFailed;
    }
    if (!WriteNewFile(settings.publicFile, publicKey.FileText(), error)) {
        Complain(error);
        QFile::remove(settings.secretFile);
        return ExitFailed;
    }
    PrintDatum(QStringLiteral("secret"), settings.secretFile);
    PrintDatum(QStringLiteral("public"), settings.publicFile);
    PrintDatum(QStringLiteral("key-id"), publicKey.IdText());
    PrintDatum(QStringLiteral("key"), QString::fromLatin1(publicKey.Text()));
    Say(QStringLiteral("made the key %1; clients need %2, and nobody but you %3")
            .arg(publicKey.IdText(), Shown(settings.publicFile), Shown(settings.secretFile)));
    return ExitDone;
}

ExitStatus KeygenCommand::Refuse()
{
    problems.Print();
    return ExitRefused;
}

} // namespace publish
