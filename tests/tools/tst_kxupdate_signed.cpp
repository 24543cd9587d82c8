#include "kxupdateprocess.h"
#include "manifest.h"
#include "signedsite.h"
#include "treebuilder.h"

#include <kxguard/signedtree.h>
#include <kxupdater/build.h>

#include <QFile>
#include <QTest>

#include <csignal>

namespace {

const QString v1 = QStringLiteral("1.0");
const QString v2 = QStringLiteral("2.0");
const QString filter = QStringLiteral("lib/filter.bin");

/** One of two texts with the same MD5, the first that were published (Wang, Feng, Lai, Yu 2004). */
QByteArray Collision(bool first)
{
    QByteArray hex = "d131dd02c5e6eec4693d9a0698aff95c2fcab58712467eab4004583eb8fb7f89"
                     "55ad340609f4b30283e488832571415a085125e8f7cdc99fd91dbdf280373c5b"
                     "d8823e3156348f5bae6dacd436c919c6dd53e2b487da03fd02396306d248cda0"
                     "e99f33420f577ee8ce54b67080a80d1ec69821bcb6a8839396f9652b6ff72a70";
    if (!first) {
        // The two differ in these digits alone.
        for (const auto& [place, digit] :
             {std::pair{38, '0'}, std::pair{90, 'f'}, std::pair{118, '7'}, std::pair{166, '3'},
              std::pair{218, '2'}, std::pair{246, 'a'}})
            hex[place] = digit;
    }
    return QByteArray::fromHex(hex);
}

} // namespace

/** Nothing is installed that the keys have not signed, whatever server and disk hold. */
class TstKxupdateSigned : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void SignedVersionIsInstalled_data();
    void SignedVersionIsInstalled();
    void SignedSiteServesThoseWithoutAKey();
    void UntrustedOfferIsRefusedBeforeDownloading_data();
    void UntrustedOfferIsRefusedBeforeDownloading();
    void UnsignedListThatMatchesChangesNoVersion();
    void UntrustedTreeIsNotInstalled_data();
    void UntrustedTreeIsNotInstalled();
    void KeptDescriptionIsCheckedAgain_data();
    void KeptDescriptionIsCheckedAgain();
    void VersionOfTheSignatureDecidesTheOrder();
    void VerifyChecksTheSignatures_data();
    void VerifyChecksTheSignatures();
    void KeyIsForOnePackage_data();
    void KeyIsForOnePackage();
    void WatchWaitsForASignedVersion();
    void StatusTellsTheKeys();
};

void TstKxupdateSigned::SignedVersionIsInstalled_data()
{
    QTest::addColumn<QStringList>("commands");
    QTest::addColumn<QString>("keys"); // who is trusted: the publisher, another, or both
    QTest::newRow("update") << QStringList{"update"} << "publisher";
    QTest::newRow("download and install") << QStringList{"download", "install"} << "publisher";
    QTest::newRow("one of two keys") << QStringList{"update"} << "other publisher";
    QTest::newRow("key in the configuration") << QStringList{"update"} << "configuration";
}

void TstKxupdateSigned::SignedVersionIsInstalled()
{
    QFETCH(QStringList, commands);
    QFETCH(QString, keys);
    SignedSite site;
    site.PublishSigned(v2);
    site.Install(v1);
    WriteKey(site.Path(QStringLiteral("other.pub")), kxtest::SigningKey());
    site.WriteConfig(v1, "key = other.pub\nkey = hello.pub\n");
    for (const QString& command : commands) {
        QStringList arguments = site.Trusting(command);
        if (keys == QLatin1String("configuration"))
            arguments = site.Configured(command);
        else if (keys.startsWith(QLatin1String("other")))
            arguments += {QStringLiteral("--key"), site.Path(QStringLiteral("other.pub"))};
        KxupdateProcess process;
        QVERIFY2(process.Run(arguments), process.Report());
        QVERIFY2(process.Status() == 0, process.Report());
    }
    QCOMPARE(site.Installed(), site.Published(v2));
    QVERIFY(kxtest::Exists(site.App() + u'/' + guard::SignatureName()));
}

void TstKxupdateSigned::SignedSiteServesThoseWithoutAKey()
{
    SignedSite site;
    site.PublishSigned(v2);
    site.Install(v1);
    KxupdateProcess process;
    QVERIFY2(process.Run(site.Command(QStringLiteral("update"))), process.Report());
    QVERIFY2(process.Status() == 0, process.Report());
    QCOMPARE(site.Installed(), site.Published(v2));
}

void TstKxupdateSigned::UntrustedOfferIsRefusedBeforeDownloading_data()
{
    QTest::addColumn<QString>("attack");
    QTest::addColumn<int>("code");
    const auto row = [](const char* attack, int code) { QTest::newRow(attack) << attack << code; };
    row("unsigned", guard::SignatureMissing);
    row("signature stripped", guard::SignatureMissing);
    row("signed by another key", guard::SignatureUnknownKey);
    row("signed by another key with the same id", guard::SignatureWrong);
    row("one digest changed", guard::SignatureWrong);
    row("one name changed", guard::SignatureWrong);
    row("one file more", guard::SumsMalformed);
    row("older version under a new number", guard::SignatureVersion);
    row("build of another package", guard::SignatureWrong);
    row("build for another platform", guard::SignaturePackage);
}

void TstKxupdateSigned::UntrustedOfferIsRefusedBeforeDownloading()
{
    QFETCH(QString, attack);
    QFETCH(int, code);
    SignedSite site;
    site.Install(v1);
    guard::PackageIdentity identity = SignedSite::Identity(v2);
    if (attack == QLatin1String("unsigned")) {
        site.Publish(v2);
    } else if (attack == QLatin1String("signed by another key")) {
        site.PublishSigned(v2, kxtest::SigningKey(), identity);
    } else if (attack.endsWith(QLatin1String("same id"))) {
        site.PublishSigned(v2, kxtest::SigningKey::WithIdOf(site.Key()), identity);
    } else {
        if (attack.startsWith(QLatin1String("older")))
            identity.version = QStringLiteral("1.5");
        else if (attack.endsWith(QLatin1String("package")))
            identity.package = QStringLiteral("other");
        else if (attack.endsWith(QLatin1String("platform")))
            identity.platform = QStringLiteral("other");
        site.PublishSigned(v2, site.Key(), identity);
    }
    if (attack == QLatin1String("signature stripped"))
        site.StripManifest(v2);
    else if (attack == QLatin1String("one digest changed"))
        site.ChangeManifest(
            v2, kxtest::MD5OfFile(site.Tree(v2) + QStringLiteral("/share/new.txt")).toLatin1(),
            kxtest::MD5Of("evil").toLatin1());
    else if (attack == QLatin1String("one name changed"))
        site.ChangeManifest(v2, "share/new.txt", "share/odd.txt");
    else if (attack == QLatin1String("one file more"))
        site.ChangeManifest(v2, "<file ",
                            "<file name=\"bin/evil\" size=\"4\" md5=\"" +
                                kxtest::MD5Of("evil").toLatin1() + "\"/><file ");

    for (const char* command : {"check", "download", "update"}) {
        KxupdateProcess process;
        QVERIFY2(process.Run(site.Trusting(QLatin1String(command))), process.Report());
        QVERIFY2(process.Status() == 9, process.Report());
        QCOMPARE(process.Output(), QStringLiteral("result: untrusted\n"));
        QVERIFY2(process.Errors().contains(QStringLiteral("Error %1: ").arg(code)),
                 process.Report());
    }
    QVERIFY(!site.WereFilesFetched());
    QVERIFY(!kxtest::Exists(site.Next()));
    QCOMPARE(site.Installed(), site.Published(v1));
}

void TstKxupdateSigned::UnsignedListThatMatchesChangesNoVersion()
{
    SignedSite site;
    site.PublishSigned(v2);
    site.Install(v2);
    // The installed files under a high number would keep every later version out.
    site.StripManifest(v2);
    const QString version = QStringLiteral("99");
    QVERIFY(QFile::copy(site.ManifestFile(v2), site.Path(QStringLiteral("stripped.xml"))));
    site.Server().SetBody(site.VersionPath(), kxtest::VersionReply(version).toUtf8());
    site.Server().SetBody(site.ManifestPath(version),
                          kxtest::Read(site.Path(QStringLiteral("stripped.xml"))));
    site.WriteConfig(v2, "key = hello.pub\n");
    const QByteArray before = kxtest::Read(site.Config());
    KxupdateProcess process;
    QVERIFY2(process.Run(site.Configured(QStringLiteral("update"))), process.Report());
    QVERIFY2(process.Status() == 9, process.Report());
    QCOMPARE(kxtest::Read(site.Config()), before);
}

void TstKxupdateSigned::UntrustedTreeIsNotInstalled_data()
{
    QTest::addColumn<QString>("attack");
    QTest::addColumn<int>("code");
    QTest::newRow("list of digests stripped") << "list" << int(guard::SignatureMissing);
    QTest::newRow("its signature stripped") << "signature" << int(guard::SignatureMissing);
    QTest::newRow("file with the same MD5") << "collision" << int(guard::SumsDiffer);
    QTest::newRow("list of another version") << "version" << int(guard::SignatureVersion);
}

void TstKxupdateSigned::UntrustedTreeIsNotInstalled()
{
    QFETCH(QString, attack);
    QFETCH(int, code);
    SignedSite site;
    site.Install(v1);
    QCOMPARE(kxtest::MD5Of(Collision(true)), kxtest::MD5Of(Collision(false)));
    QVERIFY(Collision(true) != Collision(false));
    const QString plugin = QStringLiteral("lib/plugin.bin");
    kxtest::TreeBuilder(site.Tree(v2)).File(plugin, Collision(true));
    site.PublishSigned(v2);
    // The list of records is the publisher's in each case: nothing tells before the download.
    if (attack == QLatin1String("collision")) {
        site.Server().SetBody(site.FilePath(v2, plugin), Collision(false));
    } else {
        if (attack == QLatin1String("version"))
            site.Key().SignTree(site.Tree(v2), SignedSite::Identity(QStringLiteral("1.5")));
        else
            kxtest::Remove(site.Tree(v2) + u'/' + guard::SignatureName());
        if (attack == QLatin1String("list"))
            kxtest::Remove(site.Tree(v2) + u'/' + guard::SumsName());
        site.Publish(v2);
        kxtest::Write(site.ManifestFile(v2),
                      site.Key().SignManifest(kxtest::Read(site.ManifestFile(v2)), site.Tree(v2),
                                              SignedSite::Identity(v2)));
    }
    KxupdateProcess process;
    QVERIFY2(process.Run(site.Trusting(QStringLiteral("update"))), process.Report());
    QVERIFY2(process.Status() == 9, process.Report());
    QCOMPARE(process.Data(QStringLiteral("result")), QStringLiteral("untrusted"));
    QVERIFY2(process.Errors().contains(QStringLiteral("Error %1: ").arg(code)), process.Report());
    QVERIFY2(process.Errors().contains(QStringLiteral("The application is untouched.")),
             process.Report());
    QCOMPARE(site.Installed(), site.Published(v1));
    QVERIFY(!kxtest::Exists(site.Backup()));
}

void TstKxupdateSigned::KeptDescriptionIsCheckedAgain_data()
{
    QTest::addColumn<QString>("change");
    QTest::addColumn<int>("status");
    QTest::addColumn<int>("code");
    QTest::newRow("signature stripped") << "strip" << 9 << int(guard::SignatureMissing);
    QTest::newRow("a digest changed") << "digest" << 9 << int(guard::SignatureWrong);
    QTest::newRow("another version noted") << "note" << 9 << int(guard::SignatureVersion);
    QTest::newRow("a file changed with its digest") << "file" << 9 << int(guard::SignatureWrong);
    QTest::newRow("a file changed alone") << "alone" << 5 << int(guard::PackageDiffers);
}

void TstKxupdateSigned::KeptDescriptionIsCheckedAgain()
{
    QFETCH(QString, change);
    QFETCH(int, status);
    QFETCH(int, code);
    SignedSite site;
    site.PublishSigned(v2);
    site.Install(v1);
    KxupdateProcess download;
    QVERIFY2(download.Run(site.Trusting(QStringLiteral("download"))), download.Report());
    QVERIFY2(download.Status() == 0, download.Report());

    const QString name = QStringLiteral("/share/new.txt");
    const QByteArray digest = kxtest::MD5OfFile(site.Tree(v2) + name).toLatin1();
    const QByteArray before = kxtest::Read(site.Xml());
    QByteArray xml = before;
    if (change == QLatin1String("strip"))
        xml = Unsigned(xml);
    else if (change == QLatin1String("note"))
        xml.replace("<?kxupdate-version 2.0", "<?kxupdate-version 9.0");
    else if (change != QLatin1String("alone"))
        xml.replace(digest, kxtest::MD5Of("evil").toLatin1());
    QVERIFY(xml != before || change == QLatin1String("alone"));
    kxtest::Write(site.Xml(), xml);
    if (change == QLatin1String("file") || change == QLatin1String("alone"))
        kxtest::Write(site.Next() + name, "evil");

    KxupdateProcess process;
    QVERIFY2(process.Run(site.Trusting(QStringLiteral("install"))), process.Report());
    QVERIFY2(process.Status() == status, process.Report());
    QVERIFY2(process.Errors().contains(QStringLiteral("Error %1: ").arg(code)), process.Report());
    QCOMPARE(site.Installed(), site.Published(v1));
}

void TstKxupdateSigned::VersionOfTheSignatureDecidesTheOrder()
{
    SignedSite site;
    site.PublishSigned(v1);
    KxupdateProcess download;
    QVERIFY2(download.Run(site.Trusting(QStringLiteral("download"), QStringLiteral("0"))),
             download.Report());
    QVERIFY2(download.Status() == 0, download.Report());
    // An early version whose description tells none.
    kxtest::Write(site.Xml(), kxtest::Read(site.Xml()).replace("<?kxupdate-version", "<?other"));
    site.Install(v2);
    KxupdateProcess process;
    QVERIFY2(process.Run(site.Trusting(QStringLiteral("install"), v2)), process.Report());
    QVERIFY2(process.Status() == 3, process.Report());
    QVERIFY2(process.Errors().contains(QStringLiteral("Error 620107: ")), process.Report());
    QCOMPARE(site.Installed(), site.Published(v2));
}

void TstKxupdateSigned::VerifyChecksTheSignatures_data()
{
    QTest::addColumn<QString>("change");
    QTest::addColumn<int>("status");
    QTest::newRow("whole") << "" << 0;
    QTest::newRow("file changed") << "share/new.txt" << 5;
    // A verification by the description alone does not look at these.
    QTest::newRow("hidden file") << ".hidden" << 9;
    QTest::newRow("description not signed") << "xml" << 9;
    QTest::newRow("another key") << "key" << 9;
}

void TstKxupdateSigned::VerifyChecksTheSignatures()
{
    QFETCH(QString, change);
    QFETCH(int, status);
    SignedSite site;
    site.PublishSigned(v2);
    KxupdateProcess update;
    QVERIFY2(update.Run(site.Trusting(QStringLiteral("update"), QStringLiteral("0"))),
             update.Report());
    QVERIFY2(update.Status() == 0, update.Report());
    if (change == QLatin1String("xml"))
        kxtest::Write(site.Xml(), kxtest::Read(site.Xml()).replace("ignature=", "ign="));
    else if (change == QLatin1String("key"))
        WriteKey(site.KeyFile(), kxtest::SigningKey());
    else if (!change.isEmpty())
        kxtest::TreeBuilder(site.App()).File(change, "evil");
    KxupdateProcess process;
    QVERIFY2(process.Run(site.Verify(QStringLiteral("--app"), site.App()) +
                         QStringList{QStringLiteral("--key"), site.KeyFile(),
                                     QStringLiteral("--package"), QStringLiteral("hello")}),
             process.Report());
    QVERIFY2(process.Status() == status, process.Report());
    KxupdateProcess unsignedOne;
    QVERIFY2(unsignedOne.Run(site.Verify(QStringLiteral("--app"), site.App())),
             unsignedOne.Report());
    QVERIFY2(unsignedOne.Status() == (status == 5 ? 5 : 0), unsignedOne.Report());
}

void TstKxupdateSigned::KeyIsForOnePackage_data()
{
    QTest::addColumn<QString>("command");
    QTest::newRow("install") << "install";
    QTest::newRow("verify") << "verify";
}

void TstKxupdateSigned::KeyIsForOnePackage()
{
    QFETCH(QString, command);
    SignedSite site;
    site.PublishSigned(v2);
    site.Install(v1);
    KxupdateProcess download;
    QVERIFY2(download.Run(site.Trusting(QStringLiteral("download"))), download.Report());
    QVERIFY2(download.Status() == 0, download.Report());
    QStringList arguments{command, QStringLiteral("--key"), site.KeyFile(),
                          QStringLiteral("--download"), site.Next()};
    if (command == QLatin1String("install"))
        arguments += {QStringLiteral("--app"), site.App()};

    // The description alone would name any package of the publisher.
    KxupdateProcess process;
    QVERIFY2(process.Run(arguments), process.Report());
    QVERIFY2(process.Status() == 2, process.Report());
    QVERIFY2(process.Errors().contains(QStringLiteral("needs --package")), process.Report());
    KxupdateProcess other;
    QVERIFY2(
        other.Run(arguments + QStringList{QStringLiteral("--package"), QStringLiteral("other")}),
        other.Report());
    QVERIFY2(other.Status() != 0, other.Report());
    QCOMPARE(site.Installed(), site.Published(v1));
    KxupdateProcess named;
    QVERIFY2(
        named.Run(arguments + QStringList{QStringLiteral("--package"), QStringLiteral("hello")}),
        named.Report());
    QVERIFY2(named.Status() == 0, named.Report());
}

void TstKxupdateSigned::WatchWaitsForASignedVersion()
{
    SignedSite site;
    site.PublishSigned(v2);
    site.StripManifest(v2);
    site.Install(v1);
    KxupdateProcess process;
    process.Start(site.Trusting(
        QStringLiteral("update"), v1,
        {QStringLiteral("--watch"), QStringLiteral("--interval"), QStringLiteral("1")}));
    // More often than a version that fails in its download is tried.
    QVERIFY2(process.AwaitOutput(QStringLiteral("result: untrusted\n"), 3), process.Report());
    QVERIFY(!site.WereFilesFetched());
    site.PublishSigned(v2);
    QVERIFY2(process.AwaitOutput(QStringLiteral("result: updated\n")), process.Report());
    process.Signal(SIGTERM);
    QVERIFY2(process.Wait(), process.Report());
    QVERIFY2(process.Status() == 0, process.Report());
    QCOMPARE(site.Installed(), site.Published(v2));
}

void TstKxupdateSigned::StatusTellsTheKeys()
{
    SignedSite site;
    const kxtest::SigningKey second;
    WriteKey(site.Path(QStringLiteral("second.pub")), second);
    KxupdateProcess process;
    QVERIFY2(process.Run(
                 site.Trusting(QStringLiteral("status"), v1,
                               {QStringLiteral("--key"), site.Path(QStringLiteral("second.pub"))})),
             process.Report());
    QVERIFY2(process.Status() == 0, process.Report());
    QCOMPARE(process.Data(QStringLiteral("keys")),
             site.Key().Public().IdText() + u' ' + second.Public().IdText());
}

QTEST_GUILESS_MAIN(TstKxupdateSigned)
#include "tst_kxupdate_signed.moc"
