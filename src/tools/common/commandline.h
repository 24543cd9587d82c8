#pragma once

#include "programspec.h"

#include <QHash>
#include <QString>
#include <QStringList>

namespace tools {

/**
 * Reads a command line as a ProgramSpec describes it.
 *
 *     CommandLine line(spec);
 *     switch (line.Parse(QCoreApplication::arguments())) { ... }
 *
 * The command may stand before, between or behind the options.
 */
class CommandLine
{
public:
    enum class Outcome {
        Run,   //!< Command() is to be carried out
        Print, //!< Text() is all that was asked for
        Wrong  //!< Problem() says in one line why the words were not understood
    };

    /** `program` is not copied and has to stay alive. */
    explicit CommandLine(const ProgramSpec& program);

    /** `words`: the command line, program name first. */
    Outcome Parse(const QStringList& words);

    QString Text() const { return text; }
    QString Problem() const { return problem; }
    /** The line that tells where help is to be found, after a problem. */
    QString HelpHint() const;

    /** Name of the command; empty when the line names none. */
    QString Command() const { return QString::fromUtf8(command ? command->name : ""); }
    bool IsSet(const char* option) const;
    /** The value that was given last; empty when none was. */
    QString Value(const char* option) const;
    QStringList Values(const char* option) const;
    /** The arguments behind the command, in order. */
    const QStringList& Arguments() const { return arguments; }
    /** The argument at `index`; empty when the line does not go that far. */
    QString Argument(int index) const { return arguments.value(index); }

private:
    Outcome Wrong(const QString& reason);
    bool FindCommandWord(const QStringList& words, QStringList& rest);
    bool TakesValue(const QString& name) const;
    QString ArgumentProblem() const;
    QString OptionProblem(const QList<OptionSpec>& options) const;

    const ProgramSpec& program;
    const CommandSpec* command = nullptr;
    QString text;
    QString problem;
    QHash<QString, QStringList> values; // by name; a switch has one empty value each time
    QStringList arguments;
};

} // namespace tools
