#include "signaturecheck.h"

#include "output/console.h"
#include "output/problems.h"
#include "signing.h"

#include <kxguard/signedmanifest.h>
#include <kxguard/signedtree.h>

#include <QMap>

namespace publish {
namespace {

guard::Problem SignatureProblem(const QByteArray& sums, const QByteArray& text, const Build& build,
                                const QList<guard::PublicKey>& keys)
{
    guard::Signature signature;
    guard::PackageIdentity identity;
    guard::Problem problem = guard::Signature::Parse(text, &signature);
    if (!problem)
        problem = signature.Verify(sums, keys);
    if (!problem)
        problem = guard::ReadTrustedComment(signature.TrustedComment(), &identity);
    if (!problem)
        problem = guard::CompareIdentity(identity, IdentityOf(build));
    return problem;
}

// `what`: of each name, in the manifest and in the list.
template <typename Map>
void Compare(const Map& manifest, const Map& list, const QString& what, Problems* problems)
{
    const QString place = guard::SumsName();
    for (auto entry = manifest.begin(); entry != manifest.end(); ++entry) {
        const auto other = list.constFind(entry.key());
        if (other == list.constEnd())
            problems->Refuse(Shown(entry.key()), QStringLiteral("not in %1").arg(place));
        else if (other.value() != entry.value())
            problems->Refuse(
                Shown(entry.key()),
                QStringLiteral("has another %1 in %2 than in the manifest").arg(what, place));
    }
    for (auto entry = list.begin(); entry != list.end(); ++entry) {
        if (!manifest.contains(entry.key()))
            problems->Refuse(Shown(entry.key()),
                             QStringLiteral("in %1, and not in the manifest").arg(place));
    }
}

} // namespace

QString ManifestSignatureProblem(const QByteArray& text, const Build& build,
                                 const QList<guard::PublicKey>& keys)
{
    return Printable(guard::CheckPackageXml(QString::fromUtf8(text), IdentityOf(build), keys).text);
}

void CheckSums(const QByteArray& sums, const QByteArray& signature, const Manifest& manifest,
               const Build& build, const QList<guard::PublicKey>& keys, Problems* problems)
{
    guard::Problem problem = SignatureProblem(sums, signature, build, keys);
    if (problem) {
        problems->Refuse(Shown(guard::SignatureName()), Printable(problem.text));
        return;
    }
    guard::Sums list;
    problem = guard::Sums::Parse(sums, &list);
    if (problem) {
        problems->Refuse(Shown(guard::SumsName()), Printable(problem.text));
        return;
    }
    QMap<QString, QByteArray> files;
    QMap<QString, QString> links;
    for (const updater::File& file : manifest.files) {
        if (file.IsSymlink())
            links.insert(file.Name(), file.SymlinkPath());
        else if (!SigningFileNames().contains(file.Name()))
            files.insert(file.Name(), manifest.sha256.value(file.Name()));
    }
    Compare(files, list.files, QStringLiteral("digest"), problems);
    Compare(links, list.links, QStringLiteral("target"), problems);
}

} // namespace publish
