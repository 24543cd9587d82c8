#include "httptestserver.h"
#include "publishrun.h"
#include "treebuilder.h"

#include "filediff.h"

#include <kxupdater/build.h>
#include <kxupdater/filescanner.h>
#include <kxupdater/package.h>

#include <QDir>
#include <QDomDocument>
#include <QFile>
#include <QFileInfo>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTest>

#include <memory>

using kxtest::AddArguments;
using kxtest::PromoteArguments;
using kxtest::PublishResult;
using kxtest::RunPublish;
using kxtest::Snapshot;
using kxtest::TreeBuilder;
using kxtest::With;

namespace {

constexpr int waitMs = 60000;

QString S(const char* text)
{
    return QString::fromUtf8(text);
}

updater::FileList Scan(const QString& root)
{
    updater::FileScanner scanner(root);
    QSignalSpy succeeded(&scanner, SIGNAL(succesed()));
    scanner.Scan();
    return succeeded.wait(waitMs) ? scanner.Files() : updater::FileList();
}

QByteArray Fetch(QNetworkAccessManager& manager, const QUrl& url)
{
    const std::unique_ptr<QNetworkReply> reply(manager.get(QNetworkRequest(url)));
    QSignalSpy finished(reply.get(), SIGNAL(finished()));
    if (!finished.wait(waitMs) || reply->error() != QNetworkReply::NoError)
        return "(nothing) " + reply->errorString().toUtf8();
    return reply->readAll();
}

} // namespace

/** What kxpublish makes, and how clients read it. */
class TestKxpublish : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void ManifestIsWrittenLetterForLetter();
    void ServerTreeHoldsFilesAndManifestOnly();
    void ResultIsPrinted();
    void ClientsReadTheManifestAsItWasMeant();
    void CopyOfThePublishedFilesVerifies();
    void UnusualNamesAreFetchedAtTheirUrls_data();
    void UnusualNamesAreFetchedAtTheirUrls();
    void ManifestDependsOnTheTreeAlone();
    void ThousandsOfFilesArePublished();
    void PlatformsAndPackagesStandSideBySide();
    void PlatformIsThisSystemsOwnByDefault();
    void AddressLosesTrailingSlashes();
    void TreeMayBeNamedThroughALink();
    void DoubtsAreWarnedOf_data();
    void DoubtsAreWarnedOf();
    void LinksInsideTheTreeArePublishedInSilence();
    void PromoteWritesTheReply();
    void PromoteTwiceTellsThatNothingHasChanged();
    void PromoteWarnsOfAnEarlierVersion();
    void PromoteRefuses_data();
    void PromoteRefuses();
    void PromoteTellsNamesFromVersions();
    void CommandLineIsChecked_data();
    void CommandLineIsChecked();
    void HelpListsTheExitStatuses_data();
    void HelpListsTheExitStatuses();
    void VersionIsPrinted();

private:
    updater::Package* ReadBack(const QString& package = S("demo-app"),
                               const QString& version = S("2.4.1"));
    QString FilesPath() const;

    std::unique_ptr<TreeBuilder> tree;
    std::unique_ptr<TreeBuilder> workshop;
    QString server;
    QStringList arguments;
    std::unique_ptr<updater::Package> reader;
};

void TestKxpublish::init()
{
    QTest::failOnWarning(
        QRegularExpression(S("no such (signal|slot)"), QRegularExpression::CaseInsensitiveOption));
    tree = std::make_unique<TreeBuilder>();
    tree->File(S("app"), "program", 0755);
    workshop = std::make_unique<TreeBuilder>();
    server = workshop->Path(S("srv"));
    arguments = AddArguments(tree->Root(), server);
}

updater::Package* TestKxpublish::ReadBack(const QString& package, const QString& version)
{
    reader = std::make_unique<updater::Package>(nullptr, nullptr);
    reader->SetName(package);
    reader->SetPackageXML(QString::fromUtf8(
        kxtest::Read(server + S("/packages/%1-v%2/windows/x64/index.xml").arg(package, version))));
    return reader.get();
}

QString TestKxpublish::FilesPath() const
{
    return server + S("/packages/demo-app-v2.4.1/windows/x64/files");
}

void TestKxpublish::ManifestIsWrittenLetterForLetter()
{
    tree->File(S("bin/tool & more"), "tool", 0750)
        .File(S("data/<\"quoted\" 'name'>"), "quoted", 0644)
        .File(S("data/empty"), "", 0600)
        .File(S("data/\u00fcber"), "umlaut", 0664)
        .File(S("Data.txt"), "upper case comes first", 0444)
        .Symlink(S("bin/run"), S("../app"))
        .Symlink(S("latest"), S("data"))
        .Symlink(S("sign"), S("data/\u00fcber"));
    QCOMPARE(RunPublish(arguments).status, 0);
    const QByteArray expected =
        R"(<?xml version="1.0" encoding="UTF-8"?>
<packages>
 <package name="demo-app">
  <build DownloadURL="http://updates.example/demo/packages/demo-app-v2.4.1/windows/x64/files" PostExec="app">
   <file name="Data.txt" md5="c05faf9ae168f8a1b651cd76ed7dc022" size="22" permissions="-r--r--r--" symlink=""/>
   <file name="app" md5="a9c449d4fa44e9e5a41c574ae55ce4d9" size="7" permissions="-rwxr-xr-x" symlink=""/>
   <file name="bin/run" md5="3ce084da061e915c1bd7d5e7365f9fa2" size="6" permissions="lrwxrwxrwx" symlink="../app"/>
   <file name="bin/tool &amp; more" md5="39ab32c5aeb56c9f5ae17f073ce31023" size="4" permissions="-rwxr-x---" symlink=""/>
   <file name="data/&lt;&quot;quoted&quot; 'name'&gt;" md5="c771841f494f76ff9957878b66f9b5a8" size="6" permissions="-rw-r--r--" symlink=""/>
   <file name="data/empty" md5="d41d8cd98f00b204e9800998ecf8427e" size="0" permissions="-rw-------" symlink=""/>
   <file name="data/über" md5="e4f7981a7e3b887516e863b95c969e50" size="6" permissions="-rw-rw-r--" symlink=""/>
   <file name="latest" md5="8d777f385d3dfec8815d20f7496026dc" size="4" permissions="lrwxrwxrwx" symlink="data"/>
   <file name="sign" md5="9cc768a90760e96eeb43f9f581fe1e41" size="9" permissions="lrwxrwxrwx" symlink="data/über"/>
  </build>
 </package>
</packages>
)";
    QCOMPARE(QString::fromUtf8(
                 kxtest::Read(server + S("/packages/demo-app-v2.4.1/windows/x64/index.xml"))),
             QString::fromUtf8(expected));
}

void TestKxpublish::ServerTreeHoldsFilesAndManifestOnly()
{
    tree->File(S("lib/core"), "core", 0600).Symlink(S("lib/link"), S("core")).Dir(S("none"));
    QCOMPARE(RunPublish(arguments).status, 0);
    const QString core = kxtest::MD5Of("core");
    const QString program = kxtest::MD5Of("program");
    const QString index = server + S("/packages/demo-app-v2.4.1/windows/x64/index.xml");
    const QString build = S("packages/demo-app-v2.4.1/windows/x64");
    // Whatever the modes in the tree, the web server has to read the files.
    QCOMPARE(Snapshot(server),
             QStringList(
                 {S("packages dir 755"), S("packages/demo-app-v2.4.1 dir 755"),
                  S("packages/demo-app-v2.4.1/windows dir 755"), build + S(" dir 755"),
                  build + S("/files dir 755"), build + S("/files/app file 644 7 ") + program,
                  build + S("/files/lib dir 755"), build + S("/files/lib/core file 644 4 ") + core,
                  build + S("/index.xml file 644 %1 ").arg(QFileInfo(index).size()) +
                      kxtest::MD5OfFile(index)}));
}

void TestKxpublish::ResultIsPrinted()
{
    tree->File(S("lib/core"), "core").Symlink(S("lib/link"), S("core"));
    const PublishResult result = RunPublish(arguments);
    QCOMPARE(result.out,
             QStringList({S("index: %1/packages/demo-app-v2.4.1/windows/x64/index.xml").arg(server),
                          S("files: 2"), S("links: 1"), S("bytes: 11"), S("linked: 0"),
                          S("linked-bytes: 0"), S("new-bytes: 11"), S("left-out: 0")}));
    QCOMPARE(result.err,
             QStringList({S("published demo-app 2.4.1 for x64: 2 files, 1 links, 11 bytes; "
                            "clients are offered it after 'promote'")}));
    QCOMPARE(result.status, 0);
}

void TestKxpublish::ClientsReadTheManifestAsItWasMeant()
{
    tree->File(S("bin/a & b"), "tool", 0750).Symlink(S("bin/run"), S("../\u00fc"));
    QCOMPARE(RunPublish(arguments).status, 0);
    const updater::Package* package = ReadBack();
    QCOMPARE(package->DownloadURL(),
             S("http://updates.example/demo/packages/demo-app-v2.4.1/windows/x64/files"));
    QCOMPARE(package->ExecutableName(), S("app"));
    const updater::FileList expected = {
        {S("app"), kxtest::MD5Of("program"), 7, S("-rwxr-xr-x"), QString()},
        {S("bin/a & b"), kxtest::MD5Of("tool"), 4, S("-rwxr-x---"), QString()},
        {S("bin/run"), kxtest::MD5Of("../\u00fc"), 4, S("lrwxrwxrwx"), S("../\u00fc")}};
    QCOMPARE(package->Files(), expected);
    for (qsizetype i = 0; i < expected.size(); ++i) {
        QCOMPARE(package->Files().at(i).MD5(), expected.at(i).MD5());
        QCOMPARE(package->Files().at(i).PermissionsString(), expected.at(i).PermissionsString());
    }
}

void TestKxpublish::CopyOfThePublishedFilesVerifies()
{
    tree->RandomFile(S("lib/big"), 3000000, 1)
        .File(S("lib/empty"), "")
        .Symlink(S("lib/self"), S("."))
        .Symlink(S("lib/sub/up"), S("../big"))
        .Symlink(S("lib/sub/dangling"), S("none"))
        .Symlink(S("lib/chain"), S("sub/up"))
        .Symlink(S("\u00e9"), S("lib"));
    QCOMPARE(RunPublish(arguments).status, 0);
    const updater::FileList manifest = ReadBack()->Files();
    QCOMPARE(manifest.size(), 8);

    TreeBuilder copy(workshop->Path(S("copy")));
    for (const updater::File& file : manifest) {
        if (file.IsSymlink())
            copy.Symlink(file.Name(), file.SymlinkPath());
        else
            copy.File(file.Name(), kxtest::Read(FilesPath() + S("/") + file.Name()));
    }
    const updater::FileList scanned = Scan(copy.Root());
    QCOMPARE(scanned.size(), manifest.size());
    QCOMPARE(updater::Difference(manifest, scanned), updater::FileList());
    QCOMPARE(updater::Difference(scanned, manifest), updater::FileList());
}

void TestKxpublish::UnusualNamesAreFetchedAtTheirUrls_data()
{
    QTest::addColumn<QString>("name");
    QTest::newRow("composed") << S("caf\u00e9/\u00fcber");
    QTest::newRow("decomposed") << S("cafe\u0301/u\u0308ber");
    QTest::newRow("beyond the first plane") << S("\U0001f600/\U0001d538");
    QTest::newRow("blanks inside") << S("read me/now  please");
    QTest::newRow("ampersand and quotes") << S("a&b/it's \"it\"");
    QTest::newRow("plus") << S("a+b/c++");
    QTest::newRow("brackets and braces") << S("[a]{b}(c)/<d>");
    QTest::newRow("punctuation") << S("a;b:c@d=e,f!g$h*i/~j^k`l|m_n-o.p");
    QTest::newRow("dots") << S("a../b...");
    QTest::newRow("dashes in front") << S("--name/-v1");
    QTest::newRow("name of the manifest") << S("index.xml");
    QTest::newRow("longest component") << QString(255, QLatin1Char('n'));
    QTest::newRow("longest component of two bytes each") << QString(127, QChar(0xe9));
    QString deep;
    for (int i = 0; i < 12; ++i)
        deep += QString(240, QLatin1Char('d')) + QLatin1Char('/');
    QTest::newRow("long path") << deep + S("file");
    QTest::newRow("right to left") << S("\u05e9\u05dc\u05d5\u05dd/\u0645");
    QTest::newRow("joiners") << S("a\u200db/\ufeffc");
}

void TestKxpublish::UnusualNamesAreFetchedAtTheirUrls()
{
    QFETCH(QString, name);
    if (name.endsWith(S("\ufeffc"))) // inside a name, the mark is a character like others
        name = S("a\u200db/c\ufeff");
    const QByteArray content = kxtest::RandomBytes(1000, 7);
    tree->File(name, content);
    kxtest::HttpTestServer http;
    http.ServeDirectory(S("/base"), server);
    const PublishResult result =
        RunPublish(With(arguments, S("--base-url"), http.Url(S("/base")).toString()));
    QCOMPARE(result.err.filter(S("warning")), QStringList());
    QCOMPARE(result.status, 0);
    const updater::Package* package = ReadBack();
    QCOMPARE(package->Files().size(), 2);

    QNetworkAccessManager manager;
    int found = 0;
    for (const updater::File& file : package->Files()) {
        const QUrl url(package->DownloadURL() + S("/") + file.Name(), QUrl::TolerantMode);
        QCOMPARE(kxtest::MD5Of(Fetch(manager, url)), file.MD5());
        found += file.Name() == name;
    }
    QCOMPARE(found, 1);
}

void TestKxpublish::ManifestDependsOnTheTreeAlone()
{
    const QStringList names = {S("b"), S("a/z"), S("a/B"), S("a.txt"), S("C"), S("\u00e4"), S("d")};
    TreeBuilder other;
    other.File(S("app"), "program", 0755);
    for (const QString& name : names)
        tree->File(name, name.toUtf8());
    for (auto name = names.rbegin(); name != names.rend(); ++name)
        other.File(*name, name->toUtf8());
    QCOMPARE(RunPublish(arguments).status, 0);
    const QString second = workshop->Path(S("second"));
    QCOMPARE(RunPublish(AddArguments(other.Root(), second)).status, 0);
    QCOMPARE(Snapshot(server), Snapshot(second));
    QStringList listed;
    for (const updater::File& file : ReadBack()->Files())
        listed << file.Name();
    QCOMPARE(listed, QStringList({S("C"), S("a.txt"), S("a/B"), S("a/z"), S("app"), S("b"), S("d"),
                                  S("\u00e4")}));
}

void TestKxpublish::ThousandsOfFilesArePublished()
{
    for (int i = 0; i < 2000; ++i)
        tree->File(S("d%1/f%2").arg(i % 50).arg(i), QByteArray::number(i));
    QCOMPARE(RunPublish(arguments).status, 0);
    const updater::FileList files = ReadBack()->Files();
    QCOMPARE(files.size(), 2001);
    QCOMPARE(updater::Difference(files, Scan(FilesPath())), updater::FileList());
}

void TestKxpublish::PlatformsAndPackagesStandSideBySide()
{
    QCOMPARE(RunPublish(arguments).status, 0);
    const QStringList before = Snapshot(server);
    QCOMPARE(RunPublish(With(arguments, S("--platform"), S("x86"))).status, 0);
    QCOMPARE(RunPublish(With(arguments, S("--version"), S("2.5"))).status, 0);
    QCOMPARE(RunPublish(With(arguments, S("--name"), S("other"))).status, 0);
    QStringList after = Snapshot(server);
    for (const QString& line : before)
        QVERIFY2(after.removeOne(line), qPrintable(line));
    QCOMPARE(after.filter(S("index.xml")).size(), 3);
    QVERIFY(kxtest::Read(server + S("/packages/demo-app-v2.4.1/windows/x86/index.xml"))
                .contains("DownloadURL=\"http://updates.example/demo/packages/demo-app-v2.4.1/"
                          "windows/x86/files\""));
}

void TestKxpublish::PlatformIsThisSystemsOwnByDefault()
{
    arguments.remove(arguments.indexOf(S("--platform")), 2);
    QCOMPARE(RunPublish(arguments).status, 0);
    QVERIFY(QFile::exists(server + S("/packages/demo-app-v2.4.1/%1/%2/index.xml")
                                       .arg(updater::Build::OSName(), updater::Build::Platform())));
}

void TestKxpublish::AddressLosesTrailingSlashes()
{
    QCOMPARE(RunPublish(With(arguments, S("--base-url"), S("https://h:8443//"))).status, 0);
    QCOMPARE(ReadBack()->DownloadURL(),
             S("https://h:8443/packages/demo-app-v2.4.1/windows/x64/files"));
}

void TestKxpublish::TreeMayBeNamedThroughALink()
{
    tree->Symlink(S("lib/up"), S("../app"));
    workshop->Symlink(S("link"), tree->Root());
    arguments[1] = workshop->Path(S("link")) + S("/");
    QCOMPARE(RunPublish(arguments).status, 0);
    QCOMPARE(ReadBack()->Files().size(), 2);
}

void TestKxpublish::DoubtsAreWarnedOf_data()
{
    QTest::addColumn<QString>("link");
    QTest::addColumn<QString>("target");
    QTest::addColumn<QStringList>("changes");
    QTest::addColumn<QString>("warning");
    const QStringList none;
    QTest::newRow("target missing") << S("l") << S("nowhere") << none
                                    << S("'l': the target 'nowhere' of the link does not exist");
    QTest::newRow("target below a file")
        << S("l") << S("app/x") << none << S("'l': the target 'app/x' of the link does not exist");
    QTest::newRow("link to itself")
        << S("l") << S("l") << none << S("'l': the link leads in a circle");
    QTest::newRow("program is not executable")
        << QString() << QString() << QStringList{S("--exec"), S("plain")}
        << S("--exec 'plain': not executable");
    QTest::newRow("version without numbers")
        << QString() << QString() << QStringList{S("--version"), S("spring")}
        << S("--version 'spring': clients take it for earlier than any number");
}

void TestKxpublish::DoubtsAreWarnedOf()
{
    QFETCH(QString, link);
    QFETCH(QString, target);
    QFETCH(QStringList, changes);
    QFETCH(QString, warning);
    tree->File(S("plain"), "x");
    if (!link.isEmpty())
        tree->Symlink(link, target);
    if (!changes.isEmpty())
        arguments = With(arguments, changes.at(0), changes.at(1));
    const PublishResult result = RunPublish(arguments);
    QCOMPARE(result.err.size(), 2);
    QCOMPARE(result.err.at(0), S("warning: ") + warning);
    QCOMPARE(result.status, 0);
    QCOMPARE(result.out.at(2), link.isEmpty() ? S("links: 0") : S("links: 1"));
}

void TestKxpublish::LinksInsideTheTreeArePublishedInSilence()
{
    tree->File(S("lib/deep/x"), "x")
        .Symlink(S("a"), S("lib"))
        .Symlink(S("b"), S("a"))
        .Symlink(S("c"), S("b/deep/x"))
        .Symlink(S("root"), S("."))
        .Symlink(S("lib/root"), S("../"))
        .Symlink(S("lib/deep/app"), S("../../app"))
        .Symlink(S("d"), S("lib/root/app"));
    const PublishResult result = RunPublish(arguments);
    QCOMPARE(result.err.mid(0, result.err.size() - 1), QStringList());
    QCOMPARE(result.status, 0);
    QCOMPARE(result.out.at(2), S("links: 7"));
}

void TestKxpublish::PromoteWritesTheReply()
{
    QCOMPARE(RunPublish(arguments).status, 0);
    QCOMPARE(RunPublish(With(arguments, S("--platform"), S("x86"))).status, 0);
    QStringList expected = Snapshot(server);
    const PublishResult result = RunPublish(PromoteArguments(S("2.4.1"), server));
    QCOMPARE(result.err, QStringList({S("clients are offered version 2.4.1 now")}));
    QCOMPARE(result.out,
             QStringList({S("reply: %1/packages/version.xml").arg(server), S("version: 2.4.1")}));
    QCOMPARE(result.status, 0);

    const QByteArray reply = kxtest::Read(server + S("/packages/version.xml"));
    QCOMPARE(reply,
             QByteArray("<?xml version=\"1.0\" encoding=\"UTF-8\"?><version>2.4.1</version>\n"));
    QDomDocument document;
    QVERIFY(document.setContent(QString::fromUtf8(reply)));
    QCOMPARE(document.documentElement().text(), S("2.4.1"));
    expected << S("packages/version.xml file 644 %1 ").arg(reply.size()) + kxtest::MD5Of(reply);
    QCOMPARE(Snapshot(server), expected);
    QCOMPARE(RunPublish(PromoteArguments(S("2.4.1"), server)).status, 0);
    QCOMPARE(Snapshot(server), expected);

    // What comes to a version that is on offer needs no promotion.
    const PublishResult late = RunPublish(With(arguments, S("--name"), S("late")));
    QVERIFY2(late.err.constLast().endsWith(S("; clients are offered it now")),
             qPrintable(late.err.constLast()));
}

void TestKxpublish::PromoteTwiceTellsThatNothingHasChanged()
{
    QCOMPARE(RunPublish(arguments).status, 0);
    QCOMPARE(RunPublish(PromoteArguments(S("2.4.1"), server)).status, 0);
    const PublishResult again = RunPublish(PromoteArguments(S("2.4.1"), server));
    QCOMPARE(again.err, QStringList({S("clients are offered version 2.4.1 now, as before")}));
    QCOMPARE(again.status, 0);
}

void TestKxpublish::PromoteWarnsOfAnEarlierVersion()
{
    QCOMPARE(RunPublish(arguments).status, 0);
    QCOMPARE(RunPublish(With(arguments, S("--version"), S("2.10"))).status, 0);
    QCOMPARE(RunPublish(PromoteArguments(S("2.10"), server)).status, 0);
    const PublishResult result = RunPublish(PromoteArguments(S("2.4.1"), server));
    QCOMPARE(result.err,
             QStringList({S("warning: 2.4.1 is earlier than 2.10, which clients are offered now"),
                          S("clients are offered version 2.4.1 now, 2.10 before")}));
    QCOMPARE(result.status, 0);
}

void TestKxpublish::PromoteRefuses_data()
{
    QTest::addColumn<QString>("version");
    QTest::addColumn<QStringList>("expected");
    QTest::newRow("lacked by all")
        << S("9")
        << QStringList{S("'demo-app': not published in version 9 for x64"),
                       S("'demo-app': not published in version 9 for x86"),
                       S("'other': not published in version 9 for x64")};
    QTest::newRow("lacked by a platform")
        << S("2") << QStringList{S("'demo-app': not published in version 2 for x86")};
    QTest::newRow("lacked by a package")
        << S("3") << QStringList{S("'other': not published in version 3 for x64")};
    QTest::newRow("equal by number, another text")
        << S("2.0")
        << QStringList{S("'demo-app': not published in version 2.0 for x64"),
                       S("'demo-app': not published in version 2.0 for x86"),
                       S("'other': not published in version 2.0 for x64")};
    QTest::newRow("manifest cut short")
        << S("4")
        << QStringList{S("'%1/packages/other-v4/windows/x64/index.xml': not a manifest "
                         "with files of other")};
    QTest::newRow("manifest of another package")
        << S("5")
        << QStringList{S("'%1/packages/other-v5/windows/x64/index.xml': not a manifest "
                         "with files of other")};
    QTest::newRow("bad version") << S("1-v2")
                                 << QStringList{
                                        S("--version '1-v2': has '-v', which separates package and "
                                          "version on the server")};
    QTest::newRow("empty version") << QString() << QStringList{S("--version '': is empty")};
}

void TestKxpublish::PromoteRefuses()
{
    QFETCH(QString, version);
    QFETCH(QStringList, expected);
    const auto publish = [this](const char* name, const char* number, const char* platform) {
        QStringList words = With(arguments, S("--name"), S(name));
        words = With(With(words, S("--version"), S(number)), S("--platform"), S(platform));
        QCOMPARE(RunPublish(words).status, 0);
    };
    publish("demo-app", "2", "x64");
    publish("other", "2", "x64");
    publish("demo-app", "3", "x64");
    publish("demo-app", "3", "x86");
    for (const char* number : {"4", "5"}) {
        publish("demo-app", number, "x64");
        publish("demo-app", number, "x86");
        publish("other", number, "x64");
    }
    const QString four = server + S("/packages/other-v4/windows/x64/index.xml");
    kxtest::Write(four, kxtest::Read(four).left(200));
    kxtest::Write(server + S("/packages/other-v5/windows/x64/index.xml"),
                  kxtest::Read(server + S("/packages/demo-app-v5/windows/x64/index.xml")));
    workshop->File(S("srv/packages/version.xml"), "<version>1</version>");

    const QStringList before = Snapshot(server);
    const PublishResult result = RunPublish(PromoteArguments(version, server));
    expected.replaceInStrings(S("%1"), server);
    expected << (expected.size() == 1 ? S("refused, 1 problem")
                                      : S("refused, %1 problems").arg(expected.size()));
    QCOMPARE(result.err, expected);
    QCOMPARE(result.out, QStringList());
    QCOMPARE(result.status, 1);
    QCOMPARE(Snapshot(server), before);

    const PublishResult nowhere = RunPublish(PromoteArguments(S("2"), workshop->Path(S("none"))));
    QCOMPARE(nowhere.status, 1);
    QCOMPARE(nowhere.err.at(0), S("--out '%1': not a server tree, it has no directory 'packages'")
                                    .arg(workshop->Path(S("none"))));
}

void TestKxpublish::PromoteTellsNamesFromVersions()
{
    QCOMPARE(RunPublish(With(arguments, S("--name"), S("map-viewer"))).status, 0);
    QCOMPARE(RunPublish(With(arguments, S("--name"), S("map-v2"))).status, 0);
    // Neither of these is a build.
    workshop->File(S("srv/packages/map/windows/x64/index.xml"), "x")
        .File(S("srv/packages/half-v9/windows/x64/files/app"), "x")
        .File(S("srv/packages/.old-v9/windows/x64/index.xml"), "x");
    QCOMPARE(RunPublish(PromoteArguments(S("2.4.1"), server)).status, 0);
    const PublishResult result = RunPublish(PromoteArguments(S("3"), server));
    QCOMPARE(result.err, QStringList({S("'map-v2': not published in version 3 for x64"),
                                      S("'map-viewer': not published in version 3 for x64"),
                                      S("refused, 2 problems")}));
}

void TestKxpublish::CommandLineIsChecked_data()
{
    QTest::addColumn<QStringList>("words");
    QTest::addColumn<QStringList>("expected");
    const QString top = S("see 'kxpublish --help'");
    const QString add = S("see 'kxpublish add --help'");
    const QString promote = S("see 'kxpublish promote --help'");
    const QStringList all = AddArguments(S("tree"), S("out"));
    QTest::newRow("nothing") << QStringList() << QStringList{S("no command is given"), top};
    QTest::newRow("unknown command")
        << QStringList{S("remove\n")} << QStringList{S("unknown command 'remove?'"), top};
    QTest::newRow("option before the command")
        << QStringList{S("--out"), S("x"), S("add")} << QStringList{S("--name is missing"), add};
    QTest::newRow("no tree") << QStringList(all.mid(0, 1) + all.mid(2))
                             << QStringList{S("TREE is missing"), add};
    QTest::newRow("two trees") << QStringList(all + QStringList{S("more")})
                               << QStringList{S("unexpected argument 'more'"), add};
    for (const char* option : {"--name", "--version", "--exec", "--base-url", "--out"}) {
        QStringList words = all;
        words.remove(words.indexOf(S(option)), 2);
        QTest::addRow("no %s", option) << words << QStringList{S(option) + S(" is missing"), add};
    }
    QTest::newRow("option twice") << QStringList(all + QStringList{S("--name"), S("b")})
                                  << QStringList{S("--name is given twice"), add};
    QTest::newRow("option without a value")
        << QStringList(all + QStringList{S("--platform")})
        << QStringList{S("Missing value after '--platform'"), add};
    QTest::newRow("unknown option") << QStringList(all + QStringList{S("--force")})
                                    << QStringList{S("Unknown option 'force'"), add};
    QTest::newRow("promote without a version") << QStringList{S("promote"), S("--out"), S("x")}
                                               << QStringList{S("--version is missing"), promote};
    QTest::newRow("promote with a tree")
        << QStringList{S("promote"), S("tree"), S("--out"), S("x"), S("--version"), S("1")}
        << QStringList{S("unexpected argument 'tree'"), promote};
}

void TestKxpublish::CommandLineIsChecked()
{
    QFETCH(QStringList, words);
    QFETCH(QStringList, expected);
    const PublishResult result = RunPublish(words);
    QCOMPARE(result.err, expected);
    QCOMPARE(result.out, QStringList());
    QCOMPARE(result.status, 2);
}

void TestKxpublish::HelpListsTheExitStatuses_data()
{
    QTest::addColumn<QStringList>("words");
    QTest::addColumn<QString>("usage");
    QTest::newRow("top") << QStringList{S("--help")} << S("Usage: kxpublish COMMAND [options]");
    QTest::newRow("add") << QStringList{S("add"), S("--help")}
                         << S("Usage: kxpublish add [options] TREE");
    QTest::newRow("promote") << QStringList{S("promote"), S("-h")}
                             << S("Usage: kxpublish promote [options]");
}

void TestKxpublish::HelpListsTheExitStatuses()
{
    QFETCH(QStringList, words);
    QFETCH(QString, usage);
    const PublishResult result = RunPublish(words);
    QCOMPARE(result.status, 0);
    QCOMPARE(result.err, QStringList());
    QCOMPARE(result.out.at(0), usage);
    QStringList statuses;
    const qsizetype title = result.out.indexOf(S("Exit statuses, with the word of the result:"));
    for (const QString& line : result.out.mid(title + 1))
        statuses.append(line.simplified().section(QLatin1Char(' '), 0, 1));
    QCOMPARE(statuses.mid(0, 5), QStringList({S("0 done"), S("1 refused"), S("2 usage"),
                                              S("3 failed"), S("4 interrupted")}));
}

void TestKxpublish::VersionIsPrinted()
{
    const PublishResult result = RunPublish({S("--version")});
    QCOMPARE(result.status, 0);
    QCOMPARE(result.out.size(), 1);
    QVERIFY(
        QRegularExpression(S("^kxpublish \\d+\\.\\d+\\.\\d+$")).match(result.out.at(0)).hasMatch());
}

QTEST_GUILESS_MAIN(TestKxpublish)
#include "tst_kxpublish.moc"
