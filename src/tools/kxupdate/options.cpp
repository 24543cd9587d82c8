#include "options.h"

#include "exitstatus.h"

#include <QCommandLineParser>
#include <QDir>
#include <QUrl>

namespace {

using Command = Options::Command;

enum Need : unsigned {
    Url = 1u << 0,
    Package = 1u << 1,
    Current = 1u << 2,
    Application = 1u << 3,
    Download = 1u << 4,
};

struct CommandRow
{
    const char* name;
    Command command;
    unsigned needs;
};

const CommandRow commands[] = {
    {"check", Command::Check, Url | Package | Current | Application},
    {"download", Command::Download, Url | Package | Current | Application | Download},
    {"install", Command::Install, Application | Download},
    {"update", Command::Update, Url | Package | Current | Application | Download},
    {"verify", Command::Verify, 0},
};

struct NeedRow
{
    const char* option;
    unsigned need;
};

const NeedRow needRows[] = {
    {"url", Url},         {"package", Package},   {"current", Current},
    {"app", Application}, {"download", Download},
};

QString Absolute(const QString& path)
{
    return path.isEmpty() ? path : QDir::cleanPath(QDir::current().absoluteFilePath(path));
}

// Empty when `text` is a base URL that the updater can use.
QString UrlProblem(const QString& text)
{
    const QUrl url(text, QUrl::StrictMode);
    if (!url.isValid())
        return QStringLiteral("--url '%1' is not a URL: %2").arg(text, url.errorString());
    if (url.scheme() != QLatin1String("http") && url.scheme() != QLatin1String("https"))
        return QStringLiteral("--url '%1' does not begin with http:// or https://").arg(text);
    if (url.host().isEmpty())
        return QStringLiteral("--url '%1' names no host").arg(text);
    if (url.hasQuery() || url.hasFragment())
        return QStringLiteral("--url '%1' must not hold a '?' or a '#'").arg(text);
    return QString();
}

QString MissingOption(const CommandRow& row, const QCommandLineParser& parser)
{
    for (const NeedRow& need : needRows) {
        const QString name = QString::fromLatin1(need.option);
        if ((row.needs & need.need) && !parser.isSet(name))
            return QStringLiteral("'%1' needs --%2").arg(QString::fromLatin1(row.name), name);
    }
    if (row.command == Command::Verify) {
        const bool application = parser.isSet(QStringLiteral("app"));
        if (application == parser.isSet(QStringLiteral("download")))
            return QStringLiteral("'verify' needs one of --download and --app");
        if (application && !parser.isSet(QStringLiteral("xml")))
            return QStringLiteral("'verify' needs --xml when it checks --app");
    }
    return QString();
}

void AddOptions(QCommandLineParser& parser)
{
    const QString value = QStringLiteral("value");
    for (const char* name : {"url", "package", "current", "app", "download", "xml", "log-level"})
        parser.addOption(QCommandLineOption(QString::fromLatin1(name), QString(), value));
    parser.addOption(QCommandLineOption(QStringList{QStringLiteral("q"), QStringLiteral("quiet")}));
    parser.addOption(QCommandLineOption(QStringList{QStringLiteral("h"), QStringLiteral("help")}));
    parser.addOption(QCommandLineOption(QStringLiteral("version")));
}

QString EmptyValue(const QCommandLineParser& parser)
{
    for (const char* name : {"url", "package", "current", "app", "download", "xml"}) {
        const QString option = QString::fromLatin1(name);
        if (parser.isSet(option) && parser.value(option).isEmpty())
            return QStringLiteral("--%1 is empty").arg(option);
    }
    return QString();
}

} // namespace

ParseOutcome ParseOptions(const QStringList& arguments, Options& options, QString& problem)
{
    QCommandLineParser parser;
    AddOptions(parser);
    const bool parsed = parser.parse(arguments);
    if (parser.isSet(QStringLiteral("help")))
        return ParseOutcome::Help;
    if (parser.isSet(QStringLiteral("version")))
        return ParseOutcome::Version;

    const auto wrong = [&problem](const QString& text) {
        problem = text;
        return ParseOutcome::Wrong;
    };
    if (!parsed)
        return wrong(parser.errorText());

    const QStringList words = parser.positionalArguments();
    if (words.isEmpty())
        return wrong(QStringLiteral("a command is missing"));
    if (words.size() > 1)
        return wrong(QStringLiteral("unexpected argument '%1'").arg(words.at(1)));

    const CommandRow* row = nullptr;
    for (const CommandRow& candidate : commands) {
        if (words.first() == QLatin1String(candidate.name))
            row = &candidate;
    }
    if (!row)
        return wrong(QStringLiteral("unknown command '%1'").arg(words.first()));

    for (const QString& text : {EmptyValue(parser), MissingOption(*row, parser)}) {
        if (!text.isEmpty())
            return wrong(text);
    }

    options.command = row->command;
    options.url = parser.value(QStringLiteral("url"));
    if (row->needs & Url) {
        const QString text = UrlProblem(options.url);
        if (!text.isEmpty())
            return wrong(text);
        while (options.url.endsWith(u'/'))
            options.url.chop(1);
    }
    options.package = parser.value(QStringLiteral("package"));
    options.current = parser.value(QStringLiteral("current"));
    options.application = Absolute(parser.value(QStringLiteral("app")));
    options.download = Absolute(parser.value(QStringLiteral("download")));
    options.xml = Absolute(parser.value(QStringLiteral("xml")));
    if (options.xml.isEmpty() && !options.download.isEmpty())
        options.xml = options.download + QStringLiteral(".xml");
    options.quiet = parser.isSet(QStringLiteral("quiet"));

    if (parser.isSet(QStringLiteral("log-level"))) {
        bool number = false;
        options.logLevel = parser.value(QStringLiteral("log-level")).toInt(&number);
        if (!number || options.logLevel < 0 || options.logLevel > 7)
            return wrong(QStringLiteral("--log-level '%1' is not a number from 0 to 7")
                             .arg(parser.value(QStringLiteral("log-level"))));
    }
    return ParseOutcome::Run;
}

QString HelpText()
{
    return QStringLiteral(
               "Usage: kxupdate COMMAND [options]\n"
               "\n"
               "Keeps an application directory current from a static update server.\n"
               "\n"
               "Commands\n"
               "  check     ask whether the server has something else than the application holds\n"
               "  download  assemble and verify the server's version in the download directory\n"
               "  install   swap a downloaded version in; the old one comes back if that fails\n"
               "  update    all of it: check, download, install; also repairs damaged files\n"
               "  verify    compare --download (or --app) with the package that --xml describes\n"
               "\n"
               "Options\n"
               "  --url URL        base address of the server, the part before /packages\n"
               "  --package NAME   name of the package on the server\n"
               "  --current TEXT   version of the installed application; any text, 0 for none\n"
               "  --app DIR        application directory; need not exist yet\n"
               "  --download DIR   where the new version is assembled; made when missing, cleared\n"
               "                   when it was made here (DIR.kxupdate marks it), else refused\n"
               "  --xml FILE       where the package description is kept; default: DIR.xml\n"
               "  --log-level N    forward the library's messages up to severity N, 0 to 7\n"
               "  -q, --quiet      print only errors and data\n"
               "  -h, --help       print this text\n"
               "  --version        print the version\n"
               "\n"
               "  check, download and update need --url, --package, --current and --app; all but\n"
               "  check need --download.\n"
               "\n"
               "Example\n"
               "  kxupdate update --url https://updates.example.org --package hello --current 1.0 "
               "\\\n"
               "      --app /opt/hello --download /var/cache/hello/next\n"
               "\n"
               "Messages go to stderr, data to stdout as 'name: value'; the last line is "
               "'result'.\n"
               "Ctrl-C ends the command, but a swap that has begun is finished first.\n"
               "\n"
               "Exit statuses, each with the word of its result line\n") +
           ExitStatusHelp();
}
