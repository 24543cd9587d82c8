// Who made what the server offers, and whether it is later than what is there.

#include "session.h"

#include "common/console.h"
#include "files/packagefile.h"

#include <kxcommon/version.h>
#include <kxguard/signedmanifest.h>
#include <kxguard/signedtree.h>
#include <kxupdater/build.h>

guard::Problem Session::SignatureProblem(const QString& xml, const QString& version) const
{
    return guard::CheckPackageXml(
        xml, {updater->PackageName(), version, updater::Build::Platform()}, options.keys);
}

bool Session::IsDowngrade() const
{
    return common::Version(options.current) > common::Version(updater->ServerVersion());
}

void Session::RequireLaterVersion()
{
    if (options.allowDowngrade || !IsDowngrade())
        return Next();
    Refuse(
        guard::Problem{guard::InstallDowngrade,
                       QStringLiteral("The server's version %1 is earlier than the installed %2.")
                           .arg(updater->ServerVersion(), options.current)});
}

void Session::VerifySignature()
{
    if (options.keys.isEmpty())
        return Next();
    guard::PackageIdentity found;
    guard::Problem problem = guard::CheckSignedTree(tree, options.keys, &found);
    if (!problem)
        problem =
            guard::CompareIdentity(found, {updater->PackageName(), packagefile::Version(packageXml),
                                           updater::Build::Platform()});
    if (problem)
        return Refuse(problem);
    console.Message(
        QStringLiteral("'%1' is signed: %2 %3.").arg(tree, found.package, found.version));
    Next();
}
