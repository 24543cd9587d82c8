#include "signedsite.h"

#include "treebuilder.h"

#include <kxguard/signedtree.h>
#include <kxupdater/build.h>

#include <QRegularExpression>

SignedSite::SignedSite()
{
    WriteKey(KeyFile(), key);
}

guard::PackageIdentity SignedSite::Identity(const QString& version)
{
    return {QStringLiteral("hello"), version, updater::Build::Platform()};
}

void SignedSite::PublishSigned(const QString& version, const kxtest::SigningKey& by,
                               const guard::PackageIdentity& identity)
{
    by.SignTree(Tree(version), identity);
    Publish(version);
    kxtest::Write(ManifestFile(version),
                  by.SignManifest(kxtest::Read(ManifestFile(version)), Tree(version), identity));
}

QString SignedSite::ManifestFile(const QString& version) const
{
    return Path(QStringLiteral("server")) + ManifestPath(version);
}

void SignedSite::ChangeManifest(const QString& version, const QByteArray& before,
                                const QByteArray& after)
{
    QByteArray manifest = kxtest::Read(ManifestFile(version));
    if (!manifest.contains(before))
        qFatal("the manifest does not hold '%s'", before.constData());
    kxtest::Write(ManifestFile(version), manifest.replace(before, after));
}

void SignedSite::StripManifest(const QString& version)
{
    kxtest::Write(ManifestFile(version), Unsigned(kxtest::Read(ManifestFile(version))));
}

QStringList SignedSite::Trusting(const QString& command, const QString& current,
                                 const QStringList& more) const
{
    return Command(command, current, QStringList{QStringLiteral("--key"), KeyFile()} + more);
}

bool SignedSite::WereFilesFetched()
{
    for (const QString& version : {QStringLiteral("1.0"), QStringLiteral("2.0")}) {
        for (const QString& name :
             {QStringLiteral("bin/hello"), QStringLiteral("lib/filter.bin"), guard::SumsName()}) {
            if (Server().RequestCount(FilePath(version, name)) > 0)
                return true;
        }
    }
    return false;
}

QByteArray Unsigned(const QByteArray& description)
{
    const QRegularExpression attributes(QStringLiteral(
        "(?<!xml) (version|platform|signature|trustedComment|commentSignature)=\"[^\"]*\""));
    return QString::fromUtf8(description).remove(attributes).toUtf8();
}

void WriteKey(const QString& path, const kxtest::SigningKey& key)
{
    kxtest::Write(path, key.Public().FileText());
}
