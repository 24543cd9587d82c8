#include "servecommand.h"

#include "output/console.h"
#include "serve/localnginx.h"
#include "serve/nginxconfig.h"
#include "serve/servedaddresses.h"
#include "server/disk.h"

#include <QFileInfo>
#include <QRegularExpression>

namespace publish {

ServeCommand::ServeCommand(const ServeSettings& given)
    : settings(given), server(ResolvedPath(given.serverTree))
{
    settings.serverTree = ResolvedPath(given.serverTree);
}

ExitStatus ServeCommand::Run()
{
    CheckSettings();
    if (!problems.IsEmpty()) {
        problems.Print();
        return ExitRefused;
    }
    if (LocalNginx::Program().isEmpty()) {
        Complain(QStringLiteral("nginx is not installed: apt install nginx"));
        return ExitFailed;
    }
    QString error;
    ServedAddresses addresses;
    if (!FindAddresses(server, addresses, error)) {
        Complain(error);
        return ExitFailed;
    }

    NginxConfig config;
    config.port = settings.port.toUShort();
    config.limitRate = settings.limitRate;
    config.logRequests = !settings.quiet;
    if (!settings.keepUrls)
        config.baseUrls = addresses.baseUrls;
    LocalNginx nginx(settings.serverTree);
    if (!nginx.Start(config, error)) {
        // Whoever interrupts the start wants the same as later.
        if (error.isEmpty())
            return ExitDone;
        Complain(error);
        return ExitFailed;
    }
    Announce(config, addresses.elsewhere);
    if (nginx.Run())
        return ExitDone;
    Complain(QStringLiteral("nginx has ended by itself"));
    return ExitFailed;
}

void ServeCommand::CheckSettings()
{
    const QString path = Shown(settings.serverTree);
    const QFileInfo tree(settings.serverTree);
    if (!tree.exists())
        problems.Refuse(path, QStringLiteral("no such directory"));
    else if (!tree.isDir())
        problems.Refuse(path, QStringLiteral("not a directory"));
    else if (!QFileInfo(server.PackagesPath()).isDir())
        problems.Refuse(path, QStringLiteral("not a server tree, it has no directory 'packages'"));

    bool isNumber = false;
    settings.port.toUShort(&isNumber);
    if (!isNumber)
        problems.Refuse(QStringLiteral("--port ") + Shown(settings.port),
                        QStringLiteral("not a number from 0 to 65535"));
    static const QRegularExpression rate(
        QRegularExpression::anchoredPattern(QStringLiteral("[1-9][0-9]{0,8}[km]?")));
    if (!settings.limitRate.isEmpty() && !rate.match(settings.limitRate).hasMatch())
        problems.Refuse(QStringLiteral("--limit-rate ") + Shown(settings.limitRate),
                        QStringLiteral("not a number of bytes a second, such as 100k or 2m"));
}

void ServeCommand::Announce(const NginxConfig& config, const QStringList& elsewhere) const
{
    const QString version = server.OfferedVersion();
    Say(QStringLiteral("serving %1 at %2 until Ctrl-C; %3")
            .arg(Shown(settings.serverTree), config.Url(),
                 version.isEmpty() ? QStringLiteral("no version is offered yet")
                                   : QStringLiteral("version %1 is offered").arg(Shown(version))));
    for (const QString& baseUrl : config.baseUrls) {
        if (baseUrl == config.Url())
            continue;
        Say(QStringLiteral("manifests go out with %1 in place of %2; --keep-urls leaves them")
                .arg(config.Url(), baseUrl));
    }
    for (const QString& manifest : elsewhere) {
        Warn(
            QStringLiteral("%1 sends clients elsewhere for the files; its address is left as it is")
                .arg(Shown(manifest)));
    }
    // Last, since scripts wait for it.
    PrintDatum(QStringLiteral("url"), config.Url());
    FlushOutput();
}

} // namespace publish
