#pragma once

#include <QList>
#include <QString>
#include <QStringList>

namespace tools {

/** What a shell offers for a word of the command line. */
enum class Completion { None, File, Directory, Words };

/** One option of a command line. Aggregates like it are written as rows of a table. */
struct OptionSpec
{
    enum Flag : unsigned {
        Optional = 0,
        Required = 1u << 0,   //!< the command line is wrong without it
        Repeatable = 1u << 1, //!< may be given more than once
    };

    const char* name;        //!< without the dashes
    const char* value;       //!< the value's name in the help; null: a switch
    const char* description; //!< one sentence or a few, without line breaks
    unsigned flags = Optional;
    Completion completion = Completion::None;
    const char* words = "";     //!< for Completion::Words: the words, separated by blanks
    const char* shortName = ""; //!< one letter; empty: none
};

/** A word of the command line that is no option. */
struct ArgumentSpec
{
    const char* name;
    const char* description;
    bool optional = false;
    Completion completion = Completion::None;
};

struct CommandSpec
{
    const char* name;
    const char* summary;     //!< a few words for the list of commands
    const char* description; //!< paragraphs, separated by empty lines
    QList<ArgumentSpec> arguments = {};
    QList<OptionSpec> options = {};
};

struct ExitStatusSpec
{
    int status;
    const char* word; //!< name of the outcome in the result; empty: it has none
    const char* meaning;
};

struct ExampleSpec
{
    const char* purpose;
    const char* commandLine; //!< lines as they are typed
};

/** A section of the manual that belongs to no command. */
struct SectionSpec
{
    const char* title;
    const char* text; //!< paragraphs, separated by empty lines
};

/**
 * A program's command line. It is the one source of the parser, of --help, of the man page and of
 * the shells' completions. All texts are UTF-8 and static.
 */
struct ProgramSpec
{
    const char* name;
    const char* version;
    const char* summary;     //!< what the program does, without a full stop
    const char* description; //!< paragraphs, separated by empty lines
    QList<CommandSpec> commands;
    QList<OptionSpec> commonOptions; //!< understood with every command
    bool lastValueCounts = false;    //!< an option given twice is not wrong, its last value counts
    QList<SectionSpec> sections;
    QList<ExampleSpec> examples;
    QList<ExitStatusSpec> exitStatuses;
    const char* seeAlso; //!< "name(1), name(8)"
};

/** The command called `name`; null when there is none. */
const CommandSpec* FindCommand(const ProgramSpec& program, const QString& name);

/**
 * Options that are understood with `command` besides its own: those of every command, and --help,
 * --version, --man and --completion, which every program has. A command's own option hides one of
 * the same name. A null command has none of its own.
 */
QList<OptionSpec> OtherOptions(const ProgramSpec& program, const CommandSpec* command);

/** Lines of at most `width` characters, broken at blanks; words that are longer stay whole. */
QStringList Wrapped(const QString& text, int width);

} // namespace tools
