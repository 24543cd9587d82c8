#include "manpage.h"

#include "helptext.h"

namespace tools {
namespace {

QString Text(const char* text)
{
    return QString::fromUtf8(text);
}

// A backslash begins an escape, a dot or an apostrophe at the start of a line a request, and a
// plain "-" is set as a hyphen, which nobody can copy into a shell.
QString Escaped(QString text)
{
    text.replace(u'\\', QStringLiteral("\\e")).replace(u'-', QStringLiteral("\\-"));
    QStringList lines = text.split(u'\n');
    for (QString& line : lines) {
        if (line.startsWith(u'.') || line.startsWith(u'\''))
            line.prepend(QStringLiteral("\\&"));
    }
    return lines.join(u'\n');
}

QString Paragraphs(const char* text)
{
    QString result;
    for (const QString& paragraph : Text(text).split(QStringLiteral("\n\n"), Qt::SkipEmptyParts))
        result += (result.isEmpty() ? QString() : QStringLiteral(".PP\n")) +
                  Escaped(paragraph.simplified()) + u'\n';
    return result;
}

QString Term(const QString& term, const QString& text)
{
    return QStringLiteral(".TP\n") + term + u'\n' + Escaped(text) + u'\n';
}

QString Options(const QList<OptionSpec>& options)
{
    QString result;
    for (const OptionSpec& option : options) {
        QString term;
        if (*option.shortName)
            term = QStringLiteral("\\fB\\-%1\\fR, ").arg(Text(option.shortName));
        term += QStringLiteral("\\fB%1\\fR").arg(Escaped(QStringLiteral("--") + Text(option.name)));
        if (option.value)
            term += QStringLiteral(" \\fI%1\\fR").arg(Escaped(Text(option.value)));
        QString text = Text(option.description);
        if (option.flags & OptionSpec::Required)
            text += QStringLiteral(" Required.");
        if (option.flags & OptionSpec::Repeatable)
            text += QStringLiteral(" May be given more than once.");
        result += Term(term, text);
    }
    return result;
}

QString Command(const ProgramSpec& program, const CommandSpec& command)
{
    QString page =
        QStringLiteral(".SS \"%1\"\n").arg(Escaped(Text(program.name) + u' ' + Synopsis(command))) +
        Paragraphs(command.description);
    for (const ArgumentSpec& argument : command.arguments)
        page += Term(QStringLiteral("\\fI%1\\fR").arg(Escaped(Text(argument.name))),
                     Text(argument.description));
    return page + Options(command.options);
}

} // namespace

QString ManPage(const ProgramSpec& program)
{
    const QString name = Text(program.name);
    QString page = QStringLiteral(".TH %1 1 \"\" \"%2 %3\" \"User Commands\"\n")
                       .arg(Escaped(name.toUpper()), Escaped(name), Escaped(Text(program.version)));
    page +=
        QStringLiteral(".SH NAME\n%1 \\- %2\n").arg(Escaped(name), Escaped(Text(program.summary)));
    page += QStringLiteral(".SH SYNOPSIS\n.B %1\n\\fICOMMAND\\fR [\\fIoptions\\fR]\n")
                .arg(Escaped(name));
    page += QStringLiteral(".SH DESCRIPTION\n") + Paragraphs(program.description);
    page += QStringLiteral(".SH COMMANDS\n");
    for (const CommandSpec& command : program.commands)
        page += Command(program, command);
    page +=
        QStringLiteral(".SH OPTIONS OF EVERY COMMAND\n") + Options(OtherOptions(program, nullptr));
    for (const SectionSpec& section : program.sections)
        page += QStringLiteral(".SH \"%1\"\n").arg(Escaped(Text(section.title).toUpper())) +
                Paragraphs(section.text);
    page += QStringLiteral(".SH EXIT STATUS\n");
    for (const ExitStatusSpec& row : program.exitStatuses) {
        const QString word = Text(row.word);
        page += Term(QStringLiteral("\\fB%1\\fR%2")
                         .arg(row.status)
                         .arg(word.isEmpty() ? QString() : u' ' + Escaped(word)),
                     Text(row.meaning));
    }
    if (!program.examples.isEmpty())
        page += QStringLiteral(".SH EXAMPLES\n");
    for (const ExampleSpec& example : program.examples)
        page += QStringLiteral(".PP\n%1:\n.PP\n.EX\n%2\n.EE\n")
                    .arg(Escaped(Text(example.purpose)), Escaped(Text(example.commandLine)));
    return page + QStringLiteral(".SH SEE ALSO\n%1\n").arg(Escaped(Text(program.seeAlso)));
}

} // namespace tools
