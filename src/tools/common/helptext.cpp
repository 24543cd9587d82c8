#include "helptext.h"

#include <algorithm>

namespace tools {
namespace {

constexpr int lineWidth = 79;
constexpr int widestTerm = 26;

struct Row
{
    QString term;
    QString text;
};

QString Text(const char* text)
{
    return QString::fromUtf8(text);
}

QString Paragraphs(const char* text)
{
    QString result;
    for (const QString& paragraph : Text(text).split(QStringLiteral("\n\n"), Qt::SkipEmptyParts))
        result += Wrapped(paragraph.simplified(), lineWidth).join(u'\n') + QStringLiteral("\n\n");
    return result;
}

// Terms on the left, texts beside them; a term that is too wide has its text below it.
QString Table(const QString& title, const QList<Row>& rows)
{
    if (rows.isEmpty())
        return QString();
    int width = 0;
    for (const Row& row : rows) {
        if (row.term.size() <= widestTerm)
            width = std::max(width, int(row.term.size()));
    }
    QString result = title + u'\n';
    const QString margin(width + 4, u' ');
    for (const Row& row : rows) {
        const QStringList lines = Wrapped(row.text, lineWidth - int(margin.size()));
        if (row.term.size() > width)
            result += QStringLiteral("  ") + row.term + u'\n' + margin;
        else
            result += QStringLiteral("  ") + row.term.leftJustified(width + 2);
        result += lines.join(u'\n' + margin) + u'\n';
    }
    return result + u'\n';
}

QList<Row> OptionRows(const QList<OptionSpec>& options)
{
    QList<Row> rows;
    for (const OptionSpec& option : options) {
        QString text = Text(option.description);
        if (option.flags & OptionSpec::Required)
            text += QStringLiteral(" Required.");
        if (option.flags & OptionSpec::Repeatable)
            text += QStringLiteral(" May be given more than once.");
        rows.append({OptionUsage(option), text});
    }
    return rows;
}

QString ExitStatusTable(const ProgramSpec& program)
{
    int widest = 0;
    for (const ExitStatusSpec& row : program.exitStatuses)
        widest = std::max(widest, int(Text(row.word).size()));
    QList<Row> rows;
    for (const ExitStatusSpec& row : program.exitStatuses) {
        const QString number = QStringLiteral("%1").arg(row.status, 2);
        rows.append({widest == 0
                         ? number
                         : number + QStringLiteral("  ") + Text(row.word).leftJustified(widest),
                     Text(row.meaning)});
    }
    return Table(widest == 0 ? QStringLiteral("Exit statuses:")
                             : QStringLiteral("Exit statuses, with the word of the result:"),
                 rows);
}

} // namespace

QString OptionUsage(const OptionSpec& option)
{
    QString usage;
    if (*option.shortName)
        usage = QStringLiteral("-%1, ").arg(Text(option.shortName));
    usage += QStringLiteral("--") + Text(option.name);
    if (option.value)
        usage += u' ' + Text(option.value);
    return usage;
}

QString Synopsis(const CommandSpec& command)
{
    QString synopsis = Text(command.name) + QStringLiteral(" [options]");
    for (const ArgumentSpec& argument : command.arguments)
        synopsis += QStringLiteral(" ") +
                    (argument.optional ? u'[' + Text(argument.name) + u']' : Text(argument.name));
    return synopsis;
}

QString ProgramHelp(const ProgramSpec& program)
{
    const QString name = Text(program.name);
    QString help = QStringLiteral("Usage: %1 COMMAND [options]\n").arg(name);
    QString summary = Text(program.summary) + u'.';
    summary[0] = summary.at(0).toUpper();
    help += Wrapped(summary, lineWidth).join(u'\n') + QStringLiteral("\n\n");
    help += Paragraphs(program.description);

    QList<Row> rows;
    for (const CommandSpec& command : program.commands)
        rows.append({Text(command.name), Text(command.summary)});
    help += Table(QStringLiteral("Commands:"), rows);
    help += Table(QStringLiteral("Options of every command:"),
                  OptionRows(OtherOptions(program, nullptr)));
    for (const SectionSpec& section : program.sections)
        help += Text(section.title) + QStringLiteral(":\n") + Paragraphs(section.text);
    for (const ExampleSpec& example : program.examples) {
        QString lines = Text(example.commandLine);
        lines.replace(u'\n', QStringLiteral("\n  "));
        help += Text(example.purpose) + QStringLiteral(":\n  ") + lines + QStringLiteral("\n\n");
    }
    return (help + ExitStatusTable(program)).trimmed() + u'\n';
}

QString CommandHelp(const ProgramSpec& program, const CommandSpec& command)
{
    QString help = QStringLiteral("Usage: %1 %2\n").arg(Text(program.name), Synopsis(command)) +
                   Paragraphs(command.description);
    QList<Row> rows;
    for (const ArgumentSpec& argument : command.arguments)
        rows.append({Text(argument.name), Text(argument.description)});
    help += Table(QStringLiteral("Arguments:"), rows);
    help += Table(QStringLiteral("Options:"), OptionRows(command.options));
    help += Table(QStringLiteral("Options of every command:"),
                  OptionRows(OtherOptions(program, &command)));
    return (help + ExitStatusTable(program)).trimmed() + u'\n';
}

} // namespace tools
