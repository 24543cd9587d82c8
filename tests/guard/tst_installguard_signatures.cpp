#include "guardedupdater.h"
#include "guardsite.h"
#include "wiringguard.h"

#include <kxguard/errors.h>
#include <kxguard/installguard.h>
#include <kxguard/publickey.h>
#include <kxguard/signature.h>
#include <kxguard/signedtree.h>
#include <kxupdater/build.h>

#include <QDir>
#include <QDirIterator>
#include <QMap>
#include <QProcess>
#include <QStandardPaths>
#include <QTest>

#include <algorithm>
#include <functional>
#include <memory>

using guard::InstallGuard;
using kxtest::GuardedUpdater;
using kxtest::GuardSite;
using kxtest::HostCallback;
using kxtest::IdleUpdater;
using kxtest::Snapshot;
using kxtest::TreeBuilder;

namespace {

/** The output of a program that must succeed. */
QByteArray Run(const QString& program, const QStringList& arguments, const QString& directory)
{
    QProcess process;
    process.setWorkingDirectory(directory);
    process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process.start(program, arguments);
    if (!process.waitForFinished(60000) || process.exitStatus() != QProcess::NormalExit ||
        process.exitCode() != 0)
        qFatal("'%s' failed", qPrintable(program));
    return process.readAllStandardOutput();
}

/** A pair of keys that Debian's minisign has made. */
class MinisignKey
{
public:
    explicit MinisignKey(const QString& directory) : directory(directory)
    {
        Run("minisign", {"-G", "-W", "-f", "-p", Public(), "-s", Secret()}, directory);
    }

    guard::PublicKey Key() const
    {
        guard::PublicKey key;
        const guard::Problem problem = guard::PublicKey::Load(Public(), &key);
        if (problem)
            qFatal("%s", qPrintable(problem.text));
        return key;
    }

    void Sign(const QString& file, const QString& comment, bool isLegacy = false) const
    {
        QStringList arguments = {"-S", "-s", Secret(), "-m", file, "-t", comment};
        if (isLegacy)
            arguments << "-l";
        Run("minisign", arguments, directory);
    }

private:
    QString Public() const { return directory + "/key.pub"; }
    QString Secret() const { return directory + "/key.sec"; }

    const QString directory;
};

/** Writes the list of digests with sha256sum, as a publisher would do by hand. */
void WriteSums(const QString& root)
{
    QStringList files;
    QStringList links;
    QDirIterator walk(root, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                      QDirIterator::Subdirectories);
    while (walk.hasNext()) {
        walk.next();
        const QString name = walk.filePath().mid(root.size() + 1);
        if (walk.fileInfo().isSymLink())
            links
                << QStringLiteral("# link %1 -> %2\n").arg(name, kxtest::LinkText(walk.filePath()));
        else if (walk.fileInfo().isFile() && !name.startsWith("SHA256SUMS"))
            files << name;
    }
    std::sort(files.begin(), files.end());
    std::sort(links.begin(), links.end());
    const QByteArray sums = Run("sha256sum", QStringList{"--"} + files, root);
    kxtest::Write(root + "/SHA256SUMS", sums + links.join(QString()).toUtf8());
}

QString Comment(const QString& package = "demo", const QString& version = "2.0",
                const QString& platform = updater::Build::Platform())
{
    return QStringLiteral("package:%1 version:%2 platform:%3").arg(package, version, platform);
}

} // namespace

/** Installs of trees that minisign has signed, and of those that it has not. */
class TestInstallGuardSignatures : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();

    void ListByHandIsTheListOfTheLibrary();
    void SignedTreeIsInstalled();
    void UnsignedTreeIsInstalledWithoutKeysAlone();
    void KeysAreRotated();
    void SignatureIsRefused_data();
    void SignatureIsRefused();
    void SignedVersionIsTheOneThatCounts_data();
    void SignedVersionIsTheOneThatCounts();
    void TreeThatTheManifestAgreesWithIsHeldToItsSignature_data();
    void TreeThatTheManifestAgreesWithIsHeldToItsSignature();

private:
    /** Writes the list, signs it, and describes the tree with both. */
    void SignTree(const MinisignKey& with, const QString& comment = Comment());
    void Refuses(int code, const QStringList& named, const QList<guard::PublicKey>& keys,
                 const QString& version = {});

    std::unique_ptr<GuardSite> site;
    std::unique_ptr<MinisignKey> key;
    std::unique_ptr<MinisignKey> other;
};

void TestInstallGuardSignatures::initTestCase()
{
    if (QStandardPaths::findExecutable("minisign").isEmpty())
        QSKIP("minisign is not installed");
}

void TestInstallGuardSignatures::init()
{
    kxtest::FailOnWiringWarnings();
    site = std::make_unique<GuardSite>();
    key = std::make_unique<MinisignKey>(site->Scratch("key"));
    other = std::make_unique<MinisignKey>(site->Scratch("other"));
}

void TestInstallGuardSignatures::SignTree(const MinisignKey& with, const QString& comment)
{
    WriteSums(site->Next());
    with.Sign(site->Next() + "/SHA256SUMS", comment);
    site->Describe();
}

void TestInstallGuardSignatures::Refuses(int code, const QStringList& named,
                                         const QList<guard::PublicKey>& keys,
                                         const QString& version)
{
    const QStringList before = Snapshot(site->Root());
    HostCallback host;
    GuardedUpdater guarded(*site);
    guarded.Guard().SetCallback(&host);
    guarded.Guard().SetKeys(keys);
    guarded.Guard().SetVersion(version);
    QVERIFY2(!guarded.Install(), guarded.Report());
    QVERIFY2(guarded.Code() == code, guarded.Report());
    QVERIFY2(guarded.Guard().LastErrorCode() == code, guarded.Report());
    for (const QString& name : named)
        QVERIFY2(guarded.Guard().LastError().contains(name), guarded.Report());
    QCOMPARE(host.calls.load(), 0);
    QVERIFY(!guarded.Guard().IsLocked());
    QCOMPARE(Snapshot(site->Root()), before);
}

void TestInstallGuardSignatures::ListByHandIsTheListOfTheLibrary()
{
    WriteSums(site->Next());
    const QByteArray text = kxtest::Read(site->Next() + "/SHA256SUMS");
    guard::Sums sums;
    const guard::Problem problem = guard::Sums::Parse(text, &sums);
    QVERIFY2(!problem, qPrintable(problem.text));
    QCOMPARE(sums.files.size(), 3);
    QCOMPARE(sums.links, (QMap<QString, QString>{{"lib/link", "../bin/app"}}));
    QCOMPARE(sums.Text(), text);
    Run("sha256sum", {"-c", "--strict", "SHA256SUMS"}, site->Next());
}

void TestInstallGuardSignatures::SignedTreeIsInstalled()
{
    SignTree(*key);
    const QStringList wanted = Snapshot(site->Next());
    for (const QString& version : {QString(), QString("2.0")}) {
        GuardedUpdater guarded(*site);
        guarded.Guard().SetKeys({key->Key()});
        guarded.Guard().SetVersion(version);
        QVERIFY2(guarded.Install(), guarded.Report());
        QCOMPARE(Snapshot(site->App()), wanted);
        QCOMPARE(site->Names(), GuardSite::plainNames);
        site->Reset();
        SignTree(*key);
    }
}

void TestInstallGuardSignatures::UnsignedTreeIsInstalledWithoutKeysAlone()
{
    GuardedUpdater guarded(*site);
    guarded.Guard().SetKeys({key->Key()});
    QVERIFY(!guarded.Install());
    QVERIFY2(guarded.Code() == guard::SignatureMissing, guarded.Report());
    QVERIFY2(guarded.Guard().LastError().contains("SHA256SUMS"), guarded.Report());
    QVERIFY2(site->IsOld(), site->Report());
    guarded.Guard().SetKeys({});
    QVERIFY2(guarded.Install(), guarded.Report());
    QVERIFY2(site->IsNew(), site->Report());
}

void TestInstallGuardSignatures::KeysAreRotated()
{
    const MinisignKey next(site->Scratch("next-key"));
    const QList<guard::PublicKey> both = {key->Key(), next.Key()};
    for (const MinisignKey* with : {static_cast<const MinisignKey*>(key.get()), &next}) {
        site->Reset();
        SignTree(*with);
        GuardedUpdater guarded(*site);
        guarded.Guard().SetKeys(both);
        QVERIFY2(guarded.Install(), guarded.Report());
    }
    SignTree(*other);
    Refuses(guard::SignatureUnknownKey, {other->Key().IdText()}, both);
    // The old key is taken out of the list.
    SignTree(*key);
    Refuses(guard::SignatureUnknownKey, {key->Key().IdText()}, {next.Key()});
}

void TestInstallGuardSignatures::SignatureIsRefused_data()
{
    QTest::addColumn<QString>("change");
    QTest::addColumn<int>("code");
    QTest::addColumn<QStringList>("named");
    const auto row = [](const char* change, int code, const QStringList& named) {
        QTest::newRow(change) << change << code << named;
    };
    row("list without signature", guard::SignatureMissing, {"SHA256SUMS.minisig"});
    row("signature without list", guard::SignatureMissing, {"SHA256SUMS"});
    row("other key", guard::SignatureUnknownKey, {});
    row("other package", guard::SignaturePackage, {"rogue"});
    row("other platform", guard::SignaturePackage, {"sparc"});
    row("other version", guard::SignatureVersion, {"2.1", "2.0"});
    row("no identity", guard::SignatureMalformed, {});
    row("list changed", guard::SignatureWrong, {});
    row("comment changed", guard::SignatureWrong, {});
    row("signature of another file", guard::SignatureWrong, {});
    row("legacy algorithm", guard::SignatureMalformed, {});
    row("not a signature", guard::SignatureMalformed, {});
    row("empty signature", guard::SignatureMalformed, {});
    row("signature behind a link", 0, {"SHA256SUMS.minisig"});
    row("list that is none", guard::SumsMalformed, {});
    row("list in another order", guard::SumsMalformed, {});
    row("list that names a file outside", guard::SumsMalformed, {});
}

void TestInstallGuardSignatures::SignatureIsRefused()
{
    QFETCH(const QString, change);
    QFETCH(const int, code);
    QFETCH(const QStringList, named);
    const QString list = site->Next() + "/SHA256SUMS";
    const QString signature = list + ".minisig";
    SignTree(*key);
    if (change == "list without signature") {
        kxtest::Remove(signature);
    } else if (change == "signature without list") {
        kxtest::Remove(list);
    } else if (change == "other key") {
        SignTree(*other);
    } else if (change == "other package") {
        SignTree(*key, Comment("rogue"));
    } else if (change == "other platform") {
        SignTree(*key, Comment("demo", "2.0", "sparc"));
    } else if (change == "other version") {
        SignTree(*key, Comment("demo", "2.1"));
    } else if (change == "no identity") {
        SignTree(*key, "timestamp:1700000000");
    } else if (change == "list changed") {
        TreeBuilder(site->Next()).File("data/same", "SAME");
        WriteSums(site->Next());
    } else if (change == "comment changed") {
        kxtest::Write(signature, kxtest::Read(signature).replace("version:2.0", "version:2.1"));
    } else if (change == "signature of another file") {
        kxtest::Write(site->Scratch("x") + "/SHA256SUMS", "else\n");
        key->Sign(site->Scratch("x") + "/SHA256SUMS", Comment());
        kxtest::Write(signature, kxtest::Read(site->Scratch("x") + "/SHA256SUMS.minisig"));
    } else if (change == "legacy algorithm") {
        key->Sign(list, Comment(), true);
    } else if (change == "not a signature") {
        kxtest::Write(signature, "untrusted comment: x\nabc\n");
    } else if (change == "empty signature") {
        kxtest::Write(signature, "");
    } else if (change == "signature behind a link") {
        const QString aside = site->Scratch("aside") + "/signature";
        kxtest::Write(aside, kxtest::Read(signature));
        kxtest::Remove(signature);
        TreeBuilder(site->Next()).Symlink("SHA256SUMS.minisig", aside);
    } else {
        QByteArray text = kxtest::Read(list);
        if (change == "list that is none")
            text = "all is well\n";
        else if (change == "list in another order")
            text = text.mid(text.indexOf('\n') + 1) + text.left(text.indexOf('\n') + 1);
        else
            text = text.replace("bin/app\n", "../outside/bystander\n");
        kxtest::Write(list, text);
        key->Sign(list, Comment());
    }
    site->Describe();
    if (code != 0)
        return Refuses(code, named, {key->Key()}, "2.0");
    // Which of the checks finds it does not matter.
    const QStringList before = Snapshot(site->Root());
    GuardedUpdater guarded(*site);
    guarded.Guard().SetKeys({key->Key()});
    QVERIFY2(!guarded.Install(), guarded.Report());
    for (const QString& name : named)
        QVERIFY2(guarded.Guard().LastError().contains(name), guarded.Report());
    QCOMPARE(Snapshot(site->Root()), before);
}

void TestInstallGuardSignatures::SignedVersionIsTheOneThatCounts_data()
{
    QTest::addColumn<QString>("current");
    QTest::addColumn<bool>("isAllowed");
    QTest::addColumn<bool>("installs");
    QTest::newRow("earlier than the installed one") << "2.1" << false << false;
    QTest::newRow("earlier, allowed") << "2.1" << true << true;
    QTest::newRow("equal") << "2.0" << false << true;
    QTest::newRow("later") << "1.9" << false << true;
}

void TestInstallGuardSignatures::SignedVersionIsTheOneThatCounts()
{
    QFETCH(const QString, current);
    QFETCH(const bool, isAllowed);
    QFETCH(const bool, installs);
    SignTree(*key);
    // Nobody says which version it is but the signature.
    IdleUpdater updater(*site);
    updater.currentVersion = current;
    InstallGuard guard(&updater);
    guard.SetKeys({key->Key()});
    guard.SetDowngradeAllowed(isAllowed);
    const int code = updater.CallBack();
    QVERIFY2(code == (installs ? 0 : int(guard::InstallDowngrade)), qPrintable(guard.LastError()));
    if (!installs)
        QVERIFY2(guard.LastError().contains("2.0") && guard.LastError().contains("2.1"),
                 qPrintable(guard.LastError()));
    // What the server announces must be what was signed.
    if (installs)
        Q_EMIT updater.failed();
    updater.serverVersion = "2.5";
    QCOMPARE(updater.CallBack(), int(guard::SignatureVersion));
}

void TestInstallGuardSignatures::TreeThatTheManifestAgreesWithIsHeldToItsSignature_data()
{
    QTest::addColumn<QString>("change");
    QTest::addColumn<QString>("named");
    for (const auto& [change, named] : std::initializer_list<std::pair<const char*, const char*>>{
             {"file too many", "lib/extra"},
             {"file missing", "data/same"},
             {"altered", "bin/app"},
             {"link too many", "lib/other"},
             {"link missing", "lib/link"},
             {"other target", "lib/link"},
             {"file for a link", "lib/link"},
             {"link for a file", "data/same"},
         })
        QTest::newRow(change) << change << named;
}

void TestInstallGuardSignatures::TreeThatTheManifestAgreesWithIsHeldToItsSignature()
{
    QFETCH(const QString, change);
    QFETCH(const QString, named);
    SignTree(*key);
    TreeBuilder next(site->Next());
    if (change == "file too many")
        next.File(named, "x");
    else if (change == "altered")
        next.File(named, "NEW program", 0755);
    else if (change == "link too many")
        next.Symlink(named, "../bin/app");
    else if (change.endsWith("missing"))
        next.Remove(named);
    else if (change == "other target")
        next.Remove(named).Symlink(named, "../data/same");
    else if (change == "file for a link")
        next.Remove(named).File(named, "x");
    else
        next.Remove(named).Symlink(named, "../bin/app");
    // As a server says that somebody else controls.
    site->Describe();
    Refuses(guard::SumsDiffer, {named}, {key->Key()});
    GuardedUpdater guarded(*site);
    QVERIFY2(guarded.Install(), guarded.Report());
}

QTEST_GUILESS_MAIN(TestInstallGuardSignatures)
#include "tst_installguard_signatures.moc"
