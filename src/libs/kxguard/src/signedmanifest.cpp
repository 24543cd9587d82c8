#include <kxguard/signedmanifest.h>

#include "packagexml.h"
#include "strictcodec.h"
#include "treeshape.h"

#include <kxguard/signedtree.h>

#include <QStringList>

#include <algorithm>

namespace guard {
namespace {

constexpr qsizetype md5Length = 32;
constexpr qsizetype sha256Length = 64;

QString TextViolation(const char* what, const QString& text)
{
    if (HasControl(text))
        return QStringLiteral("the %1 has a control character").arg(QLatin1String(what));
    if (HasLoneSurrogate(text))
        return QStringLiteral("the %1 is not a text of Unicode").arg(QLatin1String(what));
    return {};
}

QString DigestViolation(const SignedRecord& record)
{
    if (!IsLowerHex(record.md5, md5Length))
        return QStringLiteral("the MD5 is not 32 lower-case hexadecimal digits");
    if (record.symlink.isEmpty() && !IsLowerHex(record.sha256, sha256Length))
        return QStringLiteral("the SHA-256 is not 64 lower-case hexadecimal digits");
    if (!record.symlink.isEmpty() && !record.sha256.isEmpty())
        return QStringLiteral("a link has a SHA-256");
    return {};
}

// The list of digests and its signature do not list themselves, but are files of the build.
bool IsOfSignature(const SignedRecord& record)
{
    return record.symlink.isEmpty() &&
           (record.name == SumsName() || record.name == SignatureName());
}

QString RecordViolation(const SignedRecord& record)
{
    QString violation = IsOfSignature(record) ? QString() : Sums::NameViolation(record.name);
    if (violation.isEmpty())
        violation = DigestViolation(record);
    if (violation.isEmpty())
        violation = TextViolation("permissions", record.permissions);
    if (violation.isEmpty() && !record.symlink.isEmpty())
        violation = Sums::TargetViolation(record.symlink);
    return violation.isEmpty() ? QString() : Quoted(record.name) + QStringLiteral(": ") + violation;
}

QString LineOf(const SignedRecord& record)
{
    const QStringList fields{record.name,        record.md5,
                             record.sha256,      QString::number(record.size),
                             record.permissions, record.symlink};
    return fields.join(QLatin1Char('\t')) + QLatin1Char('\n');
}

// A part alone is a damaged signature rather than none.
bool IsSigned(const PackageXml& read)
{
    return !read.signature.isEmpty() || !read.trustedComment.isEmpty() ||
           !read.commentSignature.isEmpty();
}

Problem CheckSignature(const PackageXml& read, const PackageIdentity& wanted,
                       const QList<PublicKey>& keys)
{
    if (!IsSigned(read))
        return {SignatureMissing, QStringLiteral("it is not signed")};
    Signature signature;
    Problem problem = Signature::ParseParts(read.signature.toUtf8(), read.trustedComment.toUtf8(),
                                            read.commentSignature.toUtf8(), &signature);
    if (problem)
        return problem;
    const QString violation = read.build.Violation();
    if (!violation.isEmpty())
        return {SumsMalformed, violation};
    problem = signature.Verify(CanonicalRecords(read.build), keys);
    if (problem)
        return problem;
    PackageIdentity commented;
    problem = ReadTrustedComment(signature.TrustedComment(), &commented);
    if (!problem)
        problem = CompareIdentity(commented, read.build.identity);
    return problem ? problem : CompareIdentity(read.build.identity, wanted);
}

} // namespace

QString SignedBuild::Violation() const
{
    QString violation = identity.Violation();
    if (violation.isEmpty())
        violation = TextViolation("program", executable);
    if (violation.isEmpty() && records.isEmpty())
        violation = QStringLiteral("there is no file");
    QStringList names;
    for (const SignedRecord& record : records) {
        if (!violation.isEmpty())
            return violation;
        violation = RecordViolation(record);
        names.append(record.name);
    }
    return violation.isEmpty() ? ShapeViolation(names) : violation;
}

QByteArray CanonicalRecords(const SignedBuild& build)
{
    if (!build.Violation().isEmpty())
        return {};
    QList<SignedRecord> records = build.records;
    std::sort(records.begin(), records.end(),
              [](const SignedRecord& a, const SignedRecord& b) { return a.name < b.name; });
    QString text = QStringLiteral("kxupdater package records 1\n"
                                  "package %1\nversion %2\nplatform %3\nprogram %4\n")
                       .arg(build.identity.package, build.identity.version, build.identity.platform,
                            build.executable);
    for (const SignedRecord& record : std::as_const(records))
        text += LineOf(record);
    return text.toUtf8();
}

Problem CheckPackageXml(const QString& xml, const PackageIdentity& wanted,
                        const QList<PublicKey>& keys)
{
    if (keys.isEmpty())
        return {};
    const auto refused = [&wanted](int code, const QString& reason) {
        return Problem{code, QStringLiteral("Cannot accept the description of the package %1: %2.")
                                 .arg(Quoted(wanted.package), reason)};
    };
    if (xml.isEmpty())
        return refused(SignatureMissing, QStringLiteral("there is none, so nothing is signed"));
    PackageXml read;
    if (!ReadPackageXml(xml, wanted.package, &read))
        return refused(SumsMalformed, QStringLiteral("it is no manifest"));
    if (!read.hasBuild)
        return refused(SignaturePackage,
                       QStringLiteral("it has no build of this package, only of another package"));
    const Problem problem = CheckSignature(read, wanted, keys);
    return problem ? refused(problem.code, problem.text) : Problem();
}

bool CarriesSignature(const QString& name, const QString& xml)
{
    PackageXml read;
    return ReadPackageXml(xml, name, &read) && IsSigned(read);
}

} // namespace guard
