#include "publishrun.h"
#include "treebuilder.h"

#include <QFile>
#include <QRegularExpression>
#include <QTest>

#include <cstdlib>
#include <fcntl.h>
#include <functional>
#include <sys/stat.h>
#include <unistd.h>

using kxtest::AddArguments;
using kxtest::PublishResult;
using kxtest::RunPublish;
using kxtest::Snapshot;
using kxtest::TreeBuilder;
using kxtest::With;

using BuildFunction = std::function<void(TreeBuilder&)>;
Q_DECLARE_METATYPE(BuildFunction)

namespace {

QString S(const char* text)
{
    return QString::fromUtf8(text);
}

} // namespace

/** What is left out, tried and added by the options of "add". */
class TestKxpublishOptions : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void LeftOutIsNotPublished_data();
    void LeftOutIsNotPublished();
    void LeftOutMayBeAnything();
    void LeavingOutIsRefused_data();
    void LeavingOutIsRefused();
    void DoubtfulRulesAreWarnedOf();
    void DryRunWritesNothing();
    void DryRunNamesWhatIsLeftOut();
    void DryRunRefusesWhatARunRefuses();
    void NotesStandBesideTheManifest();
    void NotesAreRefused_data();
    void NotesAreRefused();
    void OptionsAreChecked_data();
    void OptionsAreChecked();
    void ProgressIsDrawnOnATerminalOnly();

private:
    QStringList PublishedNames() const;

    std::unique_ptr<TreeBuilder> tree;
    std::unique_ptr<TreeBuilder> workshop;
    QString server;
    QStringList arguments;
};

void TestKxpublishOptions::init()
{
    QTest::failOnWarning(
        QRegularExpression(S("no such (signal|slot)"), QRegularExpression::CaseInsensitiveOption));
    tree = std::make_unique<TreeBuilder>();
    tree->File(S("app"), "program", 0755);
    workshop = std::make_unique<TreeBuilder>();
    server = workshop->Path(S("srv"));
    arguments = AddArguments(tree->Root(), server);
}

QStringList TestKxpublishOptions::PublishedNames() const
{
    QStringList names;
    for (const QString& line :
         Snapshot(server + S("/packages/demo-app-v2.4.1/windows/x64/files"))) {
        if (line.contains(S(" file ")))
            names << line.section(S(" file "), 0, 0);
    }
    return names;
}

void TestKxpublishOptions::LeftOutIsNotPublished_data()
{
    QTest::addColumn<QByteArray>("rootRules");
    QTest::addColumn<QByteArray>("libRules");
    QTest::addColumn<QStringList>("options");
    QTest::addColumn<QStringList>("published");

    const auto row = [](const char* name, const QByteArray& root, const QByteArray& lib,
                        const QStringList& options, const QStringList& published) {
        QTest::newRow(name) << root << lib << options << published;
    };
    const QStringList all = {S("app"),      S("app.debug"),      S("doc/a.txt"), S("doc/b.txt"),
                             S("lib/a.so"), S("lib/a.so.debug"), S("lib/t/x"),   S("zed/x.debug")};
    row("nothing", "", "", {}, all);
    row("by an option", "", "", {S("*.debug")},
        {S("app"), S("doc/a.txt"), S("doc/b.txt"), S("lib/a.so"), S("lib/t/x")});
    row("by several options", "", "", {S("*.debug"), S("doc"), S("/lib/t/")},
        {S("app"), S("lib/a.so")});
    row("by the file of the root", "# symbols\n*.debug\n/doc/*\n!b.txt\n", "", {},
        {S("app"), S("doc/b.txt"), S("lib/a.so"), S("lib/t/x")});
    row("by the file of a directory", "", "/t\n*.debug\n", {},
        {S("app"), S("app.debug"), S("doc/a.txt"), S("doc/b.txt"), S("lib/a.so"),
         S("zed/x.debug")});
    row("option behind the file of the root", "*.debug\n", "", {S("!app.debug")},
        {S("app"), S("app.debug"), S("doc/a.txt"), S("doc/b.txt"), S("lib/a.so"), S("lib/t/x")});
    row("file of a directory behind the options", "", "!*.debug\n", {S("*.debug")},
        {S("app"), S("doc/a.txt"), S("doc/b.txt"), S("lib/a.so"), S("lib/a.so.debug"),
         S("lib/t/x")});
}

void TestKxpublishOptions::LeftOutIsNotPublished()
{
    QFETCH(QByteArray, rootRules);
    QFETCH(QByteArray, libRules);
    QFETCH(QStringList, options);
    QFETCH(QStringList, published);
    for (const char* name : {"app.debug", "doc/a.txt", "doc/b.txt", "lib/a.so", "lib/a.so.debug",
                             "lib/t/x", "zed/x.debug"})
        tree->File(S(name), name);
    tree->File(S(".kxpublishignore"), rootRules).File(S("lib/.kxpublishignore"), libRules);
    QStringList words = arguments;
    for (const QString& option : options)
        words << S("--exclude") << option;
    const PublishResult result = RunPublish(words);
    QCOMPARE(result.status, 0);
    QCOMPARE(PublishedNames(), published);
    const QByteArray index =
        kxtest::Read(server + S("/packages/demo-app-v2.4.1/windows/x64/index.xml"));
    QCOMPARE(index.count("<file "), published.size());
}

// What is left out need not be publishable, nor readable.
void TestKxpublishOptions::LeftOutMayBeAnything()
{
    tree->File(S(".git/config"), "x")
        .File(S(".rc"), "x")
        .File(S("out/a#b"), "x")
        .File(S("out/APP"), "x")
        .File(S("out/app"), "x")
        .File(S("key"), "x", 0000)
        .Symlink(S("home"), S("/home"))
        .Dir(S("closed"), 0000);
    ::mkfifo(tree->Path(S("pipe")).toUtf8().constData(), 0644);
    const int bytes = ::open((tree->Path(S("x")).toUtf8() + '\xff').constData(),
                             O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    ::close(bytes);
    tree->File(S(".kxpublishignore"), ".*\n/out\nkey\nhome\npipe\nclosed/\nx*\n");
    const PublishResult result = RunPublish(arguments, kxtest::DropFileRights);
    kxtest::SetMode(tree->Path(S("closed")), 0755);
    kxtest::Remove(tree->Root()); // QTemporaryDir cannot remove names that are not UTF-8
    QCOMPARE(result.err, QStringList({S("published demo-app 2.4.1 for x64: 1 files, 0 links, 7 "
                                        "bytes; 8 entries left out; clients are offered it after "
                                        "'promote'")}));
    QCOMPARE(result.status, 0);
    QCOMPARE(PublishedNames(), QStringList({S("app")}));
}

void TestKxpublishOptions::LeavingOutIsRefused_data()
{
    QTest::addColumn<BuildFunction>("build");
    QTest::addColumn<QStringList>("options");
    QTest::addColumn<QString>("expected");

    const auto row = [](const char* name, const QString& option, const BuildFunction& build,
                        const QString& expected) {
        QTest::newRow(name) << build
                            << (option.isEmpty() ? QStringList()
                                                 : QStringList({S("--exclude"), option}))
                            << expected;
    };
    const BuildFunction none = [](TreeBuilder& tree) { tree.File(S("data"), "x"); };
    row("the program", S("app"), none, S("--exec 'app': left out by --exclude 'app'"));
    row(
        "the target of a link", S("data"),
        [](TreeBuilder& tree) { tree.File(S("data"), "x").Symlink(S("link"), S("data")); },
        S("'link': the target 'data' of the link is left out by --exclude 'data'"));
    row(
        "the directory of a link's target", QString(),
        [](TreeBuilder& tree) {
            tree.File(S("lib/deep/x"), "x")
                .Symlink(S("link"), S("lib/deep/x"))
                .File(S(".kxpublishignore"), "#\nlib/\n");
        },
        S("'link': the target 'lib/deep/x' of the link is left out by 'lib/', line 2 of "
          "'.kxpublishignore'"));
    row(
        "the target of a link over another link", S("data"),
        [](TreeBuilder& tree) {
            tree.File(S("lib/data"), "x")
                .Symlink(S("to"), S("lib"))
                .Symlink(S("link"), S("to/data"));
        },
        S("'link': the target 'to/data' of the link is left out by --exclude 'data'"));
    row("an empty pattern", S(" "), none, S("--exclude ' ': is empty"));
    row("a comment", S("#x"), none,
        S("--exclude '#x': is a comment; a name that begins with '#' is written '\\#'"));
    row("a pattern that cannot match", S("[a"), none, S("--exclude '[a': can match no name"));
    row(
        "rules that are a link", QString(),
        [](TreeBuilder& tree) { tree.Symlink(S(".kxpublishignore"), S("app")); },
        S("'.kxpublishignore': cannot be read: Too many levels of symbolic links"));
    row(
        "rules that are a directory", QString(),
        [](TreeBuilder& tree) { tree.Dir(S(".kxpublishignore")); },
        S("'.kxpublishignore': cannot be read: not a regular file"));
    row(
        "rules that are no text", QString(),
        [](TreeBuilder& tree) { tree.File(S(".kxpublishignore"), QByteArray("a\0b", 3)); },
        S("'.kxpublishignore': is not a text"));
    row(
        "rules without an end", QString(),
        [](TreeBuilder& tree) { tree.Sparse(S(".kxpublishignore"), 1048577); },
        S("'.kxpublishignore': is longer than 1048576 bytes"));
}

void TestKxpublishOptions::LeavingOutIsRefused()
{
    QFETCH(BuildFunction, build);
    QFETCH(QStringList, options);
    QFETCH(QString, expected);
    build(*tree);
    const PublishResult result = RunPublish(arguments + options);
    QVERIFY2(result.err.contains(expected), qPrintable(result.err.join(QLatin1Char('\n'))));
    QCOMPARE(result.status, 1);
    QCOMPARE(Snapshot(server), QStringList({S("(missing)")}));
}

void TestKxpublishOptions::DoubtfulRulesAreWarnedOf()
{
    tree->File(S("lib/.kxpublishignore"), "a\n[b\n").File(S("lib/x"), "x").File(S("a.debug"), "x");
    const PublishResult result = RunPublish(
        arguments + QStringList{S("--exclude"), S("*.debug"), S("--exclude"), S("*.degub")});
    QCOMPARE(result.status, 0);
    QCOMPARE(result.err.mid(0, 2),
             QStringList({S("warning: 'lib/.kxpublishignore': line 2, '[b': can match no name"),
                          S("warning: --exclude '*.degub': matches nothing that another rule does "
                            "not decide on")}));
}

void TestKxpublishOptions::DryRunWritesNothing()
{
    tree->File(S("lib/core"), "core").Symlink(S("lib/link"), S("core"));
    workshop->Dir(S("closed"), 0555);
    arguments = With(arguments, S("--out"), workshop->Path(S("closed/srv")));
    workshop->File(S("notes"), "new\n");
    arguments << S("--notes") << workshop->Path(S("notes"));
    const QStringList before = Snapshot(workshop->Root());
    const PublishResult dry =
        RunPublish(arguments + QStringList{S("--dry-run")}, kxtest::DropFileRights);
    QCOMPARE(dry.err, QStringList({S("would publish demo-app 2.4.1 for x64: 2 files, 1 links, 11 "
                                     "bytes; nothing is written")}));
    QCOMPARE(dry.status, 0);
    QCOMPARE(Snapshot(workshop->Root()), before);
    kxtest::SetMode(workshop->Path(S("closed")), 0755);
    QCOMPARE(RunPublish(arguments).out, dry.out);
}

void TestKxpublishOptions::DryRunNamesWhatIsLeftOut()
{
    tree->File(S("doc/a"), "x").File(S(".git/config"), "x").File(S(".kxpublishignore"), "\n.git\n");
    const PublishResult dry =
        RunPublish(arguments + QStringList{S("--dry-run"), S("--exclude"), S("/doc/")});
    QCOMPARE(dry.err.mid(0, 2),
             QStringList({S("left out: '.git', by '.git', line 2 of '.kxpublishignore'"),
                          S("left out: 'doc', by --exclude '/doc/'")}));
    QCOMPARE(dry.out.constLast(), S("left-out: 2"));
    QCOMPARE(Snapshot(server), QStringList({S("(missing)")}));
}

void TestKxpublishOptions::DryRunRefusesWhatARunRefuses()
{
    tree->File(S(".rc"), "x");
    const PublishResult dry = RunPublish(arguments + QStringList{S("--dry-run")});
    QCOMPARE(dry.err, RunPublish(arguments).err);
    QCOMPARE(dry.status, 1);
    tree->Remove(S(".rc"));
    QCOMPARE(RunPublish(arguments).status, 0);
    QCOMPARE(RunPublish(arguments + QStringList{S("--dry-run")}).status, 1);
}

void TestKxpublishOptions::NotesStandBesideTheManifest()
{
    const QByteArray text = "# 2.4.1\r\n\n\t* f\xc3\xbcr alle\n";
    workshop->File(S("notes"), "\xef\xbb\xbf" + text, 0600);
    QCOMPARE(RunPublish(arguments + QStringList{S("--notes"), workshop->Path(S("notes"))}).status,
             0);
    const QString notes = server + S("/packages/demo-app-v2.4.1/windows/x64/notes.md");
    QCOMPARE(kxtest::Read(notes), text);
    QCOMPARE(kxtest::Mode(notes), 0644);
    QCOMPARE(PublishedNames(), QStringList({S("app")}));
}

void TestKxpublishOptions::NotesAreRefused_data()
{
    QTest::addColumn<BuildFunction>("build");
    QTest::addColumn<QString>("reason");
    const auto text = [](const char* name, const QByteArray& bytes, const char* reason) {
        QTest::newRow(name) << BuildFunction([bytes](TreeBuilder& place) {
            place.File(S("notes"), bytes);
        }) << S(reason);
    };
    text("empty", "", "is empty");
    text("blank", " \n\n", "is empty");
    text("not UTF-8", "a\xff", "is not UTF-8");
    text("UTF-8 that is cut off", "a\xc3", "is not UTF-8");
    text("escape sequence", "a\nb\x1b[2J", "has a control character in line 2");
    text("control character beyond ASCII", "a\xc2\x9b", "has a control character in line 1");
    text("carriage return in a line", "a\rb\n", "has a control character in line 1");
    text("carriage return at the end", "a\r", "has a control character in line 1");
    QTest::newRow("too long") << BuildFunction([](TreeBuilder& place) {
        place.File(S("notes"), QByteArray(1048577, 'x'));
    }) << S("is longer than 1048576 bytes");
    QTest::newRow("missing") << BuildFunction([](TreeBuilder&) {})
                             << S("cannot be read: No such file or directory");
    QTest::newRow("link") << BuildFunction([](TreeBuilder& place) {
        place.File(S("real"), "x").Symlink(S("notes"), S("real"));
    }) << S("cannot be read: Too many levels of symbolic links");
    QTest::newRow("directory") << BuildFunction([](TreeBuilder& place) { place.Dir(S("notes")); })
                               << S("cannot be read: not a regular file");
}

void TestKxpublishOptions::NotesAreRefused()
{
    QFETCH(BuildFunction, build);
    QFETCH(QString, reason);
    build(*workshop);
    const QString path = workshop->Path(S("notes"));
    const PublishResult result = RunPublish(arguments + QStringList{S("--notes"), path});
    QCOMPARE(result.err,
             QStringList({S("--notes '%1': %2").arg(path, reason), S("refused, 1 problem")}));
    QCOMPARE(result.status, 1);
    QCOMPARE(Snapshot(server), QStringList({S("(missing)")}));
}

void TestKxpublishOptions::OptionsAreChecked_data()
{
    QTest::addColumn<QStringList>("options");
    QTest::newRow("wait that is no number") << QStringList{S("--wait"), S("x")};
    QTest::newRow("negative wait") << QStringList{S("--wait"), S("-1")};
    QTest::newRow("wait of more than a day") << QStringList{S("--wait"), S("86401")};
    QTest::newRow("two notes") << QStringList{S("--notes"), S("a"), S("--notes"), S("b")};
}

void TestKxpublishOptions::OptionsAreChecked()
{
    QFETCH(QStringList, options);
    QCOMPARE(RunPublish(arguments + options).status, 2);
    QCOMPARE(Snapshot(server), QStringList({S("(missing)")}));
}

void TestKxpublishOptions::ProgressIsDrawnOnATerminalOnly()
{
    // Enough to be at work for longer than a line is waited for, on any machine.
    tree->Sparse(S("large"), qint64(700) * 1024 * 1024);
    const QStringList words = arguments + QStringList{S("--dry-run")};
    QCOMPARE(RunPublish(words).err.size(), 1);

    const int terminal = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    QVERIFY(terminal >= 0 && ::grantpt(terminal) == 0 && ::unlockpt(terminal) == 0);
    QProcess process;
    kxtest::PreparePublish(process, words);
    QProcessEnvironment environment = process.processEnvironment();
    environment.insert(S("TERM"), S("xterm"));
    environment.remove(S("CI")); // whoever reads a log does not want it drawn
    process.setProcessEnvironment(environment);
    process.setStandardErrorFile(QString::fromLocal8Bit(::ptsname(terminal)));
    process.start();
    QVERIFY(process.waitForFinished(60000));
    QCOMPARE(process.exitCode(), 0);
    QByteArray drawn(65536, '\0');
    drawn.truncate(qMax<ssize_t>(0, ::read(terminal, drawn.data(), size_t(drawn.size()))));
    ::close(terminal);
    const QRegularExpression line(S("\\r  \\[[#.]+\\] +\\d+%  hashing, \\d of 2 files"));
    QVERIFY2(QString::fromUtf8(drawn).contains(line), drawn.constData());
    // The last message stands on a line of its own.
    QVERIFY(drawn.contains("\r"
                           "kxpublish: would publish"));
    for (const QByteArray& piece : drawn.split('\r'))
        QVERIFY(piece.size() < 80 || piece.startsWith("kxpublish: "));
}

QTEST_GUILESS_MAIN(TestKxpublishOptions)
#include "tst_kxpublish_options.moc"
