#include "options.h"

#include "common/commandline.h"

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

struct NeedRow
{
    const char* name;
    Command command;
    unsigned needs;
};

const NeedRow needRows[] = {
    {"check", Command::Check, Url | Package | Current | Application},
    {"download", Command::Download, Url | Package | Current | Application | Download},
    {"install", Command::Install, Application | Download},
    {"update", Command::Update, Url | Package | Current | Application | Download},
    {"repair", Command::Repair, Url | Package | Current | Application | Download},
    {"verify", Command::Verify, 0},
    {"status", Command::Status, Application},
};

struct SettingRow
{
    const char* option;
    unsigned need;
    QString Options::*value;
};

const SettingRow settingRows[] = {
    {"url", Url, &Options::url},
    {"package", Package, &Options::package},
    {"current", Current, &Options::current},
    {"app", Application, &Options::application},
    {"download", Download, &Options::download},
    {"xml", 0, &Options::xml},
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

QString MissingOption(const NeedRow& row, const Options& options)
{
    for (const SettingRow& setting : settingRows) {
        if ((row.needs & setting.need) && (options.*setting.value).isEmpty())
            return QStringLiteral("'%1' needs --%2")
                .arg(QString::fromLatin1(row.name), QString::fromLatin1(setting.option));
    }
    if (row.command == Command::Verify) {
        const bool application = !options.application.isEmpty();
        if (application == !options.download.isEmpty())
            return QStringLiteral("'verify' needs one of --download and --app");
        if (application && options.xml.isEmpty())
            return QStringLiteral("'verify' needs --xml when it checks --app");
    }
    return QString();
}

// Empty when the option is absent or a number of the range, which `number` then holds.
QString ReadNumber(const tools::CommandLine& line, const char* option, int least, int most,
                   int& number)
{
    if (!line.IsSet(option))
        return QString();
    bool good = false;
    const int value = line.Value(option).toInt(&good);
    if (!good || value < least || value > most)
        return QStringLiteral("--%1 '%2' is not a number from %3 to %4")
            .arg(QString::fromLatin1(option), line.Value(option))
            .arg(least)
            .arg(most);
    number = value;
    return QString();
}

} // namespace

QString ReadOptions(const tools::CommandLine& line, Options& options)
{
    const NeedRow* row = nullptr;
    for (const NeedRow& candidate : needRows) {
        if (line.Command() == QLatin1String(candidate.name))
            row = &candidate;
    }
    if (!row)
        return QStringLiteral("a command is missing");
    options.command = row->command;

    for (const SettingRow& setting : settingRows) {
        if (line.IsSet(setting.option) && line.Value(setting.option).isEmpty())
            return QStringLiteral("--%1 is empty").arg(QString::fromLatin1(setting.option));
        options.*setting.value = line.Value(setting.option);
    }
    QString problem = MissingOption(*row, options);
    if (problem.isEmpty() && (row->needs & Url))
        problem = UrlProblem(options.url);
    if (problem.isEmpty())
        problem = ReadNumber(line, "log-level", 0, 7, options.logLevel);
    if (!problem.isEmpty())
        return problem;

    while (options.url.endsWith(u'/'))
        options.url.chop(1);
    options.application = Absolute(options.application);
    options.download = Absolute(options.download);
    options.xml = Absolute(options.xml);
    if (options.xml.isEmpty() && !options.download.isEmpty())
        options.xml = options.download + QStringLiteral(".xml");
    options.quiet = line.IsSet("quiet");
    return QString();
}
