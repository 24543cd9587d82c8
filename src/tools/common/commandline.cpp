#include "commandline.h"

#include "completion.h"
#include "helptext.h"
#include "manpage.h"

#include <QCommandLineParser>

#include <algorithm>

namespace tools {
namespace {

QString Name(const OptionSpec& option)
{
    return QString::fromUtf8(option.name);
}

QCommandLineOption ParserOption(const OptionSpec& option)
{
    QStringList names;
    if (*option.shortName)
        names.append(QString::fromUtf8(option.shortName));
    names.append(Name(option));
    return QCommandLineOption(names, QString(),
                              QString::fromUtf8(option.value ? option.value : ""));
}

} // namespace

CommandLine::CommandLine(const ProgramSpec& program) : program(program) {}

CommandLine::Outcome CommandLine::Parse(const QStringList& words)
{
    QStringList rest;
    if (!FindCommandWord(words, rest))
        return Outcome::Wrong;

    const QList<OptionSpec> own = command ? command->options : QList<OptionSpec>();
    const QList<OptionSpec> options = own + OtherOptions(program, command);
    // An option of the command's own may have the name of one of these.
    const auto asked = [&](const char* name) {
        const auto sameName = [name](const OptionSpec& option) {
            return Name(option) == QLatin1String(name);
        };
        return IsSet(name) && std::none_of(own.cbegin(), own.cend(), sameName);
    };
    QCommandLineParser parser;
    for (const OptionSpec& option : std::as_const(options))
        parser.addOption(ParserOption(option));
    const bool parsed = parser.parse(rest);
    for (const OptionSpec& option : std::as_const(options)) {
        const QStringList given = option.value ? parser.values(Name(option)) : QStringList();
        if (parser.isSet(Name(option)))
            values.insert(Name(option), option.value ? given : QStringList(QString()));
    }

    // Who asks for help gets it, whatever else the line holds.
    if (IsSet("help")) {
        text = command ? CommandHelp(program, *command) : ProgramHelp(program);
        return Outcome::Print;
    }
    if (!parsed) {
        // The parser's text is a sentence; what is printed goes on after it.
        QString reason = parser.errorText();
        if (reason.endsWith(u'.'))
            reason.chop(1);
        return Wrong(reason);
    }
    if (asked("version")) {
        text = QStringLiteral("%1 %2\n").arg(QString::fromUtf8(program.name),
                                             QString::fromUtf8(program.version));
        return Outcome::Print;
    }
    if (asked("man")) {
        text = ManPage(program);
        return Outcome::Print;
    }
    if (asked("completion")) {
        text = CompletionScript(program, Value("completion"));
        return text.isEmpty() ? Wrong(QStringLiteral("--completion '%1' is neither bash nor zsh")
                                          .arg(Value("completion")))
                              : Outcome::Print;
    }
    if (!command)
        return Wrong(QStringLiteral("no command is given"));

    arguments = parser.positionalArguments();
    for (const OptionSpec& option : std::as_const(options)) {
        const qsizetype count = option.value ? values.value(Name(option)).size() : 0;
        if (count > 1 && !program.lastValueCounts && !(option.flags & OptionSpec::Repeatable))
            return Wrong(QStringLiteral("--%1 is given twice").arg(Name(option)));
    }
    for (const QString& reason : {OptionProblem(options), ArgumentProblem()}) {
        if (!reason.isEmpty())
            return Wrong(reason);
    }
    return Outcome::Run;
}

QString CommandLine::HelpHint() const
{
    const QString name = QString::fromUtf8(program.name);
    return command ? QStringLiteral("see '%1 %2 --help'").arg(name, Command())
                   : QStringLiteral("see '%1 --help'").arg(name);
}

bool CommandLine::IsSet(const char* option) const
{
    return values.contains(QString::fromUtf8(option));
}

QString CommandLine::Value(const char* option) const
{
    const QStringList given = Values(option);
    return given.isEmpty() ? QString() : given.constLast();
}

QStringList CommandLine::Values(const char* option) const
{
    return values.value(QString::fromUtf8(option));
}

CommandLine::Outcome CommandLine::Wrong(const QString& reason)
{
    problem = reason;
    return Outcome::Wrong;
}

// Which options there are depends on the command, which may stand behind some of them: words that
// follow an option with a value are passed over.
bool CommandLine::FindCommandWord(const QStringList& words, QStringList& rest)
{
    rest = words;
    for (qsizetype i = 1; i < words.size(); ++i) {
        const QString& word = words.at(i);
        if (word == QLatin1String("--"))
            return true;
        if (word.startsWith(u'-') && word.size() > 1) {
            if (!word.contains(u'=') && TakesValue(word))
                ++i;
            continue;
        }
        command = FindCommand(program, word);
        if (!command) {
            problem = QStringLiteral("unknown command '%1'").arg(word);
            return false;
        }
        rest.removeAt(i);
        return true;
    }
    return true;
}

bool CommandLine::TakesValue(const QString& word) const
{
    QList<OptionSpec> options = OtherOptions(program, nullptr);
    for (const CommandSpec& row : program.commands)
        options += row.options;
    for (const OptionSpec& option : std::as_const(options)) {
        if (option.value &&
            (word == QStringLiteral("--") + Name(option) ||
             (*option.shortName && word == u'-' + QString::fromUtf8(option.shortName))))
            return true;
    }
    return false;
}

QString CommandLine::OptionProblem(const QList<OptionSpec>& options) const
{
    for (const OptionSpec& option : options) {
        if ((option.flags & OptionSpec::Required) && !IsSet(option.name))
            return QStringLiteral("--%1 is missing").arg(Name(option));
    }
    return QString();
}

QString CommandLine::ArgumentProblem() const
{
    const QList<ArgumentSpec>& known = command->arguments;
    if (arguments.size() > known.size())
        return QStringLiteral("unexpected argument '%1'").arg(arguments.at(known.size()));
    for (qsizetype i = arguments.size(); i < known.size(); ++i) {
        if (!known.at(i).optional)
            return QStringLiteral("%1 is missing").arg(QString::fromUtf8(known.at(i).name));
    }
    return QString();
}

} // namespace tools
