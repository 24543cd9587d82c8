// Runs the host of docs/integration.md that accepts signed packages alone.

#include "signingkey.h"
#include "treebuilder.h"
#include "updaterrig.h"

#include "integration/signedupdates.h"

#include <kxguard/errors.h>
#include <kxupdater/build.h>

#include <QRegularExpression>
#include <QTest>

#include <memory>

namespace {

/** Keeps what a user would see. */
class RecordingInterface : public UserInterface
{
public:
    void Offer(const QString& version, bool) override { offers << version; }
    void ShowStep(const QString&) override {}
    void ShowProgress(int) override {}
    void ShowTransfers(const QString&) override {}
    void ShowError(const QString& text) override { errors << text; }
    void OfferRestart() override {}

    QStringList offers;
    QStringList errors;
};

} // namespace

class TestExampleSignedUpdates : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();
    void CompiledInKeysAreKeys();
    void SignedVersionIsOfferedAndInstalled();
    void VersionOfAStrangerIsNeverOffered();
    void RefusedInstallIsExplained();
    void KeptDownloadIsInstalledWithItsManifest();

private:
    void Publish(const kxtest::SigningKey& key);
    QString Manifest() const;

    std::unique_ptr<kxtest::UpdaterRig> rig;
    std::unique_ptr<kxtest::SigningKey> publisher;
    std::unique_ptr<RecordingInterface> shown;
    std::unique_ptr<SignedUpdates> updates;
    QString tree;
};

void TestExampleSignedUpdates::init()
{
    QTest::failOnWarning(QRegularExpression(QStringLiteral("No such (signal|slot)")));
    rig = std::make_unique<kxtest::UpdaterRig>();
    publisher = std::make_unique<kxtest::SigningKey>();
    shown = std::make_unique<RecordingInterface>();
    kxtest::TreeBuilder(rig->App()).File(QStringLiteral("bin/app"), "program 1.0", 0755);
    tree = rig->Scratch(QStringLiteral("tree"));
    kxtest::TreeBuilder(tree).File(QStringLiteral("bin/app"), "program 2.0", 0755);
    rig->Start();
    updates = std::make_unique<SignedUpdates>(shown.get(), rig->updater,
                                              kxtest::UpdaterRig::package, nullptr);
    updates->SetKeys({publisher->Public()});
}

void TestExampleSignedUpdates::cleanup()
{
    updates.reset();
    rig.reset();
}

QString TestExampleSignedUpdates::Manifest() const
{
    return rig->Scratch(QStringLiteral("www")) + rig->ManifestUrlPath(QStringLiteral("2.0"));
}

void TestExampleSignedUpdates::Publish(const kxtest::SigningKey& key)
{
    const guard::PackageIdentity identity{kxtest::UpdaterRig::package, QStringLiteral("2.0"),
                                          updater::Build::Platform()};
    key.SignTree(tree, identity);
    rig->Publish(QStringLiteral("2.0"), tree);
    kxtest::Write(Manifest(), key.SignManifest(kxtest::Read(Manifest()), tree, identity));
}

void TestExampleSignedUpdates::CompiledInKeysAreKeys()
{
    const QList<guard::PublicKey> keys = TrustedKeys();
    QCOMPARE(keys.size(), 2);
    QVERIFY(keys.first().IsValid() && keys.last().IsValid());
    QVERIFY(keys.first().IdText() != keys.last().IdText());
}

void TestExampleSignedUpdates::SignedVersionIsOfferedAndInstalled()
{
    Publish(*publisher);
    QVERIFY(rig->Check());
    QCOMPARE(shown->offers, QStringList(QStringLiteral("2.0")));
    QVERIFY(rig->Assemble());
    QVERIFY2(rig->Install(), qPrintable(shown->errors.join(QLatin1Char('\n'))));
    QCOMPARE(kxtest::Snapshot(rig->App()), kxtest::Snapshot(tree));
    QCOMPARE(shown->errors, QStringList());
}

void TestExampleSignedUpdates::VersionOfAStrangerIsNeverOffered()
{
    Publish(kxtest::SigningKey());
    rig->updater->Check();
    QVERIFY(kxtest::WaitFor([this] { return !shown->errors.isEmpty(); }));
    QVERIFY(rig->Reach("WAITING"));
    QVERIFY2(shown->errors.constFirst().contains(QLatin1String("not trusted")),
             qPrintable(shown->errors.constFirst()));
    QCOMPARE(shown->offers, QStringList());
    QCOMPARE(rig->FetchedFiles(), QStringList());
}

void TestExampleSignedUpdates::RefusedInstallIsExplained()
{
    Publish(*publisher);
    QVERIFY(rig->Assemble());
    kxtest::TreeBuilder(rig->Next()).File(QStringLiteral("bin/.planted"), "by somebody");
    QVERIFY(rig->Install("FAILED"));
    QCOMPARE(shown->errors.size(), 1);
    QVERIFY2(shown->errors.constFirst().contains(QLatin1String("bin/.planted")),
             qPrintable(shown->errors.constFirst()));
}

void TestExampleSignedUpdates::KeptDownloadIsInstalledWithItsManifest()
{
    Publish(*publisher);
    QVERIFY(rig->Assemble());
    const QString kept = rig->Scratch(QStringLiteral("kept")) + QStringLiteral("/next.xml");
    kxtest::Write(kept, rig->updater->PackageXML().toUtf8());

    // The program ends, and begins anew without the network.
    updates.reset();
    delete rig->updater;
    rig->Forget();
    rig->Start();
    updates = std::make_unique<SignedUpdates>(shown.get(), rig->updater,
                                              kxtest::UpdaterRig::package, nullptr);
    updates->SetKeys({publisher->Public()});
    QVERIFY(!updates->UseManifest(kept + QStringLiteral(".missing")));
    QVERIFY(updates->UseManifest(kept));
    QVERIFY2(rig->Install(), qPrintable(shown->errors.join(QLatin1Char('\n'))));
    QCOMPARE(kxtest::Snapshot(rig->App()), kxtest::Snapshot(tree));
    QCOMPARE(rig->server.RequestCount(), 0);
}

QTEST_GUILESS_MAIN(TestExampleSignedUpdates)
#include "tst_example_signedupdates.moc"
