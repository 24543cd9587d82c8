#include "nginxserver.h"
#include "updaterrig.h"
#include "wiringguard.h"

#include <kxupdater/build.h>
#include <kxupdater/errors.h>

#include <QDir>
#include <QFile>
#include <QTest>

#include <sys/stat.h>

using kxtest::NginxServer;
using kxtest::Snapshot;
using kxtest::TreeBuilder;
using kxtest::UpdaterRig;

namespace {

#ifdef KX_SANITIZED
constexpr int manyFiles = 400;
#else
constexpr int manyFiles = 5000;
#endif

/** Names that file systems, URLs or XML treat in ways of their own; one directory of each, too. */
const QStringList& OddNames()
{
    static const QStringList names{
        QString::fromUtf8("Stra\xc3\x9f"
                          "e"),            // U+00DF
        QString::fromUtf8("caf\xc3\xa9"),  // composed
        QString::fromUtf8("cafe\xcc\x81"), // decomposed: another name
        QString::fromUtf8("\xd0\x9f\xd1\x80\xd0\xb8\xd0\xb2\xd0\xb5\xd1\x82"),
        QString::fromUtf8("\xe6\x97\xa5\xe6\x9c\xac\xe8\xaa\x9e.txt"),
        QString::fromUtf8("emoji \xf0\x9f\x98\x80"), // beyond the basic plane
        QString::fromUtf8("no\xc2\xa0"
                          "break"),
        "with space",
        "two  spaces",
        " leading space",
        "trailing space ",
        "trailing dot.",
        "ampersand & more",
        "apostrophe's",
        "quote\"d",
        "less<greater>",
        "plus+plus",
        "semi;colon",
        "comma,equals=at@",
        "tilde~dollar$",
        "bang!star*",
        "(round)[square]{curly}",
        "caret^pipe|",
        "back`tick",
        "UPPER",
        "upper",
        "con",
        "a..b",
        "...dots",
        "-rf",
        QString(255, 'n'),
        QString(127, QChar(0xe9)) + 'n', // 255 bytes
    };
    return names;
}

QString DeepPath()
{
    QString path = "deep";
    for (int i = 0; path.size() < 2500; ++i)
        path += QStringLiteral("/%1-%2").arg(QString(60, 'd')).arg(i);
    return path + "/file";
}

/** Hidden entries are not part of a package: "...dots" is one. */
bool IsHidden(const QString& name)
{
    return name.startsWith('.');
}

void BuildVersionA(TreeBuilder& tree)
{
    tree.File("bin/app", "program A", 0755)
        .File("bin/helper", "helper", 0755)
        .File("data/same", "same")
        .File("data/changed", "A")
        .File("data/gone", "gone")
        .File("data/emptied", "not empty")
        .File("data/filled", "")
        .File("data/still empty", "")
        .File("file becomes directory", "f")
        .File("directory becomes file/inside", "d")
        .File("file becomes link", "f")
        .Symlink("link becomes file", "data/same")
        .Symlink("link becomes directory", "data")
        .File("directory becomes link/inside", "d")
        .Symlink("link changes", "data/same")
        .Symlink("link stays", "data/same")
        .Symlink("link to a directory", "data")
        .Symlink("dangling", "nowhere/at/all")
        .File("Case", "case");
    for (const QString& name : OddNames()) {
        if (!IsHidden(name))
            tree.File("odd/" + name, "A of " + name.toUtf8());
    }
}

void BuildVersionB(TreeBuilder& tree)
{
    tree.File("bin/app", "program B", 0755)
        .File("bin/helper", "helper", 0755)
        .File("bin/new", "new", 0755)
        .File("data/same", "same")
        .File("data/changed", "B")
        .File("data/emptied", "")
        .File("data/filled", "filled")
        .File("data/still empty", "")
        .File("data/new and empty", "")
        .File("file becomes directory/inside", "d")
        .File("directory becomes file", "f")
        .Symlink("file becomes link", "data/same")
        .File("link becomes file", "f")
        .File("link becomes directory/inside", "d")
        .Symlink("directory becomes link", "data")
        .Symlink("link changes", "data/changed")
        .Symlink("link stays", "data/same")
        .Symlink("link to a directory", "data")
        .Symlink("new/deep/link", "../../data/same")
        .Symlink("dangling", "nowhere/at/all")
        .Symlink(QString::fromUtf8("link \xc3\xa9"), QString::fromUtf8("odd/caf\xc3\xa9"))
        .File("CASE", "case")
        .File("modes/0755", "m", 0755)
        .File("modes/0644", "m", 0644)
        .File("modes/0600", "m", 0600)
        .File("modes/0444", "m", 0444)
        .RandomFile("large", 3 << 20, 7)
        .File(DeepPath(), "deep");
    int i = 0;
    for (const QString& name : OddNames()) {
        if (IsHidden(name))
            continue;
        // Some stay, some change, and all of them are directories, too.
        tree.File("odd/" + name, (++i % 2 ? "A of " : "B of ") + name.toUtf8());
        tree.File("odd directories/" + name + '/' + name, name.toUtf8());
    }
}

} // namespace

/** Whole updates from a real server. */
class TestUpdaterTrees : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();

    void FreshInstallEqualsThePublishedTree();
    void UpdateEqualsAFreshInstall();
    void RepairEqualsTheVersion_data();
    void RepairEqualsTheVersion();
    void ManySmallFilesAreUpdatedByTheirDifferences();
    void UpdateBackEqualsTheOldVersion();

private:
    std::unique_ptr<UpdaterRig> MakeRig();
    void Publish(const QString& version, const QString& tree);
    bool Update(UpdaterRig& rig);
    QStringList Fetched() const;

    std::unique_ptr<QTemporaryDir> www;
    std::unique_ptr<NginxServer> nginx;
};

void TestUpdaterTrees::initTestCase()
{
    umask(022);
}

void TestUpdaterTrees::init()
{
    kxtest::FailOnWiringWarnings();
    www = std::make_unique<QTemporaryDir>();
    QVERIFY(www->isValid());
    // nginx may drop the rights of the test's user, and must still reach the files.
    kxtest::SetMode(www->path(), 0755);
    nginx = std::make_unique<NginxServer>(www->path());
    QVERIFY2(nginx->Start(), qPrintable(nginx->Error()));
}

void TestUpdaterTrees::cleanup()
{
    nginx.reset();
    www.reset();
}

std::unique_ptr<UpdaterRig> TestUpdaterTrees::MakeRig()
{
    auto rig = std::make_unique<UpdaterRig>();
    rig->Start();
    rig->updater->SetURL(nginx->Url());
    return rig;
}

void TestUpdaterTrees::Publish(const QString& version, const QString& tree)
{
    kxtest::PublishTree(www->path(), UpdaterRig::package, version, updater::Build::Platform(), tree,
                        nginx->Url(), "bin/app");
}

QStringList TestUpdaterTrees::Fetched() const
{
    return nginx->Requests().filter(" /files/");
}

/** Check, assemble, install, check again. */
bool TestUpdaterTrees::Update(UpdaterRig& rig)
{
    kxtest::Remove(rig.Next());
    const bool good = rig.Assemble() && rig.Install();
    if (!good) {
        qWarning("%s\n%s", qPrintable(rig.States().join(' ')), qPrintable(rig.Errors().join('\n')));
        qWarning("%s", qPrintable(rig.Log().filter("* '").join('\n')));
        return false;
    }
    rig.updater->SetCurrentVersion(rig.updater->ServerVersion());
    if (!kxtest::WaitFor([&] { return rig.HasStopped(); }))
        return false;
    rig.updater->Cancel();
    // Nothing is offered a second time.
    return rig.Reach("WAITING") && rig.Check("ACTUAL") && rig.updater->IsActual() &&
           !kxtest::Exists(rig.Backup()) && [&] {
               rig.updater->Wait();
               return rig.Reach("WAITING");
           }();
}

void TestUpdaterTrees::FreshInstallEqualsThePublishedTree()
{
    TreeBuilder tree;
    BuildVersionB(tree);
    Publish("2.0", tree.Root());
    const auto rig = MakeRig();
    kxtest::Remove(rig->App());
    QVERIFY(Update(*rig));
    QCOMPARE(Snapshot(rig->App()), Snapshot(tree.Root()));
    QCOMPARE(Snapshot(rig->Next()), Snapshot(tree.Root()));
}

void TestUpdaterTrees::UpdateEqualsAFreshInstall()
{
    TreeBuilder a;
    BuildVersionA(a);
    TreeBuilder b;
    BuildVersionB(b);

    const auto updated = MakeRig();
    kxtest::Remove(updated->App());
    Publish("1.0", a.Root());
    QVERIFY(Update(*updated));
    QCOMPARE(Snapshot(updated->App()), Snapshot(a.Root()));
    Publish("2.0", b.Root());
    const qsizetype before = Fetched().size();
    QVERIFY(Update(*updated));
    const qsizetype fetched = Fetched().size() - before;

    QCOMPARE(Snapshot(updated->App()), Snapshot(b.Root()));
    // Only what differs was fetched.
    qsizetype differing = 0;
    const updater::FileList old = kxtest::ScanForManifest(a.Root());
    for (const updater::File& file : kxtest::ScanForManifest(b.Root())) {
        if (!file.IsSymlink() && !old.contains(file))
            ++differing;
    }
    QVERIFY(differing > 0);
    QCOMPARE(fetched, differing);
    QVERIFY(Fetched().filter("\" 4").isEmpty());
}

void TestUpdaterTrees::UpdateBackEqualsTheOldVersion()
{
    TreeBuilder a;
    BuildVersionA(a);
    TreeBuilder b;
    BuildVersionB(b);
    const auto rig = MakeRig();
    kxtest::Remove(rig->App());
    for (int round = 0; round < 2; ++round) {
        Publish("2.0", b.Root());
        QVERIFY(Update(*rig));
        QCOMPARE(Snapshot(rig->App()), Snapshot(b.Root()));
        Publish("1.0", a.Root());
        QVERIFY(Update(*rig));
        QCOMPARE(Snapshot(rig->App()), Snapshot(a.Root()));
    }
}

void TestUpdaterTrees::RepairEqualsTheVersion_data()
{
    QTest::addColumn<QString>("damage");
    for (const char* damage :
         {"a changed byte", "a truncated file", "a longer file", "a missing file",
          "a missing directory", "a stray file", "a file that is a link", "a link that is a file",
          "a missing link", "a link elsewhere", "a directory that is a file",
          "a directory that is a link", "everything at once", "an empty tree"})
        QTest::newRow(damage) << QString(damage);
}

void TestUpdaterTrees::RepairEqualsTheVersion()
{
    QFETCH(QString, damage);
    TreeBuilder b;
    BuildVersionB(b);
    Publish("1.0", b.Root());
    const auto rig = MakeRig();
    TreeBuilder app(rig->App());
    BuildVersionB(app);
    QCOMPARE(Snapshot(rig->App()), Snapshot(b.Root()));

    const bool all = damage == "everything at once";
    if (all || damage == "a changed byte") {
        QByteArray bytes = kxtest::Read(app.Path("large"));
        bytes[1234567] = static_cast<char>(~bytes[1234567]);
        kxtest::Write(app.Path("large"), bytes);
    }
    if (all || damage == "a truncated file")
        kxtest::Write(app.Path("data/changed"), "");
    if (all || damage == "a longer file")
        kxtest::Write(app.Path("data/emptied"), "x");
    if (all || damage == "a missing file")
        app.Remove("bin/app");
    if (all || damage == "a missing directory")
        app.Remove("modes");
    if (all || damage == "a stray file")
        app.File("odd/stray", "s").File("stray/deep/stray", "s");
    if (all || damage == "a file that is a link")
        app.Remove("bin/new").Symlink("bin/new", rig->Outside() + "/bystander");
    if (all || damage == "a link that is a file")
        app.Remove("link stays").File("link stays", "f");
    if (all || damage == "a missing link")
        app.Remove("new/deep/link");
    if (all || damage == "a link elsewhere")
        app.Remove("link changes").Symlink("link changes", "data/same");
    if (all || damage == "a directory that is a file")
        app.Remove("file becomes directory").File("file becomes directory", "f");
    if (all || damage == "a directory that is a link")
        app.Remove("link becomes directory").Symlink("link becomes directory", rig->Outside());
    if (damage == "an empty tree") {
        kxtest::Remove(rig->App());
        QVERIFY(QDir().mkpath(rig->App()));
    }
    QVERIFY(Snapshot(rig->App()) != Snapshot(b.Root()));
    const QStringList outside = Snapshot(rig->Outside());

    QVERIFY(Update(*rig));
    QCOMPARE(Snapshot(rig->App()), Snapshot(b.Root()));
    QCOMPARE(Snapshot(rig->Outside()), outside);
    QCOMPARE(rig->trace->CountOf("updateRequered"), 1);
    QCOMPARE(rig->trace->CountOf("updateAvailable"), 0);
}

void TestUpdaterTrees::ManySmallFilesAreUpdatedByTheirDifferences()
{
    TreeBuilder a;
    TreeBuilder b;
    int differing = 0;
    for (int i = 0; i < manyFiles; ++i) {
        const QString name = QStringLiteral("d%1/e%2/f%3").arg(i % 17).arg(i % 5).arg(i);
        const QByteArray content = "content of " + QByteArray::number(i);
        const bool differs = i % 3 == 0;
        a.File(name, content);
        b.File(name, differs ? content + " changed" : content);
        differing += differs ? 1 : 0;
    }
    const auto rig = MakeRig();
    kxtest::Remove(rig->App());
    Publish("1.0", a.Root());
    QVERIFY(Update(*rig));
    QCOMPARE(Fetched().size(), manyFiles);
    Publish("2.0", b.Root());
    QVERIFY(Update(*rig));
    QCOMPARE(Fetched().size(), manyFiles + differing);
    QCOMPARE(Snapshot(rig->App()), Snapshot(b.Root()));
}

QTEST_GUILESS_MAIN(TestUpdaterTrees)
#include "tst_updater_trees.moc"
