#include "publishrun.h"
#include "treebuilder.h"

#include <QFileInfo>
#include <QRegularExpression>
#include <QTest>

#include <fcntl.h>
#include <functional>
#include <sys/stat.h>
#include <unistd.h>

using kxtest::AddArguments;
using kxtest::PublishResult;
using kxtest::RunPublish;
using kxtest::TreeBuilder;
using kxtest::With;

using BuildFunction = std::function<void(TreeBuilder&)>;
Q_DECLARE_METATYPE(BuildFunction)

namespace {

QString S(const char* text)
{
    return QString::fromUtf8(text);
}

void RawFile(const TreeBuilder& tree, const QByteArray& nativeName)
{
    const QByteArray path = tree.Root().toUtf8() + '/' + nativeName;
    const int descriptor = ::open(path.constData(), O_WRONLY | O_CREAT | O_EXCL, 0644);
    QVERIFY2(descriptor >= 0, path.constData());
    ::close(descriptor);
}

} // namespace

/**
 * What kxpublish refuses: one row each, with the whole of what it says. Nothing may change on the
 * server.
 */
class TestKxpublishRefusals : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void RefusesNames_data();
    void RefusesNames();
    void RefusesEntries_data();
    void RefusesEntries();
    void RefusesLinks_data();
    void RefusesLinks();
    void RefusesSettings_data();
    void RefusesSettings();
    void RefusesPlaces_data();
    void RefusesPlaces();
    void RefusesDirectoryThatCannotBeListed();
    void RefusesDirectoryThatCannotBeEntered();
    void RefusesPathThatIsTooLongOnTheServer();
    void RefusesBuildThatIsPublishedAlready();
    void RefusesPlaceThatIsTaken();
    void ListsAllProblemsAtOnce();
    void StopsListingAfterAHundredProblems();

private:
    void Check(const TreeBuilder& tree, const QStringList& arguments, QStringList expected);
    static void AddRow(const char* name, const BuildFunction& build, const QStringList& expected);
    void RunRow();

    std::unique_ptr<TreeBuilder> workshop; // the server tree is "srv" in it
};

void TestKxpublishRefusals::init()
{
    QTest::failOnWarning(
        QRegularExpression(S("no such (signal|slot)"), QRegularExpression::CaseInsensitiveOption));
    workshop = std::make_unique<TreeBuilder>();
}

void TestKxpublishRefusals::Check(const TreeBuilder& tree, const QStringList& arguments,
                                  QStringList expected)
{
    expected << (expected.size() == 1 ? S("refused, 1 problem")
                                      : S("refused, %1 problems").arg(expected.size()));
    expected.replaceInStrings(S("{tree}"), tree.Root());
    expected.replaceInStrings(S("{name}"), QFileInfo(tree.Root()).fileName());
    expected.replaceInStrings(S("{work}"), workshop->Root());
    const QStringList before = kxtest::Snapshot(workshop->Root());
    const PublishResult result = RunPublish(arguments);
    QCOMPARE(result.err, expected);
    QCOMPARE(result.out, QStringList());
    QCOMPARE(result.status, 1);
    QCOMPARE(kxtest::Snapshot(workshop->Root()), before);
}

void TestKxpublishRefusals::AddRow(const char* name, const BuildFunction& build,
                                   const QStringList& expected)
{
    QTest::newRow(name) << build << expected;
}

void TestKxpublishRefusals::RunRow()
{
    QFETCH(BuildFunction, build);
    QFETCH(QStringList, expected);
    TreeBuilder tree;
    tree.File(S("app"), "program", 0755);
    build(tree);
    Check(tree, AddArguments(tree.Root(), workshop->Path(S("srv"))), expected);
    kxtest::Remove(tree.Root()); // QTemporaryDir cannot remove names that are not UTF-8
}

void TestKxpublishRefusals::RefusesNames_data()
{
    QTest::addColumn<BuildFunction>("build");
    QTest::addColumn<QStringList>("expected");

    const auto file = [](const char* row, const QString& name, const QString& expected) {
        AddRow(row, [name](TreeBuilder& tree) { tree.File(name, "x"); }, {expected});
    };
    const QString hidden =
        S("': hidden; clients skip hidden entries. Leave it out with --exclude or in "
          ".kxpublishignore");
    file("hidden file", S(".rc"), S("'.rc") + hidden);
    file("hidden file in a directory", S("lib/.rc"), S("'lib/.rc") + hidden);
    file("hidden directory", S(".git/config"), S("'.git") + hidden);
    AddRow("empty hidden directory", [](TreeBuilder& tree) { tree.Dir(S(".cache")); },
           {S("'.cache") + hidden});
    AddRow("hidden link", [](TreeBuilder& tree) { tree.Symlink(S(".run"), S("app")); },
           {S("'.run") + hidden});

    file("number sign", S("a#b"), S("'a#b': the name has '#', which does not survive in a URL"));
    file("question mark", S("a?"), S("'a?': the name has '?', which does not survive in a URL"));
    file("percent sign", S("a%41"), S("'a%41': the name has '%', which does not survive in a URL"));
    file("number sign in a directory's name is said once", S("a#b/c"),
         S("'a#b': the name has '#', which does not survive in a URL"));
    file("backslash", S("a\\b"), S("'a\\b': the name has a backslash"));
    file("newline", S("a\nb"), S("'a\\x0ab': the name has a control character"));
    file("tab", S("a\tb"), S("'a\\x09b': the name has a control character"));
    file("escape", S("a\x1b[2J"), S("'a\\x1b[2J': the name has a control character"));
    file("delete", S("a\x7f"), S("'a\\x7f': the name has a control character"));
    file("control character beyond ASCII", S("a\u0085b"),
         S("'a\\x85b': the name has a control character"));
    file("drive letter", S("c:x"), S("'c:x': the name begins with a drive letter"));
    file("blank at the beginning", S(" a"), S("' a': the name begins with a blank"));
    file("blank at the end", S("a "), S("'a ': the name ends with a blank"));
    file("blank at the end of a directory's name", S("a /b"),
         S("'a ': the name ends with a blank"));
    file("no-break space at the end", S("a\u00a0"), S("'a\u00a0': the name ends with a blank"));
    file("character that XML lacks", S("a\uffff"),
         S("'a\\xffff': the name has a character that XML cannot carry"));
    file("character that Qt's URLs do not encode", S("a\ufdd0"),
         S("'a\\xfdd0': the name does not survive in a URL"));
    const QString notUtf8 = S("': the name is not UTF-8 without a byte order mark");
    AddRow("bytes that are not UTF-8", [](TreeBuilder& tree) { RawFile(tree, "a\xff"); },
           {S("'a\\xff") + notUtf8});
    AddRow("surrogate in UTF-8", [](TreeBuilder& tree) { RawFile(tree, "\xed\xa0\x80"); },
           {S("'\\xed\\xa0\\x80") + notUtf8});
    AddRow("byte order mark",
           [](TreeBuilder& tree) {
               RawFile(tree, "\xef\xbb\xbf"
                             "a");
           },
           {S("'\\xfeffa") + notUtf8});

    const auto pair = [](const char* row, const QString& one, const QString& two,
                         const QString& expected) {
        AddRow(row, [one, two](TreeBuilder& tree) { tree.File(one, "1").File(two, "2"); },
               {expected});
    };
    pair("only case differs", S("Read"), S("read"), S("'read': differs from 'Read' only in case"));
    pair("only the case of a directory differs", S("Lib/a"), S("lib/b"),
         S("'lib': differs from 'Lib' only in case"));
    pair("only case beyond ASCII differs", S("\u00c9t\u00e9"), S("\u00e9t\u00e9"),
         S("'\u00e9t\u00e9': differs from '\u00c9t\u00e9' only in case"));
    pair("only the case of a sharp s differs", S("STRASSE"), S("stra\u00dfe"),
         S("'stra\u00dfe': differs from 'STRASSE' only in case"));
    pair("only normalisation differs", S("caf\u00e9"), S("cafe\u0301"),
         S("'caf\u00e9': differs from 'cafe\u0301' only in Unicode normalisation"));
    pair("case and normalisation differ", S("CAFE\u0301"), S("caf\u00e9"),
         S("'caf\u00e9': differs from 'CAFE\u0301' only in case"));
    AddRow("a file and a link whose names differ in case",
           [](TreeBuilder& tree) { tree.Symlink(S("App"), S("app")); },
           {S("'app': differs from 'App' only in case")});
}

void TestKxpublishRefusals::RefusesNames()
{
    RunRow();
}

void TestKxpublishRefusals::RefusesEntries_data()
{
    QTest::addColumn<BuildFunction>("build");
    QTest::addColumn<QStringList>("expected");

    AddRow("FIFO",
           [](TreeBuilder& tree) { ::mkfifo(tree.Path(S("pipe")).toUtf8().constData(), 0644); },
           {S("'pipe': neither file, link nor directory")});
    AddRow("file that its owner may not read",
           [](TreeBuilder& tree) { tree.File(S("key"), "x", 0044); },
           {S("'key': its owner may not read it")});
    AddRow("program missing", [](TreeBuilder& tree) { tree.Remove(S("app")).File(S("b"), "x"); },
           {S("--exec 'app': not a file of the tree")});
    AddRow("program is a link",
           [](TreeBuilder& tree) {
               tree.Remove(S("app")).File(S("b"), "x").Symlink(S("app"), S("b"));
           },
           {S("--exec 'app': a link, not a regular file")});
    AddRow("program is a directory",
           [](TreeBuilder& tree) { tree.Remove(S("app")).File(S("app/b"), "x"); },
           {S("--exec 'app': a directory, not a regular file")});
    AddRow("empty tree", [](TreeBuilder& tree) { tree.Remove(S("app")); },
           {S("'{tree}': the tree has no file and no link"),
            S("--exec 'app': not a file of the tree")});
}

void TestKxpublishRefusals::RefusesEntries()
{
    RunRow();
}

void TestKxpublishRefusals::RefusesLinks_data()
{
    QTest::addColumn<BuildFunction>("build");
    QTest::addColumn<QStringList>("expected");

    const auto link = [](const char* row, const QString& name, const QString& target,
                         const QString& expected) {
        AddRow(row,
               [name, target](TreeBuilder& tree) {
                   tree.File(S("lib/deep/x"), "x").Symlink(name, target);
               },
               {S("'%1': the target '%2' of the link %3").arg(name, target, expected)});
    };
    link("absolute", S("l"), S("/etc/passwd"), S("is absolute"));
    link("one level out", S("l"), S("../x"), S("leads out of the tree"));
    link("out from a directory", S("lib/l"), S("../../x"), S("leads out of the tree"));
    link("parent of the root", S("l"), S(".."), S("leads out of the tree"));
    link("out in the middle", S("l"), S("lib/../../x"), S("leads out of the tree"));
    link("dot in front", S("l"), S("./app"), S("is not in the form that clients verify, 'app'"));
    link("parent without a slash", S("lib/deep/l"), S(".."),
         S("is not in the form that clients verify, '../'"));
    link("detour", S("l"), S("lib/../app"), S("is not in the form that clients verify, 'app'"));
    link("detour over the parent", S("lib/l"), S("../lib/deep"),
         S("is not in the form that clients verify, 'deep'"));
    link("separator at the end", S("l"), S("lib/"),
         S("is not in the form that clients verify, 'lib'"));
    link("double separator", S("l"), S("lib//deep"),
         S("is not in the form that clients verify, 'lib/deep'"));

    AddRow("out, and in again by the name of the tree",
           [](TreeBuilder& tree) {
               tree.Symlink(S("l"), S("../%1/app").arg(QFileInfo(tree.Root()).fileName()));
           },
           {S("'l': the target '../{name}/app' of the link leads out of the tree")});
    AddRow(
        "out through another link",
        [](TreeBuilder& tree) {
            tree.File(S("lib/x"), "x").Symlink(S("to"), S("lib")).Symlink(S("l"), S("to/../../x"));
        },
        {S("'l': the target 'to/../../x' of the link leads out of the tree")});
    AddRow("out through a chain of which one link is absolute",
           [](TreeBuilder& tree) { tree.Symlink(S("to"), S("/etc")).Symlink(S("l"), S("to/x")); },
           {S("'l': the target 'to/x' of the link leads out of the tree"),
            S("'to': the target '/etc' of the link is absolute")});
    AddRow("newline", [](TreeBuilder& tree) { tree.Symlink(S("l"), S("a\nb")); },
           {S("'l': the target of the link has a control character")});
    AddRow("backslash", [](TreeBuilder& tree) { tree.Symlink(S("l"), S("a\\b")); },
           {S("'l': the target of the link has a backslash")});
    AddRow("character that XML lacks",
           [](TreeBuilder& tree) { tree.Symlink(S("l"), S("a\uffff")); },
           {S("'l': the target of the link has a character that XML cannot carry")});
    AddRow("bytes that are not UTF-8",
           [](TreeBuilder& tree) {
               QCOMPARE(::symlink("a\xff", tree.Path(S("l")).toUtf8().constData()), 0);
           },
           {S("'l': the target of the link is not UTF-8 without a byte order mark")});
}

void TestKxpublishRefusals::RefusesLinks()
{
    RunRow();
}

void TestKxpublishRefusals::RefusesSettings_data()
{
    QTest::addColumn<QString>("option");
    QTest::addColumn<QString>("value");
    QTest::addColumn<QString>("reason");

    const auto row = [](const char* name, const char* option, const QString& value,
                        const char* reason) {
        QTest::newRow(name) << S(option) << value << S(reason);
    };
    const char* letters = "may only have letters of ASCII, digits and ._+~-";
    row("empty name", "--name", QString(), "is empty");
    row("name with a separator", "--name", S("a/b"), letters);
    row("name with a blank", "--name", S("a b"), letters);
    row("name beyond ASCII", "--name", S("d\u00e9mo"), letters);
    row("name with a newline at the end", "--name", S("demo\n"), letters);
    row("name that leads up", "--name", S(".."), "begins with '.'");
    row("name that looks like an option", "--name", S("-a"), "begins with '-'");
    row("long name", "--name", QString(101, QLatin1Char('a')), "is longer than 100 characters");
    row("empty version", "--version", QString(), "is empty");
    row("version with a blank in front", "--version", S(" 1"), letters);
    row("version with a newline at the end", "--version", S("1\n"), letters);
    row("version with a separator", "--version", S("1/2"), letters);
    row("version with markup", "--version", S("1&amp;2"), letters);
    row("hidden version", "--version", S(".1"), "begins with '.'");
    row("version with a dot at the end", "--version", S("1."), "ends with '.'");
    row("version that could be part of the name", "--version", S("1-v2"),
        "has '-v', which separates package and version on the server");
    row("unknown platform", "--platform", S("arm64"), "is neither 'x64' nor 'x86'");
    row("empty platform", "--platform", QString(), "is neither 'x64' nor 'x86'");
    row("empty address", "--base-url", QString(), "is not a valid URL");
    row("address without a scheme", "--base-url", S("h/x"),
        "does not begin with http:// or https://");
    row("address of host and port alone", "--base-url", S("127.0.0.1:80"),
        "does not begin with http:// or https://");
    row("address of another scheme", "--base-url", S("ftp://h/x"),
        "does not begin with http:// or https://");
    row("local address", "--base-url", S("file:///srv"), "does not begin with http:// or https://");
    row("address without a host", "--base-url", S("http:x"), "has no host");
    row("address with a query", "--base-url", S("http://h/x?a=b"), "has a query");
    row("address with an empty query", "--base-url", S("http://h/x?"), "has a query");
    row("address with a fragment", "--base-url", S("http://h/x#a"), "has a fragment");
    row("address with credentials", "--base-url", S("http://u:p@h/x"),
        "has credentials, which every client would see");
    row("address with a blank", "--base-url", S("http://h/a b"), "is not a valid URL");
    row("address with a bad port", "--base-url", S("http://h:99999/x"), "is not a valid URL");
    row("address with a character that Qt's URLs do not encode", "--base-url", S("http://h/\ufdd0"),
        "is not read the same by every client");
    row("program outside the tree", "--exec", S("../app"), "not a file of the tree");
    row("program with an absolute path", "--exec", S("/bin/sh"), "not a file of the tree");
    row("program by another spelling", "--exec", S("./app"), "not a file of the tree");
    row("empty program", "--exec", QString(), "not a file of the tree");
}

void TestKxpublishRefusals::RefusesSettings()
{
    QFETCH(QString, option);
    QFETCH(QString, value);
    QFETCH(QString, reason);
    TreeBuilder tree;
    tree.File(S("app"), "program", 0755);
    QString shown = value;
    shown.replace(QLatin1Char('\n'), S("\\x0a")).replace(QChar(0xfdd0), S("\\xfdd0"));
    Check(tree, With(AddArguments(tree.Root(), workshop->Path(S("srv"))), option, value),
          {S("%1 '%2': %3").arg(option, shown, reason)});
}

void TestKxpublishRefusals::RefusesPlaces_data()
{
    QTest::addColumn<QString>("tree");
    QTest::addColumn<QString>("out");
    QTest::addColumn<QStringList>("expected");

    const QString noExec = S("--exec 'app': not a file of the tree");
    QTest::newRow("tree missing") << S("nowhere") << S("srv")
                                  << QStringList{S("'{work}/nowhere': no such directory")};
    QTest::newRow("tree is a file")
        << S("tree/app") << S("srv") << QStringList{S("'{work}/tree/app': not a directory")};
    QTest::newRow("server tree is a file")
        << S("tree") << S("file") << QStringList{S("--out '{work}/file': not a directory")};
    QTest::newRow("server tree in the tree")
        << S("tree") << S("tree/srv/x")
        << QStringList{S("--out '{work}/tree/srv/x': lies inside the tree to publish")};
    QTest::newRow("tree in the server tree")
        << S("tree") << QString()
        << QStringList{S("--out '{work}': the tree to publish lies inside")};
    QTest::newRow("both the same")
        << S("tree") << S("tree")
        << QStringList{S("--out '{work}/tree': the tree to publish lies inside")};
    QTest::newRow("server tree in the tree, through a link")
        << S("tree") << S("link/srv")
        << QStringList{S("--out '{work}/tree/srv': lies inside the tree to publish")};
    QTest::newRow("tree in the server tree, through a link")
        << S("link") << S("tree")
        << QStringList{S("--out '{work}/tree': the tree to publish lies inside")};
}

void TestKxpublishRefusals::RefusesPlaces()
{
    QFETCH(QString, tree);
    QFETCH(QString, out);
    QFETCH(QStringList, expected);
    workshop->File(S("tree/app"), "x", 0755).File(S("file"), "x").Symlink(S("link"), S("tree"));
    Check(*workshop, AddArguments(workshop->Path(tree), workshop->Path(out)), expected);
}

void TestKxpublishRefusals::RefusesDirectoryThatCannotBeListed()
{
    TreeBuilder tree;
    tree.File(S("app"), "x", 0755).Dir(S("secret"), 0300);
    const PublishResult result =
        RunPublish(AddArguments(tree.Root(), workshop->Path(S("srv"))), kxtest::DropFileRights);
    QCOMPARE(result.err, QStringList({S("'secret': the directory cannot be listed: Permission "
                                        "denied"),
                                      S("refused, 1 problem")}));
    QCOMPARE(result.status, 1);
}

void TestKxpublishRefusals::RefusesDirectoryThatCannotBeEntered()
{
    TreeBuilder tree;
    tree.File(S("app"), "x", 0755).File(S("lib/a"), "x");
    kxtest::SetMode(tree.Path(S("lib")), 0400);
    const PublishResult result =
        RunPublish(AddArguments(tree.Root(), workshop->Path(S("srv"))), kxtest::DropFileRights);
    kxtest::SetMode(tree.Path(S("lib")), 0755);
    QCOMPARE(result.err, QStringList({S("'lib': the directory cannot be listed: Permission denied"),
                                      S("refused, 1 problem")}));
    QCOMPARE(result.status, 1);
}

void TestKxpublishRefusals::RefusesPathThatIsTooLongOnTheServer()
{
    QString name;
    for (int i = 0; i < 15; ++i)
        name += QString(199, QLatin1Char('d')) + QLatin1Char('/');
    name += S("file");
    TreeBuilder tree;
    tree.File(S("app"), "x", 0755).File(name, "x");
    // The directories above the file just fit: with a slash, the system takes 4095 bytes.
    const QString inside = S("/packages/demo-app-v2.4.1/windows/x64/files");
    QString out = workshop->Root();
    const auto left = [&] { return 4095 - name.size() + 4 - inside.size() - out.size() - 1; };
    while (left() > 200)
        out += QLatin1Char('/') + QString(99, QLatin1Char('s'));
    out += QLatin1Char('/') + QString(left(), QLatin1Char('s'));
    Check(tree, AddArguments(tree.Root(), out),
          {S("'%1': the path is too long below '%2' on the server").arg(name, out + inside)});
}

void TestKxpublishRefusals::RefusesBuildThatIsPublishedAlready()
{
    TreeBuilder tree;
    tree.File(S("app"), "program", 0755);
    const QStringList arguments = AddArguments(tree.Root(), workshop->Path(S("srv")));
    QCOMPARE(RunPublish(arguments).status, 0);
    tree.File(S("app"), "another program", 0755);
    Check(tree, arguments,
          {S("'{work}/srv/packages/demo-app-v2.4.1/windows/x64': published already, and never "
             "overwritten; a changed tree needs a version of its own")});
}

void TestKxpublishRefusals::RefusesPlaceThatIsTaken()
{
    TreeBuilder tree;
    tree.File(S("app"), "program", 0755);
    workshop->Symlink(S("srv/packages/demo-app-v2.4.1/windows/x64"), S("nowhere"));
    Check(tree, AddArguments(tree.Root(), workshop->Path(S("srv"))),
          {S("'{work}/srv/packages/demo-app-v2.4.1/windows/x64': in the way, and not a published "
             "build")});
}

void TestKxpublishRefusals::ListsAllProblemsAtOnce()
{
    TreeBuilder tree;
    tree.File(S(".rc"), "x").File(S("a#b"), "x").File(S("lib/c?"), "x").Symlink(S("l"), S("/"));
    const QStringList arguments = AddArguments(tree.Root(), workshop->Path(S("srv")));
    Check(tree, With(With(arguments, S("--version"), QString()), S("--platform"), S("arm")),
          {S("--version '': is empty"), S("--platform 'arm': is neither 'x64' nor 'x86'"),
           S("'.rc': hidden; clients skip hidden entries. Leave it out with --exclude or in "
             ".kxpublishignore"),
           S("'a#b': the name has '#', which does not survive in a URL"),
           S("'lib/c?': the name has '?', which does not survive in a URL"),
           S("'l': the target '/' of the link is absolute"),
           S("--exec 'app': not a file of the tree")});
}

void TestKxpublishRefusals::StopsListingAfterAHundredProblems()
{
    TreeBuilder tree;
    tree.File(S("app"), "x", 0755);
    for (int i = 0; i < 130; ++i)
        tree.File(S(".%1").arg(i, 3, 10, QLatin1Char('0')), "x");
    const PublishResult result = RunPublish(AddArguments(tree.Root(), workshop->Path(S("srv"))));
    QCOMPARE(result.status, 1);
    QCOMPARE(result.err.size(), 102);
    QCOMPARE(result.err.at(99),
             S("'.099': hidden; clients skip hidden entries. Leave it out with --exclude or in "
               ".kxpublishignore"));
    QCOMPARE(result.err.at(100), S("... and 30 more"));
    QCOMPARE(result.err.at(101), S("refused, 130 problems"));
}

QTEST_GUILESS_MAIN(TestKxpublishRefusals)
#include "tst_kxpublish_refusals.moc"
