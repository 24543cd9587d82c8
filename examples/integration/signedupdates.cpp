#include "signedupdates.h"

#include <kxguard/signedmanifest.h>
#include <kxupdater/build.h>

#include <QFile>

//! [keys]
QList<guard::PublicKey> TrustedKeys()
{
    // The key in use, and the one that will follow it.
    static const char* const texts[] = {"RWRzBRIp9XE16rGUP/g0lVC2N2ppYrAjnRusT3U2YHtLZ8Eg/KsUil+Q",
                                        "RWQppY8QOzo9h9oDdS2u+zH/C6fhrdOUJjrEMA8WbRRJZpqLZ3NJYTg5"};
    QList<guard::PublicKey> keys;
    for (const char* text : texts) {
        guard::PublicKey key;
        if (const guard::Problem problem = guard::PublicKey::Parse(text, &key))
            qFatal("%s", qPrintable(problem.text)); // a list without keys would accept everything
        keys.append(key);
    }
    return keys;
}
//! [keys]

//! [guard]
SignedUpdates::SignedUpdates(UserInterface* userInterface, updater::IUpdater* updater,
                             const QString& package, QObject* parent)
    : QObject(parent),
      userInterface(userInterface),
      updater(updater),
      package(package),
      installGuard(new guard::InstallGuard(updater, this)) // becomes the updater's callback
{
    installGuard->SetCallback(&closeProgram); // the host's own, which it calls last
    SetKeys(TrustedKeys());
    connect(updater, SIGNAL(available()), SLOT(OnAvailable()));
    connect(updater, SIGNAL(error(int, const QString&)), SLOT(OnError(int, const QString&)));
}

void SignedUpdates::SetKeys(const QList<guard::PublicKey>& trusted)
{
    keys = trusted;
    installGuard->SetKeys(keys);
}
//! [guard]

//! [available]
void SignedUpdates::OnAvailable()
{
    // Before a byte is downloaded; the guard looks at the files themselves, before the swap.
    const guard::PackageIdentity wanted{package, updater->ServerVersion(),
                                        updater::Build::Platform()};
    const guard::Problem problem = guard::CheckPackageXml(updater->PackageXML(), wanted, keys);
    if (problem) {
        userInterface->ShowError(problem.text);
        updater->Wait();
    } else {
        userInterface->Offer(updater->ServerVersion(), false);
    }
}
//! [available]

//! [refused]
void SignedUpdates::OnError(int code, const QString& text)
{
    // The updater only knows that its callback has ended the install; the guard knows why.
    userInterface->ShowError(code == installGuard->LastErrorCode() ? installGuard->LastError()
                                                                   : text);
}
//! [refused]

//! [kept]
bool SignedUpdates::UseManifest(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return false;
    installGuard->SetPackageXML(QString::fromUtf8(file.readAll()));
    return true;
}
//! [kept]
