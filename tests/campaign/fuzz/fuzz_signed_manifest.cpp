// Signed package XML. Whatever text comes: the library's two readers read one thing, what is
// accepted is what was signed, and what can be signed is accepted then and no longer after a
// change.

#include "fuzzkey.h"
#include "fuzztarget.h"
#include "xmlmutator.h"

#include "packagexml.h"

#include <kxguard/signedmanifest.h>
#include <kxupdater/package.h>

#include <QXmlStreamWriter>

#include <algorithm>

namespace {

using guard::PackageIdentity;
using guard::SignedBuild;
using guard::SignedRecord;

const PackageIdentity wanted = {QStringLiteral("demo-app"), QStringLiteral("2.4.1"),
                                QStringLiteral("x64")};

const kxfuzz::Key& Signer()
{
    static const kxfuzz::Key key('k');
    return key;
}

/** The one build that the publisher has signed; seeds and fragments are about it. */
SignedBuild Published()
{
    const QString md5(32, QLatin1Char('5'));
    const QString sha256(64, QLatin1Char('a'));
    return {
        wanted,
        QStringLiteral("bin/app"),
        {{QStringLiteral("bin/app"), md5, sha256, 14, QStringLiteral("-rwxr-xr-x"), {}},
         {QStringLiteral("lib/a"), md5, {}, 1, QStringLiteral("lrwxrwxrwx"), QStringLiteral("b")},
         {QStringLiteral("lib/b"), md5, sha256, 11, {}, {}}}};
}

guard::Signature SignatureOf(const SignedBuild& build)
{
    return Signer().Sign(guard::CanonicalRecords(build),
                         guard::TrustedComment(build.identity).toUtf8());
}

// Inputs have words for the parts of the publisher's signature, which no mutation would hit upon.
QString WithSignature(QString xml)
{
    static const guard::Signature signature = SignatureOf(Published());
    static const QString first = QString::fromLatin1(signature.SignatureText());
    static const QString second = QString::fromLatin1(signature.CommentSignatureText());
    xml.replace(QLatin1String("@SIGNATURE"), first);
    xml.replace(QLatin1String("@COMMENTSIGNATURE"), second);
    xml.replace(QLatin1String("@COMMENT"), signature.TrustedComment());
    return xml;
}

QStringList FieldsOf(const SignedRecord& record)
{
    return {record.name, record.md5, QString::number(record.size), record.permissions,
            record.symlink};
}

QStringList FieldsOf(const updater::File& file)
{
    return {file.Name(), file.MD5(), QString::number(file.Size()), file.PermissionsString(),
            file.SymlinkPath()};
}

template <typename Records>
QList<QStringList> AllFieldsOf(const Records& records)
{
    QList<QStringList> all;
    for (const auto& record : records)
        all.append(FieldsOf(record));
    return all;
}

QList<QStringList> Sorted(QList<QStringList> fields)
{
    std::sort(fields.begin(), fields.end());
    return fields;
}

struct Installed
{
    explicit Installed(const QString& xml)
    {
        package.SetName(wanted.package);
        package.SetPackageXML(xml);
    }

    updater::Package package{nullptr, nullptr};
};

void CheckAgreement(const guard::PackageXml& read, const updater::Package& installed)
{
    KX_FUZZ_REQUIRE(read.hasBuild == !installed.DownloadURL().isEmpty());
    KX_FUZZ_REQUIRE(AllFieldsOf(read.build.records) == AllFieldsOf(installed.Files()));
    KX_FUZZ_REQUIRE(read.build.executable == installed.ExecutableName());
}

// What was accepted may come in another order, and from another address, and differs in nothing
// else.
void CheckAccepted(const QString& xml, const updater::Package& installed)
{
    const bool isAccepted = !guard::CheckPackageXml(xml, wanted, {Signer().Public()});
    static const kxfuzz::Key stranger('s');
    const guard::PublicKey strange(Signer().Public().Id(), stranger.Public().Key());
    KX_FUZZ_REQUIRE(guard::CheckPackageXml(xml, wanted, {stranger.Public(), strange}));
    if (!isAccepted)
        return;
    static const QList<QStringList> published = Sorted(AllFieldsOf(Published().records));
    KX_FUZZ_REQUIRE(Sorted(AllFieldsOf(installed.Files())) == published);
    KX_FUZZ_REQUIRE(installed.ExecutableName() == Published().executable);
    // The text that is kept for the install is good as well.
    updater::Package again(nullptr, nullptr);
    again.SetName(wanted.package);
    again.SetPackageXML(xml);
    KX_FUZZ_REQUIRE(!guard::CheckPackageXml(again.GetPackageXML(), wanted, {Signer().Public()}));
}

// Read back by its grammar alone, the list gives the build that it was made of: two builds never
// have one list.
void CheckCanonical(SignedBuild build, const QByteArray& list)
{
    std::sort(build.records.begin(), build.records.end(),
              [](const SignedRecord& a, const SignedRecord& b) { return a.name < b.name; });
    QStringList lines = QString::fromUtf8(list).split(QLatin1Char('\n'));
    KX_FUZZ_REQUIRE(lines.size() == build.records.size() + 6 && lines.takeLast().isEmpty());
    KX_FUZZ_REQUIRE(lines.takeFirst() == QLatin1String("kxupdater package records 1"));
    KX_FUZZ_REQUIRE(lines.takeFirst() == QLatin1String("package ") + build.identity.package);
    KX_FUZZ_REQUIRE(lines.takeFirst() == QLatin1String("version ") + build.identity.version);
    KX_FUZZ_REQUIRE(lines.takeFirst() == QLatin1String("platform ") + build.identity.platform);
    KX_FUZZ_REQUIRE(lines.takeFirst() == QLatin1String("program ") + build.executable);
    for (const SignedRecord& record : std::as_const(build.records)) {
        const QStringList fields = lines.takeFirst().split(QLatin1Char('\t'));
        KX_FUZZ_REQUIRE(fields == QStringList({record.name, record.md5, record.sha256,
                                               QString::number(record.size), record.permissions,
                                               record.symlink}));
    }
}

QString Written(const SignedBuild& build, const guard::Signature& signature)
{
    QString text;
    QXmlStreamWriter xml(&text);
    xml.writeStartElement(QStringLiteral("packages"));
    xml.writeStartElement(QStringLiteral("package"));
    xml.writeAttribute(QStringLiteral("name"), build.identity.package);
    xml.writeStartElement(QStringLiteral("build"));
    xml.writeAttribute(QStringLiteral("DownloadURL"), QStringLiteral("u"));
    xml.writeAttribute(QStringLiteral("PostExec"), build.executable);
    xml.writeAttribute(QStringLiteral("version"), build.identity.version);
    xml.writeAttribute(QStringLiteral("platform"), build.identity.platform);
    xml.writeAttribute(QStringLiteral("signature"), QString::fromLatin1(signature.SignatureText()));
    xml.writeAttribute(QStringLiteral("trustedComment"), signature.TrustedComment());
    xml.writeAttribute(QStringLiteral("commentSignature"),
                       QString::fromLatin1(signature.CommentSignatureText()));
    for (const SignedRecord& record : build.records) {
        xml.writeEmptyElement(QStringLiteral("file"));
        xml.writeAttribute(QStringLiteral("name"), record.name);
        xml.writeAttribute(QStringLiteral("md5"), record.md5);
        xml.writeAttribute(QStringLiteral("sha256"), record.sha256);
        xml.writeAttribute(QStringLiteral("size"), QString::number(record.size));
        xml.writeAttribute(QStringLiteral("permissions"), record.permissions);
        xml.writeAttribute(QStringLiteral("symlink"), record.symlink);
    }
    xml.writeEndDocument();
    return text;
}

void CheckSigned(const SignedBuild& build, size_t choice)
{
    const QByteArray list = guard::CanonicalRecords(build);
    KX_FUZZ_REQUIRE(list.isEmpty() == !build.Violation().isEmpty());
    if (list.isEmpty())
        return;
    CheckCanonical(build, list);
    const guard::Signature signature = SignatureOf(build);
    const QList<guard::PublicKey> keys = {Signer().Public()};
    KX_FUZZ_REQUIRE(!guard::CheckPackageXml(Written(build, signature), build.identity, keys));

    SignedBuild changed = build;
    SignedRecord& record = changed.records[qsizetype(choice) % changed.records.size()];
    switch (choice % 7) {
    case 0:
        record.name += QLatin1Char('x');
        break;
    case 1:
        record.size += 1;
        break;
    case 2:
        record.permissions += QLatin1Char('x');
        break;
    case 3:
        changed.executable += QLatin1Char('x');
        break;
    case 4:
        changed.records.append(record);
        break;
    case 5:
        changed.records.removeFirst();
        break;
    default:
        record.symlink += QLatin1Char('x');
        break;
    }
    KX_FUZZ_REQUIRE(guard::CheckPackageXml(Written(changed, signature), build.identity, keys));
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    const SignedBuild build = Published();
    KX_FUZZ_REQUIRE(
        !guard::CheckPackageXml(Written(build, SignatureOf(build)), wanted, {Signer().Public()}));
    return 0;
}

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t maxSize,
                                          unsigned int seed)
{
    static const std::vector<std::string> fragments = {
        "<package name=\"demo-app\">",
        "</package>",
        "<build DownloadURL=\"v\" PostExec=\"bin/app\" version=\"2.4.1\" platform=\"x64\""
        " signature=\"@SIGNATURE\" trustedComment=\"@COMMENT\""
        " commentSignature=\"@COMMENTSIGNATURE\">",
        "</build>",
        "<file name=\"lib/a\" md5=\"55555555555555555555555555555555\" size=\"1\""
        " permissions=\"lrwxrwxrwx\" symlink=\"b\"/>",
        "<file name=\"x\" md5=\"0123456789abcdef0123456789abcdef\" sha256=\"0123456789abcdef0123"
        "456789abcdef0123456789abcdef0123456789abcdef\" size=\"7\" permissions=\"\"/>",
        "<x a=\"1\">",
        "</x>",
        "<!-- c -->",
        "<![CDATA[ <file name=\"c\"/> ]]>",
        "<!DOCTYPE packages>",
    };
    return kxfuzz::MutateXml(data, size, maxSize, seed, fragments);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QString xml = WithSignature(kxfuzz::Text(data, size));
    const Installed installed(xml);
    guard::PackageXml read;
    const bool isRead = guard::ReadPackageXml(xml, wanted.package, &read);
    KX_FUZZ_REQUIRE(isRead || !read.hasBuild);
    CheckAgreement(read, installed.package);
    CheckAccepted(xml, installed.package);
    if (read.hasBuild)
        CheckSigned(read.build, size);
    return 0;
}
