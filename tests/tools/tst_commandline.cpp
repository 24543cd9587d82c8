#include "common/commandline.h"
#include "common/completion.h"
#include "common/helptext.h"
#include "common/manpage.h"

#include <QTest>

using tools::CommandLine;
using tools::Completion;
using tools::OptionSpec;

namespace {

tools::ProgramSpec Sample()
{
    tools::ProgramSpec spec;
    spec.name = "sample";
    spec.version = "1.2";
    spec.summary = "does things";
    spec.description = "One paragraph.\n\nAnother one, with a back\\slash.";
    spec.commands = {
        {"make",
         "make a thing",
         "Makes a thing.",
         {{"THING", "What to make."}, {"PLACE", "Where.", true}},
         {{"name", "NAME", "Its name.", OptionSpec::Required},
          {"version", "VERSION", "Its version."},
          {"part", "FILE", "A part of it.", OptionSpec::Repeatable, Completion::File},
          {"hard", nullptr, "Makes it hard."}}},
        {"drop", "drop it", "Drops it."},
    };
    spec.commonOptions = {
        {"level", "N", "How loud: 0 or 1.", OptionSpec::Optional, Completion::Words, "0 1"},
        {"quiet", nullptr, "Says nothing.", OptionSpec::Optional, Completion::None, "", "q"}};
    spec.exitStatuses = {{0, "done", "done"}, {12, "late", "too late"}};
    spec.seeAlso = "other(1)";
    return spec;
}

} // namespace

class TestCommandLine : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void ValuesAndArgumentsAreRead();
    void CommandMayStandAnywhere_data();
    void CommandMayStandAnywhere();
    void WrongLinesSayWhy_data();
    void WrongLinesSayWhy();
    void LastValueCountsWhereTheProgramSaysSo();
    void HelpIsGivenBesideAnythingElse();
    void OwnVersionOptionHidesTheStandardOne();
    void HelpNeverExceedsTheLine();
    void ManPageEscapesWhatRoffWouldTake();
    void CompletionOfUnknownShellIsRefused();
    void WrappingKeepsEveryWord_data();
    void WrappingKeepsEveryWord();
};

void TestCommandLine::ValuesAndArgumentsAreRead()
{
    const tools::ProgramSpec spec = Sample();
    CommandLine line(spec);
    QCOMPARE(int(line.Parse({"sample", "make", "--name", "n", "--part=a", "--part", "b", "-q",
                             "thing", "--hard", "place"})),
             int(CommandLine::Outcome::Run));
    QCOMPARE(line.Command(), QStringLiteral("make"));
    QCOMPARE(line.Value("name"), QStringLiteral("n"));
    QCOMPARE(line.Values("part"), QStringList({"a", "b"}));
    QCOMPARE(line.Value("part"), QStringLiteral("b"));
    QVERIFY(line.IsSet("hard"));
    QVERIFY(line.IsSet("quiet"));
    QVERIFY(!line.IsSet("level"));
    QVERIFY(!line.IsSet("version"));
    QCOMPARE(line.Value("level"), QString());
    QCOMPARE(line.Arguments(), QStringList({"thing", "place"}));
    QCOMPARE(line.Argument(1), QStringLiteral("place"));
    QCOMPARE(line.Argument(2), QString());
}

void TestCommandLine::CommandMayStandAnywhere_data()
{
    QTest::addColumn<QStringList>("words");
    QTest::newRow("first") << QStringList{"make", "--name", "drop", "t"};
    QTest::newRow("behind options") << QStringList{"--name", "drop", "--hard", "make", "t"};
    QTest::newRow("behind a value after =") << QStringList{"--name=drop", "make", "t"};
    QTest::newRow("arguments behind --") << QStringList{"make", "--name", "drop", "--", "t"};
}

void TestCommandLine::CommandMayStandAnywhere()
{
    QFETCH(QStringList, words);
    const tools::ProgramSpec spec = Sample();
    CommandLine line(spec);
    QCOMPARE(int(line.Parse(QStringList{"sample"} + words)), int(CommandLine::Outcome::Run));
    QCOMPARE(line.Command(), QStringLiteral("make"));
    QCOMPARE(line.Value("name"), QStringLiteral("drop"));
    QCOMPARE(line.Arguments(), QStringList({"t"}));
}

void TestCommandLine::WrongLinesSayWhy_data()
{
    QTest::addColumn<QStringList>("words");
    QTest::addColumn<QString>("problem");
    QTest::addColumn<QString>("hint");
    const QString top = QStringLiteral("see 'sample --help'");
    const QString make = QStringLiteral("see 'sample make --help'");
    QTest::newRow("nothing") << QStringList() << "no command is given" << top;
    QTest::newRow("options only") << QStringList{"-q"} << "no command is given" << top;
    QTest::newRow("unknown command") << QStringList{"mend"} << "unknown command 'mend'" << top;
    QTest::newRow("required option") << QStringList{"make", "t"} << "--name is missing" << make;
    QTest::newRow("option twice") << QStringList{"make", "t", "--name", "a", "--name", "b"}
                                  << "--name is given twice" << make;
    QTest::newRow("argument missing")
        << QStringList{"make", "--name", "a"} << "THING is missing" << make;
    QTest::newRow("argument too many")
        << QStringList{"make", "--name", "a", "t", "p", "x"} << "unexpected argument 'x'" << make;
    QTest::newRow("option of another command")
        << QStringList{"drop", "--hard"} << "Unknown option 'hard'"
        << "see 'sample drop --help'";
    QTest::newRow("value missing")
        << QStringList{"make", "t", "--name"} << "Missing value after '--name'" << make;
    QTest::newRow("unknown shell") << QStringList{"--completion", "fish"}
                                   << "--completion 'fish' is neither bash nor zsh" << top;
}

void TestCommandLine::WrongLinesSayWhy()
{
    QFETCH(QStringList, words);
    QFETCH(QString, problem);
    QFETCH(QString, hint);
    const tools::ProgramSpec spec = Sample();
    CommandLine line(spec);
    QCOMPARE(int(line.Parse(QStringList{"sample"} + words)), int(CommandLine::Outcome::Wrong));
    QCOMPARE(line.Problem(), problem);
    QCOMPARE(line.HelpHint(), hint);
}

void TestCommandLine::LastValueCountsWhereTheProgramSaysSo()
{
    tools::ProgramSpec spec = Sample();
    spec.lastValueCounts = true;
    CommandLine line(spec);
    QCOMPARE(int(line.Parse({"sample", "make", "t", "--name", "a", "--name", "b"})),
             int(CommandLine::Outcome::Run));
    QCOMPARE(line.Value("name"), QStringLiteral("b"));
}

void TestCommandLine::HelpIsGivenBesideAnythingElse()
{
    const tools::ProgramSpec spec = Sample();
    CommandLine line(spec);
    QCOMPARE(int(line.Parse({"sample", "make", "--bad", "-h"})), int(CommandLine::Outcome::Print));
    QCOMPARE(line.Text(), tools::CommandHelp(spec, spec.commands.at(0)));
    QVERIFY(line.Text().startsWith(
        QStringLiteral("Usage: sample make [options] THING [PLACE]\nMakes a thing.\n")));
}

void TestCommandLine::OwnVersionOptionHidesTheStandardOne()
{
    const tools::ProgramSpec spec = Sample();
    CommandLine program(spec);
    QCOMPARE(int(program.Parse({"sample", "--version"})), int(CommandLine::Outcome::Print));
    QCOMPARE(program.Text(), QStringLiteral("sample 1.2\n"));

    CommandLine drop(spec);
    QCOMPARE(int(drop.Parse({"sample", "drop", "--version"})), int(CommandLine::Outcome::Print));

    CommandLine make(spec);
    QCOMPARE(int(make.Parse({"sample", "make", "t", "--name", "n", "--version", "3"})),
             int(CommandLine::Outcome::Run));
    QCOMPARE(make.Value("version"), QStringLiteral("3"));
    QCOMPARE(tools::CommandHelp(spec, spec.commands.at(0)).count(QStringLiteral("--version")), 1);
}

void TestCommandLine::HelpNeverExceedsTheLine()
{
    tools::ProgramSpec spec = Sample();
    const QByteArray text = QByteArray("word ").repeated(100);
    spec.description = text.constData();
    spec.commands[0].summary = text.constData();
    spec.commands[0].options.append({"an-option-with-a-very-long-name", "VALUE", text.constData()});
    for (const QString& help :
         {tools::ProgramHelp(spec), tools::CommandHelp(spec, spec.commands.at(0))}) {
        for (const QString& line : help.split(u'\n'))
            QVERIFY2(line.size() < 80, qPrintable(line));
        QVERIFY(help.endsWith(QStringLiteral("late  too late\n")));
    }
}

void TestCommandLine::ManPageEscapesWhatRoffWouldTake()
{
    tools::ProgramSpec spec = Sample();
    spec.sections = {{"Dots", ".so /etc/passwd is no request\n\n'nor is this"}};
    const QString page = tools::ManPage(spec);
    QVERIFY(page.contains(QStringLiteral("\n\\&.so /etc/passwd")));
    QVERIFY(page.contains(QStringLiteral("\n\\&'nor is this")));
    QVERIFY(page.contains(QStringLiteral("back\\eslash")));
    QVERIFY(page.contains(QStringLiteral("\\fB\\-\\-part\\fR \\fIFILE\\fR")));
}

void TestCommandLine::CompletionOfUnknownShellIsRefused()
{
    const tools::ProgramSpec spec = Sample();
    QCOMPARE(tools::CompletionScript(spec, QStringLiteral("fish")), QString());
    QVERIFY(!tools::CompletionScript(spec, QStringLiteral("bash")).isEmpty());
    QVERIFY(!tools::CompletionScript(spec, QStringLiteral("zsh")).isEmpty());
}

void TestCommandLine::WrappingKeepsEveryWord_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QStringList>("lines");
    QTest::newRow("empty") << "" << QStringList();
    QTest::newRow("fits") << "one two" << QStringList{"one two"};
    QTest::newRow("exactly") << "1234 678 0" << QStringList{"1234 678 0"};
    QTest::newRow("one too many") << "1234 678 01" << QStringList{"1234 678", "01"};
    QTest::newRow("long word") << "a 0123456789ABC b" << QStringList{"a", "0123456789ABC", "b"};
}

void TestCommandLine::WrappingKeepsEveryWord()
{
    QFETCH(QString, text);
    QFETCH(QStringList, lines);
    QCOMPARE(tools::Wrapped(text, 10), lines);
}

QTEST_GUILESS_MAIN(TestCommandLine)
#include "tst_commandline.moc"
