#include "addcommand.h"
#include "console.h"
#include "exitstatus.h"
#include "interrupt.h"
#include "promotecommand.h"

#include <kxupdater/build.h>

#include <QCommandLineParser>
#include <QCoreApplication>

namespace publish {
namespace {

QString HelpText()
{
    return QStringLiteral("Usage: kxpublish COMMAND [options]\n"
                          "Publishes directory trees for the clients of the update library.\n\n"
                          "Commands:\n"
                          "  add      publish a tree as one version of a package\n"
                          "  promote  offer a version to the clients\n\n"
                          "Options:\n"
                          "  -h, --help     this help; 'kxpublish COMMAND --help' for a command\n"
                          "  -v, --version  the version of this program\n\n") +
           ExitStatusHelp();
}

ExitStatus UsageError(const QString& text, const QString& command)
{
    Say(text);
    Say(QStringLiteral("see 'kxpublish %1--help'")
            .arg(command.isEmpty() ? QString() : command + QLatin1Char(' ')));
    return ExitUsage;
}

struct Option
{
    const char* name;
    const char* valueName;
    const char* description;
    const char* defaultValue; //!< null when the option has to be given
};

/** The command line of one command: options that all take a value, given once at most. */
class CommandLine
{
public:
    CommandLine(const QString& command, const QString& description,
                const std::vector<Option>& options)
        : command(command), options(options)
    {
        parser.setApplicationDescription(description);
        parser.addOption(QCommandLineOption({QStringLiteral("h"), QStringLiteral("help")},
                                            QStringLiteral("Shows this help.")));
        for (const Option& option : options)
            parser.addOption(QCommandLineOption(
                QLatin1String(option.name), QLatin1String(option.description),
                QLatin1String(option.valueName), QLatin1String(option.defaultValue)));
    }

    void AddArgument(const char* name, const char* description)
    {
        parser.addPositionalArgument(QLatin1String(name), QLatin1String(description));
        arguments.append(QLatin1String(name));
    }

    /** False when the process is to end with `status`, everything being said. */
    bool Parse(const QStringList& words, ExitStatus& status)
    {
        const bool parsed = parser.parse(words.mid(0, 1) + words.mid(2));
        if (parser.isSet(QStringLiteral("help"))) {
            // The parser's own usage line knows nothing of commands.
            PrintText(QStringLiteral("Usage: kxpublish %1 [options] %2\n")
                          .arg(command, arguments.join(QLatin1Char(' ')))
                          .replace(QStringLiteral(" \n"), QStringLiteral("\n")) +
                      parser.helpText().section(QLatin1Char('\n'), 1) + QLatin1Char('\n') +
                      ExitStatusHelp());
            status = ExitDone;
            return false;
        }
        const QString error = parsed ? Error() : parser.errorText();
        status = error.isEmpty() ? ExitDone : UsageError(error, command);
        return error.isEmpty();
    }

    QString Value(const char* option) const { return parser.value(QLatin1String(option)); }
    QString Argument(qsizetype index) const { return parser.positionalArguments().at(index); }

private:
    QString Error() const
    {
        for (const Option& option : options) {
            const qsizetype given = parser.optionNames().count(QString(QLatin1String(option.name)));
            if (given > 1)
                return QStringLiteral("--%1 is given twice").arg(QLatin1String(option.name));
            if (given == 0 && !option.defaultValue)
                return QStringLiteral("--%1 is missing").arg(QLatin1String(option.name));
        }
        const QStringList given = parser.positionalArguments();
        if (given.size() < arguments.size())
            return QStringLiteral("%1 is missing").arg(arguments.at(given.size()));
        if (given.size() > arguments.size())
            return QStringLiteral("unexpected argument %1").arg(Shown(given.at(arguments.size())));
        return {};
    }

    QString command;
    std::vector<Option> options;
    QStringList arguments;
    QCommandLineParser parser;
};

ExitStatus RunAdd(const QStringList& words)
{
    const QByteArray platform = updater::Build::Platform().toUtf8();
    CommandLine line(
        QStringLiteral("add"),
        QStringLiteral("Publishes a directory tree as one version of a package.\n"
                       "Clients see all of it or nothing, and are offered it after 'promote'."),
        {{"name", "NAME", "Name of the package.", nullptr},
         {"version", "VERSION", "Version of the package.", nullptr},
         {"platform", "PLATFORM", "x64 or x86; this system's own if not given.",
          platform.constData()},
         {"exec", "FILE", "Program of the tree that clients start, relative to TREE.", nullptr},
         {"base-url", "URL", "Address at which SERVERTREE is served.", nullptr},
         {"out", "SERVERTREE", "Directory to publish into; made if missing.", nullptr}});
    line.AddArgument("TREE", "Directory to publish.");
    ExitStatus status = ExitDone;
    if (!line.Parse(words, status))
        return status;
    AddSettings settings;
    settings.tree = line.Argument(0);
    settings.build.package = line.Value("name");
    settings.build.version = line.Value("version");
    settings.build.platform = line.Value("platform");
    settings.executable = line.Value("exec");
    settings.baseUrl = line.Value("base-url");
    settings.serverTree = line.Value("out");
    return AddCommand(settings).Run();
}

ExitStatus RunPromote(const QStringList& words)
{
    CommandLine line(
        QStringLiteral("promote"),
        QStringLiteral("Offers a version to the clients. One answer speaks for every package and\n"
                       "platform of SERVERTREE, so each of them must be published in VERSION."),
        {{"version", "VERSION", "Version to offer.", nullptr},
         {"out", "SERVERTREE", "Directory that holds the published builds.", nullptr}});
    ExitStatus status = ExitDone;
    if (!line.Parse(words, status))
        return status;
    PromoteSettings settings;
    settings.version = line.Value("version");
    settings.serverTree = line.Value("out");
    return PromoteCommand(settings).Run();
}

ExitStatus Run(const QStringList& words)
{
    const QString command = words.value(1);
    if (command == QLatin1String("add"))
        return RunAdd(words);
    if (command == QLatin1String("promote"))
        return RunPromote(words);
    if (command == QLatin1String("--help") || command == QLatin1String("-h")) {
        PrintText(HelpText());
        return ExitDone;
    }
    if (command == QLatin1String("--version") || command == QLatin1String("-v")) {
        PrintText(QStringLiteral("kxpublish %1\n").arg(QCoreApplication::applicationVersion()));
        return ExitDone;
    }
    return UsageError(command.isEmpty() ? QStringLiteral("no command is given")
                                        : QStringLiteral("unknown command %1").arg(Shown(command)),
                      QString());
}

} // namespace
} // namespace publish

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("kxpublish"));
    QCoreApplication::setApplicationVersion(QStringLiteral(KXPUBLISH_VERSION));
    publish::CatchInterrupts();
    return publish::Run(QCoreApplication::arguments());
}
