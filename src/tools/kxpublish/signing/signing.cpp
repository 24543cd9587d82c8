#include "signing.h"

#include "output/console.h"
#include "output/problems.h"

#include <kxguard/signedmanifest.h>

namespace publish {

guard::PackageIdentity IdentityOf(const Build& build)
{
    return {build.package, build.version, build.platform};
}

QStringList SigningFileNames()
{
    return {guard::SumsName(), guard::SignatureName()};
}

QStringList LeaveOutSums(TreeContents* contents)
{
    QStringList names;
    for (const QString& name : SigningFileNames()) {
        const bool isThere = contents->files.remove(name) + contents->links.remove(name) > 0;
        if (!isThere)
            continue;
        contents->leftOut.insert(name, QStringLiteral("the signature, which brings its own"));
        names.append(name);
    }
    return names;
}

void CheckSignable(const Build& build, Problems* problems)
{
    const QString violation = IdentityOf(build).Violation();
    if (!violation.isEmpty())
        problems->Refuse(QStringLiteral("--name, --version, --platform"),
                         QStringLiteral("cannot be signed: ") + Printable(violation));
}

void CheckSignable(const TreeContents& contents, Problems* problems)
{
    const auto check = [problems](const QString& name, const QString& target) {
        QString violation = guard::Sums::NameViolation(name);
        if (violation.isEmpty() && !target.isEmpty())
            violation = guard::Sums::TargetViolation(target);
        if (!violation.isEmpty())
            problems->Refuse(Shown(name),
                             QStringLiteral("cannot be signed: ") + Printable(violation));
        // Also a directory, in which it is the first part.
        const QString first = name.section(QLatin1Char('/'), 0, 0);
        for (const QString& own : SigningFileNames()) {
            if (first.compare(own, Qt::CaseInsensitive) == 0)
                problems->Refuse(Shown(name),
                                 QStringLiteral("in the way of %1, which signing makes").arg(own));
        }
    };
    for (auto file = contents.files.begin(); file != contents.files.end(); ++file)
        check(file.key(), QString());
    for (auto link = contents.links.begin(); link != contents.links.end(); ++link)
        check(link.key(), link.value());
}

SignedSums SignSums(const guard::Sums& sums, const Build& build, const SecretKey& key)
{
    SignedSums result;
    result.text = sums.Text();
    result.signature = key.Sign(result.text, guard::TrustedComment(IdentityOf(build))).FileText();
    return result;
}

guard::Sums SumsOf(const TreeContents& contents, const QMap<QString, QByteArray>& sha256)
{
    guard::Sums sums;
    for (auto file = contents.files.begin(); file != contents.files.end(); ++file)
        sums.files.insert(file.key(), sha256.value(file.key()));
    sums.links = contents.links;
    return sums;
}

void SignManifest(Manifest* manifest, const Build& build, const SecretKey& key)
{
    guard::SignedBuild records;
    records.identity = IdentityOf(build);
    records.executable = manifest->executable;
    for (const updater::File& file : std::as_const(manifest->files)) {
        guard::SignedRecord record;
        record.name = file.Name();
        record.md5 = file.MD5();
        record.sha256 = manifest->sha256.value(file.Name());
        record.size = file.Size();
        record.permissions = file.PermissionsString();
        record.symlink = file.SymlinkPath();
        records.records.append(record);
    }
    const guard::Signature signature =
        key.Sign(guard::CanonicalRecords(records), guard::TrustedComment(records.identity));
    manifest->signature.version = build.version;
    manifest->signature.platform = build.platform;
    manifest->signature.signature = QString::fromLatin1(signature.SignatureText());
    manifest->signature.trustedComment = signature.TrustedComment();
    manifest->signature.commentSignature = QString::fromLatin1(signature.CommentSignatureText());
}

} // namespace publish
