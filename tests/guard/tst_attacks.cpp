// What an attacker does to an updater, done from end to end: a malicious server, a download
// directory that somebody writes into, files laid beside the application. docs/security.md has the
// whole list.

#include "journal.h"
#include "signingkey.h"
#include "treebuilder.h"
#include "updaterrig.h"

#include <kxguard/diskspace.h>
#include <kxguard/filelock.h>
#include <kxguard/installguard.h>
#include <kxguard/recover.h>
#include <kxguard/signedmanifest.h>
#include <kxguard/signedtree.h>
#include <kxupdater/build.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QTest>

#include <functional>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace {

guard::PackageIdentity Identity(const QString& version)
{
    return {kxtest::UpdaterRig::package, version, updater::Build::Platform()};
}

/** A host's callback that uses the moment for something else. */
class MeanwhileCallback : public updater::AppCallbackFunction
{
public:
    explicit MeanwhileCallback(std::function<void()> act) : act(std::move(act)) {}
    int Call(const QString&, const QString&) override
    {
        act();
        return 0;
    }

private:
    std::function<void()> act;
};

// Two blocks of bytes with one MD5, the first ones that were published (Wang, Feng, Lai, Yu 2004).
QByteArray Collision(bool first)
{
    QByteArray hex = "d131dd02c5e6eec4693d9a0698aff95c2fcab58712467eab4004583eb8fb7f89"
                     "55ad340609f4b30283e488832571415a085125e8f7cdc99fd91dbdf280373c5b"
                     "d8823e3156348f5bae6dacd436c919c6dd53e2b487da03fd02396306d248cda0"
                     "e99f33420f577ee8ce54b67080a80d1ec69821bcb6a8839396f9652b6ff72a70";
    if (!first) {
        for (const int byte : {19, 45, 59, 83, 109, 123}) {
            const int digit = 2 * byte;
            const int value = QByteArray("0123456789abcdef").indexOf(hex.at(digit));
            hex[digit] = "0123456789abcdef"[value ^ 8];
        }
    }
    return QByteArray::fromHex(hex);
}

} // namespace

using kxtest::SigningKey;
using kxtest::Snapshot;
using kxtest::TreeBuilder;

class TestAttacks : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void SignedUpdateIsInstalled();
    void UnsignedAfterSignedIsRefused_data();
    void UnsignedAfterSignedIsRefused();
    void SignatureOfAStrangerIsRefused_data();
    void SignatureOfAStrangerIsRefused();
    void ReplayedOldBuildIsRefused();
    void OldBuildUnderANewNumberIsRefused();
    void SignatureOfAnotherBuildIsRefused_data();
    void SignatureOfAnotherBuildIsRefused();
    void FilesOfTwoSignedBuildsAreRefused();
    void ModesOfAnUnsignedDescriptionOpenNothing();
    void FileWithTheSameMd5IsRefused();
    void UnsignedEntryOfTheServerIsRefused();
    void WhatIsPlantedInTheDownloadIsRefused_data();
    void WhatIsPlantedInTheDownloadIsRefused();
    void DownloadThatOthersMayWriteIsRefused();
    void DownloadBelowTheDirectoryOfAnotherIsRefused();
    void ChangeAfterTheCheckIsRefused();
    void SecondUpdaterIsRefused();
    void LockIsNotForOtherUsers();
    void LockThatIsALinkIsRefused();
    void JournalThatIsALinkIsNotWrittenThrough();
    void BackupThatIsALinkIsNotPutInPlace();
    void RecoveryRemovesNothingThroughALink_data();
    void RecoveryRemovesNothingThroughALink();
    void ChangedDescriptionIsRefusedBeforeTheDownload_data();
    void ChangedDescriptionIsRefusedBeforeTheDownload();
    void DescriptionMayNameAnotherMirror();
    void SizesBeyondTheDiskAreSeenBeforeTheDownload();
    void FrozenServerIsSeenByItsVersion();

private:
    /** Serves the signed tree as `version`. */
    void Offer(const QString& version);
    void ExpectRefusal(int code);
    QString Manifest(const QString& version) const;

    std::unique_ptr<kxtest::UpdaterRig> rig;
    std::unique_ptr<guard::InstallGuard> installGuard;
    std::unique_ptr<SigningKey> publisher;
    QString tree; // what the publisher offers next
};

void TestAttacks::init()
{
    QTest::failOnWarning(QRegularExpression(QStringLiteral("No such (signal|slot)")));
    rig = std::make_unique<kxtest::UpdaterRig>();
    publisher = std::make_unique<SigningKey>();
    TreeBuilder(rig->App())
        .File(QStringLiteral("bin/app"), "program 1.0", 0755)
        .File(QStringLiteral("share/data"), "data 1.0");
    publisher->SignTree(rig->App(), Identity(QStringLiteral("1.0")));
    tree = rig->Scratch(QStringLiteral("tree"));
    TreeBuilder(tree)
        .File(QStringLiteral("bin/app"), "program 2.0", 0755)
        .File(QStringLiteral("share/data"), "data 2.0")
        .Symlink(QStringLiteral("share/link"), QStringLiteral("data"));
    publisher->SignTree(tree, Identity(QStringLiteral("2.0")));
    rig->Start();
    installGuard = std::make_unique<guard::InstallGuard>(rig->updater);
    installGuard->SetKeys({publisher->Public()});
}

void TestAttacks::cleanup()
{
    installGuard.reset();
    rig.reset();
    publisher.reset();
}

void TestAttacks::Offer(const QString& version)
{
    rig->Publish(version, tree);
}

void TestAttacks::ExpectRefusal(int code)
{
    const QStringList before = rig->Surroundings();
    QVERIFY(rig->Install("FAILED"));
    QCOMPARE(installGuard->LastErrorCode(), code);
    QVERIFY(!installGuard->LastError().isEmpty());
    QVERIFY2(rig->Errors().join(QLatin1Char('\n')).contains(QString::number(code)),
             qPrintable(rig->Errors().join(QLatin1Char('\n'))));
    QVERIFY(!rig->States().contains(QStringLiteral("BACKUPING")));
    QCOMPARE(rig->Surroundings(), before);
}

void TestAttacks::SignedUpdateIsInstalled()
{
    Offer(QStringLiteral("2.0"));
    QVERIFY(rig->Assemble());
    QVERIFY2(rig->Install(), qPrintable(installGuard->LastError()));
    QCOMPARE(Snapshot(rig->App()), Snapshot(tree));
    QCOMPARE(installGuard->LastErrorCode(), 0);
}

void TestAttacks::UnsignedAfterSignedIsRefused_data()
{
    QTest::addColumn<QStringList>("stripped");
    QTest::newRow("signature") << QStringList{guard::SignatureName()};
    QTest::newRow("list and signature") << QStringList{guard::SumsName(), guard::SignatureName()};
}

void TestAttacks::UnsignedAfterSignedIsRefused()
{
    QFETCH(QStringList, stripped);
    for (const QString& name : stripped)
        kxtest::Remove(tree + QLatin1Char('/') + name);
    Offer(QStringLiteral("2.0"));
    QVERIFY(rig->Assemble());
    ExpectRefusal(guard::SignatureMissing);
}

void TestAttacks::SignatureOfAStrangerIsRefused_data()
{
    QTest::addColumn<bool>("sameId");
    QTest::addColumn<int>("code");
    QTest::newRow("unknown key") << false << int(guard::SignatureUnknownKey);
    QTest::newRow("key that claims a trusted id") << true << int(guard::SignatureWrong);
}

void TestAttacks::SignatureOfAStrangerIsRefused()
{
    QFETCH(bool, sameId);
    QFETCH(int, code);
    const SigningKey stranger = sameId ? SigningKey::WithIdOf(*publisher) : SigningKey();
    TreeBuilder(tree).File(QStringLiteral("bin/app"), "a stranger's program", 0755);
    stranger.SignTree(tree, Identity(QStringLiteral("2.0")));
    Offer(QStringLiteral("2.0"));
    QVERIFY(rig->Assemble());
    ExpectRefusal(code);
}

void TestAttacks::ReplayedOldBuildIsRefused()
{
    // Version 2.0 is installed; the server offers 1.5, which the publisher has once signed.
    rig->updater->SetCurrentVersion(QStringLiteral("2.0"));
    publisher->SignTree(tree, Identity(QStringLiteral("1.5")));
    Offer(QStringLiteral("1.5"));
    QVERIFY(rig->Assemble());
    ExpectRefusal(guard::InstallDowngrade);
}

void TestAttacks::OldBuildUnderANewNumberIsRefused()
{
    rig->updater->SetCurrentVersion(QStringLiteral("2.0"));
    publisher->SignTree(tree, Identity(QStringLiteral("1.5")));
    Offer(QStringLiteral("2.1"));
    QVERIFY(rig->Assemble());
    ExpectRefusal(guard::SignatureVersion);
}

void TestAttacks::SignatureOfAnotherBuildIsRefused_data()
{
    QTest::addColumn<QString>("package");
    QTest::addColumn<QString>("platform");
    const QString here = updater::Build::Platform();
    QTest::newRow("package") << QStringLiteral("other") << here;
    QTest::newRow("platform") << kxtest::UpdaterRig::package
                              << (here == QLatin1String("x64") ? QStringLiteral("x86")
                                                               : QStringLiteral("x64"));
}

void TestAttacks::SignatureOfAnotherBuildIsRefused()
{
    QFETCH(QString, package);
    QFETCH(QString, platform);
    publisher->SignTree(tree, {package, QStringLiteral("2.0"), platform});
    Offer(QStringLiteral("2.0"));
    QVERIFY(rig->Assemble());
    ExpectRefusal(guard::SignaturePackage);
}

void TestAttacks::FilesOfTwoSignedBuildsAreRefused()
{
    // Each file was signed by the publisher, but never these together.
    TreeBuilder(tree).File(QStringLiteral("share/data"), "data 1.0");
    Offer(QStringLiteral("2.0"));
    QVERIFY(rig->Assemble());
    ExpectRefusal(guard::SumsDiffer);
}

void TestAttacks::ModesOfAnUnsignedDescriptionOpenNothing()
{
    // The list of digests has no modes: those of the server alone would let every user of the
    // machine write into the program.
    kxtest::SetMode(tree + QStringLiteral("/bin/app"), 0777);
    Offer(QStringLiteral("2.0"));
    QVERIFY(rig->Assemble());
    QCOMPARE(kxtest::Mode(rig->Next() + QStringLiteral("/bin/app")), 0777);
    ExpectRefusal(guard::PackageExposed);
}

void TestAttacks::FileWithTheSameMd5IsRefused()
{
    QVERIFY(Collision(true) != Collision(false));
    QCOMPARE(kxtest::MD5Of(Collision(true)), kxtest::MD5Of(Collision(false)));
    TreeBuilder(tree).File(QStringLiteral("bin/app"), Collision(true), 0755);
    publisher->SignTree(tree, Identity(QStringLiteral("2.0")));
    Offer(QStringLiteral("2.0"));
    // The updater alone cannot tell the one from the other.
    rig->server.SetBody(rig->FilePath(QStringLiteral("2.0"), QStringLiteral("bin/app")),
                        Collision(false));
    QVERIFY(rig->Assemble());
    QCOMPARE(kxtest::Read(rig->Next() + QStringLiteral("/bin/app")), Collision(false));
    ExpectRefusal(guard::SumsDiffer);
}

void TestAttacks::UnsignedEntryOfTheServerIsRefused()
{
    TreeBuilder(tree).File(QStringLiteral("lib/backdoor.so"), "listed, served, not signed");
    Offer(QStringLiteral("2.0"));
    QVERIFY(rig->Assemble());
    ExpectRefusal(guard::SumsDiffer);
}

void TestAttacks::WhatIsPlantedInTheDownloadIsRefused_data()
{
    QTest::addColumn<QString>("what");
    QTest::addColumn<bool>("isSigned");
    for (const char* what : {"changed file", "hidden file", "hidden directory", "link for a file",
                             "link for a directory", "other target", "pipe"}) {
        QTest::newRow(what) << QString::fromLatin1(what) << true;
        QTest::addRow("%s, without keys", what) << QString::fromLatin1(what) << false;
    }
}

void TestAttacks::WhatIsPlantedInTheDownloadIsRefused()
{
    QFETCH(QString, what);
    QFETCH(bool, isSigned);
    if (!isSigned)
        installGuard->SetKeys({});
    Offer(QStringLiteral("2.0"));
    QVERIFY(rig->Assemble());
    const QString program = rig->Next() + QStringLiteral("/bin/app");
    const QString elsewhere = rig->Scratch(QStringLiteral("elsewhere"));
    TreeBuilder planted(rig->Next());
    if (what == QLatin1String("changed file")) {
        kxtest::Write(program, "program 6.6");
    } else if (what == QLatin1String("hidden file")) {
        planted.File(QStringLiteral("share/.plugin.so"), "not seen by a scan");
    } else if (what == QLatin1String("hidden directory")) {
        planted.File(QStringLiteral(".config/settings"), "not seen by a scan");
    } else if (what == QLatin1String("link for a file")) {
        TreeBuilder(elsewhere).File(QStringLiteral("app"), "program 2.0", 0755);
        planted.Remove(QStringLiteral("bin/app"))
            .Symlink(QStringLiteral("bin/app"), elsewhere + QStringLiteral("/app"));
    } else if (what == QLatin1String("link for a directory")) {
        TreeBuilder(elsewhere).File(QStringLiteral("app"), "program 2.0", 0755);
        planted.Remove(QStringLiteral("bin")).Symlink(QStringLiteral("bin"), elsewhere);
    } else if (what == QLatin1String("other target")) {
        planted.Remove(QStringLiteral("share/link"))
            .Symlink(QStringLiteral("share/link"), QStringLiteral("../bin/app"));
    } else {
        QCOMPARE(mkfifo(QFile::encodeName(planted.Path(QStringLiteral(".pipe"))), 0644), 0);
    }
    const QStringList before = rig->Surroundings();
    QVERIFY(rig->Install("FAILED"));
    QVERIFY2(installGuard->LastErrorCode() == guard::PackageDiffers ||
                 installGuard->LastErrorCode() == guard::SumsDiffer,
             qPrintable(installGuard->LastError()));
    QCOMPARE(rig->Surroundings(), before);
}

void TestAttacks::DownloadThatOthersMayWriteIsRefused()
{
    Offer(QStringLiteral("2.0"));
    QVERIFY(rig->Assemble());
    kxtest::SetMode(rig->Next() + QStringLiteral("/bin"), 0777);
    ExpectRefusal(guard::PackageExposed);
}

void TestAttacks::DownloadBelowTheDirectoryOfAnotherIsRefused()
{
    if (geteuid() != 0)
        QSKIP("only root may give a directory away");
    Offer(QStringLiteral("2.0"));
    QVERIFY(rig->Assemble());
    constexpr uid_t nobody = 65534;
    QCOMPARE(chown(QFile::encodeName(rig->Root()), nobody, nobody), 0);
    ExpectRefusal(guard::PackageExposed);
}

void TestAttacks::ChangeAfterTheCheckIsRefused()
{
    Offer(QStringLiteral("2.0"));
    QVERIFY(rig->Assemble());
    MeanwhileCallback meanwhile(
        [this] { kxtest::Write(rig->Next() + QStringLiteral("/bin/app"), "program 6.6"); });
    installGuard->SetCallback(&meanwhile);
    ExpectRefusal(guard::PackageChanged);
    installGuard->SetCallback(nullptr);
}

void TestAttacks::SecondUpdaterIsRefused()
{
    Offer(QStringLiteral("2.0"));
    QVERIFY(rig->Assemble());
    guard::FileLock other(guard::ApplicationLockPath(rig->App()));
    QCOMPARE(other.Take(), guard::FileLock::Result::Taken);
    ExpectRefusal(guard::InstallBusy);
    other.Release();
    QVERIFY2(rig->Install(), qPrintable(installGuard->LastError()));
}

void TestAttacks::LockIsNotForOtherUsers()
{
    // A lock needs no more than a file that can be read, and this one outlives a killed updater.
    const mode_t before = umask(0);
    guard::FileLock lock(guard::ApplicationLockPath(rig->App()));
    const guard::FileLock::Result result = lock.Take();
    umask(before);
    QCOMPARE(result, guard::FileLock::Result::Taken);
    QCOMPARE(kxtest::Mode(lock.Path()), 0600);
}

void TestAttacks::LockThatIsALinkIsRefused()
{
    Offer(QStringLiteral("2.0"));
    QVERIFY(rig->Assemble());
    const QString victim = rig->Outside() + QStringLiteral("/bystander");
    QVERIFY(QFile::link(victim, guard::ApplicationLockPath(rig->App())));
    ExpectRefusal(guard::InstallLock);
    QCOMPARE(kxtest::Read(victim), QByteArray("keep me"));
}

void TestAttacks::JournalThatIsALinkIsNotWrittenThrough()
{
    Offer(QStringLiteral("2.0"));
    QVERIFY(rig->Assemble());
    const QString victim = rig->Outside() + QStringLiteral("/bystander");
    for (const char* suffix : {".kxjournal", ".kxjournal.kxtmp"})
        QVERIFY(QFile::link(victim,
                            rig->Root() + QStringLiteral("/.app") + QString::fromLatin1(suffix)));
    QVERIFY2(rig->Install(), qPrintable(installGuard->LastError()));
    QCOMPARE(kxtest::Read(victim), QByteArray("keep me"));
    QCOMPARE(kxtest::Mode(victim), 0644);
}

void TestAttacks::BackupThatIsALinkIsNotPutInPlace()
{
    const QString elsewhere = rig->Scratch(QStringLiteral("elsewhere"));
    TreeBuilder(elsewhere).File(QStringLiteral("bin/app"), "a stranger's program", 0755);
    kxtest::Remove(rig->App());
    QVERIFY(QFile::link(elsewhere, rig->Backup()));
    const guard::Recovery recovery = guard::Recover(rig->App());
    QVERIFY2(!recovery.IsWhole(), qPrintable(recovery.text));
    QVERIFY(!kxtest::Exists(rig->App()));
    QVERIFY(kxtest::Exists(elsewhere + QStringLiteral("/bin/app")));
}

void TestAttacks::RecoveryRemovesNothingThroughALink_data()
{
    QTest::addColumn<QString>("link");
    QTest::newRow("unfinished copy") << QStringLiteral(".app.kxnew");
    QTest::newRow("backup") << QStringLiteral("app.old");
    QTest::newRow("in the backup") << QStringLiteral("app.old/share");
    QTest::newRow("journal on its way") << QStringLiteral(".app.kxjournal.kxtmp");
}

void TestAttacks::RecoveryRemovesNothingThroughALink()
{
    QFETCH(QString, link);
    const QStringList before = Snapshot(rig->Outside());
    const QStringList application = Snapshot(rig->App());
    TreeBuilder(rig->Root())
        .Dir(QStringLiteral("app.old"))
        .Remove(link)
        .Symlink(link, rig->Outside())
        // Of an install that has ended but for its clearing up, as far as the journal goes.
        .File(QStringLiteral(".app.kxjournal"), guard::Journal().Text());
    const guard::Recovery recovery = guard::Recover(rig->App());
    QVERIFY2(recovery.state != guard::RecoveryState::Failed, qPrintable(recovery.text));
    QVERIFY(recovery.state != guard::RecoveryState::Whole); // it has looked at the journal
    QCOMPARE(Snapshot(rig->Outside()), before);
    QCOMPARE(Snapshot(rig->App()), application);
}

QString TestAttacks::Manifest(const QString& version) const
{
    return rig->Scratch(QStringLiteral("www")) + rig->ManifestUrlPath(version);
}

void TestAttacks::ChangedDescriptionIsRefusedBeforeTheDownload_data()
{
    QTest::addColumn<QString>("pattern");
    QTest::addColumn<QString>("replacement");
    QTest::addColumn<int>("code");
    const auto row = [](const char* name, const char* pattern, const char* replacement, int code) {
        QTest::newRow(name) << QString::fromLatin1(pattern) << QString::fromLatin1(replacement)
                            << code;
    };
    row("no signature", " (signature|trustedComment|commentSignature)=\"[^\"]*\"", "",
        guard::SignatureMissing);
    row("half a signature", " signature=\"[^\"]*\"", "", guard::SignatureMalformed);
    row("other program", "PostExec=\"bin/app\"", "PostExec=\"share/data\"", guard::SignatureWrong);
    row("other size", "size=\"11\"", "size=\"12\"", guard::SignatureWrong);
    row("other digest", "sha256=\"[0-9a-f]{8}", "sha256=\"00000000", guard::SignatureWrong);
    row("other MD5", "md5=\"[0-9a-f]{8}", "md5=\"00000000", guard::SignatureWrong);
    row("other mode", "-rwxr-xr-x", "-rwsr-xr-x", guard::SignatureWrong);
    row("other target", "symlink=\"data\"", "symlink=\"../bin/app\"", guard::SignatureWrong);
    row("other name", "name=\"share/data\"", "name=\"share/date\"", guard::SignatureWrong);
    row("file left out", "<file [^>]*name=\"share/data\"[^>]*/>", "", guard::SignatureWrong);
    row("other version", " version=\"2.0\"", " version=\"2.1\"", guard::SignatureWrong);
    row("other comment", "package:demo", "package:fake", guard::SignatureWrong);
}

void TestAttacks::ChangedDescriptionIsRefusedBeforeTheDownload()
{
    QFETCH(QString, pattern);
    QFETCH(QString, replacement);
    QFETCH(int, code);
    Offer(QStringLiteral("2.0"));
    const guard::PackageIdentity wanted = Identity(QStringLiteral("2.0"));
    const QByteArray good =
        publisher->SignManifest(kxtest::Read(Manifest(QStringLiteral("2.0"))), tree, wanted);
    kxtest::Write(Manifest(QStringLiteral("2.0")), good);
    QVERIFY(rig->Check());
    QString reason =
        guard::CheckPackageXml(rig->updater->PackageXML(), wanted, {publisher->Public()}).text;
    QVERIFY2(reason.isEmpty(), qPrintable(reason));

    QString changed = QString::fromUtf8(good);
    changed.replace(QRegularExpression(pattern), replacement);
    QVERIFY(changed.toUtf8() != good);
    kxtest::Write(Manifest(QStringLiteral("2.0")), changed.toUtf8());
    rig->Forget();
    rig->updater->Cancel();
    QVERIFY(rig->Check());
    const guard::Problem problem =
        guard::CheckPackageXml(rig->updater->PackageXML(), wanted, {publisher->Public()});
    QVERIFY2(problem.code == code, qPrintable(problem.text));
    QCOMPARE(rig->FetchedFiles(), QStringList());
}

void TestAttacks::DescriptionMayNameAnotherMirror()
{
    Offer(QStringLiteral("2.0"));
    const guard::PackageIdentity wanted = Identity(QStringLiteral("2.0"));
    QByteArray xml =
        publisher->SignManifest(kxtest::Read(Manifest(QStringLiteral("2.0"))), tree, wanted);
    const QByteArray here = rig->server.Url().toString().chopped(1).toUtf8();
    QVERIFY(xml.contains(here));
    xml.replace(here, "https://mirror.example.org");
    const guard::Problem problem =
        guard::CheckPackageXml(QString::fromUtf8(xml), wanted, {publisher->Public()});
    QVERIFY2(!problem, qPrintable(problem.text));
}

void TestAttacks::SizesBeyondTheDiskAreSeenBeforeTheDownload()
{
    updater::FileList files;
    for (int i = 0; i < 16; ++i)
        files.append(updater::File(QStringLiteral("file%1").arg(i), kxtest::MD5Of("x"),
                                   Q_UINT64_C(0x1fffffffffffffff), QString(), QString()));
    const QString problem = guard::SpaceProblem(files, {rig->Next(), rig->App(), 0, 0});
    QVERIFY(!problem.isEmpty());
}

void TestAttacks::FrozenServerIsSeenByItsVersion()
{
    // Nothing stops a server from offering for ever what is installed. It can be seen.
    publisher->SignTree(rig->App(), Identity(QStringLiteral("1.0")));
    rig->Publish(QStringLiteral("1.0"), rig->App());
    QVERIFY(rig->Check("ACTUAL"));
    QCOMPARE(rig->updater->ServerVersion(), QStringLiteral("1.0"));
    QVERIFY(rig->updater->IsActual());
}

QTEST_GUILESS_MAIN(TestAttacks)
#include "tst_attacks.moc"
