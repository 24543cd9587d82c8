#pragma once

#include "updatecontroller.h"

#include <kxguard/installguard.h>
#include <kxguard/publickey.h>

#include <QList>

/** The publisher's keys, compiled in: an update cannot replace them but by one that they sign. */
QList<guard::PublicKey> TrustedKeys();

/** What a program adds that accepts its publisher's packages alone: it offers nothing else, and
 *  installs nothing else. */
class SignedUpdates : public QObject
{
    Q_OBJECT
public:
    /** Trusts TrustedKeys(). None is owned; `updater` must outlive this object. */
    SignedUpdates(UserInterface* userInterface, updater::IUpdater* updater, const QString& package,
                  QObject* parent);

    void SetKeys(const QList<guard::PublicKey>& keys);
    /** For a download that an earlier run of the program has assembled. */
    bool UseManifest(const QString& path);

private Q_SLOTS:
    void OnAvailable();
    void OnError(int code, const QString& text);

private:
    UserInterface* userInterface;
    updater::IUpdater* updater;
    const QString package;
    QList<guard::PublicKey> keys;
    CloseProgram closeProgram;
    guard::InstallGuard* installGuard; // a child
};
