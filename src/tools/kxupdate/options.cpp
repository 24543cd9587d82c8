#include "options.h"

#include "common/commandline.h"
#include "files/configfile.h"
#include "network/networksettings.h"

#include <QDir>
#include <QSslCertificate>
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
    {"recover", Command::Recover, Application},
    {"status", Command::Status, Application},
};

struct SettingRow
{
    const char* option;
    const char* key; // in the configuration
    unsigned need;
    QString Options::*value;
    bool isPath;
};

const SettingRow settingRows[] = {
    {"url", "url", Url, &Options::url, false},
    {"package", "package", Package, &Options::package, false},
    {"current", "version", Current, &Options::current, false},
    {"app", "app", Application, &Options::application, true},
    {"download", "download", Download, &Options::download, true},
    {"xml", "xml", 0, &Options::xml, true},
    {"proxy", "proxy", 0, &Options::proxy, false},
    {"ca-file", "ca-file", 0, &Options::caFile, true},
    {"log-file", "log-file", 0, &Options::logFile, true},
};

// The settings of the command line, and behind them those of the configuration.
class Sources
{
public:
    Sources(const tools::CommandLine& line, const ConfigFile& config) : line(line), config(config)
    {
    }

    bool Has(const char* option, const char* key) const
    {
        return line.IsSet(option) || config.Has(key);
    }
    QString Value(const char* option, const char* key) const
    {
        return line.IsSet(option) ? line.Value(option) : config.Value(key);
    }
    /** The place of a setting, to begin a message with. */
    QString Where(const char* option, const char* key) const
    {
        return line.IsSet(option) || !config.Has(key)
                   ? QStringLiteral("--") + QString::fromLatin1(option)
                   : config.Where(key);
    }
    /** Paths of the command line are meant from here, those of a file from its directory. */
    QString Path(const char* option, const char* key) const
    {
        return Absolute(option, Value(option, key));
    }
    /** The same for a setting that may be given more than once. */
    QStringList Paths(const char* option, const char* key) const
    {
        QStringList paths;
        for (const QString& path : line.IsSet(option) ? line.Values(option) : config.Values(key))
            paths.append(Absolute(option, path));
        return paths;
    }
    QString WhereOf(const char* option, const char* key, qsizetype index) const
    {
        return line.IsSet(option) ? Where(option, key) : config.Where(key, index);
    }

private:
    QString Absolute(const char* option, const QString& path) const
    {
        const QDir base = line.IsSet(option) ? QDir::current() : QDir(config.Directory());
        return path.isEmpty() ? path : QDir::cleanPath(base.absoluteFilePath(path));
    }

    const tools::CommandLine& line;
    const ConfigFile& config;
};

// Empty when `text` is a base URL that the updater can use. A login in it is not shown.
QString UrlProblem(const QString& where, const QString& text)
{
    const QUrl url(text, QUrl::StrictMode);
    if (!url.isValid() && text.contains(u'@'))
        return QStringLiteral("%1 is not a URL: it cannot be parsed").arg(where);
    // "host:port" alone is what QUrl has no helpful words for.
    if (!url.isValid() && !text.contains(QLatin1String("://")))
        return QStringLiteral("%1 '%2' does not begin with http:// or https://").arg(where, text);
    if (!url.isValid())
        return QStringLiteral("%1 is not a URL: '%2', %3").arg(where, text, url.errorString());
    const QString shown =
        QStringLiteral("%1 '%2'").arg(where, url.toDisplayString(QUrl::RemovePassword));
    if (url.scheme() != QLatin1String("http") && url.scheme() != QLatin1String("https"))
        return QStringLiteral("%1 does not begin with http:// or https://").arg(shown);
    if (url.host().isEmpty())
        return QStringLiteral("%1 names no host").arg(shown);
    if (url.hasQuery() || url.hasFragment())
        return QStringLiteral("%1 must not hold a '?' or a '#'").arg(shown);
    return QString();
}

QString MissingOption(const NeedRow& row, const Options& options)
{
    for (const SettingRow& setting : settingRows) {
        if ((row.needs & setting.need) && (options.*setting.value).isEmpty())
            return QStringLiteral("'%1' needs --%2")
                       .arg(QString::fromLatin1(row.name), QString::fromLatin1(setting.option)) +
                   (options.config.isEmpty()
                        ? QString()
                        : QStringLiteral(", or '%1' in '%2'")
                              .arg(QString::fromLatin1(setting.key), options.config));
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

// A configuration names both directories: the one on the command line is meant, else the
// application.
void ChooseTree(const tools::CommandLine& line, Options& options)
{
    if (line.IsSet("download") && !line.IsSet("app"))
        options.application.clear();
    else if (!line.IsSet("download") && !options.application.isEmpty())
        options.download.clear();
}

// Empty when the setting is absent or a number of the range, which `number` then holds.
QString ReadNumber(const Sources& sources, const char* name, int least, int most, int& number)
{
    if (!sources.Has(name, name))
        return QString();
    bool good = false;
    const QString text = sources.Value(name, name);
    const int value = text.toInt(&good);
    if (!good || value < least || value > most)
        return QStringLiteral("%1 '%2' is not a number from %3 to %4")
            .arg(sources.Where(name, name), text)
            .arg(least)
            .arg(most);
    number = value;
    return QString();
}

// A switch of the command line, which is a key with "yes" or "no" in the configuration.
QString ReadSwitch(const tools::CommandLine& line, const ConfigFile& config, const char* name,
                   bool& isOn)
{
    const QString text = config.Value(name);
    isOn = line.IsSet(name) || text == QLatin1String("yes");
    if (text.isEmpty() || text == QLatin1String("yes") || text == QLatin1String("no"))
        return QString();
    return QStringLiteral("%1 '%2' is neither 'yes' nor 'no'").arg(config.Where(name), text);
}

QString ReadKeys(const Sources& sources, Options& options)
{
    options.keyFiles = sources.Paths("key", "key");
    for (qsizetype i = 0; i < options.keyFiles.size(); ++i) {
        const QString& file = options.keyFiles.at(i);
        if (file.isEmpty())
            return QStringLiteral("--key is empty");
        guard::PublicKey key;
        const guard::Problem problem = guard::PublicKey::Load(file, &key);
        if (problem) {
            QString text = problem.text;
            if (text.endsWith(u'.'))
                text.chop(1); // more follows in the same line
            return QStringLiteral("%1: %2").arg(sources.WhereOf("key", "key", i), text);
        }
        options.keys.append(key);
    }
    return QString();
}

// The description names its package itself, and another one of the same publisher is signed, too.
QString UnboundKeyProblem(const NeedRow& row, const Options& options)
{
    const bool isKept = row.command == Command::Install || row.command == Command::Verify;
    if (!isKept || options.keys.isEmpty() || !options.package.isEmpty())
        return QString();
    return QStringLiteral("'%1' needs --package with --key: the signature must be for it")
        .arg(QString::fromLatin1(row.name));
}

QString NetworkProblem(const Sources& sources, const Options& options)
{
    QNetworkProxy proxy;
    if (!options.proxy.isEmpty()) {
        const QString problem = networksettings::ReadProxy(options.proxy, proxy);
        if (!problem.isEmpty())
            return QStringLiteral("%1 %2").arg(sources.Where("proxy", "proxy"), problem);
    }
    QList<QSslCertificate> certificates;
    if (!options.caFile.isEmpty()) {
        const QString problem = networksettings::ReadCertificates(options.caFile, certificates);
        if (!problem.isEmpty())
            return QStringLiteral("%1 '%2' %3")
                .arg(sources.Where("ca-file", "ca-file"), options.caFile, problem);
    }
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

    ConfigFile config;
    if (line.IsSet("config")) {
        if (line.Value("config").isEmpty())
            return QStringLiteral("--config is empty");
        options.config = QDir::cleanPath(QDir::current().absoluteFilePath(line.Value("config")));
        const QString problem = config.Load(options.config);
        if (!problem.isEmpty())
            return problem;
    }
    const Sources sources(line, config);

    for (const SettingRow& setting : settingRows) {
        if (line.IsSet(setting.option) && line.Value(setting.option).isEmpty())
            return QStringLiteral("--%1 is empty").arg(QString::fromLatin1(setting.option));
        options.*setting.value = setting.isPath ? sources.Path(setting.option, setting.key)
                                                : sources.Value(setting.option, setting.key);
    }
    if (options.xml.isEmpty() && !options.download.isEmpty())
        options.xml = options.download + QStringLiteral(".xml");
    if (options.command == Command::Verify && !options.config.isEmpty())
        ChooseTree(line, options);
    options.currentFromConfig = !options.config.isEmpty() && !line.IsSet("current");
    QString problem = MissingOption(*row, options);
    if (problem.isEmpty() && (row->needs & Url))
        problem = UrlProblem(sources.Where("url", "url"), options.url);
    if (problem.isEmpty())
        problem = NetworkProblem(sources, options);
    if (problem.isEmpty())
        problem = ReadNumber(sources, "log-level", 0, 7, options.logLevel);
    if (problem.isEmpty())
        problem = ReadNumber(sources, "timeout", 1, 3600, options.timeout);
    if (problem.isEmpty())
        problem = ReadNumber(sources, "interval", 1, 2592000, options.interval);
    if (problem.isEmpty())
        problem = ReadNumber(sources, "wait", 0, 86400, options.wait);
    if (problem.isEmpty())
        problem = ReadKeys(sources, options);
    if (problem.isEmpty())
        problem = UnboundKeyProblem(*row, options);
    if (problem.isEmpty())
        problem = ReadSwitch(line, config, "allow-downgrade", options.allowDowngrade);
    if (problem.isEmpty())
        problem = ReadSwitch(line, config, "refuse-running", options.refuseRunning);
    if (!problem.isEmpty())
        return problem;

    while (options.url.endsWith(u'/'))
        options.url.chop(1);
    options.watch = line.IsSet("watch");
    options.run = line.IsSet("run");
    options.json = line.IsSet("json");
    options.quiet = line.IsSet("quiet");
    return QString();
}
