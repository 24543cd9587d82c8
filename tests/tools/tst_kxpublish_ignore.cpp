#include "source/ignorerules.h"
#include "treebuilder.h"

#include <QMap>
#include <QProcess>
#include <QRandomGenerator>
#include <QTest>

#include <algorithm>
#include <map>

using kxtest::TreeBuilder;
using publish::Glob;
using publish::IgnoreRules;

namespace {

/** Paths of a tree; true for directories. */
using Paths = QMap<QByteArray, bool>;
/** Texts of files with rules, by directory; the root's is empty. */
using RuleTexts = std::map<QByteArray, QByteArray>;

QByteArray DirectoryOf(const QByteArray& path)
{
    return path.left(qMax<qsizetype>(0, path.lastIndexOf('/')));
}

/** Walks the tree as a publisher's walk does: never into a directory that is left out. */
class Walk
{
public:
    Walk(const Paths& paths, const RuleTexts& texts) : paths(paths), texts(texts) { Enter({}); }
    QByteArrayList LeftOut() const { return leftOut; }
    QStringList Doubts() const { return doubts; }

private:
    void Enter(const QByteArray& directory)
    {
        const size_t mark = rules.Mark();
        const auto text = texts.find(directory);
        if (text != texts.end())
            rules.AddFile(directory, QStringLiteral("rules"), text->second, doubts);
        for (auto path = paths.begin(); path != paths.end(); ++path) {
            if (DirectoryOf(path.key()) != directory)
                continue;
            if (rules.Match(path.key(), path.value()))
                AddAll(path.key());
            else if (path.value())
                Enter(path.key());
        }
        rules.Restore(mark);
    }

    void AddAll(const QByteArray& path)
    {
        for (auto other = paths.begin(); other != paths.end(); ++other) {
            if (other.key() == path || other.key().startsWith(path + '/'))
                leftOut.append(other.key());
        }
    }

    const Paths& paths;
    const RuleTexts& texts;
    IgnoreRules rules;
    QByteArrayList leftOut;
    QStringList doubts;
};

QByteArrayList Sorted(QByteArrayList list)
{
    std::sort(list.begin(), list.end());
    return list;
}

/** A repository with the tree of `paths`, for git's own opinion. */
class Oracle
{
public:
    explicit Oracle(const Paths& paths) : paths(paths)
    {
        for (auto path = paths.begin(); path != paths.end(); ++path) {
            if (path.value())
                tree.Dir(QString::fromUtf8(path.key()));
            else
                tree.File(QString::fromUtf8(path.key()), "");
        }
        Git({QStringLiteral("init"), QStringLiteral("-q")}, {});
    }

    QByteArrayList LeftOut(const RuleTexts& texts)
    {
        for (const auto& [directory, text] : texts)
            tree.File(
                QString::fromUtf8(directory.isEmpty() ? ".gitignore" : directory + "/.gitignore"),
                text);
        QByteArrayList answer = Git({QStringLiteral("check-ignore"), QStringLiteral("--no-index"),
                                     QStringLiteral("-z"), QStringLiteral("--stdin")},
                                    paths.keys().join('\0') + '\0')
                                    .split('\0');
        answer.removeLast();
        return Sorted(answer);
    }

private:
    QByteArray Git(const QStringList& arguments, const QByteArray& input)
    {
        QProcess git;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        for (const char* name : {"GIT_CONFIG_GLOBAL", "GIT_CONFIG_SYSTEM"})
            environment.insert(QLatin1String(name), QStringLiteral("/dev/null"));
        environment.insert(QStringLiteral("HOME"), tree.Root());
        environment.insert(QStringLiteral("XDG_CONFIG_HOME"), tree.Root());
        git.setProcessEnvironment(environment);
        git.setWorkingDirectory(tree.Root());
        git.start(QStringLiteral("git"), arguments);
        git.write(input);
        git.closeWriteChannel();
        // 1 is the answer "none of them".
        if (!git.waitForFinished(60000) || git.exitStatus() != QProcess::NormalExit ||
            git.exitCode() > 1)
            qFatal("git: %s", git.readAllStandardError().constData());
        return git.readAllStandardOutput();
    }

    Paths paths;
    TreeBuilder tree;
};

Paths PathsOf(const QByteArrayList& files)
{
    Paths paths;
    for (const QByteArray& file : files) {
        paths.insert(file, false);
        for (QByteArray above = DirectoryOf(file); !above.isEmpty(); above = DirectoryOf(above))
            paths.insert(above, true);
    }
    return paths;
}

} // namespace

/** Rules of what is left out, held to git's manual and to git itself. */
class TestKxpublishIgnore : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void RulesOfTheManual_data();
    void RulesOfTheManual();
    void DeeperRulesDecideLast();
    void OptionsStandBehindTheLinesOfTheRoot();
    void OptionsThatCannotWorkAreNamed_data();
    void OptionsThatCannotWorkAreNamed();
    void UnusedOptionsAreKnown();
    void LinesThatMatchNothingAreDoubted();
    void LongPatternsTakeNoLonger();
    void AgreesWithGit_data();
    void AgreesWithGit();
};

// Each row is asked of git as well: a row can be wrong like any other opinion.
void TestKxpublishIgnore::RulesOfTheManual_data()
{
    QTest::addColumn<QByteArray>("rules");
    QTest::addColumn<QByteArrayList>("files");
    QTest::addColumn<QByteArrayList>("leftOut");

    const auto row = [](const char* name, const QByteArray& rules, const QByteArrayList& files,
                        const QByteArrayList& leftOut) {
        QTest::newRow(name) << rules << files << leftOut;
    };
    row("empty lines separate", "\n\na\n\n", {"a", "b"}, {"a"});
    row("no newline at the end", "a", {"a", "b"}, {"a"});
    row("comment", "#a\nb\n", {"#a", "b"}, {"b"});
    row("escaped number sign", "\\#a\n", {"#a", "a"}, {"#a"});
    row("number sign in the middle", "a#b\n", {"a#b"}, {"a#b"});
    row("lines that end as on Windows", "a\r\nb\r\n", {"a", "b", "c"}, {"a", "b"});
    row("byte order mark",
        "\xef\xbb\xbf"
        "a\n",
        {"a"}, {"a"});
    row("trailing spaces", "a  \n", {"a", "a  "}, {"a"});
    row("escaped trailing space", "a\\ \n", {"a", "a "}, {"a "});
    row("escaped space before trailing ones", "a\\   \n", {"a", "a ", "a   "}, {"a "});
    row("trailing tab counts", "a\t\n", {"a", "a\t"}, {"a\t"});
    row("leading spaces count", " a\n", {"a", " a"}, {" a"});
    row("negation", "*.o\n!b.o\n", {"a.o", "b.o"}, {"a.o"});
    row("the last one decides", "!b.o\n*.o\n", {"a.o", "b.o"}, {"a.o", "b.o"});
    row("escaped exclamation mark", "\\!a\n", {"!a", "a"}, {"!a"});
    row("no way back below a directory that is left out", "d\n!d/a\n", {"d/a", "d/b"},
        {"d", "d/a", "d/b"});
    row("a way back when the directory stays", "d/*\n!d/a\n", {"d/a", "d/b"}, {"d/b"});
    row("all but one directory deep down", "/*\n!/x\n/x/*\n!/x/y\n", {"a", "x/b", "x/y/c"},
        {"a", "x/b"});
    row("a name matches at every level", "a\n", {"a", "d/a", "d/e/a"}, {"a", "d/a", "d/e/a"});
    row("slash at the beginning", "/a\n", {"a", "d/a"}, {"a"});
    row("slash in the middle", "d/a\n", {"d/a", "e/d/a"}, {"d/a"});
    row("slash at the end", "a/\n", {"a/x", "d/a"}, {"a", "a/x"});
    row("slash at the end, at every level", "a/\n", {"d/a/x", "e/a"}, {"d/a", "d/a/x"});
    row("slash in the middle and at the end", "d/a/\n", {"d/a/x", "e/d/a/x"}, {"d/a", "d/a/x"});
    row("star stops at a slash", "d/*.o\n", {"d/a.o", "d/e/b.o"}, {"d/a.o"});
    row("star matches nothing as well", "a*b\n", {"ab", "axb", "ax"}, {"ab", "axb"});
    row("star matches a leading dot", "*rc\n", {".rc", "rc"}, {".rc", "rc"});
    row("question mark", "a?\n", {"a", "ab", "abc"}, {"ab"});
    row("question mark is no slash", "a?b/\na?c\n", {"a/b", "a/c"}, {});
    row("question mark is one byte", "?\n??\n", {"x", "\xc3\xbc", "\xe2\x82\xac"},
        {"x", "\xc3\xbc"});
    row("set", "[ab]x\n", {"ax", "bx", "cx"}, {"ax", "bx"});
    row("range", "[a-c]\n", {"a", "b", "c", "d", "-"}, {"a", "b", "c"});
    row("range that ends with the set", "[a-]\n", {"a", "b", "-"}, {"a", "-"});
    row("negated set", "[!ab]\n", {"a", "b", "c"}, {"c"});
    row("negated set, other spelling", "[^ab]\n", {"a", "b", "c"}, {"c"});
    row("closing bracket first in a set", "[]a]\n", {"]", "a", "b"}, {"]", "a"});
    row("escaped closing bracket", "[a\\]]\n", {"]", "a", "b"}, {"]", "a"});
    row("named set", "[[:digit:]x]\n", {"1", "x", "y"}, {"1", "x"});
    row("unknown named set", "[[:number:]]\n", {"1", "n]"}, {});
    row("set that never ends", "a[bc\n", {"a[bc", "ab"}, {});
    row("set with a slash", "a[/]b\n", {"a/b"}, {});
    row("escaped star", "a\\*\n", {"a*", "ab"}, {"a*"});
    row("escaped letter", "\\a\n", {"a"}, {"a"});
    row("backslash at the end", "a\\\n", {"a", "a\\"}, {});
    row("two stars and a slash in front", "**/a\n", {"a", "d/a", "d/e/a", "da"},
        {"a", "d/a", "d/e/a"});
    row("two stars in front of a path", "**/d/a\n", {"d/a", "e/d/a", "d/e/a"}, {"d/a", "e/d/a"});
    row("slash and two stars at the end", "d/**\n", {"d/a", "d/e/b", "f/d/a"},
        {"d/a", "d/e", "d/e/b"});
    row("two stars in the middle", "a/**/b\n", {"a/b", "a/x/b", "a/x/y/b", "a/xb"},
        {"a/b", "a/x/b", "a/x/y/b"});
    row("other stars in a row are one", "d/a**b\n", {"d/axb", "d/ax/b"}, {"d/axb"});
    row("two stars alone", "**\n!b\n", {"a", "b", "d/a"}, {"a", "d", "d/a"});
    row("upper case differs", "A\n", {"a"}, {});
    row("a path needs its whole name", "d/a\n", {"d/ab", "d/b"}, {});
    row("lone slash", "/\n", {"a", "d/a"}, {});
    row("lone exclamation mark", "!\n", {"a", "!"}, {});
}

void TestKxpublishIgnore::RulesOfTheManual()
{
    QFETCH(QByteArray, rules);
    QFETCH(QByteArrayList, files);
    QFETCH(QByteArrayList, leftOut);
    const Paths paths = PathsOf(files);
    const RuleTexts texts = {{QByteArray(), rules}};
    QCOMPARE(Sorted(Walk(paths, texts).LeftOut()), Sorted(leftOut));
    QCOMPARE(Oracle(paths).LeftOut(texts), Sorted(leftOut));
}

void TestKxpublishIgnore::DeeperRulesDecideLast()
{
    const Paths paths =
        PathsOf({"a.o", "b.o", "d/a.o", "d/b.o", "d/e/a.o", "d/e/b.o", "f/a.o", "f/b.o"});
    const RuleTexts texts = {{"", "*.o\n!/d/e/b.o\n"}, {"d", "!b.o\n/e/a.o\n"}, {"d/e", "b.o\n"}};
    const QByteArrayList expected = {"a.o", "b.o", "d/a.o", "d/e/a.o", "d/e/b.o", "f/a.o", "f/b.o"};
    QCOMPARE(Sorted(Walk(paths, texts).LeftOut()), expected);
    QCOMPARE(Oracle(paths).LeftOut(texts), expected);
}

void TestKxpublishIgnore::OptionsStandBehindTheLinesOfTheRoot()
{
    IgnoreRules rules;
    QStringList doubts;
    rules.AddFile({}, QStringLiteral(".kxpublishignore"), "#\n*.o\n!d\n", doubts);
    QCOMPARE(rules.AddOption("!keep.o"), QString());
    QCOMPARE(rules.AddOption("d"), QString());
    QVERIFY(!rules.Match("keep.o", false));
    QCOMPARE(rules.Match("d", true)->Shown(), QStringLiteral("--exclude 'd'"));
    QCOMPARE(rules.Match("x/a.o", false)->Shown(),
             QStringLiteral("'*.o', line 2 of '.kxpublishignore'"));
    rules.AddFile("x", QStringLiteral("x/.kxpublishignore"), "!a.o\nkeep.o", doubts);
    QVERIFY(!rules.Match("x/a.o", false));
    QVERIFY(rules.Match("x/keep.o", false));
}

void TestKxpublishIgnore::OptionsThatCannotWorkAreNamed_data()
{
    QTest::addColumn<QByteArray>("pattern");
    QTest::addColumn<QString>("problem");
    QTest::newRow("empty") << QByteArray() << QStringLiteral("is empty");
    QTest::newRow("blank") << QByteArray("  ") << QStringLiteral("is empty");
    QTest::newRow("comment") << QByteArray("#a")
                             << QStringLiteral(
                                    "is a comment; a name that begins with '#' is written '\\#'");
    QTest::newRow("set that never ends") << QByteArray("[a") << QStringLiteral("can match no name");
    QTest::newRow("backslash at the end")
        << QByteArray("a\\") << QStringLiteral("can match no name");
    QTest::newRow("slash") << QByteArray("/") << QStringLiteral("can match no name");
    QTest::newRow("negation of nothing") << QByteArray("!") << QStringLiteral("can match no name");
}

void TestKxpublishIgnore::OptionsThatCannotWorkAreNamed()
{
    QFETCH(QByteArray, pattern);
    QFETCH(QString, problem);
    QCOMPARE(IgnoreRules().AddOption(pattern), problem);
}

void TestKxpublishIgnore::UnusedOptionsAreKnown()
{
    IgnoreRules rules;
    for (const char* pattern : {"a", "b", "!c", "d/", "!e"})
        QCOMPARE(rules.AddOption(pattern), QString());
    for (const char* name : {"a", "c", "d", "x"})
        rules.Match(name, false);
    QCOMPARE(rules.UnusedOptions(), QByteArrayList({"b", "d/", "!e"}));
}

void TestKxpublishIgnore::LinesThatMatchNothingAreDoubted()
{
    const RuleTexts texts = {{QByteArray(), "a\n[b\n\n#c\\\nd\\\n"}};
    QCOMPARE(Walk({}, texts).Doubts(),
             QStringList({QStringLiteral("line 2, '[b'"), QStringLiteral("line 5, 'd\\'")}));
}

// Trying each star again and again would take longer than the universe is old.
void TestKxpublishIgnore::LongPatternsTakeNoLonger()
{
    const QByteArray name(255, 'a');
    QVERIFY(!Glob(QByteArray("*a").repeated(100) + 'b').Matches(name));
    QVERIFY(!Glob(QByteArray("**/a*").repeated(50) + 'b').Matches((name + '/').repeated(10)));
    QVERIFY(Glob(QByteArray("*a").repeated(100)).Matches(name));
}

void TestKxpublishIgnore::AgreesWithGit_data()
{
    QTest::addColumn<quint32>("seed");
    for (quint32 seed = 1; seed <= 4; ++seed)
        QTest::addRow("seed %u", seed) << seed;
}

void TestKxpublishIgnore::AgreesWithGit()
{
    QFETCH(quint32, seed);
    QRandomGenerator random(seed);
    const auto pick = [&](const QByteArrayList& list) {
        return list.at(random.bounded(int(list.size())));
    };
    const QByteArrayList names = {"a",  "b",  "ab", "aab", "a.b", "b.a", "a*",      "[a]", "a b",
                                  "!a", "#a", "a ", "-",   "B",   "1a",  "a\\b",    "]",   "ba",
                                  "**", "?",  ".a", "^",   "a]",  "[",   "\xc3\xa4"};
    Paths paths;
    for (int i = 0; i < 250; ++i) {
        QByteArray path = pick(names);
        for (int depth = random.bounded(4); depth > 0; --depth)
            path = pick({"a", "b", "ab", "ba", "1a"}) + '/' + path;
        paths.insert(path, paths.value(path));
        for (path = DirectoryOf(path); !path.isEmpty(); path = DirectoryOf(path))
            paths[path] = true;
    }
    QByteArrayList directories = {QByteArray()};
    for (auto path = paths.begin(); path != paths.end(); ++path) {
        if (path.value())
            directories.append(path.key());
    }
    const QByteArrayList pieces = {"a",
                                   "b",
                                   "a",
                                   "b",
                                   "ab",
                                   "*",
                                   "*",
                                   "**",
                                   "**/",
                                   "/**",
                                   "/**/",
                                   "/",
                                   "/",
                                   "?",
                                   "[ab]",
                                   "[!a]",
                                   "[^b]",
                                   "[a-b]",
                                   "[]a]",
                                   "[]-a]",
                                   "[[:alpha:]]",
                                   "[[:punct:]]",
                                   "[![:alnum:]]",
                                   "[[:upper:]b]",
                                   "[--0]",
                                   "[a",
                                   "\\a",
                                   "\\*",
                                   "\\[",
                                   "\\ ",
                                   " ",
                                   "\\",
                                   "!",
                                   "#",
                                   ".",
                                   "***",
                                   "[[:x:]]",
                                   "[[:]",
                                   "[a/b]",
                                   "[\\]]",
                                   "[\\a-b]",
                                   "\\/",
                                   "1",
                                   "]",
                                   "-",
                                   "\xc3\xa4",
                                   "[\xc3]",
                                   "[b-a]",
                                   "[a-\\b]",
                                   "[[]",
                                   "[!]a]",
                                   "[[:a]"};
    Oracle oracle(paths);
    qsizetype different = 0;
    for (int round = 0; round < 120; ++round) {
        RuleTexts texts;
        // Files of earlier rounds are overwritten, so the places stay the same.
        for (const int place : {0, 1, int(directories.size() / 2)}) {
            QByteArray text;
            for (int line = random.bounded(1, 7); line > 0; --line) {
                if (random.bounded(3) == 0)
                    text += '!';
                if (random.bounded(4) == 0)
                    text += '/';
                for (int piece = random.bounded(1, 5); piece > 0; --piece)
                    text += pick(pieces);
                if (random.bounded(4) == 0)
                    text += '/';
                if (random.bounded(10) == 0)
                    text += pick({" ", "  ", "\t", "\r"});
                text += '\n';
            }
            texts[directories.at(place)] = text;
        }
        const QByteArrayList expected = oracle.LeftOut(texts);
        const QByteArrayList leftOut = Sorted(Walk(paths, texts).LeftOut());
        if (leftOut != expected) {
            for (const auto& [directory, text] : texts)
                qWarning() << directory << text;
        }
        QCOMPARE(leftOut, expected);
        different += leftOut.size() > 0 && leftOut.size() < paths.size();
    }
    QVERIFY2(different > 60, "the rules leave out nothing or all of it far too often");
}

QTEST_GUILESS_MAIN(TestKxpublishIgnore)
#include "tst_kxpublish_ignore.moc"
