#include "campaign.h"
#include "manifest.h"
#include "randomtree.h"
#include "treebuilder.h"
#include "wiringguard.h"

#include <kxcommon/pathguard.h>

#include <QRegularExpression>
#include <QSet>
#include <QTest>

using campaign::Options;
using campaign::RandomTree;

namespace {

QString S(const char* text)
{
    return QString::fromUtf8(text);
}

constexpr quint32 seeds = 40;

} // namespace

class TestCampaignSupport : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { kxtest::FailOnWiringWarnings(); }
    void OptionsAreRead();
    void WrongOptionsAreNamed_data();
    void WrongOptionsAreNamed();
    void OnDiskATreeIsAsItsLinesSay();
    void SameSeedMakesTheSameTree();
    void EveryTreeCanBePublished();
    void MutationsHaveEveryKindOfChange();
    void UpdatedFilesKeepTheirModes();
};

void TestCampaignSupport::OptionsAreRead()
{
    Options options;
    QCOMPARE(options.Read({S("--long"), S("--seed"), S("7"), S("--rounds"), S("3"), S("--keep")}),
             QString());
    QVERIFY(options.isLong);
    QVERIFY(options.keep);
    QCOMPARE(options.seed, 7U);
    QCOMPARE(options.Rounds(10, 20), 3);
    QCOMPARE(options.SeedOf(2), 9U);

    Options plain;
    QCOMPARE(plain.Read({S("--short")}), QString());
    QVERIFY(!plain.isLong && !plain.keep);
    QCOMPARE(plain.Rounds(10, 20), 10);
}

void TestCampaignSupport::WrongOptionsAreNamed_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::newRow("no form") << QStringList{S("--keep")};
    QTest::newRow("two forms") << QStringList{S("--short"), S("--long")};
    QTest::newRow("seed without a number") << QStringList{S("--short"), S("--seed")};
    QTest::newRow("seed that is no number") << QStringList{S("--short"), S("--seed"), S("x")};
    QTest::newRow("no rounds") << QStringList{S("--short"), S("--rounds"), S("0")};
    QTest::newRow("unknown") << QStringList{S("--short"), S("--fast")};
}

void TestCampaignSupport::WrongOptionsAreNamed()
{
    QFETCH(QStringList, arguments);
    QVERIFY(!Options().Read(arguments).isEmpty());
}

void TestCampaignSupport::OnDiskATreeIsAsItsLinesSay()
{
    for (quint32 seed = 1; seed <= seeds; ++seed) {
        const RandomTree tree(seed);
        QVERIFY(tree.Entries().size() >= 30);
        for (const RandomTree& version : {tree, tree.Mutate(seed)}) {
            kxtest::TreeBuilder place;
            version.WriteTo(place.Root());
            QCOMPARE(kxtest::Snapshot(place.Root()), version.Lines());
        }
    }
}

void TestCampaignSupport::SameSeedMakesTheSameTree()
{
    QCOMPARE(RandomTree(5).Mutate(6).Lines(), RandomTree(5).Mutate(6).Lines());
    QVERIFY(RandomTree(5).Lines() != RandomTree(6).Lines());
    QVERIFY(RandomTree(5).Mutate(6).Lines() != RandomTree(5).Mutate(7).Lines());
}

void TestCampaignSupport::EveryTreeCanBePublished()
{
    for (quint32 seed = 1; seed <= seeds; ++seed) {
        const RandomTree tree = RandomTree(seed).Mutate(seed + 1000);
        kxtest::TreeBuilder place;
        tree.WriteTo(place.Root());
        const updater::FileList files = kxtest::ScanForManifest(place.Root());
        QCOMPARE(files.size(), tree.Entries().size());
        for (const updater::File& file : files) {
            QVERIFY(common::PathGuard::NameViolation(file.Name()).isEmpty());
            QVERIFY(!S("/%1").arg(file.Name()).contains(S("/.")));
            // Nor with anything that means something in a URL, or that the ends of a name lose.
            static const QRegularExpression lost(S("[#?%]|(^|/)\\s|\\s(/|$)"));
            QVERIFY2(!file.Name().contains(lost), qPrintable(file.Name()));
            QCOMPARE(file.SymlinkPath(), tree.Entries().value(file.Name()).target);
        }
    }
}

void TestCampaignSupport::MutationsHaveEveryKindOfChange()
{
    QSet<QString> kinds;
    for (quint32 seed = 1; seed <= seeds; ++seed) {
        const RandomTree before(seed);
        const RandomTree after = before.Mutate(seed);
        const QStringList lines = after.Lines();
        for (auto entry = before.Entries().cbegin(); entry != before.Entries().cend(); ++entry) {
            if (!after.Entries().contains(entry.key())) {
                kinds << (lines.contains(entry.key() + S(" dir 755")) ? S("becomes a directory")
                                                                      : S("removed"));
                continue;
            }
            const RandomTree::Entry now = after.Entries().value(entry.key());
            if (entry->IsLink() != now.IsLink())
                kinds << (now.IsLink() ? S("becomes a link") : S("was a link"));
            else if (!entry->HasContentsOf(now))
                kinds << S("changed");
            else if (entry->mode != now.mode)
                kinds << S("mode");
            else
                kinds << S("same");
        }
        const QStringList linesBefore = before.Lines();
        for (auto entry = after.Entries().cbegin(); entry != after.Entries().cend(); ++entry) {
            if (linesBefore.contains(entry.key() + S(" dir 755")))
                kinds << S("was a directory");
            else if (!before.Entries().contains(entry.key()))
                kinds << S("added");
        }
        QVERIFY(!after.Entries()
                     .value(S("bin/app"))
                     .HasContentsOf(before.Entries().value(S("bin/app"))));
    }
    QStringList sorted = kinds.values();
    sorted.sort();
    QCOMPARE(sorted, (QStringList{S("added"), S("becomes a directory"), S("becomes a link"),
                                  S("changed"), S("mode"), S("removed"), S("same"),
                                  S("was a directory"), S("was a link")}));
}

void TestCampaignSupport::UpdatedFilesKeepTheirModes()
{
    RandomTree before;
    before.Put(S("same"), {10, 1, 0600, {}});
    before.Put(S("changed"), {10, 2, 0600, {}});
    RandomTree after;
    after.Put(S("same"), {10, 1, 0644, {}});
    after.Put(S("changed"), {10, 3, 0644, {}});
    const RandomTree updated = after.UpdatedFrom(before);
    QCOMPARE(updated.Entries().value(S("same")).mode, 0600);
    QCOMPARE(updated.Entries().value(S("changed")).mode, 0644);
}

QTEST_GUILESS_MAIN(TestCampaignSupport)
#include "tst_campaignsupport.moc"
