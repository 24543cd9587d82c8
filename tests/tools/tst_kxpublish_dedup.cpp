#include "publishrun.h"
#include "treebuilder.h"

#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

#include <cerrno>
#include <functional>
#include <sys/stat.h>
#include <unistd.h>

using kxtest::AddArguments;
using kxtest::PublishResult;
using kxtest::RunPublish;
using kxtest::TreeBuilder;
using kxtest::With;

using DamageFunction = std::function<void(const QString& path)>;
Q_DECLARE_METATYPE(DamageFunction)

namespace {

QString S(const char* text)
{
    return QString::fromUtf8(text);
}

struct stat StatusOf(const QString& path)
{
    struct stat status = {};
    ::lstat(path.toUtf8().constData(), &status);
    return status;
}

ino_t Inode(const QString& path)
{
    return StatusOf(path).st_ino;
}

QString Datum(const PublishResult& result, const char* key)
{
    const QStringList lines = result.out.filter(QRegularExpression(S("^%1: ").arg(S(key))));
    return lines.isEmpty() ? QString() : lines.constFirst().section(S(": "), 1);
}

} // namespace

/** Files that equal published ones are published as links to them. */
class TestKxpublishDedup : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void EqualFilesAreLinked();
    void OtherPackagesAndPlatformsAreLinkedTo();
    void DryRunCountsWithoutAWrite();
    void DamagedFileIsCopiedAndNamed_data();
    void DamagedFileIsCopiedAndNamed();
    void EqualDigestIsNotEnough();
    void NextPlaceIsTriedAfterADamagedOne();
    void FileThatOthersCannotReadIsNotLinked_data();
    void FileThatOthersCannotReadIsNotLinked();
    void WhereLinksDoNotWorkFilesAreCopied_data();
    void WhereLinksDoNotWorkFilesAreCopied();
    void OtherVolumeIsCopiedFrom();
    void ManifestThatLeadsOutIsNotFollowed();
    void BrokenManifestIsPassedOver();
    void MessagesComeInTheSameOrder();
    void FileOfTheTreeItselfIsCopied();

private:
    QString Published(const QString& version, const QString& name) const;
    QStringList ArgumentsFor(const char* version) const;

    std::unique_ptr<TreeBuilder> tree;
    std::unique_ptr<TreeBuilder> workshop;
    QString server;
    QStringList arguments;
};

void TestKxpublishDedup::init()
{
    QTest::failOnWarning(
        QRegularExpression(S("no such (signal|slot)"), QRegularExpression::CaseInsensitiveOption));
    tree = std::make_unique<TreeBuilder>();
    tree->File(S("app"), "program", 0755).RandomFile(S("lib/core"), 600000, 1);
    workshop = std::make_unique<TreeBuilder>();
    server = workshop->Path(S("srv"));
    arguments = AddArguments(tree->Root(), server);
    QCOMPARE(RunPublish(ArgumentsFor("1")).status, 0);
}

QString TestKxpublishDedup::Published(const QString& version, const QString& name) const
{
    return server + S("/packages/demo-app-v%1/windows/x64/files/%2").arg(version, name);
}

QStringList TestKxpublishDedup::ArgumentsFor(const char* version) const
{
    return With(arguments, S("--version"), S(version));
}

void TestKxpublishDedup::EqualFilesAreLinked()
{
    tree->File(S("app"), "another", 0755)
        .Remove(S("lib"))
        .RandomFile(S("moved/core"), 600000, 1, 0600)
        .RandomFile(S("new"), 1000, 5);
    const PublishResult result = RunPublish(ArgumentsFor("2"));
    QCOMPARE(result.status, 0);
    QCOMPARE(Inode(Published(S("2"), S("moved/core"))), Inode(Published(S("1"), S("lib/core"))));
    QCOMPARE(StatusOf(Published(S("2"), S("moved/core"))).st_mode & 0777, 0644u);
    // Of the same size, and another.
    QVERIFY(Inode(Published(S("2"), S("app"))) != Inode(Published(S("1"), S("app"))));
    QCOMPARE(kxtest::Read(Published(S("1"), S("app"))), QByteArray("program"));
    QCOMPARE(kxtest::Read(Published(S("2"), S("app"))), QByteArray("another"));
    QCOMPARE(result.out.mid(1),
             QStringList({S("files: 3"), S("links: 0"), S("bytes: 601007"), S("linked: 1"),
                          S("linked-bytes: 600000"), S("new-bytes: 1007"), S("left-out: 0")}));
    QCOMPARE(
        result.err,
        QStringList({S("published demo-app 2 for x64: 3 files, 0 links, 601007 bytes, of which "
                       "1 files of 600000 bytes equal published ones and are links to them; "
                       "clients are offered it after 'promote'")}));
}

void TestKxpublishDedup::OtherPackagesAndPlatformsAreLinkedTo()
{
    const PublishResult platform = RunPublish(With(ArgumentsFor("1"), S("--platform"), S("x86")));
    QCOMPARE(Datum(platform, "linked"), S("2"));
    const PublishResult package = RunPublish(With(ArgumentsFor("1"), S("--name"), S("other")));
    QCOMPARE(Datum(package, "linked"), S("2"));
    QCOMPARE(StatusOf(Published(S("1"), S("lib/core"))).st_nlink, nlink_t(3));
}

void TestKxpublishDedup::DryRunCountsWithoutAWrite()
{
    tree->File(S("new"), "12345");
    const QStringList before = kxtest::Snapshot(workshop->Root());
    const PublishResult dry = RunPublish(ArgumentsFor("2") << S("--dry-run"));
    QCOMPARE(dry.status, 0);
    QCOMPARE(kxtest::Snapshot(workshop->Root()), before);
    QCOMPARE(StatusOf(Published(S("1"), S("lib/core"))).st_nlink, nlink_t(1));
    QCOMPARE(dry.err,
             QStringList({S("would publish demo-app 2 for x64: 3 files, 0 links, 600012 bytes, of "
                            "which 2 files of 600007 bytes equal published ones and would be links "
                            "to them; nothing is written")}));
    const PublishResult real = RunPublish(ArgumentsFor("2"));
    QCOMPARE(dry.out, real.out);
}

void TestKxpublishDedup::DamagedFileIsCopiedAndNamed_data()
{
    QTest::addColumn<DamageFunction>("damage");
    QTest::addColumn<QString>("reason");
    const auto row = [](const char* name, const DamageFunction& damage, const char* reason) {
        QTest::newRow(name) << damage << S(reason);
    };
    const char* damaged = "is not what its manifest says; a copy is published";
    row(
        "one byte",
        [](const QString& path) {
            QByteArray bytes = kxtest::Read(path);
            bytes[300000] = char(bytes.at(300000) ^ 1);
            kxtest::Write(path, bytes);
        },
        damaged);
    row(
        "longer", [](const QString& path) { kxtest::Write(path, kxtest::Read(path) + "x"); },
        damaged);
    row(
        "shorter", [](const QString& path) { kxtest::Write(path, kxtest::Read(path).chopped(1)); },
        damaged);
    row(
        "missing", [](const QString& path) { kxtest::Remove(path); },
        "is not linked to: there is no regular file");
    row(
        "a link to the same bytes",
        [](const QString& path) {
            QVERIFY(QFile::rename(path, path + S(".moved")));
            QVERIFY(QFile::link(path + S(".moved"), path));
        },
        "is not linked to: there is no regular file");
    row(
        "a pipe",
        [](const QString& path) {
            kxtest::Remove(path);
            ::mkfifo(path.toUtf8().constData(), 0644);
        },
        "is not linked to: there is no regular file");
    row(
        "a directory that is a link",
        [](const QString& path) {
            const QString directory = QFileInfo(path).path();
            QVERIFY(QFile::rename(directory, directory + S(".moved")));
            QVERIFY(QFile::link(directory + S(".moved"), directory));
        },
        nullptr);
}

void TestKxpublishDedup::DamagedFileIsCopiedAndNamed()
{
    QFETCH(DamageFunction, damage);
    QFETCH(QString, reason);
    const QString path = Published(S("1"), S("lib/core"));
    const QByteArray bytes = kxtest::Read(path);
    damage(path);
    const PublishResult result = RunPublish(ArgumentsFor("2"));
    QCOMPARE(result.status, 0);
    QCOMPARE(result.err.size(), 2);
    const QString begin = S("warning: '%1': ").arg(path);
    QVERIFY2(result.err.at(0).startsWith(begin), qPrintable(result.err.at(0)));
    if (!reason.isEmpty())
        QCOMPARE(result.err.at(0), begin + reason);
    QCOMPARE(Datum(result, "linked"), S("1"));
    const struct stat copy = StatusOf(Published(S("2"), S("lib/core")));
    QVERIFY(S_ISREG(copy.st_mode));
    QCOMPARE(copy.st_nlink, nlink_t(1));
    QVERIFY(kxtest::Read(Published(S("2"), S("lib/core"))) == bytes);
}

// Two texts of 128 bytes with one MD5 digest have been known since 2004.
void TestKxpublishDedup::EqualDigestIsNotEnough()
{
    QByteArray one =
        QByteArray::fromHex("d131dd02c5e6eec4693d9a0698aff95c2fcab58712467eab4004583eb8fb7f89"
                            "55ad340609f4b30283e488832571415a085125e8f7cdc99fd91dbdf280373c5b"
                            "d8823e3156348f5bae6dacd436c919c6dd53e2b487da03fd02396306d248cda0"
                            "e99f33420f577ee8ce54b67080a80d1ec69821bcb6a8839396f9652b6ff72a70");
    QByteArray two = one;
    for (const int place : {19, 45, 59, 83, 109, 123})
        two[place] = char(two.at(place) ^ 0x80);
    QCOMPARE(kxtest::MD5Of(one), kxtest::MD5Of(two));
    tree->File(S("pair"), one);
    QCOMPARE(RunPublish(ArgumentsFor("2")).status, 0);
    tree->File(S("pair"), two);
    const PublishResult result = RunPublish(ArgumentsFor("3"));
    QCOMPARE(result.status, 0);
    QCOMPARE(kxtest::Read(Published(S("3"), S("pair"))), two);
    QCOMPARE(kxtest::Read(Published(S("2"), S("pair"))), one);
    QCOMPARE(result.err.at(0),
             S("warning: '%1': has other contents than 'pair', and the same MD5 digest: clients "
               "take one for the other")
                 .arg(Published(S("2"), S("pair"))));
}

void TestKxpublishDedup::NextPlaceIsTriedAfterADamagedOne()
{
    tree->File(S("zcopy"), "program");
    QCOMPARE(RunPublish(ArgumentsFor("2")).status, 0);
    // The later one is looked at first; its two names are one file, and the earlier one's as well.
    kxtest::Remove(Published(S("2"), S("app")));
    kxtest::Remove(Published(S("2"), S("zcopy")));
    const PublishResult result = RunPublish(ArgumentsFor("3"));
    QCOMPARE(result.status, 0);
    QCOMPARE(Inode(Published(S("3"), S("app"))), Inode(Published(S("1"), S("app"))));
    QCOMPARE(Datum(result, "linked"), S("3"));
    // Each damaged place is named once.
    QCOMPARE(result.err.size(), 3);
}

void TestKxpublishDedup::FileThatOthersCannotReadIsNotLinked_data()
{
    QTest::addColumn<int>("mode");
    QTest::addColumn<QString>("reason");
    QTest::newRow("nobody else may read it")
        << 0600 << S("is not linked to: a web server may not read it");
    QTest::newRow("the group may, others not")
        << 0640 << S("is not linked to: a web server may not read it");
    QTest::newRow("anybody may write to it")
        << 0666 << S("is not linked to: others may write to it");
}

void TestKxpublishDedup::FileThatOthersCannotReadIsNotLinked()
{
    QFETCH(int, mode);
    QFETCH(QString, reason);
    kxtest::SetMode(Published(S("1"), S("lib/core")), mode);
    const PublishResult result = RunPublish(ArgumentsFor("2"));
    QCOMPARE(result.status, 0);
    QCOMPARE(result.err.at(0),
             S("warning: '%1': %2").arg(Published(S("1"), S("lib/core")), reason));
    QCOMPARE(kxtest::Mode(Published(S("2"), S("lib/core"))), 0644);
    QCOMPARE(kxtest::Mode(Published(S("1"), S("lib/core"))), mode);
}

void TestKxpublishDedup::WhereLinksDoNotWorkFilesAreCopied_data()
{
    QTest::addColumn<int>("error");
    QTest::addColumn<QString>("text");
    QTest::newRow("not supported") << EOPNOTSUPP << S("Operation not supported");
    QTest::newRow("not permitted") << EPERM << S("Operation not permitted");
    QTest::newRow("another volume") << EXDEV << S("Invalid cross-device link");
    QTest::newRow("too many names already") << EMLINK << QString();
}

void TestKxpublishDedup::WhereLinksDoNotWorkFilesAreCopied()
{
    QFETCH(int, error);
    QFETCH(QString, text);
    QProcess process;
    kxtest::PreparePublish(process, ArgumentsFor("2"));
    QProcessEnvironment environment = process.processEnvironment();
    environment.insert(S("LD_PRELOAD"), S(KX_KILL_AT_LIBRARY));
    environment.insert(S("KX_LINK_ERROR"), QString::number(error));
    process.setProcessEnvironment(environment);
    process.start();
    QVERIFY(process.waitForFinished(60000));
    const PublishResult result = kxtest::ResultOf(process, process.readAllStandardError());
    QCOMPARE(result.status, 0);
    // Said once, for the first of them.
    const QStringList warnings = result.err.filter(S("warning: "));
    QCOMPARE(warnings,
             text.isEmpty()
                 ? QStringList()
                 : QStringList({S("warning: '%1': cannot be linked to, so equal files are "
                                  "copied: %2")
                                    .arg(Published(S("1"), S("app")), text)}));
    QCOMPARE(Datum(result, "linked"), S("0"));
    QCOMPARE(StatusOf(Published(S("2"), S("lib/core"))).st_nlink, nlink_t(1));
    QVERIFY(kxtest::Read(Published(S("2"), S("lib/core"))) ==
            kxtest::Read(Published(S("1"), S("lib/core"))));
}

void TestKxpublishDedup::OtherVolumeIsCopiedFrom()
{
    QTemporaryDir other(S("/dev/shm/kxpublish-XXXXXX"));
    if (!other.isValid() || StatusOf(other.path()).st_dev == StatusOf(server).st_dev)
        QSKIP("needs two volumes");
    // Old versions are moved to another disk, and stay in their place by a link.
    const QString version = server + S("/packages/demo-app-v1");
    const QString moved = other.path() + S("/demo-app-v1");
    QCOMPARE(QProcess::execute(S("mv"), {version, moved}), 0);
    QVERIFY(QFile::link(moved, version));
    const PublishResult result = RunPublish(ArgumentsFor("2"));
    QCOMPARE(result.status, 0);
    QCOMPARE(Datum(result, "linked"), S("0"));
    QCOMPARE(result.err.at(0), S("warning: '%1': cannot be linked to, so equal files are copied: "
                                 "Invalid cross-device link")
                                   .arg(Published(S("1"), S("app"))));
    QVERIFY(kxtest::Read(Published(S("2"), S("lib/core"))) ==
            kxtest::Read(tree->Path(S("lib/core"))));
}

void TestKxpublishDedup::ManifestThatLeadsOutIsNotFollowed()
{
    workshop->File(S("precious"), "program");
    const QString index = server + S("/packages/demo-app-v1/windows/x64/index.xml");
    QByteArray text = kxtest::Read(index);
    text.replace("name=\"app\"", "name=\"../../../../../../precious\"");
    kxtest::Write(index, text);
    const PublishResult result = RunPublish(ArgumentsFor("2"));
    QCOMPARE(result.status, 0);
    QCOMPARE(StatusOf(workshop->Path(S("precious"))).st_nlink, nlink_t(1));
    QCOMPARE(Datum(result, "linked"), S("1"));
    QVERIFY(result.err.at(0).contains(S("is not linked to: ")));
}

void TestKxpublishDedup::BrokenManifestIsPassedOver()
{
    const QString index = server + S("/packages/demo-app-v1/windows/x64/index.xml");
    kxtest::Write(index, "no manifest");
    const PublishResult result = RunPublish(ArgumentsFor("2"));
    QCOMPARE(result.status, 0);
    QCOMPARE(result.err.at(0),
             S("warning: '%1': not a manifest; no file of it is linked to").arg(index));
    QCOMPARE(Datum(result, "linked"), S("0"));
}

void TestKxpublishDedup::MessagesComeInTheSameOrder()
{
    QStringList expected;
    for (int i = 0; i < 60; ++i) {
        const QString name = S("many/%1").arg(i, 3, 10, QLatin1Char('0'));
        tree->RandomFile(name, (i % 7) * 40000, quint32(i));
        if (i % 3 == 0 && i % 7 != 0)
            expected << S("warning: '%1': is not what its manifest says; a copy is published")
                            .arg(Published(S("2"), name));
    }
    QCOMPARE(RunPublish(ArgumentsFor("2")).status, 0);
    for (const QString& line : std::as_const(expected)) {
        const QString path = line.section(QLatin1Char('\''), 1, 1);
        kxtest::Write(path, QByteArray(QFileInfo(path).size(), 'x'));
    }
    for (const char* version : {"0.1", "0.2"}) {
        const PublishResult result = RunPublish(ArgumentsFor(version));
        QCOMPARE(result.status, 0);
        // The versions before have good copies, and are looked at after the damaged ones.
        QCOMPARE(result.err.filter(S("warning: ")), expected);
    }
}

// Trees are made with "cp -al" from what is on the server: later builds write into it.
void TestKxpublishDedup::FileOfTheTreeItselfIsCopied()
{
    const QString core = Published(S("1"), S("lib/core"));
    tree->Remove(S("lib/core"));
    QCOMPARE(::link(core.toUtf8().constData(), tree->Path(S("lib/core")).toUtf8().constData()), 0);
    const PublishResult result = RunPublish(ArgumentsFor("2"));
    QCOMPARE(result.status, 0);
    QCOMPARE(result.err.at(0), S("warning: '%1': is not linked to: it is one file with 'lib/core' "
                                 "of the tree, where it may be written to")
                                   .arg(core));
    QCOMPARE(StatusOf(core).st_nlink, nlink_t(2));
    QCOMPARE(StatusOf(Published(S("2"), S("lib/core"))).st_nlink, nlink_t(1));
}

QTEST_GUILESS_MAIN(TestKxpublishDedup)
#include "tst_kxpublish_dedup.moc"
