// What is wrong with the application, file by file.

#include "session.h"

#include "common/console.h"
#include "treereport.h"

void Session::Scan(const QString& directory, const char* finishedSlot)
{
    awaited = Awaited::Scan;
    scanner = std::make_unique<updater::FileScanner>(directory);
    connect(scanner.get(), SIGNAL(succesed()), this, finishedSlot);
    connect(scanner.get(), SIGNAL(failed(int, const QString&)),
            SLOT(OnScanFailed(int, const QString&)));
    scanner->Scan();
}

void Session::RequireSameVersion()
{
    if (options.command != Options::Command::Repair || repair)
        return Next();
    const bool isRefused = IsDowngrade() && !options.allowDowngrade;
    console.Message(QStringLiteral("Only the installed version can be repaired, and the server has "
                                   "%1, not %2. 'kxupdate update%3' installs it.")
                        .arg(updater->ServerVersion(), options.current,
                             isRefused ? QStringLiteral(" --allow-downgrade") : QString()));
    Finish(ExitStatus::UpdateAvailable);
}

void Session::FindDamage()
{
    if (!repair)
        return Next();
    // The check keeps to itself what it found.
    Scan(application.Path(), SLOT(OnDamageScanned()));
}

void Session::OnDamageScanned()
{
    if (awaited != Awaited::Scan)
        return;
    console.Differences(TreeDifferences(scanner->Files(), manifest));
    Next();
}
