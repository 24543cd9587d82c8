#include "filediff.h"
#include "publishsite.h"

#include <kxupdater/package.h>

#include <QDateTime>
#include <QDir>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLockFile>
#include <QRegularExpression>
#include <QTest>

#include <fcntl.h>
#include <functional>
#include <sys/stat.h>
#include <unistd.h>

using kxtest::PublishResult;
using kxtest::PublishSite;
using kxtest::Snapshot;

using BreakFunction = std::function<void(const PublishSite&)>;
Q_DECLARE_METATYPE(BreakFunction)

namespace {

QString S(const char* text)
{
    return QString::fromUtf8(text);
}

// Words of the row of `version` in the list.
QStringList Row(const PublishResult& result, const QString& version)
{
    for (const QString& line : result.out) {
        if (line.startsWith(S("  ") + version + QLatin1Char(' ')))
            return line.simplified().split(QLatin1Char(' '));
    }
    return {S("(no row)")};
}

// What files below `path` take on the disk that have no other name.
qint64 DiskBytes(const QString& path)
{
    qint64 bytes = 0;
    for (const QString& line : Snapshot(path)) {
        const QString name = line.section(S(" file "), 0, 0);
        struct stat status;
        if (name != line &&
            ::lstat((path + QLatin1Char('/') + name).toUtf8().constData(), &status) == 0 &&
            status.st_nlink == 1)
            bytes += qint64(status.st_blocks) * 512;
    }
    return bytes;
}

updater::FileList FilesOf(const PublishSite& site, const QString& version)
{
    updater::Package reader(nullptr, nullptr);
    reader.SetName(S("demo-app"));
    reader.SetPackageXML(QString::fromUtf8(kxtest::Read(site.BuildPath(version, S("index.xml")))));
    return reader.Files();
}

} // namespace

/** What kxpublish tells of a server tree: list and diff. */
class TestKxpublishList : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { kxtest::KeepTreesInMemory(); }
    void ListShowsVersionsInTheirOrder();
    void OwnDiskBytesLeaveOutSharedFiles();
    void VersionThatAPlatformLacksIsNotComplete();
    void BrokenBuildsAreListedWithTheReason_data();
    void BrokenBuildsAreListedWithTheReason();
    void ReadingCommandsNeedNoLockAndWriteNothing();
    void WhatIsNoServerTreeIsRefused();
    void JsonHasNumbersAndNoControlCharacters();
    void OutputThatCannotBeWrittenIsAFailure();
    void APipeAsTheReplyDoesNotHoldUpARun();
    void DirectoriesThatCannotBeListedAreNotPassedOver();
    void RefusalsAreToldQuietlyAndInJson();
    void OthersMayReadWhateverTheUmask();
    void DiffTellsWhatChanges();
    void DiffPlansAsClientsDo();
    void DiffOfDigestsInUpperCaseIsTheClients();
    void DiffListsTwentyFilesUnlessAll();
    void DiffNeedsAChoice_data();
    void DiffNeedsAChoice();
};

void TestKxpublishList::ListShowsVersionsInTheirOrder()
{
    PublishSite site;
    site.Tree().Symlink(S("link"), S("app"));
    for (const char* version : {"2.10", "2.9", "2.9-rc1"})
        site.Add(S(version));
    site.Promote(S("2.9"));
    kxtest::Write(site.BuildPath(S("2.9"), S("notes.md")), "new\n");
    const PublishResult result = site.Run(S("list"));
    QCOMPARE(result.err, QStringList());
    QCOMPARE(result.status, 0);

    const auto row = [&site](const char* version, const char* remarks) {
        const QDateTime time =
            QFileInfo(site.BuildPath(S(version), S("index.xml"))).lastModified().toUTC();
        return S("  %1 %2 1 1 7 %3%4")
            .arg(S(version), time.toString(Qt::ISODate))
            .arg(DiskBytes(site.BuildPath(S(version))))
            .arg(S(remarks));
    };
    QStringList lines;
    for (const QString& line : result.out)
        lines << (line.startsWith(QLatin1Char(' ')) ? S("  ") + line.simplified() : line);
    QCOMPARE(lines,
             QStringList({S("offered: 2.9"), S("can be promoted: 2.9-rc1, 2.9, 2.10"),
                          S("demo-app for x64"),
                          S("  VERSION PUBLISHED FILES LINKS BYTES OWN DISK BYTES"),
                          row("2.9-rc1", ""), row("2.9", " offered, notes"), row("2.10", "")}));
}

void TestKxpublishList::OwnDiskBytesLeaveOutSharedFiles()
{
    PublishSite site;
    site.Tree().RandomFile(S("big"), 100000, 1).RandomFile(S("mine"), 50000, 2);
    site.Add(S("1"));
    // Files that are the same are shared: "big" and "app".
    site.Tree().Remove(S("mine")).RandomFile(S("mine"), 60000, 3);
    site.Add(S("2"));
    // Two names inside of one build are still its own file, and take room once.
    const QString mine = site.BuildPath(S("2"), S("files/mine"));
    QCOMPARE(::link(mine.toUtf8().constData(),
                    site.BuildPath(S("2"), S("files/more")).toUtf8().constData()),
             0);
    struct stat status;
    QCOMPARE(::lstat(mine.toUtf8().constData(), &status), 0);
    const PublishResult result = site.Run(S("list"));
    const qint64 first = Row(result, S("1")).value(5).toLongLong();
    QCOMPARE(first, DiskBytes(site.BuildPath(S("1"))));
    QVERIFY2(first >= 50000 && first < 100000, qPrintable(QString::number(first)));
    QCOMPARE(Row(result, S("2")).value(5).toLongLong(),
             DiskBytes(site.BuildPath(S("2"))) + qint64(status.st_blocks) * 512);
    // Clients see all of it.
    QCOMPARE(Row(result, S("2")).value(4), S("160007"));
}

void TestKxpublishList::VersionThatAPlatformLacksIsNotComplete()
{
    PublishSite site;
    site.Add(S("1"));
    site.Add(S("1"), S("demo-app"), S("x86"));
    site.Add(S("2"));
    const PublishResult result = site.Run(S("list"));
    QCOMPARE(result.out.mid(0, 2), QStringList({S("offered: nothing"), S("can be promoted: 1")}));
    QCOMPARE(Row(result, S("2")).mid(6).join(QLatin1Char(' ')), S("not complete"));
    QVERIFY(result.out.contains(S("demo-app for x86")));
}

void TestKxpublishList::BrokenBuildsAreListedWithTheReason_data()
{
    QTest::addColumn<BreakFunction>("damage");
    QTest::addColumn<QString>("reason");
    const auto row = [](const char* name, const BreakFunction& damage, const char* reason) {
        QTest::newRow(name) << damage << S(reason);
    };
    row(
        "manifest cut",
        [](const PublishSite& site) {
            const QString path = site.BuildPath(S("2"), S("index.xml"));
            kxtest::Write(path, kxtest::Read(path).left(100));
        },
        "broken: index.xml: not a manifest with files of demo-app");
    row(
        "manifest too large",
        [](const PublishSite& site) {
            QCOMPARE(::truncate(site.BuildPath(S("2"), S("index.xml")).toUtf8().constData(),
                                64 * 1024 * 1024 + 1),
                     0);
        },
        "broken: index.xml: has 67108865 bytes, and clients read no more than 67108864");
    row(
        "no manifest",
        [](const PublishSite& site) { kxtest::Remove(site.BuildPath(S("2"), S("index.xml"))); },
        "broken: it has no index.xml");
    row(
        "no file",
        [](const PublishSite& site) { kxtest::Remove(site.BuildPath(S("2"), S("files/app"))); },
        "broken: 'app' is missing or has another size");
    row(
        "no files",
        [](const PublishSite& site) { kxtest::Remove(site.BuildPath(S("2"), S("files"))); },
        "broken: 2 files are missing or have another size, such as 'app'");
    row(
        "file too long",
        [](const PublishSite& site) {
            const QString path = site.BuildPath(S("2"), S("files/data"));
            kxtest::Remove(path); // the other version has the same file
            kxtest::Write(path, "longer");
        },
        "broken: 'data' is missing or has another size");
}

void TestKxpublishList::BrokenBuildsAreListedWithTheReason()
{
    QFETCH(BreakFunction, damage);
    QFETCH(QString, reason);
    PublishSite site;
    site.Tree().File(S("data"), "x");
    site.Add(S("1"));
    site.Add(S("2"));
    damage(site);
    const PublishResult result = site.Run(S("list"));
    QCOMPARE(result.status, 0);
    const QString row = Row(result, S("2")).join(QLatin1Char(' '));
    QVERIFY2(row.endsWith(QLatin1Char(' ') + reason), qPrintable(row));
    QCOMPARE(result.out.at(1), S("can be promoted: 1"));
}

void TestKxpublishList::ReadingCommandsNeedNoLockAndWriteNothing()
{
    PublishSite site;
    site.Release(S("1"));
    site.Release(S("2"));
    QLockFile lock(site.Server() + S("/packages/.kxpublish.lock"));
    QVERIFY(lock.tryLock(0));
    kxtest::Write(site.Server() + S("/packages/.kxpublish"), "of the run that holds the lock");
    const QStringList before = Snapshot(site.Server());
    QCOMPARE(site.Run(S("list")).status, 0);
    QCOMPARE(site.Run(S("diff"), {S("1"), S("2")}).status, 0);
    QCOMPARE(site.Run(S("verify")).status, 0);
    QCOMPARE(site.Run(S("prune"), {S("--keep"), S("1"), S("--dry-run")}).status, 0);
    QCOMPARE(site.Run(S("rollback"), {S("--dry-run")}).status, 0);
    QCOMPARE(site.Run(S("rollback"), {S("--dry-run"), S("--as"), S("3")}).status, 0);
    QCOMPARE(Snapshot(site.Server()), before);
}

void TestKxpublishList::WhatIsNoServerTreeIsRefused()
{
    const kxtest::TreeBuilder empty;
    const QList<QStringList> lines = {{S("list"), empty.Root()},
                                      {S("diff"), empty.Root(), S("1"), S("2")},
                                      {S("prune"), empty.Root(), S("--keep"), S("1")},
                                      {S("rollback"), empty.Root()},
                                      {S("verify"), empty.Root()}};
    const PublishResult nowhere = kxtest::RunPublish({S("list"), empty.Path(S("nowhere"))});
    QCOMPARE(nowhere.err,
             QStringList({S("'%1': no such directory").arg(empty.Path(S("nowhere")))}));
    QCOMPARE(nowhere.status, 1);
    for (const QStringList& words : lines) {
        const PublishResult result = kxtest::RunPublish(words);
        QCOMPARE(
            result.err,
            QStringList(
                {S("'%1': not a server tree, it has no directory 'packages'").arg(empty.Root())}));
        QCOMPARE(result.out, QStringList());
        QCOMPARE(result.status, 1);
    }
    QCOMPARE(Snapshot(empty.Root()), QStringList());
}

void TestKxpublishList::DiffTellsWhatChanges()
{
    PublishSite site;
    site.Tree()
        .RandomFile(S("changed"), 3000, 1)
        .RandomFile(S("old place"), 2000, 2)
        .RandomFile(S("kept"), 5000, 3)
        .File(S("mode"), "m", 0644)
        .File(S("gone"), "12345")
        .Symlink(S("link"), S("kept"))
        .Symlink(S("same link"), S("kept"));
    site.Add(S("1"));
    site.Tree()
        .Remove(S("changed"))
        .RandomFile(S("changed"), 4000, 4)
        .Remove(S("old place"))
        .RandomFile(S("new place"), 2000, 2)
        .Remove(S("mode"))
        .File(S("mode"), "m", 0755)
        .Remove(S("gone"))
        .File(S("new"), "123")
        .Remove(S("link"))
        .Symlink(S("link"), S("new"));
    site.Add(S("2"));
    const PublishResult result = site.Run(S("diff"), {S("1"), S("2")});
    QCOMPARE(result.err, QStringList());
    QCOMPARE(result.status, 0);
    QStringList lines;
    for (const QString& line : result.out)
        lines << line.simplified();
    QCOMPARE(lines, QStringList({S("demo-app for x64, from 1 to 2"), S("COUNT BYTES"),
                                 S("download 3 6003"), S("new 1 3"), S("changed 1 4000"),
                                 S("moved 1 2000"), S("copy 4 5012"), S("link 1 3"),
                                 S("drop 4 5009"), S("replaced 2 3004"), S("gone 2 2005"),
                                 S("download changed 4000 'changed' 3000 bytes before"),
                                 S("download moved 2000 'new place' contents of 'old place'"),
                                 S("drop gone 2000 'old place'"), S("drop gone 5 'gone'"),
                                 S("link changed 3 'link'"), S("download new 3 'new'"),
                                 S("Only the mode differs. Clients copy these files and keep the "
                                   "old mode:"),
                                 S("mode -rwxr-xr-x, before -rw-r--r-- 'mode'")}));
}

void TestKxpublishList::DiffPlansAsClientsDo()
{
    PublishSite site;
    for (int i = 0; i < 30; ++i)
        site.Tree().RandomFile(S("a/%1").arg(i), i * 10, quint32(i));
    site.Tree().Symlink(S("l1"), S("a/1")).Symlink(S("l2"), S("a/2"));
    site.Add(S("1"));
    for (int i = 0; i < 30; i += 3)
        site.Tree().Remove(S("a/%1").arg(i));
    for (int i = 0; i < 30; i += 6)
        site.Tree().RandomFile(S("a/%1").arg(i), i * 7, quint32(i));
    site.Tree().Remove(S("l1")).File(S("l1"), "a file now").Remove(S("a/1"));
    site.Tree().Symlink(S("a/1"), S("2"));
    site.Add(S("2"));
    const updater::FileList before = FilesOf(site, S("1"));
    const updater::FileList after = FilesOf(site, S("2"));
    qsizetype links = 0;
    const updater::FileList additions = updater::Difference(after, before);
    for (const updater::File& file : additions)
        links += file.IsSymlink() ? 1 : 0;
    const PublishResult result = site.Run(S("diff"), {S("1"), S("2")});
    const auto count = [&result](const char* kind) {
        return result.out.filter(QRegularExpression(S("^%1 +\\d+ +\\d+$").arg(S(kind))))
            .value(0)
            .simplified()
            .section(QLatin1Char(' '), 1, 1)
            .toInt();
    };
    QVERIFY(links > 0);
    QCOMPARE(count("download"), additions.size() - links);
    QCOMPARE(count("link"), links);
    QCOMPARE(count("copy"), updater::Intersection(before, after).size());
    QCOMPARE(count("drop"), updater::Difference(before, after).size());
}

void TestKxpublishList::DiffOfDigestsInUpperCaseIsTheClients()
{
    PublishSite site;
    site.Add(S("1"));
    site.Add(S("2"));
    const QString path = site.BuildPath(S("1"), S("index.xml"));
    const QByteArray digest = kxtest::MD5Of("program").toUtf8();
    kxtest::Write(path, kxtest::Read(path).replace(digest, digest.toUpper()));
    // What a client has is what it scanned, so the other way of writing costs nothing ...
    QVERIFY(site.Run(S("diff"), {S("1"), S("2")}).out.at(2).simplified() == S("download 0 0"));
    // ... but in the manifest that it goes to: it compares letter by letter.
    QVERIFY(site.Run(S("diff"), {S("2"), S("1")}).out.at(2).simplified() == S("download 1 7"));
}

void TestKxpublishList::DiffListsTwentyFilesUnlessAll()
{
    PublishSite site;
    site.Add(S("1"));
    for (int i = 10; i < 35; ++i)
        site.Tree().File(S("f%1").arg(i), QByteArray(i, 'x'));
    site.Add(S("2"));
    const QRegularExpression listed(S("^download  new "));
    const PublishResult some = site.Run(S("diff"), {S("1"), S("2")});
    QCOMPARE(some.out.filter(listed).size(), 20);
    QVERIFY(some.out.filter(listed).at(0).endsWith(S("'f34'")));
    QCOMPARE(some.out.constLast(), S("... and 5 more, listed with --all"));
    const PublishResult all = site.Run(S("diff"), {S("1"), S("2"), S("--all")});
    QCOMPARE(all.out.filter(listed).size(), 25);
}

void TestKxpublishList::DiffNeedsAChoice_data()
{
    QTest::addColumn<QStringList>("words");
    QTest::addColumn<QString>("message");
    QTest::newRow("two packages") << QStringList{S("1"), S("1")}
                                  << S("--name is needed to choose one of the packages: demo-app, "
                                       "other");
    QTest::newRow("two platforms")
        << QStringList{S("1"), S("1"), S("--name"), S("demo-app")}
        << S("--platform is needed to choose one of the platforms of demo-app: x64, x86");
    QTest::newRow("no such package")
        << QStringList{S("1"), S("1"), S("--name"), S("x\033[0m")}
        << S("--name 'x\\x1b[0m': not published; there is demo-app, other");
    QTest::newRow("no such platform")
        << QStringList{S("1"), S("1"), S("--name"), S("other"), S("--platform"), S("x86")}
        << S("--platform 'x86': not published; there is x64");
    QTest::newRow("no such version") << QStringList{S("1"), S("2"), S("--name"), S("other")}
                                     << S("'other': not published in version '2' for x64");
    QTest::newRow("chosen") << QStringList{S("1"), S("1"), S("--name"), S("other")} << QString();
}

void TestKxpublishList::DiffNeedsAChoice()
{
    QFETCH(QStringList, words);
    QFETCH(QString, message);
    PublishSite site;
    site.Add(S("1"));
    site.Add(S("1"), S("demo-app"), S("x86"));
    site.Add(S("1"), S("other"));
    const PublishResult result = site.Run(S("diff"), words);
    QCOMPARE(result.err.value(0), message);
    QCOMPARE(result.status, message.isEmpty() ? 0 : 1);
    QCOMPARE(result.out.isEmpty(), !message.isEmpty());
}

void TestKxpublishList::OthersMayReadWhateverTheUmask()
{
    PublishSite site;
    site.Tree().File(S("sub/file"), "x");
    const auto closed = [] { ::umask(077); };
    const QString server = site.Server();
    const auto run = [&](const QStringList& words) {
        return kxtest::RunPublish(words, closed).status;
    };
    site.Add(S("0"));
    QDir(server).removeRecursively();
    for (const char* version : {"1", "2"}) {
        QCOMPARE(run(kxtest::With(kxtest::AddArguments(site.Tree().Root(), server), S("--version"),
                                  S(version))),
                 0);
        QCOMPARE(run(kxtest::PromoteArguments(S(version), server)), 0);
    }
    QCOMPARE(run({S("rollback"), server, S("--as"), S("3")}), 0);
    const PublishResult result = site.Run(S("verify"));
    QCOMPARE(result.out.filter(S("bad: ")), QStringList());
    QCOMPARE(result.status, 0);
}

void TestKxpublishList::RefusalsAreToldQuietlyAndInJson()
{
    const kxtest::TreeBuilder empty;
    const QString text =
        S("'%1': not a server tree, it has no directory 'packages'").arg(empty.Root());
    QCOMPARE(kxtest::RunPublish({S("list"), empty.Root(), S("--quiet")}).err, QStringList({text}));
    const auto problems = [](const QStringList& words) {
        const PublishResult result = kxtest::RunPublish(words);
        const QJsonObject object =
            QJsonDocument::fromJson(result.out.join(QLatin1Char('\n')).toUtf8()).object();
        return object.value(S("exit")).toInt() == result.status
                   ? object.value(S("problems")).toVariant().toStringList()
                   : QStringList({S("(no exit status)")});
    };
    QCOMPARE(problems({S("list"), empty.Root(), S("--json")}), QStringList({text}));
    QCOMPARE(problems({S("nothing"), S("--json")}), QStringList({S("unknown command 'nothing'")}));
}

void TestKxpublishList::DirectoriesThatCannotBeListedAreNotPassedOver()
{
    PublishSite site;
    site.Add(S("1"));
    site.Add(S("2"));
    site.Add(S("2"), S("other"));
    site.Promote(S("2"));
    const QString server = site.Server();
    for (const QString& path :
         {server + S("/packages/other-v2"), server + S("/packages/other-v2/windows"),
          site.BuildPath(S("2"), {}, S("other"))}) {
        const auto closed = [path] {
            kxtest::DropFileRights();
            ::chmod(path.toUtf8().constData(), 0);
        };
        const QList<QStringList> lines = {{S("list"), server},
                                          {S("verify"), server},
                                          {S("diff"), server, S("1"), S("2")},
                                          {S("prune"), server, S("--keep"), S("1")},
                                          {S("rollback"), server},
                                          kxtest::PromoteArguments(S("1"), server)};
        for (const QStringList& words : lines) {
            const PublishResult result = kxtest::RunPublish(words, closed);
            ::chmod(path.toUtf8().constData(), 0755);
            QVERIFY2(
                result.err.value(0).startsWith(S("'%1': the directory cannot be listed").arg(path)),
                qPrintable(words.join(u' ') + result.err.join(u' ')));
            QCOMPARE(result.status, 1);
        }
        QCOMPARE(site.Offered(), S("2"));
    }
}

void TestKxpublishList::APipeAsTheReplyDoesNotHoldUpARun()
{
    PublishSite site;
    site.Add(S("1"));
    const QString reply = site.Server() + S("/packages/version.xml");
    QCOMPARE(::mkfifo(reply.toUtf8().constData(), 0644), 0);
    // Without a writer opening it would wait for ever; the alarm ends that.
    const auto limited = [] { ::alarm(5); };
    const PublishResult result = kxtest::RunPublish({S("list"), site.Server()}, limited);
    QCOMPARE(result.status, 0);
    QCOMPARE(result.out.value(0), S("offered: nothing"));
}

void TestKxpublishList::OutputThatCannotBeWrittenIsAFailure()
{
    PublishSite site;
    site.Add(S("1"));
    const auto full = [] { ::dup2(::open("/dev/full", O_WRONLY), STDOUT_FILENO); };
    for (const QStringList& more : {QStringList(), QStringList({S("--json")})}) {
        const PublishResult result =
            kxtest::RunPublish(QStringList({S("list"), site.Server()}) + more, full);
        QCOMPARE(result.err, QStringList({S("cannot write to the standard output")}));
        QCOMPARE(result.status, 3);
    }
}

void TestKxpublishList::JsonHasNumbersAndNoControlCharacters()
{
    PublishSite site;
    site.Add(S("1"));
    const PublishResult added =
        kxtest::RunPublish(kxtest::With(kxtest::AddArguments(site.Tree().Root(), site.Server()),
                                        S("--version"), S("2")) +
                           QStringList({S("--json")}));
    const auto object = [](const PublishResult& result) {
        return QJsonDocument::fromJson(result.out.join(QLatin1Char('\n')).toUtf8()).object();
    };
    QCOMPARE(object(added).value(S("files")), QJsonValue(1));
    QCOMPARE(object(added).value(S("linked")), QJsonValue(1));

    // A control sequence of terminals, in the one character that XML lets through.
    const QString index = site.BuildPath(S("2"), S("index.xml"));
    kxtest::Write(index, kxtest::Read(index).replace("\"app\"", "\"a\xc2\x9b"
                                                                "2Jb\""));
    const PublishResult diff = site.Run(S("diff"), {S("1"), S("2"), S("--json")});
    QCOMPARE(object(diff).value(S("programAfter")).toString(), S("a\xc2\x9b"
                                                                 "2Jb"));
    QVERIFY(!diff.out.join(QLatin1Char('\n')).contains(QChar(0x9b)));
}

QTEST_GUILESS_MAIN(TestKxpublishList)
#include "tst_kxpublish_list.moc"
