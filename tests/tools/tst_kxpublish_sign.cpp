#include "minisignkeys.h"
#include "nginxserver.h"
#include "publishsite.h"
#include "signingkey.h"

#include <kxguard/signedmanifest.h>
#include <kxguard/signedtree.h>

#include <QRegularExpression>
#include <QTest>

#include <functional>
#include <sys/stat.h>

using kxtest::AddArguments;
using kxtest::Execute;
using kxtest::ExecutedProgram;
using kxtest::PublishResult;
using kxtest::PublishSite;
using kxtest::RunPublish;
using kxtest::SecretKeyParts;
using kxtest::Snapshot;
using kxtest::TreeBuilder;
using kxtest::With;

using ChangeFunction = std::function<void(TreeBuilder&)>;
Q_DECLARE_METATYPE(ChangeFunction)

namespace {

const guard::PackageIdentity identity = {QStringLiteral("demo-app"), QStringLiteral("2.4.1"),
                                         QStringLiteral("x64")};

QString S(const char* text)
{
    return QString::fromUtf8(text);
}

quint64 InodeOf(const QString& path)
{
    struct stat status = {};
    ::stat(path.toUtf8().constData(), &status);
    return quint64(status.st_ino);
}

} // namespace

/** Signed trees and builds, with minisign, sha256sum and the readers of the clients as judges. */
class TestKxpublishSign : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { kxtest::KeepTreesInMemory(); }
    void init();
    void SignedTreePassesEveryJudge();
    void SignedTreeIsSignedAnew();
    void TreeThatCannotBeSignedIsRefused_data();
    void TreeThatCannotBeSignedIsRefused();
    void AddPublishesWhatSignWrites();
    void BuildWithoutASignatureIsWhatItWas();
    void SignatureOnlyAdds();
    void ChangedManifestIsRefused_data();
    void ChangedManifestIsRefused();
    void OldSumsAreLeftOut();
    void EqualFilesAreLinked();
    void RehearsalChecksAndWritesNothing();
    void RehearsalFindsAWrongPassphrase();
    void KeyOnTheServerIsRefused();
    void FullDiskPublishesNothing();
    void VerifyFindsWhatIsNotSigned();
    void VerifyFindsChanges_data();
    void VerifyFindsChanges();
    void VerifyComparesListAndManifest_data();
    void VerifyComparesListAndManifest();
    void VerifyTakesOneOfSeveralKeys();
    void VerifyRefusesABadKey();
    void PromoteWarnsOfALostSignature();
    void RollbackLeavesSignaturesAlone();
    void RollbackAsSignsAnew();
    void RollbackAsChecksFirst_data();
    void RollbackAsChecksFirst();
    void OptionsNeedTheirKey_data();
    void OptionsNeedTheirKey();

private:
    QString Path(const char* name) const { return workshop->Path(S(name)); }
    QString Server() const { return site->Server(); }
    QStringList AddWords(const QStringList& more = {}) const
    {
        return AddArguments(site->Tree().Root(), Server()) + more;
    }
    QStringList Signed() const { return {S("--sign"), Path("key")}; }
    /** Publishes the tree, with another program in it, signed. */
    void Publish(const QString& version, const QString& key = S("key"));
    QByteArray Index() const { return kxtest::Read(site->BuildPath(S("2.4.1"), S("index.xml"))); }
    guard::Problem Check(const QByteArray& xml) const
    {
        return guard::CheckPackageXml(QString::fromUtf8(xml), identity, {publicKey});
    }
    PublishResult Verify(const QStringList& more = {}) const
    {
        return site->Run(S("verify"), QStringList{S("--key"), Path("pub")} + more);
    }

    std::unique_ptr<PublishSite> site;
    std::unique_ptr<TreeBuilder> workshop;
    guard::PublicKey publicKey;
};

void TestKxpublishSign::init()
{
    site = std::make_unique<PublishSite>();
    site->Tree()
        .File(S("lib/a b"), "with a blank")
        .File(S("lib/sch\u00f6n"), "with an umlaut", 0600)
        .File(S("Z"), "after S")
        .RandomFile(S("big"), 700000, 1)
        .Symlink(S("lib/link"), S("../app"));
    workshop = std::make_unique<TreeBuilder>();
    const SecretKeyParts key(1);
    const SecretKeyParts other(7);
    workshop->File(S("key"), key.Text(), 0600)
        .File(S("pub"), key.PublicText())
        .File(S("otherkey"), other.Text(), 0600)
        .File(S("otherpub"), other.PublicText());
    const guard::Problem problem = guard::PublicKey::Load(Path("pub"), &publicKey);
    QVERIFY2(!problem, qPrintable(problem.text));
}

void TestKxpublishSign::Publish(const QString& version, const QString& key)
{
    site->Tree().Remove(S("app")).File(S("app"), version.toUtf8(), 0755);
    const PublishResult result = RunPublish(With(AddWords(), S("--version"), version) +
                                            QStringList{S("--sign"), workshop->Path(key)});
    QVERIFY2(result.status == 0, qPrintable(result.err.join(u'\n')));
}

void TestKxpublishSign::SignedTreePassesEveryJudge()
{
    const QString tree = site->Tree().Root();
    const PublishResult result =
        RunPublish({S("sign"), tree, S("--key"), Path("key"), S("--name"), S("demo-app"),
                    S("--version"), S("2.4.1"), S("--platform"), S("x64")});
    QCOMPARE(result.err, QStringList({S("signed demo-app 2.4.1 for x64 with key %1: 5 files, 1 "
                                        "links")
                                          .arg(publicKey.IdText())}));
    QCOMPARE(result.out,
             QStringList({S("sums: ") + tree + S("/SHA256SUMS"),
                          S("signature: ") + tree + S("/SHA256SUMS.minisig"), S("files: 5"),
                          S("links: 1"), S("bytes: 700040"), S("key-id: ") + publicKey.IdText()}));
    QCOMPARE(result.status, 0);

    const ExecutedProgram minisign =
        Execute(S("minisign"), {S("-Vm"), S("SHA256SUMS"), S("-p"), Path("pub")}, tree);
    QVERIFY2(minisign.status == 0, qPrintable(minisign.output));
    QVERIFY(minisign.output.contains(
        S("Trusted comment: package:demo-app version:2.4.1 platform:x64")));
    const ExecutedProgram sums =
        Execute(S("sha256sum"), {S("--strict"), S("-c"), S("SHA256SUMS")}, tree);
    QVERIFY2(sums.status == 0, qPrintable(sums.output));
    QCOMPARE(sums.output.count(S(": OK")), 5);
    guard::PackageIdentity found;
    const guard::Problem problem = guard::CheckSignedTree(tree, {publicKey}, &found);
    QVERIFY2(!problem, qPrintable(problem.text));
    QCOMPARE(found.package, identity.package);
    QCOMPARE(found.version, identity.version);
    QCOMPARE(found.platform, identity.platform);
    QCOMPARE(Snapshot(tree).filter(S("kxtmp")), QStringList());

    site->Tree().File(S("more"), "");
    QVERIFY(guard::CheckSignedTree(tree, {publicKey}, nullptr));
}

void TestKxpublishSign::SignedTreeIsSignedAnew()
{
    const QString tree = site->Tree().Root();
    const QStringList words = {S("sign"),   tree,   S("--key"),    Path("key"),
                               S("--name"), S("n"), S("--version")};
    QCOMPARE(RunPublish(words + QStringList{S("1")}).status, 0);
    const QByteArray sums = kxtest::Read(tree + S("/SHA256SUMS"));
    // What a killed run leaves, and an older signature that is a link to somewhere else.
    site->Tree()
        .File(S("added"), "x")
        .File(S(".SHA256SUMS.kxtmp"), "half of a li")
        .File(S(".SHA256SUMS.minisig.kxtmp"), "")
        .Remove(S("SHA256SUMS.minisig"))
        .Symlink(S("SHA256SUMS.minisig"), S("added"));
    const PublishResult result = RunPublish(words + QStringList{S("2")});
    QVERIFY2(result.status == 0, qPrintable(result.err.join(u'\n')));
    QVERIFY(kxtest::Read(tree + S("/SHA256SUMS")) != sums);
    QCOMPARE(kxtest::Read(tree + S("/added")), QByteArray("x"));
    guard::PackageIdentity found;
    const guard::Problem problem = guard::CheckSignedTree(tree, {publicKey}, &found);
    QVERIFY2(!problem, qPrintable(problem.text));
    QCOMPARE(found.version, S("2"));
}

void TestKxpublishSign::TreeThatCannotBeSignedIsRefused_data()
{
    QTest::addColumn<ChangeFunction>("change");
    QTest::addColumn<QString>("text");
    QTest::addColumn<bool>("isAdded"); // by add --sign; then there is no text
    const auto row = [](const char* name, const ChangeFunction& change, const char* text,
                        bool isAdded = false) {
        QTest::newRow(name) << change << S(text) << isAdded;
    };
    row(
        "an arrow in a name", [](TreeBuilder& tree) { tree.File(S("a -> b"), "x"); },
        "'a -> b': cannot be signed: ");
    row(
        "an arrow in a target",
        [](TreeBuilder& tree) { tree.File(S("a -> b"), "x").Symlink(S("l"), S("a -> b")); },
        "'l': cannot be signed: ");
    row(
        "a directory in the place of the sums",
        [](TreeBuilder& tree) { tree.File(S("SHA256SUMS/x"), "x"); },
        "'SHA256SUMS/x': in the way of SHA256SUMS, which signing makes");
    row(
        "sums in other letters", [](TreeBuilder& tree) { tree.File(S("sha256sums"), "x"); },
        "'sha256sums': in the way of SHA256SUMS, which signing makes");
    row(
        "a signature in other letters",
        [](TreeBuilder& tree) { tree.File(S("SHA256SUMS.MINISIG"), "x"); },
        "'SHA256SUMS.MINISIG': in the way of SHA256SUMS.minisig, which signing makes");
    row(
        "a hidden entry", [](TreeBuilder& tree) { tree.File(S(".hidden"), "x"); },
        "'.hidden': hidden; clients skip hidden entries");
    row(
        "an ignored entry",
        [](TreeBuilder& tree) {
            tree.File(S("core"), "x").File(S("lib/.kxpublishignore"), "core\n");
        },
        "'lib/.kxpublishignore': a signed tree may hold nothing but what is signed", true);
}

void TestKxpublishSign::TreeThatCannotBeSignedIsRefused()
{
    QFETCH(ChangeFunction, change);
    QFETCH(QString, text);
    QFETCH(bool, isAdded);
    change(site->Tree());
    const QStringList before = Snapshot(site->Tree().Root());
    const PublishResult sign = RunPublish({S("sign"), site->Tree().Root(), S("--key"), Path("key"),
                                           S("--name"), S("n"), S("--version"), S("1")});
    QVERIFY2(sign.err.join(u'\n').contains(text), qPrintable(sign.err.join(u'\n')));
    QCOMPARE(sign.status, 1);
    const PublishResult add = RunPublish(AddWords(Signed()));
    QCOMPARE(add.status, isAdded ? 0 : 1);
    QVERIFY2(isAdded || add.err.join(u'\n').contains(text), qPrintable(add.err.join(u'\n')));
    QCOMPARE(kxtest::Exists(Server()), isAdded);
    QCOMPARE(Snapshot(site->Tree().Root()), before);
}

void TestKxpublishSign::AddPublishesWhatSignWrites()
{
    const QStringList before = Snapshot(site->Tree().Root());
    const PublishResult result = RunPublish(AddWords(Signed()));
    QVERIFY2(result.status == 0, qPrintable(result.err.join(u'\n')));
    QVERIFY(result.out.contains(S("files: 7")));
    QVERIFY(result.out.contains(S("key-id: ") + publicKey.IdText()));
    QCOMPARE(Snapshot(site->Tree().Root()), before);

    const guard::Problem problem = Check(Index());
    QVERIFY2(!problem, qPrintable(problem.text));
    QCOMPARE(RunPublish({S("sign"), site->Tree().Root(), S("--key"), Path("key"), S("--name"),
                         S("demo-app"), S("--version"), S("2.4.1"), S("--platform"), S("x64")})
                 .status,
             0);
    qint64 bytes = 0;
    for (const char* name : {"SHA256SUMS", "SHA256SUMS.minisig"}) {
        const QByteArray published =
            kxtest::Read(site->BuildPath(S("2.4.1"), S("files/") + S(name)));
        QCOMPARE(published, kxtest::Read(site->Tree().Path(S(name))));
        bytes += published.size();
    }
    // The tree as a client has it, links included.
    QVERIFY(!guard::CheckSignedTree(site->Tree().Root(), {publicKey}, nullptr));
    QVERIFY(result.out.contains(S("bytes: %1").arg(700040 + bytes)));
    QCOMPARE(Verify().out.constLast(), S("problems: 0"));
}

void TestKxpublishSign::BuildWithoutASignatureIsWhatItWas()
{
    site->Tree().Remove(S("big"));
    site->Add(S("2.4.1"));
    const auto file = [](const char* name, const char* content, const char* mode) {
        return S("   <file name=\"%1\" md5=\"%2\" size=\"%3\" permissions=\"%4\" symlink=\"\"/>\n")
            .arg(S(name), kxtest::MD5Of(content))
            .arg(qstrlen(content))
            .arg(S(mode));
    };
    const QString expected =
        S("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<packages>\n <package name=\"demo-app\">\n"
          "  <build DownloadURL=\"http://updates.example/demo/packages/demo-app-v2.4.1/windows/x64/"
          "files\" PostExec=\"app\">\n") +
        file("Z", "after S", "-rw-r--r--") + file("app", "program", "-rwxr-xr-x") +
        file("lib/a b", "with a blank", "-rw-r--r--") +
        S("   <file name=\"lib/link\" md5=\"%1\" size=\"6\" permissions=\"lrwxrwxrwx\" "
          "symlink=\"../app\"/>\n")
            .arg(kxtest::MD5Of("../app")) +
        file("lib/sch\u00f6n", "with an umlaut", "-rw-------") +
        S("  </build>\n </package>\n</packages>\n");
    QCOMPARE(QString::fromUtf8(Index()), expected);
}

// Clients that know nothing of signatures see the same build and two files more.
void TestKxpublishSign::SignatureOnlyAdds()
{
    QCOMPARE(RunPublish(AddWords(Signed())).status, 0);
    QString text = QString::fromUtf8(Index());
    text.remove(QRegularExpression(S(" (sha256|version|platform|signature|trustedComment|"
                                     "commentSignature)=\"[^\"]*\"(?! encoding)")));
    text.remove(QRegularExpression(S(" *<file name=\"SHA256SUMS[^\n]*\n")));
    kxtest::Remove(Server());
    QCOMPARE(RunPublish(AddWords()).status, 0);
    QCOMPARE(text, QString::fromUtf8(Index()));
}

void TestKxpublishSign::ChangedManifestIsRefused_data()
{
    QTest::addColumn<QString>("pattern");
    QTest::addColumn<QString>("replacement");
    const auto row = [](const char* name, const char* pattern, const char* replacement) {
        QTest::newRow(name) << S(pattern) << S(replacement);
    };
    row("size", "(name=\"app\" md5=\"\\w+\" size=\")7",
        "\\g1"
        "8");
    row("md5", "(name=\"app\" md5=\")[0-9a-f]{2}",
        "\\g1"
        "zz");
    row("md5 of another file", "(name=\"app\" md5=\")\\w{32}",
        "\\g1"
        "d41d8cd98f00b204e9800998ecf8427e");
    row("sha256", "(name=\"app\".* sha256=\")\\w{8}",
        "\\g1"
        "00000000");
    row("sha256 gone", "(name=\"app\".*) sha256=\"\\w*\"", "\\g1");
    row("permissions", "-rwxr-xr-x", "-rwsr-xr-x");
    row("permissions gone", " permissions=\"-rwxr-xr-x\"", "");
    row("target", "symlink=\"../app\"", "symlink=\"../big\"");
    row("a link becomes a file", "symlink=\"../app\"", "symlink=\"\"");
    row("a file becomes a link", "(name=\"Z\".*symlink=\")",
        "\\g1"
        "app");
    row("program", "PostExec=\"app\"", "PostExec=\"big\"");
    row("name", "name=\"Z\"", "name=\"Y\"");
    row("a file gone", " *<file name=\"Z\"[^\n]*\n", "");
    row("a file twice", "( *<file name=\"Z\"[^\n]*\n)", "\\g1\\g1");
    row("a file more", "( *<file name=\")Z(\"[^\n]*\n)", "\\g1Z\\g2\\g1Y\\g2");
    row("the list of digests gone", " *<file name=\"SHA256SUMS\"[^\n]*\n", "");
    row("version", " version=\"2.4.1\"", " version=\"2.4.2\"");
    row("platform", "platform=\"x64\"", "platform=\"x86\"");
    row("package", "package name=\"demo-app\"", "package name=\"demo\"");
    row("comment", "trustedComment=\"package:demo-app version:2.4.1",
        "trustedComment=\"package:demo-app version:2.4.2");
    row("comment gone", " trustedComment=\"[^\"]*\"", "");
    row("signature", " signature=\"(.{60}).",
        " signature=\"\\g1"
        "!");
    row("signature gone", " signature=\"[^\"]*\"", "");
    row("signature of the comment", " commentSignature=\".", " commentSignature=\"!");
    row("all of the signature gone",
        " signature=\"[^\"]*\" trustedComment=\"[^\"]*\" commentSignature=\"[^\"]*\"", "");
    row("a build before it", "  <build ", "  <build DownloadURL=\"http://x\"/>\n  <build ");
}

void TestKxpublishSign::ChangedManifestIsRefused()
{
    QFETCH(QString, pattern);
    QFETCH(QString, replacement);
    QCOMPARE(RunPublish(AddWords(Signed())).status, 0);
    const QByteArray whole = Index();
    QVERIFY(!Check(whole));
    // The order of the records says nothing, and the address is left to mirrors.
    QString text = QString::fromUtf8(whole);
    text.replace(QRegularExpression(S("( *<file name=\"Z\"[^\n]*\n)( *<file [^\n]*\n)")),
                 S("\\2\\1"));
    text.replace(S("http://updates.example/demo"), S("http://mirror.example"));
    QVERIFY(text != QString::fromUtf8(whole));
    const guard::Problem mirrored = Check(text.toUtf8());
    QVERIFY2(!mirrored, qPrintable(mirrored.text));

    QString changed = QString::fromUtf8(whole);
    replacement.replace(S("\\g"), S("\\"));
    changed.replace(QRegularExpression(pattern), replacement);
    QVERIFY(changed != QString::fromUtf8(whole));
    QVERIFY(Check(changed.toUtf8()));
    // And so does verify, which reads the same file.
    kxtest::Write(site->BuildPath(S("2.4.1"), S("index.xml")), changed.toUtf8());
    QCOMPARE(Verify().status, 5);
}

void TestKxpublishSign::OldSumsAreLeftOut()
{
    site->Tree().File(S("SHA256SUMS"), "old").Symlink(S("SHA256SUMS.minisig"), S("app"));
    const QStringList before = Snapshot(site->Tree().Root());
    const PublishResult result = RunPublish(AddWords(Signed()));
    QCOMPARE(result.err.mid(0, 2),
             QStringList({S("left out: 'SHA256SUMS', the signature brings its own"),
                          S("left out: 'SHA256SUMS.minisig', the signature brings its own")}));
    QCOMPARE(result.status, 0);
    QVERIFY(result.out.contains(S("left-out: 2")));
    QVERIFY(!Check(Index()));
    QCOMPARE(Verify().out.constLast(), S("problems: 0"));
    QCOMPARE(Snapshot(site->Tree().Root()), before);
    // Without a key they are files like all others.
    QCOMPARE(RunPublish(With(AddWords(), S("--version"), S("3"))).status, 0);
    QCOMPARE(kxtest::Read(site->BuildPath(S("3"), S("files/SHA256SUMS"))), QByteArray("old"));
}

void TestKxpublishSign::EqualFilesAreLinked()
{
    // From a signed build to an unsigned one, and back.
    site->Add(S("1"));
    QCOMPARE(RunPublish(AddWords(Signed())).status, 0);
    const PublishResult again = RunPublish(With(AddWords(Signed()), S("--version"), S("3")));
    QCOMPARE(again.status, 0);
    // The list of digests is the same for both, and made by the run itself.
    QVERIFY(again.out.contains(S("linked: 5")));
    for (const char* name : {"app", "big", "lib/a b"}) {
        const quint64 inode = InodeOf(site->BuildPath(S("1"), S("files/") + S(name)));
        QCOMPARE(InodeOf(site->BuildPath(S("2.4.1"), S("files/") + S(name))), inode);
        QCOMPARE(InodeOf(site->BuildPath(S("3"), S("files/") + S(name))), inode);
    }
    site->Promote(S("3"));
    QCOMPARE(Verify({S("--version"), S("2.4.1")}).out.constLast(), S("problems: 0"));
    QCOMPARE(Verify({S("--version"), S("3")}).out.constLast(), S("problems: 0"));
}

void TestKxpublishSign::RehearsalChecksAndWritesNothing()
{
    const PublishResult result = RunPublish(AddWords(Signed()) << S("--dry-run"));
    QVERIFY2(result.status == 0, qPrintable(result.err.join(u'\n')));
    QVERIFY(result.out.contains(S("files: 7")));
    QVERIFY(!kxtest::Exists(Server()));
    const PublishResult real = RunPublish(AddWords(Signed()));
    QCOMPARE(real.out, result.out);
}

void TestKxpublishSign::RehearsalFindsAWrongPassphrase()
{
    const QByteArray word("right");
    const SecretKeyParts key(1, word);
    workshop->File(S("sealed"), key.Text(), 0600)
        .File(S("right"), "right\n", 0600)
        .File(S("wrong"), "wrong\n", 0600);
    for (const QStringList& more : {QStringList(), QStringList{S("--dry-run")}}) {
        const PublishResult result = RunPublish(
            AddWords({S("--sign"), Path("sealed"), S("--passphrase-file"), Path("wrong")}) + more);
        QCOMPARE(result.err,
                 QStringList({S("--sign '%1': the passphrase is wrong, or the key is damaged")
                                  .arg(Path("sealed")),
                              S("refused, 1 problem")}));
        QCOMPARE(result.status, 1);
        QVERIFY(!kxtest::Exists(Server()));
    }
    QCOMPARE(
        RunPublish(AddWords({S("--sign"), Path("sealed"), S("--passphrase-file"), Path("right")}))
            .status,
        0);
    QVERIFY(!Check(Index()));
}

void TestKxpublishSign::KeyOnTheServerIsRefused()
{
    TreeBuilder(Server()).File(S("key"), SecretKeyParts(1).Text(), 0600);
    const PublishResult result =
        RunPublish(AddWords({S("--sign"), Server() + S("/packages/../key")}));
    QVERIFY2(result.err.at(0).endsWith(S("lies inside '%1', where others get it").arg(Server())),
             qPrintable(result.err.at(0)));
    QCOMPARE(result.status, 1);
}

// Each file of the tree is small, and the list of them is not.
void TestKxpublishSign::FullDiskPublishesNothing()
{
    site->Tree().Remove(S("big"));
    for (int i = 0; i < 100; ++i)
        site->Tree().File(S("many/%1").arg(i), QByteArray::number(i));
    site->Add(S("1"));
    site->Promote(S("1"));
    const QStringList before = Snapshot(Server());
    const PublishResult result =
        RunPublish(AddWords(Signed()), [] { kxtest::LimitFileSizeGently(4096); });
    QVERIFY2(result.err.at(0).contains(S("/files/SHA256SUMS'")), qPrintable(result.err.at(0)));
    QCOMPARE(result.status, 3);
    QCOMPARE(Snapshot(Server()), before);
    QCOMPARE(RunPublish(AddWords(Signed())).status, 0);
    QVERIFY(!Check(Index()));
}

void TestKxpublishSign::VerifyFindsWhatIsNotSigned()
{
    site->Add(S("2.4.1"));
    site->Promote(S("2.4.1"));
    QCOMPARE(site->Run(S("verify")).status, 0);
    const PublishResult result = Verify();
    QCOMPARE(result.status, 5);
    QVERIFY2(result.out.at(0).endsWith(S("it is not signed.")), qPrintable(result.out.at(0)));
}

void TestKxpublishSign::VerifyFindsChanges_data()
{
    QTest::addColumn<ChangeFunction>("change"); // in the directory of the build
    QTest::addColumn<QString>("text");          // empty: nothing is found
    const auto row = [](const char* name, const ChangeFunction& change, const char* text) {
        QTest::newRow(name) << change << S(text);
    };
    row(
        "nothing", [](TreeBuilder&) {}, "");
    row(
        "a file", [](TreeBuilder& build) { build.File(S("files/Z"), "changed"); },
        "'Z': has another digest than the manifest says");
    row(
        "a signature of another file",
        [](TreeBuilder& build) {
            const QString name = S("files/SHA256SUMS.minisig");
            QByteArray text = kxtest::Read(build.Path(name));
            text.replace("version:2.4.1", "version:2.4.2");
            build.Remove(name).File(name, text);
        },
        "'SHA256SUMS.minisig': ");
    row(
        "a list that is gone", [](TreeBuilder& build) { build.Remove(S("files/SHA256SUMS")); },
        "'SHA256SUMS': ");
    row(
        "a signature that is gone",
        [](TreeBuilder& build) { build.Remove(S("files/SHA256SUMS.minisig")); },
        "'SHA256SUMS.minisig': ");
}

void TestKxpublishSign::VerifyFindsChanges()
{
    QFETCH(ChangeFunction, change);
    QFETCH(QString, text);
    kxtest::NginxServer server(Server());
    QCOMPARE(RunPublish(With(AddWords(Signed()), S("--base-url"), S("http://127.0.0.1:1"))).status,
             0);
    site->Promote(S("2.4.1"));
    QVERIFY2(server.Start(), qPrintable(server.Error()));
    // The address of the files is not signed: a mirror may have one of its own.
    const QString index = site->BuildPath(S("2.4.1"), S("index.xml"));
    kxtest::Write(index, kxtest::Read(index).replace("http://127.0.0.1:1", server.Url().toUtf8()));
    TreeBuilder build(site->BuildPath(S("2.4.1")));
    change(build);
    const PublishResult tree = Verify();
    const PublishResult url = RunPublish(
        {S("verify"), server.Url(), S("--name"), S("demo-app"), S("--key"), Path("pub")});
    for (const PublishResult& result : {tree, url}) {
        const QString found = result.out.join(u'\n');
        QVERIFY2(found.contains(S("bad: ")) == !text.isEmpty(), qPrintable(found));
        QVERIFY2(found.contains(text), qPrintable(found));
        QCOMPARE(result.status, text.isEmpty() ? 0 : 5);
    }
    QCOMPARE(RunPublish({S("verify"), server.Url(), S("--name"), S("demo-app"), S("--key"),
                         Path("otherpub")})
                 .status,
             5);
}

void TestKxpublishSign::VerifyComparesListAndManifest_data()
{
    QTest::addColumn<QString>("listVersion");
    QTest::addColumn<ChangeFunction>("change"); // in the tree, once the list is made
    QTest::addColumn<QString>("text");          // empty: nothing is found
    const auto row = [](const char* name, const char* version, const ChangeFunction& change,
                        const char* text) {
        QTest::newRow(name) << S(version) << change << S(text);
    };
    row(
        "the same", "2.4.1", [](TreeBuilder&) {}, "");
    row(
        "a list of another version", "2.4.0", [](TreeBuilder&) {},
        "'SHA256SUMS.minisig': it is signed for another version");
    row(
        "a file", "2.4.1", [](TreeBuilder& tree) { tree.File(S("Z"), "changed"); },
        "'Z': has another digest in SHA256SUMS than in the manifest");
    row(
        "a file more", "2.4.1", [](TreeBuilder& tree) { tree.File(S("more"), ""); },
        "'more': not in SHA256SUMS");
    row(
        "a file less", "2.4.1", [](TreeBuilder& tree) { tree.Remove(S("Z")); },
        "'Z': in SHA256SUMS, and not in the manifest");
    row(
        "a link", "2.4.1",
        [](TreeBuilder& tree) { tree.Remove(S("lib/link")).Symlink(S("lib/link"), S("../Z")); },
        "'lib/link': has another target in SHA256SUMS than in the manifest");
}

// Both are signed, and published by something else than kxpublish.
void TestKxpublishSign::VerifyComparesListAndManifest()
{
    QFETCH(QString, listVersion);
    QFETCH(ChangeFunction, change);
    QFETCH(QString, text);
    const kxtest::SigningKey key;
    workshop->Remove(S("pub")).File(S("pub"), key.Public().FileText());
    guard::PackageIdentity listed = identity;
    listed.version = listVersion;
    key.SignTree(site->Tree().Root(), listed);
    change(site->Tree());
    kxtest::NginxServer server(Server());
    QCOMPARE(RunPublish(With(AddWords(), S("--base-url"), S("http://127.0.0.1:1"))).status, 0);
    site->Promote(S("2.4.1"));
    QVERIFY2(server.Start(), qPrintable(server.Error()));
    const QString index = site->BuildPath(S("2.4.1"), S("index.xml"));
    const QByteArray xml = Index().replace("http://127.0.0.1:1", server.Url().toUtf8());
    kxtest::Write(index, key.SignManifest(xml, site->BuildPath(S("2.4.1"), S("files")), identity));

    const PublishResult url = RunPublish(
        {S("verify"), server.Url(), S("--name"), S("demo-app"), S("--key"), Path("pub")});
    for (const PublishResult& result : {Verify(), url}) {
        const QString found = result.out.join(u'\n');
        QVERIFY2(found.contains(text), qPrintable(found));
        QVERIFY2(found.contains(S("problems: %1").arg(text.isEmpty() ? 0 : 1)), qPrintable(found));
        QCOMPARE(result.status, text.isEmpty() ? 0 : 5);
    }
}

void TestKxpublishSign::VerifyTakesOneOfSeveralKeys()
{
    Publish(S("1"));
    Publish(S("2"), S("otherkey"));
    QCOMPARE(Verify().status, 5);
    QCOMPARE(Verify({S("--version"), S("1")}).status, 0);
    QCOMPARE(Verify({S("--key"), Path("otherpub")}).status, 0);
}

void TestKxpublishSign::VerifyRefusesABadKey()
{
    Publish(S("1"));
    const PublishResult result = site->Run(S("verify"), {S("--key"), Path("key")});
    QVERIFY2(result.err.at(0).startsWith(S("--key '%1': ").arg(Path("key"))),
             qPrintable(result.err.at(0)));
    QCOMPARE(result.status, 1);
}

void TestKxpublishSign::PromoteWarnsOfALostSignature()
{
    Publish(S("1"));
    site->Promote(S("1"));
    Publish(S("2"));
    QCOMPARE(RunPublish(kxtest::PromoteArguments(S("2"), Server())).err,
             QStringList({S("clients are offered version 2 now, 1 before")}));
    site->Add(S("3"));
    const QString warning = S("warning: demo-app 3 for x64 is not signed, and 2 is: clients that "
                              "want a signature refuse it");
    PublishResult result = RunPublish(kxtest::PromoteArguments(S("3"), Server()));
    QCOMPARE(result.err, QStringList({warning, S("clients are offered version 3 now, 2 before")}));
    QCOMPARE(result.status, 0);
}

void TestKxpublishSign::RollbackLeavesSignaturesAlone()
{
    Publish(S("1"));
    site->Promote(S("1"));
    Publish(S("2"));
    site->Promote(S("2"));
    const QByteArray index = kxtest::Read(site->BuildPath(S("1"), S("index.xml")));
    QCOMPARE(site->Run(S("rollback")).status, 0);
    QCOMPARE(site->Offered(), S("1"));
    QCOMPARE(kxtest::Read(site->BuildPath(S("1"), S("index.xml"))), index);
    QCOMPARE(Verify().status, 0);
}

void TestKxpublishSign::RollbackAsSignsAnew()
{
    Publish(S("1"), S("otherkey"));
    site->Promote(S("1"));
    Publish(S("2"));
    site->Promote(S("2"));
    const QStringList before = Snapshot(Server());

    const PublishResult unsignedRun = site->Run(S("rollback"), {S("--as"), S("3")});
    QCOMPARE(unsignedRun.err,
             QStringList({S("'%1': signed, for version 1 only; --sign names the key to sign it as "
                            "'3' with")
                              .arg(site->BuildPath(S("1"), S("index.xml"))),
                          S("refused, 1 problem")}));
    QCOMPARE(unsignedRun.status, 1);
    QCOMPARE(Snapshot(Server()), before);

    const QStringList words =
        QStringList{S("--as"), S("3"), S("--key"), Path("otherpub")} + Signed();
    QCOMPARE(site->Run(S("rollback"), words + QStringList{S("--dry-run")}).status, 0);
    QCOMPARE(Snapshot(Server()), before);
    const PublishResult result = site->Run(S("rollback"), words);
    QCOMPARE(result.err, QStringList({S("clients are offered version 3 now, 2 before")}));
    QCOMPARE(result.status, 0);
    const guard::Problem problem = guard::CheckPackageXml(
        QString::fromUtf8(kxtest::Read(site->BuildPath(S("3"), S("index.xml")))),
        {S("demo-app"), S("3"), S("x64")}, {publicKey});
    QVERIFY2(!problem, qPrintable(problem.text));
    QCOMPARE(Verify({S("--version"), S("3")}).out.constLast(), S("problems: 0"));
    QCOMPARE(kxtest::Read(site->BuildPath(S("3"), S("files/app"))), QByteArray("1"));
    for (const char* name : {"app", "big", "SHA256SUMS"})
        QCOMPARE(InodeOf(site->BuildPath(S("3"), S("files/") + S(name))),
                 InodeOf(site->BuildPath(S("1"), S("files/") + S(name))));
    // The older one keeps its own.
    QCOMPARE(Verify({S("--version"), S("1"), S("--key"), Path("otherpub")}).status, 0);
}

void TestKxpublishSign::RollbackAsChecksFirst_data()
{
    QTest::addColumn<ChangeFunction>("change"); // in the directory of the older build
    QTest::addColumn<QString>("text");
    const auto row = [](const char* name, const ChangeFunction& change, const char* text) {
        QTest::newRow(name) << change << S(text);
    };
    row(
        "a file of the same size", [](TreeBuilder& build) { build.File(S("files/Z"), "changed"); },
        "'Z': has another digest than the manifest says");
    row(
        "a file, and the manifest with it",
        [](TreeBuilder& build) {
            build.File(S("files/Z"), "changed");
            QByteArray text = kxtest::Read(build.Path(S("index.xml")));
            text.replace(kxtest::MD5Of("after S").toUtf8(), kxtest::MD5Of("changed").toUtf8());
            build.File(S("index.xml"), text);
        },
        "the signature is wrong");
    row(
        "the signature of the manifest taken away",
        [](TreeBuilder& build) {
            QByteArray text = kxtest::Read(build.Path(S("index.xml")));
            text.replace(" signature=", " other=");
            build.File(S("index.xml"), text);
        },
        "not signed, so nothing tells that it is what was published");
    row(
        "the list of digests",
        [](TreeBuilder& build) {
            QByteArray text = kxtest::Read(build.Path(S("files/SHA256SUMS")));
            text[0] = text.at(0) == 'a' ? 'b' : 'a';
            build.File(S("files/SHA256SUMS"), text);
        },
        "'SHA256SUMS.minisig': ");
}

void TestKxpublishSign::RollbackAsChecksFirst()
{
    QFETCH(ChangeFunction, change);
    QFETCH(QString, text);
    Publish(S("1"));
    site->Promote(S("1"));
    // Other files, so that no build shares them with the older one.
    site->Tree().Remove(S("Z")).File(S("Z"), "another");
    Publish(S("2"));
    site->Promote(S("2"));
    TreeBuilder build(site->BuildPath(S("1")));
    change(build);
    const QStringList before = Snapshot(Server());
    const PublishResult result =
        site->Run(S("rollback"), QStringList{S("--as"), S("3")} + Signed());
    QVERIFY2(result.err.at(0).contains(text), qPrintable(result.err.join(u'\n')));
    QCOMPARE(result.status, 1);
    QCOMPARE(Snapshot(Server()), before);
}

void TestKxpublishSign::OptionsNeedTheirKey_data()
{
    QTest::addColumn<QStringList>("words");
    QTest::addColumn<QString>("text");
    const QStringList add = AddArguments(S("tree"), S("out"));
    QTest::newRow("add, a passphrase") << add + QStringList{S("--passphrase-file"), S("x")}
                                       << S("--passphrase-file is of no use without --sign");
    QTest::newRow("add, an empty name")
        << add + QStringList{S("--sign"), S("")} << S("--sign is empty");
    QTest::newRow("rollback, a key to sign with")
        << QStringList{S("rollback"), S("out"), S("--sign"), S("x")}
        << S("--sign is of no use without --as");
    QTest::newRow("rollback, a public key")
        << QStringList{S("rollback"), S("out"), S("--as"), S("2"), S("--key"), S("x")}
        << S("--key is of no use without --sign");
}

void TestKxpublishSign::OptionsNeedTheirKey()
{
    QFETCH(QStringList, words);
    QFETCH(QString, text);
    const PublishResult result = RunPublish(words);
    QCOMPARE(result.err.at(0), text);
    QCOMPARE(result.status, 2);
}

QTEST_GUILESS_MAIN(TestKxpublishSign)
#include "tst_kxpublish_sign.moc"
