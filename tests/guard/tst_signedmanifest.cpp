#include "manifest.h"
#include "minisign.h"
#include "packagexml.h"
#include "treebuilder.h"

#include <kxguard/signedmanifest.h>
#include <kxupdater/package.h>

#include <QTest>

#include <functional>

using guard::PackageIdentity;
using guard::Problem;
using guard::SignedBuild;
using guard::SignedRecord;
using kxtest::SeededKey;

namespace {

const PackageIdentity identity{"demo-app", "2.4.1", "x64"};
const QString md5(32, '1');
const QString sha256(64, '2');

const SeededKey& Key()
{
    static const SeededKey key(7);
    return key;
}

SignedBuild Example()
{
    SignedBuild build;
    build.identity = identity;
    build.executable = "bin/demo-app";
    build.records = {{"lib/libcore.so.2", md5, sha256, 11, "-rw-r--r--", {}},
                     {"bin/demo-app", md5, sha256, 14, "-rwxr-xr-x", {}},
                     {"lib/libcore.so", md5, {}, 12, {}, "libcore.so.2"}};
    return build;
}

QString Attribute(const char* name, const QString& value)
{
    return QStringLiteral(" %1=\"%2\"").arg(QLatin1String(name), kxtest::XmlEscaped(value));
}

/** The attributes of the "build" element with a signature over `build`. */
QString BuildAttributes(const SignedBuild& build, const SeededKey& key = Key())
{
    const guard::Signature signature =
        key.Sign(guard::CanonicalRecords(build), guard::TrustedComment(build.identity).toUtf8());
    return Attribute("DownloadURL", "http://h/d") + Attribute("PostExec", build.executable) +
           Attribute("version", build.identity.version) +
           Attribute("platform", build.identity.platform) +
           Attribute("signature", QString::fromLatin1(signature.SignatureText())) +
           Attribute("trustedComment", signature.TrustedComment()) +
           Attribute("commentSignature", QString::fromLatin1(signature.CommentSignatureText()));
}

QString FileElements(const SignedBuild& build)
{
    QString elements;
    for (const SignedRecord& record : build.records) {
        elements += "<file" + Attribute("name", record.name) + Attribute("md5", record.md5) +
                    Attribute("sha256", record.sha256) +
                    Attribute("size", QString::number(record.size)) +
                    Attribute("permissions", record.permissions) +
                    Attribute("symlink", record.symlink) + "/>";
    }
    return elements;
}

QString Manifest(const QString& buildAttributes, const QString& files)
{
    return "<packages><package name=\"demo-app\"><build" + buildAttributes + ">" + files +
           "</build></package></packages>";
}

QString SignedXml(const SignedBuild& build = Example(), const SeededKey& key = Key())
{
    return Manifest(BuildAttributes(build, key), FileElements(build));
}

Problem Check(const QString& xml, const PackageIdentity& wanted = identity)
{
    return guard::CheckPackageXml(xml, wanted, {Key().Public()});
}

using Change = std::function<void(SignedBuild&)>;

// A record as text, of both readers.
QString TextOf(const QStringList& fields)
{
    return fields.join(QChar(0x1f));
}

/** What an updater reads of a text; its package XML goes into `reduced`. */
QStringList ReadByUpdater(const QString& xml, QString* reduced)
{
    updater::Package package(nullptr, nullptr);
    package.SetName("demo-app");
    package.SetPackageXML(xml);
    *reduced = package.GetPackageXML();
    QStringList lines{package.ExecutableName()};
    for (const updater::File& file : package.Files())
        lines << TextOf({file.Name(), file.MD5(), QString::number(file.Size()),
                         file.PermissionsString(), file.SymlinkPath()});
    return lines;
}

QStringList ReadByGuard(const QString& xml)
{
    guard::PackageXml read;
    if (!guard::ReadPackageXml(xml, "demo-app", &read))
        return {QString()};
    QStringList lines{read.build.executable};
    for (const SignedRecord& record : std::as_const(read.build.records))
        lines << TextOf({record.name, record.md5, QString::number(record.size), record.permissions,
                         record.symlink});
    return lines;
}

} // namespace

Q_DECLARE_METATYPE(Change)

/** Signatures in manifests. */
class TestSignedManifest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void CanonicalListIsWritten();
    void OrderOfRecordsDoesNotMatter();
    void EveryFieldIsSigned_data();
    void EveryFieldIsSigned();
    void BuildsThatCannotBeSignedAreRefused_data();
    void BuildsThatCannotBeSignedAreRefused();
    void SignedManifestIsAccepted();
    void FilesOfTheSignatureMayBeListed();
    void ReducedManifestIsAccepted();
    void SignatureOfMinisignIsAccepted();
    void WithoutKeysNothingIsChecked();
    void AddressOfTheFilesIsNotSigned();
    void ChangedTextsAreRefused_data();
    void ChangedTextsAreRefused();
    void EveryChangedBitOfTheSignaturesIsRefused();
    void OtherPackagesAreRefused_data();
    void OtherPackagesAreRefused();
    void IdentitiesMustAgree();
    void UnknownKeyIsNamed();
    void CarriedSignaturesAreSeen_data();
    void CarriedSignaturesAreSeen();
    void UpdaterAndGuardReadTheSame_data();
    void UpdaterAndGuardReadTheSame();
    void GuardRefusesTheTextsThatTheUpdaterRefuses_data();
    void GuardRefusesTheTextsThatTheUpdaterRefuses();
};

void TestSignedManifest::CanonicalListIsWritten()
{
    const QByteArray one = md5.toLatin1();
    const QByteArray two = sha256.toLatin1();
    QCOMPARE(guard::CanonicalRecords(Example()), "kxupdater package records 1\n"
                                                 "package demo-app\n"
                                                 "version 2.4.1\n"
                                                 "platform x64\n"
                                                 "program bin/demo-app\n"
                                                 "bin/demo-app\t" +
                                                     one + "\t" + two +
                                                     "\t14\t-rwxr-xr-x\t\n"
                                                     "lib/libcore.so\t" +
                                                     one +
                                                     "\t\t12\t\tlibcore.so.2\n"
                                                     "lib/libcore.so.2\t" +
                                                     one + "\t" + two + "\t11\t-rw-r--r--\t\n");
}

void TestSignedManifest::OrderOfRecordsDoesNotMatter()
{
    SignedBuild build = Example();
    build.records = {build.records.at(2), build.records.at(0), build.records.at(1)};
    QCOMPARE(guard::CanonicalRecords(build), guard::CanonicalRecords(Example()));
    // By code units: a character of two halves comes before U+FF5E.
    SignedRecord record = Example().records.at(0);
    build.records.clear();
    for (const QString& name : {QString::fromUtf16(u"\uff5e"), QString::fromUtf16(u"\U0001f512")}) {
        record.name = name;
        build.records.append(record);
    }
    const QByteArray text = guard::CanonicalRecords(build);
    QVERIFY(text.indexOf("\xf0\x9f\x94\x92") < text.indexOf("\xef\xbd\x9e"));
    QVERIFY(text.contains("\xf0\x9f\x94\x92"));
}

void TestSignedManifest::EveryFieldIsSigned_data()
{
    QTest::addColumn<Change>("change");
    const auto add = [](const char* row, const Change& change) { QTest::newRow(row) << change; };
    add("package", [](SignedBuild& b) { b.identity.package = "demo"; });
    add("version", [](SignedBuild& b) { b.identity.version = "2.4.2"; });
    add("platform", [](SignedBuild& b) { b.identity.platform = "x86"; });
    add("program", [](SignedBuild& b) { b.executable = "bin/other"; });
    add("no program", [](SignedBuild& b) { b.executable.clear(); });
    add("name", [](SignedBuild& b) { b.records[1].name = "bin/demo-app2"; });
    add("blank in a name", [](SignedBuild& b) { b.records[1].name = "bin/demo app"; });
    add("md5", [](SignedBuild& b) { b.records[1].md5[31] = 'f'; });
    add("sha256", [](SignedBuild& b) { b.records[1].sha256[63] = 'f'; });
    add("size", [](SignedBuild& b) { b.records[1].size = 15; });
    add("permissions", [](SignedBuild& b) { b.records[1].permissions = "-rwsr-xr-x"; });
    add("no permissions", [](SignedBuild& b) { b.records[1].permissions.clear(); });
    add("target", [](SignedBuild& b) { b.records[2].symlink = "libcore.so.3"; });
    add("digest of a link", [](SignedBuild& b) { b.records[2].md5[0] = 'f'; });
    add("size of a link", [](SignedBuild& b) { b.records[2].size = 13; });
    add("record less", [](SignedBuild& b) { b.records.removeLast(); });
    add("record more", [](SignedBuild& b) {
        b.records.append(b.records.at(0));
        b.records.last().name = "more";
    });
    add("two names exchanged", [](SignedBuild& b) {
        b.records[1].md5 = QString(32, '3');
        std::swap(b.records[0].md5, b.records[1].md5);
    });
}

void TestSignedManifest::EveryFieldIsSigned()
{
    QFETCH(Change, change);
    SignedBuild build = Example();
    change(build);
    QCOMPARE(build.Violation(), QString());
    QVERIFY(guard::CanonicalRecords(build) != guard::CanonicalRecords(Example()));
    // The changed text under the signature of the unchanged one.
    const PackageIdentity signedOne = build.identity;
    QString attributes = BuildAttributes(Example());
    attributes.replace("PostExec=\"bin/demo-app\"", "PostExec=\"" + build.executable + "\"");
    attributes.replace(" version=\"2.4.1\"", " version=\"" + signedOne.version + "\"");
    attributes.replace("platform=\"x64\"", "platform=\"" + signedOne.platform + "\"");
    QString xml = Manifest(attributes, FileElements(build));
    xml.replace("<package name=\"demo-app\"", "<package name=\"" + signedOne.package + "\"");
    const Problem problem = Check(xml, {signedOne.package, {}, {}});
    QCOMPARE(problem.code, int(guard::SignatureWrong));
    xml = SignedXml(build).replace("<package name=\"demo-app\"",
                                   "<package name=\"" + signedOne.package + "\"");
    QVERIFY(!Check(xml, build.identity));
}

void TestSignedManifest::BuildsThatCannotBeSignedAreRefused_data()
{
    QTest::addColumn<Change>("change");
    QTest::addColumn<QString>("violation");
    const auto add = [](const char* row, const char* violation, const Change& change) {
        QTest::newRow(row) << change << QString::fromUtf8(violation);
    };
    add("package", "the package 'demo app'",
        [](SignedBuild& b) { b.identity.package = "demo app"; });
    add("version", "the version ''", [](SignedBuild& b) { b.identity.version.clear(); });
    add("platform", "the platform 'x:64'", [](SignedBuild& b) { b.identity.platform = "x:64"; });
    add("line end in the program", "the program has a control character",
        [](SignedBuild& b) { b.executable = "bin/a\nb"; });
    add("half a surrogate pair in the program", "the program is not a text",
        [](SignedBuild& b) { b.executable = QChar(0xd800); });
    add("no records", "there is no file", [](SignedBuild& b) { b.records.clear(); });
    add("two of one name", "'bin/demo-app' is listed twice",
        [](SignedBuild& b) { b.records.append(b.records.at(1)); });
    add("below a link", "'lib/libcore.so/x' lies below 'lib/libcore.so'",
        [](SignedBuild& b) { b.records[0].name = "lib/libcore.so/x"; });
    add("no name", "the name is empty", [](SignedBuild& b) { b.records[0].name.clear(); });
    add("tab in a name", "the name has a control character",
        [](SignedBuild& b) { b.records[0].name = "a\tb"; });
    add("name leads out", "the name leads out", [](SignedBuild& b) { b.records[0].name = "../a"; });
    add("empty component", "empty component", [](SignedBuild& b) { b.records[0].name = "a//b"; });
    add("half a surrogate pair in a name", "the name is not a text",
        [](SignedBuild& b) { b.records[0].name = QString("a") + QChar(0xdfff); });
    add("link with the name of the list", "a file of the signature",
        [](SignedBuild& b) { b.records[2].name = "SHA256SUMS"; });
    add("md5 in upper case", "MD5", [](SignedBuild& b) { b.records[0].md5 = QString(32, 'A'); });
    add("no md5", "MD5", [](SignedBuild& b) { b.records[0].md5.clear(); });
    add("no md5 of a link", "MD5", [](SignedBuild& b) { b.records[2].md5.clear(); });
    add("no sha256", "SHA-256", [](SignedBuild& b) { b.records[0].sha256.clear(); });
    add("sha256 too short", "SHA-256", [](SignedBuild& b) { b.records[0].sha256.chop(1); });
    add("sha256 of a link", "a link has", [](SignedBuild& b) { b.records[2].sha256 = sha256; });
    add("tab in permissions", "the permissions has a control character",
        [](SignedBuild& b) { b.records[0].permissions = "-rw\t"; });
    add("target with a line end", "the target has a control character",
        [](SignedBuild& b) { b.records[2].symlink = "a\nb"; });
    add("target with half a surrogate pair", "the target is not a text",
        [](SignedBuild& b) { b.records[2].symlink = QChar(0xd800); });
}

void TestSignedManifest::BuildsThatCannotBeSignedAreRefused()
{
    QFETCH(Change, change);
    QFETCH(QString, violation);
    SignedBuild build = Example();
    change(build);
    QVERIFY2(build.Violation().contains(violation), qPrintable(build.Violation()));
    QCOMPARE(guard::CanonicalRecords(build), QByteArray());
    // Neither is it accepted under a signature, not even one over nothing.
    const QString xml = SignedXml(build);
    const Problem problem = Check(xml, {build.identity.package, {}, {}});
    QVERIFY(problem);
    QVERIFY2(!problem.text.isEmpty(), qPrintable(problem.text));
}

void TestSignedManifest::SignedManifestIsAccepted()
{
    const Problem problem = Check(SignedXml());
    QVERIFY2(!problem, qPrintable(problem.text));
    QVERIFY(!Check(SignedXml(), {"demo-app", {}, {}}));
    QVERIFY(
        !guard::CheckPackageXml(SignedXml(), identity, {SeededKey(8).Public(), Key().Public()}));
}

void TestSignedManifest::FilesOfTheSignatureMayBeListed()
{
    SignedBuild build = Example();
    build.records.append({"SHA256SUMS", md5, sha256, 1, {}, {}});
    build.records.append({"SHA256SUMS.minisig", md5, sha256, 2, {}, {}});
    const Problem problem = Check(SignedXml(build));
    QVERIFY2(!problem, qPrintable(problem.text));
    QVERIFY(guard::CanonicalRecords(build).contains("\nSHA256SUMS\t"));
}

void TestSignedManifest::ReducedManifestIsAccepted()
{
    SignedBuild build = Example();
    build.records[1].name = QString::fromUtf16(u"a \"b\" <c> & 'd' \u20ac \U0001f512 \u2028");
    build.executable = build.records[1].name;
    QString reduced;
    ReadByUpdater("<packages><package name=\"x\"/>" + SignedXml(build).mid(10), &reduced);
    QVERIFY(reduced != SignedXml(build));
    const Problem problem = Check(reduced);
    QVERIFY2(!problem, qPrintable(problem.text + reduced));
}

void TestSignedManifest::SignatureOfMinisignIsAccepted()
{
    kxtest::TreeBuilder tree;
    tree.File("records", guard::CanonicalRecords(Example()));
    const kxtest::Minisign minisign(tree.Root());
    const QList<QByteArray> lines =
        minisign.Sign(tree.Path("records"), {"-t", guard::TrustedComment(identity)}).split('\n');
    const QString xml = Manifest(
        Attribute("DownloadURL", "http://h/d") + Attribute("PostExec", "bin/demo-app") +
            Attribute("version", "2.4.1") + Attribute("platform", "x64") +
            Attribute("signature", lines.at(1)) +
            Attribute("trustedComment", lines.at(2).mid(qsizetype(strlen("trusted comment: ")))) +
            Attribute("commentSignature", lines.at(3)),
        FileElements(Example()));
    const Problem problem = guard::CheckPackageXml(xml, identity, {minisign.Public()});
    QVERIFY2(!problem, qPrintable(problem.text));
}

void TestSignedManifest::WithoutKeysNothingIsChecked()
{
    QVERIFY(!guard::CheckPackageXml("no xml", identity, {}));
    // A list of keys that are none is a list: nothing is trusted.
    QCOMPARE(guard::CheckPackageXml(SignedXml(), identity, {guard::PublicKey()}).code,
             int(guard::SignatureUnknownKey));
}

void TestSignedManifest::AddressOfTheFilesIsNotSigned()
{
    QVERIFY(!Check(SignedXml().replace("http://h/d", "https://mirror/x")));
}

void TestSignedManifest::ChangedTextsAreRefused_data()
{
    QTest::addColumn<QString>("xml");
    QTest::addColumn<int>("code");
    QTest::addColumn<QString>("reason");
    const QString good = SignedXml();
    const QString files = FileElements(Example());
    const auto without = [good](const char* attribute) {
        QString xml = good;
        const qsizetype begin = xml.indexOf(QStringLiteral(" %1=\"").arg(attribute));
        const qsizetype end = xml.indexOf('"', xml.indexOf('"', begin) + 1) + 1;
        return xml.remove(begin, end - begin);
    };
    const auto add = [](const char* row, const QString& xml, int code, const char* reason) {
        QTest::newRow(row) << xml << code << QString::fromUtf8(reason);
    };
    const int missing = guard::SignatureMissing;
    const int malformed = guard::SignatureMalformed;
    const int wrong = guard::SignatureWrong;
    const int badList = guard::SumsMalformed;

    add("empty", QString(), missing, "there is none");
    add("no xml", "x", badList, "no manifest");
    add("cut", good.chopped(1), badList, "no manifest");
    add("entities", "<!DOCTYPE packages [<!ENTITY a \"b\">]>" + good, badList, "no manifest");
    add("another root", "<package/>", badList, "no manifest");
    add("not signed", Manifest(Attribute("DownloadURL", "http://h/d"), files), missing,
        "it is not signed");
    add("unsigned build before",
        QString(good).replace("<build", "<build DownloadURL=\"u\"/><build"), missing,
        "it is not signed");
    add("unsigned package before",
        QString(good).replace("<package ",
                              "<package name=\"demo-app\"><build DownloadURL=\"u\"/></package>"
                              "<package "),
        missing, "it is not signed");
    add("no signature", without("signature"), malformed, "100 characters");
    add("no comment", without("trustedComment"), wrong, "the signature is wrong");
    add("no second signature", without("commentSignature"), malformed, "88 characters");
    add("no version", without("version"), badList, "the version ''");
    add("no platform", without("platform"), badList, "the platform ''");
    add("no program", without("PostExec"), wrong, "changed after signing");
    add("no permissions", without("permissions"), wrong, "changed after signing");
    add("no sha256", without("sha256"), badList, "SHA-256");
    add("file more", QString(good).replace("</build>", "<file name=\"x\"/></build>"), badList,
        "'x': the MD5");
    add("file twice",
        QString(good).replace("</build>", files.left(files.indexOf("/>") + 2) + "</build>"),
        badList, "listed twice");
    add("file twice with a slash",
        QString(good).replace(
            "</build>",
            QString(files.left(files.indexOf("/>") + 2)).replace("name=\"", "name=\"//") +
                "</build>"),
        badList, "listed twice");
    add("name of slashes alone", QString(good).replace("</build>", "<file name=\"//\"/></build>"),
        badList, "name is empty");
    add("line end in the signature", QString(good).replace("signature=\"", "signature=\"&#10;"),
        malformed, "100 characters");
    add("legacy signature", QString(good).replace("signature=\"RU", "signature=\"RW"), malformed,
        "legacy");
    add("line end in the comment",
        QString(good).replace("trustedComment=\"", "trustedComment=\"a&#10;"), malformed,
        "the trusted comment is");
}

void TestSignedManifest::ChangedTextsAreRefused()
{
    QFETCH(QString, xml);
    QFETCH(int, code);
    QFETCH(QString, reason);
    const Problem problem = Check(xml);
    QVERIFY2(problem.code == code && problem.text.contains(reason), qPrintable(problem.text));
    QVERIFY2(problem.text.startsWith("Cannot accept the description of the package 'demo-app': "),
             qPrintable(problem.text));
}

void TestSignedManifest::EveryChangedBitOfTheSignaturesIsRefused()
{
    const QString good = SignedXml();
    for (const char* attribute : {" signature=\"", " commentSignature=\"", " trustedComment=\""}) {
        const qsizetype begin = good.indexOf(attribute) + qsizetype(strlen(attribute));
        const qsizetype end = good.indexOf('"', begin);
        QVERIFY(end - begin > 30);
        for (qsizetype at = begin; at < end; ++at) {
            for (int bit = 0; bit < 7; ++bit) {
                QString changed = good;
                changed[at] = QChar(changed.at(at).unicode() ^ (1 << bit));
                QVERIFY2(Check(changed), qPrintable(changed.mid(at - 5, 10)));
            }
        }
    }
}

void TestSignedManifest::OtherPackagesAreRefused_data()
{
    QTest::addColumn<QStringList>("wanted");
    QTest::addColumn<int>("code");
    QTest::addColumn<QString>("reason");
    QTest::newRow("version") << QStringList{"demo-app", "2.4.2", "x64"}
                             << int(guard::SignatureVersion) << "another version: '2.4.1'";
    QTest::newRow("platform") << QStringList{"demo-app", "2.4.1", "x86"}
                              << int(guard::SignaturePackage) << "another platform: 'x64'";
    QTest::newRow("package") << QStringList{"demo", "2.4.1", "x64"} << int(guard::SignaturePackage)
                             << "no build of this package";
    QTest::newRow("no package") << QStringList{"", "", ""} << int(guard::SignaturePackage)
                                << "no build of this package";
}

void TestSignedManifest::OtherPackagesAreRefused()
{
    QFETCH(QStringList, wanted);
    QFETCH(int, code);
    QFETCH(QString, reason);
    const Problem problem = Check(SignedXml(), {wanted.at(0), wanted.at(1), wanted.at(2)});
    QCOMPARE(problem.code, code);
    QVERIFY2(problem.text.contains(reason), qPrintable(problem.text));
}

void TestSignedManifest::IdentitiesMustAgree()
{
    // Both signatures are good, but over different identities.
    const PackageIdentity others[] = {
        {"demo", "2.4.1", "x64"}, {"demo-app", "2.4.2", "x64"}, {"demo-app", "2.4.1", "x86"}};
    const int codes[] = {guard::SignaturePackage, guard::SignatureVersion, guard::SignaturePackage};
    for (int i = 0; i < 3; ++i) {
        const guard::Signature signature =
            Key().Sign(guard::CanonicalRecords(Example()), others[i]);
        const QString xml =
            Manifest(Attribute("DownloadURL", "u") + Attribute("PostExec", Example().executable) +
                         Attribute("version", "2.4.1") + Attribute("platform", "x64") +
                         Attribute("signature", signature.SignatureText()) +
                         Attribute("trustedComment", signature.TrustedComment()) +
                         Attribute("commentSignature", signature.CommentSignatureText()),
                     FileElements(Example()));
        QCOMPARE(Check(xml).code, codes[i]);
    }
}

void TestSignedManifest::UnknownKeyIsNamed()
{
    const Problem problem = Check(SignedXml(Example(), SeededKey(9)));
    QCOMPARE(problem.code, int(guard::SignatureUnknownKey));
    QVERIFY2(problem.text.contains(SeededKey(9).Public().IdText()) &&
                 problem.text.contains("trusted: " + Key().Public().IdText()),
             qPrintable(problem.text));
}

void TestSignedManifest::CarriedSignaturesAreSeen_data()
{
    QTest::addColumn<QString>("attributes");
    QTest::addColumn<bool>("carries");
    const QString url = Attribute("DownloadURL", "u");
    QTest::newRow("none") << url << false;
    QTest::newRow("empty") << url + Attribute("signature", "") + Attribute("commentSignature", "")
                           << false;
    QTest::newRow("whole") << BuildAttributes(Example()) << true;
    QTest::newRow("nonsense") << url + Attribute("signature", "x") << true;
    QTest::newRow("comment alone") << url + Attribute("trustedComment", "x") << true;
    QTest::newRow("second signature alone") << url + Attribute("commentSignature", "x") << true;
    QTest::newRow("build without address") << Attribute("signature", "x") << false;
}

void TestSignedManifest::CarriedSignaturesAreSeen()
{
    QFETCH(QString, attributes);
    QFETCH(bool, carries);
    QCOMPARE(guard::CarriesSignature("demo-app", Manifest(attributes, {})), carries);
    QVERIFY(!guard::CarriesSignature("demo", Manifest(attributes, {})));
    QVERIFY(!guard::CarriesSignature("demo-app", "no xml"));
}

void TestSignedManifest::UpdaterAndGuardReadTheSame_data()
{
    QTest::addColumn<QString>("xml");
    const auto files = [](const char* row, const QString& elements) {
        QTest::newRow(row) << Manifest(Attribute("DownloadURL", "u") + Attribute("PostExec", "run"),
                                       elements);
    };
    const auto packages = [](const char* row, const QString& content) {
        QTest::newRow(row) << "<packages>" + content + "</packages>";
    };
    const QString a =
        "<build DownloadURL=\"u\" PostExec=\"a\"><file name=\"a\" md5=\"1\"/></build>";
    const QString b =
        "<build DownloadURL=\"u\" PostExec=\"b\"><file name=\"b\" md5=\"2\"/></build>";
    const QString noUrl = "<build PostExec=\"c\"><file name=\"c\"/></build>";
    const auto demo = [](const QString& content) {
        return "<package name=\"demo-app\">" + content + "</package>";
    };

    QTest::newRow("signed") << SignedXml();
    packages("nothing", "");
    packages("other package", "<package name=\"x\">" + a + "</package>" + demo(b));
    packages("two packages of the name", demo(a) + demo(b));
    packages("first package without build", demo("") + demo(b));
    packages("first package without address", demo(noUrl) + demo(b));
    packages("first address empty", demo(QString(a).replace("\"u\"", "\"\"")) + demo(b));
    packages("first address blank", demo(QString(a).replace("\"u\"", "\" \"")) + demo(b));
    packages("two builds", demo(a + b));
    packages("first build without address", demo(noUrl + b));
    packages("empty build first", demo("<build DownloadURL=\"u\"/>" + b));
    packages("package in a package", demo(demo(a) + b));
    packages("package in another element", "<x>" + demo(a) + "</x>" + demo(b));
    packages("build in another element", demo("<x>" + a + "</x>" + b));
    packages("packages in packages", "<packages>" + demo(a) + "</packages>" + demo(b));
    packages("name with blanks", "<package name=\" demo-app\">" + a + "</package>" + demo(b));
    packages("name with a reference",
             "<package name=\"demo&#45;app\">" + a + "</package>" + demo(b));
    packages("name in other letters", "<package name=\"Demo-App\">" + a + "</package>" + demo(b));
    packages("no name", "<package>" + a + "</package>" + demo(b));
    packages("name with a prefix", "<package x:name=\"demo-app\">" + a + "</package>" + demo(b));
    packages("elements with a prefix",
             "<x:package xmlns:x=\"u\" name=\"demo-app\">" + a + "</x:package>" + demo(b));
    packages("undeclared prefix", "<x:package name=\"demo-app\">" + a + "</x:package>" + demo(b));
    packages("default namespace",
             "<package xmlns=\"u\" name=\"demo-app\">" + a + "</package>" + demo(b));
    packages("element in upper case", "<Package name=\"demo-app\">" + a + "</Package>" + demo(b));
    packages("commented out", "<!--" + demo(a) + "-->" + demo(b));
    packages("character data", "<![CDATA[" + demo(a) + "]]>" + demo(b));
    packages("processing instruction", "<?x " + demo(a) + "?>" + demo(b));
    packages("comment within", demo("<!-- x -->" + a + "<!-- y -->"));
    packages("text within", demo("text" + a + "text"));
    packages("program missing", demo("<build DownloadURL=\"u\"><file name=\"a\"/></build>"));
    QTest::newRow("declaration") << "<?xml version=\"1.0\" encoding=\"latin1\"?><packages>" +
                                        demo(a) + "</packages>";
    QTest::newRow("doctype") << "<!DOCTYPE packages><packages>" + demo(a) + "</packages>";
    QTest::newRow("attribute list of a doctype")
        << "<!DOCTYPE packages [<!ATTLIST file name CDATA \"default\">]><packages>" +
               demo("<build DownloadURL=\"u\"><file md5=\"1\"/></build>") + "</packages>";
    QTest::newRow("mark of byte order")
        << QChar(0xfeff) + QString("<packages>") + demo(a) + "</packages>";
    QTest::newRow("line ends of Windows")
        << "<packages>\r\n" + demo("\r\n" + a + "\r\n") + "\r\n</packages>\r\n";
    QTest::newRow("root with a prefix") << "<x:packages>" + demo(a) + "</x:packages>";

    files("no name", "<file md5=\"1\"/>");
    files("empty name", "<file name=\"\" md5=\"1\"/>");
    files("slashes",
          "<file name=\"/a\"/><file name=\"//b\"/><file name=\"/\"/><file name=\"///\"/>");
    files("slashes within and at the end", "<file name=\"a//b/\"/>");
    files("names twice", "<file name=\"a\" size=\"1\"/><file name=\"a\" size=\"2\"/>");
    files("files in files", "<file name=\"a\"><file name=\"b\"/></file>");
    files("files in other elements", "<x><file name=\"a\"/></x><file name=\"b\"/>");
    files("other elements", "<dir name=\"a\"/><FILE name=\"b\"/><file name=\"c\"/>");
    files("prefixes", "<x:file name=\"a\"/><file x:name=\"b\"/><file name=\"c\" x:size=\"1\"/>");
    files("namespace", "<file xmlns=\"u\" name=\"a\" size=\"1\"/>");
    files("commented out", "<!-- <file name=\"a\"/> --><file name=\"b\"/>");
    files("character data", "<![CDATA[<file name=\"a\"/>]]><file name=\"b\"/>");
    files("text", "<file name=\"a\">text</file>");
    files(
        "names in odd characters",
        "<file name=\" a \"/><file name=\"b&#9;c\"/><file name=\"d\te\"/><file name=\"f&#10;g\"/>"
        "<file name=\"h\ni\"/><file name=\"j&#13;k\"/><file name=\"l\rm\"/><file name=\"n\r\no\"/>"
        "<file name=\"p&#x85;q\"/><file name=\"r&#x2028;s\"/><file name=\"t&#xfeff;u\"/>");
    files("values in odd characters",
          "<file name=\"a\" md5=\" 1\" permissions=\"-rw\t\" symlink=\"a&#10;b\"/>"
          "<file name=\"b\" md5=\"1&#13;\" permissions=\"&#9;x\" symlink=\"a\nb\"/>"
          "<file name=\"c\" symlink=\" \"/><file name=\"d\" symlink=\"&lt;&amp;&quot;&apos;>\"/>");
    files("attributes missing", "<file name=\"a\"/>");
    files("more attributes", "<file name=\"a\" sha1=\"x\" Size=\"7\" SIZE=\"8\"/>");
    QString sizes;
    int number = 0;
    for (const char* size : {"5",
                             " 5",
                             "5 ",
                             "+5",
                             "-5",
                             "05",
                             "0x5",
                             "5.0",
                             "5e3",
                             "5,000",
                             "5_000",
                             "",
                             " ",
                             "x",
                             "5x",
                             "18446744073709551615",
                             "18446744073709551616",
                             "-1",
                             "&#x661;",
                             "&#xff15;",
                             "5&#xa0;",
                             "&#9;5",
                             "5&#10;",
                             "5&#13;",
                             "0000000000000000000000000000000005",
                             "5\t",
                             "\n5"})
        sizes += QStringLiteral("<file name=\"%1\" size=\"%2\"/>").arg(number++).arg(size);
    files("sizes", sizes);
    files("programs", "");
    QTest::newRow("program in odd characters")
        << Manifest(Attribute("DownloadURL", "u") + " PostExec=\" a&#10;b\tc&#13;\"", {});
}

void TestSignedManifest::UpdaterAndGuardReadTheSame()
{
    QFETCH(QString, xml);
    QString reduced;
    const QStringList expected = ReadByUpdater(xml, &reduced);
    QCOMPARE(ReadByGuard(xml), expected);
    // A host checks what the updater has reduced: it must not read otherwise than what was reduced.
    QString again;
    QCOMPARE(ReadByUpdater(reduced, &again), expected);
    QCOMPARE(ReadByGuard(reduced), expected);
}

void TestSignedManifest::GuardRefusesTheTextsThatTheUpdaterRefuses_data()
{
    QTest::addColumn<QString>("xml");
    const QString good = SignedXml();
    const auto nested = [](int depth) {
        return Manifest(Attribute("DownloadURL", "u"), "<file name=\"a\"/>" +
                                                           QString("<x>").repeated(depth - 3) +
                                                           QString("</x>").repeated(depth - 3));
    };
    QTest::newRow("empty") << QString();
    QTest::newRow("text") << "text";
    QTest::newRow("cut") << good.chopped(3);
    QTest::newRow("more after the root") << good + "<x/>";
    QTest::newRow("two roots") << good + good;
    QTest::newRow("entity") << "<!DOCTYPE a [<!ENTITY e \"x\">]>" + good;
    QTest::newRow("parameter entity") << "<!DOCTYPE a [<!ENTITY % e \"x\">]>" + good;
    QTest::newRow("undeclared entity") << Manifest(Attribute("DownloadURL", "u"), "&e;");
    QTest::newRow("attribute twice")
        << Manifest(Attribute("DownloadURL", "u"), "<file name=\"a\" name=\"b\"/>");
    QTest::newRow("257 levels") << nested(257);
    QTest::newRow("null") << Manifest(Attribute("DownloadURL", "u"), "<file name=\"a&#0;\"/>");
    QTest::newRow("half a surrogate pair")
        << Manifest(Attribute("DownloadURL", "u"), "<file name=\"a&#xd800;\"/>");
    QTest::newRow("another root") << "<Packages/>";
    QTest::newRow("256 levels, which are read") << nested(256);
}

void TestSignedManifest::GuardRefusesTheTextsThatTheUpdaterRefuses()
{
    QFETCH(QString, xml);
    // Refused texts leave what was read before.
    updater::Package package(nullptr, nullptr);
    package.SetName("demo-app");
    package.SetPackageXML(SignedXml());
    QCOMPARE(package.Files().size(), 3);
    package.SetPackageXML(xml);
    const bool isRead = package.Files().size() != 3;
    guard::PackageXml read;
    QCOMPARE(guard::ReadPackageXml(xml, "demo-app", &read), isRead);
    QVERIFY(Check(xml));
}

QTEST_GUILESS_MAIN(TestSignedManifest)
#include "tst_signedmanifest.moc"
