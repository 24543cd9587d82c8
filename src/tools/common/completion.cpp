#include "completion.h"

namespace tools {
namespace {

QString Text(const char* text)
{
    return QString::fromUtf8(text);
}

QString OptionWord(const OptionSpec& option)
{
    return QStringLiteral("--") + Text(option.name);
}

QStringList CommandNames(const ProgramSpec& program)
{
    QStringList names;
    for (const CommandSpec& command : program.commands)
        names.append(Text(command.name));
    return names;
}

QStringList OptionWords(const QList<OptionSpec>& options)
{
    QStringList words;
    for (const OptionSpec& option : options)
        words.append(OptionWord(option));
    return words;
}

// The statement that fills in what may stand in the place of one word.
QString BashReply(Completion completion, const char* words)
{
    switch (completion) {
    case Completion::File:
        return QStringLiteral(
            "compopt -o filenames; mapfile -t COMPREPLY < <(compgen -f -- \"$current\")");
    case Completion::Directory:
        return QStringLiteral(
            "compopt -o filenames; mapfile -t COMPREPLY < <(compgen -d -- \"$current\")");
    case Completion::Words:
        return QStringLiteral("mapfile -t COMPREPLY < <(compgen -W '%1' -- \"$current\")")
            .arg(Text(words));
    case Completion::None:
        break;
    }
    return QStringLiteral("COMPREPLY=()");
}

QString BashValueCases(const QString& command, const QList<OptionSpec>& options)
{
    QString cases;
    for (const OptionSpec& option : options) {
        if (option.value)
            cases +=
                QStringLiteral("    '%1 %2') %3; return ;;\n")
                    .arg(command, OptionWord(option), BashReply(option.completion, option.words));
    }
    return cases;
}

QString BashScript(const ProgramSpec& program)
{
    const QString name = Text(program.name);
    const QList<OptionSpec> common = OtherOptions(program, nullptr);
    QString values = BashValueCases(QString(), common);
    QString replies = QStringLiteral("    '') words='%1 %2' ;;\n")
                          .arg(CommandNames(program).join(u' '), OptionWords(common).join(u' '));
    QString arguments;
    for (const CommandSpec& command : program.commands) {
        const QString word = Text(command.name);
        const QList<OptionSpec> options = command.options + OtherOptions(program, &command);
        values += BashValueCases(word, options);
        replies +=
            QStringLiteral("    %1) words='%2' ;;\n").arg(word, OptionWords(options).join(u' '));
        if (!command.arguments.isEmpty())
            arguments += QStringLiteral("    %1) %2 ;;\n")
                             .arg(word, BashReply(command.arguments.constFirst().completion, ""));
    }
    return QStringLiteral(
               "# bash completion of %1\n"
               "_%1()\n"
               "{\n"
               "    local current=${COMP_WORDS[COMP_CWORD]} command= words= i\n"
               "    local previous=${COMP_WORDS[COMP_CWORD - 1]}\n"
               "    for ((i = 1; i < COMP_CWORD; ++i)); do\n"
               "        case ${COMP_WORDS[i]} in\n"
               "        %2) command=${COMP_WORDS[i]}; break ;;\n"
               "        esac\n"
               "    done\n"
               "    case \"$command $previous\" in\n%3    esac\n"
               "    case $command in\n%4    esac\n"
               "    if [[ -z $command || $current == -* ]]; then\n"
               "        mapfile -t COMPREPLY < <(compgen -W \"$words\" -- \"$current\")\n"
               "        return\n"
               "    fi\n"
               "    case $command in\n%5    *) COMPREPLY=() ;;\n    esac\n"
               "}\n"
               "complete -F _%1 %1\n")
        .arg(name, CommandNames(program).join(u'|'), values, replies, arguments);
}

// Descriptions stand in single quotes, between brackets, in front of a colon.
QString ZshEscaped(QString text)
{
    text.replace(u'\\', QStringLiteral("\\\\"))
        .replace(u'[', QStringLiteral("\\["))
        .replace(u']', QStringLiteral("\\]"))
        .replace(u':', QStringLiteral("\\:"))
        .replace(u'\'', QStringLiteral("'\\''"));
    return text;
}

QString ZshAction(Completion completion, const char* words)
{
    switch (completion) {
    case Completion::File:
        return QStringLiteral("_files");
    case Completion::Directory:
        return QStringLiteral("_files -/");
    case Completion::Words:
        return QStringLiteral("(%1)").arg(Text(words));
    case Completion::None:
        break;
    }
    return QStringLiteral(" ");
}

QString ZshOptions(const QList<OptionSpec>& options)
{
    QString lines;
    for (const OptionSpec& option : options) {
        QString line = QStringLiteral("'%1%2%3[%4]")
                           .arg(QLatin1String(option.flags & OptionSpec::Repeatable ? "*" : ""),
                                OptionWord(option), QLatin1String(option.value ? "=" : ""),
                                ZshEscaped(Text(option.description)));
        if (option.value)
            line += QStringLiteral(":%1:%2").arg(ZshEscaped(Text(option.value)),
                                                 ZshAction(option.completion, option.words));
        lines += QStringLiteral(" \\\n            ") + line + u'\'';
    }
    return lines;
}

QString ZshScript(const ProgramSpec& program)
{
    const QString name = Text(program.name);
    const QList<OptionSpec> common = OtherOptions(program, nullptr);
    QString commands;
    QString cases;
    for (const CommandSpec& command : program.commands) {
        const QString word = Text(command.name);
        commands +=
            QStringLiteral("        '%1:%2'\n").arg(word, ZshEscaped(Text(command.summary)));
        QString arguments;
        int position = 0;
        for (const ArgumentSpec& argument : command.arguments)
            arguments +=
                QStringLiteral(" \\\n            '%1%2:%3:%4'")
                    .arg(++position)
                    .arg(QLatin1String(argument.optional ? ":" : ""),
                         ZshEscaped(Text(argument.name)), ZshAction(argument.completion, ""));
        cases += QStringLiteral("        %1)\n            _arguments%2%3\n            ;;\n")
                     .arg(word, ZshOptions(command.options + OtherOptions(program, &command)),
                          arguments);
    }
    return QStringLiteral("#compdef %1\n"
                          "_%1()\n"
                          "{\n"
                          "    local -a commands line\n"
                          "    local state\n"
                          "    typeset -A opt_args\n"
                          "    commands=(\n%2    )\n"
                          "    _arguments -C '1:command:->command' '*::argument:->argument'%3\n"
                          "    case $state in\n"
                          "    command) _describe command commands ;;\n"
                          "    argument)\n"
                          "        case $line[1] in\n%4        esac\n"
                          "        ;;\n"
                          "    esac\n"
                          "}\n"
                          "_%1 \"$@\"\n")
        .arg(name, commands, ZshOptions(common), cases);
}

} // namespace

QString CompletionScript(const ProgramSpec& program, const QString& shell)
{
    if (shell == QLatin1String("bash"))
        return BashScript(program);
    if (shell == QLatin1String("zsh"))
        return ZshScript(program);
    return QString();
}

} // namespace tools
