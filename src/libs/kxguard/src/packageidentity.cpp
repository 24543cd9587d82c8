#include "strictcodec.h"

#include <kxguard/signature.h>
#include <kxguard/signedtree.h>

#include <QRegularExpression>

namespace guard {
namespace {

bool IsIdentityPart(const QString& text)
{
    static const QRegularExpression form(QStringLiteral("\\A[A-Za-z0-9._+~-]{1,128}\\z"));
    return form.match(text).hasMatch();
}

QString PartViolation(const char* part, const QString& text)
{
    if (IsIdentityPart(text))
        return {};
    return QStringLiteral("the %1 %2 may only have 1 to 128 letters of ASCII, digits and ._+~-")
        .arg(QLatin1String(part), Quoted(text));
}

} // namespace

QString PackageIdentity::Violation() const
{
    QString violation = PartViolation("package", package);
    if (violation.isEmpty())
        violation = PartViolation("version", version);
    if (violation.isEmpty())
        violation = PartViolation("platform", platform);
    return violation;
}

QString TrustedComment(const PackageIdentity& identity)
{
    if (!identity.Violation().isEmpty())
        return {};
    return QStringLiteral("package:%1 version:%2 platform:%3")
        .arg(identity.package, identity.version, identity.platform);
}

Problem ReadTrustedComment(const QString& comment, PackageIdentity* identity)
{
    static const QRegularExpression form(
        QStringLiteral("\\Apackage:([^ :]+) version:([^ :]+) platform:([^ :]+)\\z"));
    const QRegularExpressionMatch match = form.match(comment);
    const PackageIdentity found{match.captured(1), match.captured(2), match.captured(3)};
    // Written back, it must be the same text: nothing else can have been meant.
    if (!match.hasMatch() || TrustedComment(found) != comment)
        return {SignatureMalformed,
                QStringLiteral("its trusted comment %1 does not name a package, its version and "
                               "its platform")
                    .arg(Quoted(comment))};
    *identity = found;
    return {};
}

Problem CompareIdentity(const PackageIdentity& signedOne, const PackageIdentity& wanted)
{
    const auto compare = [](int code, const char* part, const QString& found,
                            const QString& expected) {
        if (expected.isEmpty() || found == expected)
            return Problem();
        return Problem{code, QStringLiteral("it is signed for another %1: %2 instead of %3")
                                 .arg(QLatin1String(part), Quoted(found), Quoted(expected))};
    };
    Problem problem = compare(SignaturePackage, "package", signedOne.package, wanted.package);
    if (!problem)
        problem = compare(SignaturePackage, "platform", signedOne.platform, wanted.platform);
    if (!problem)
        problem = compare(SignatureVersion, "version", signedOne.version, wanted.version);
    return problem;
}

} // namespace guard
