#include "programspec.h"

#include <cstring>

namespace tools {
namespace {

QList<OptionSpec> StandardOptions()
{
    return {
        {"help", nullptr, "Print this help; after a command, the help for that command.",
         OptionSpec::Optional, Completion::None, "", "h"},
        {"version", nullptr, "Print the version of this program."},
        {"man", nullptr, "Print the manual as a man page, for 'man -l -'."},
        {"completion", "SHELL", "Print the completion script for bash or zsh.",
         OptionSpec::Optional, Completion::Words, "bash zsh"},
    };
}

} // namespace

const CommandSpec* FindCommand(const ProgramSpec& program, const QString& name)
{
    for (const CommandSpec& command : program.commands) {
        if (name == QLatin1String(command.name))
            return &command;
    }
    return nullptr;
}

QList<OptionSpec> OtherOptions(const ProgramSpec& program, const CommandSpec* command)
{
    QList<OptionSpec> options = program.commonOptions + StandardOptions();
    if (command) {
        for (const OptionSpec& own : command->options) {
            options.removeIf(
                [&own](const OptionSpec& other) { return std::strcmp(own.name, other.name) == 0; });
        }
    }
    return options;
}

QStringList Wrapped(const QString& text, int width)
{
    QStringList lines;
    QString line;
    for (const QString& word : text.split(u' ', Qt::SkipEmptyParts)) {
        if (!line.isEmpty() && line.size() + 1 + word.size() > width) {
            lines.append(line);
            line.clear();
        }
        line += line.isEmpty() ? word : u' ' + word;
    }
    if (!line.isEmpty())
        lines.append(line);
    return lines;
}

} // namespace tools
