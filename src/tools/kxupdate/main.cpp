#include "common/commandline.h"
#include "common/terminal.h"
#include "common/textconsole.h"
#include "common/textwidth.h"
#include "exitstatus.h"
#include "files/applicationdirectory.h"
#include "files/downloaddirectory.h"
#include "files/paths.h"
#include "interrupt.h"
#include "options.h"
#include "output/jsonconsole.h"
#include "output/logfile.h"
#include "output/logforwarder.h"
#include "session/session.h"
#include "session/updaterhost.h"
#include "session/watch.h"

#include <QCoreApplication>
#include <QNetworkProxyFactory>

#include <cstdio>
#include <memory>

namespace {

// Qt warns in every environment without a language that it takes UTF-8, which is what is wanted.
void PrintQtMessage(QtMsgType type, const QMessageLogContext&, const QString& text)
{
    if (type == QtDebugMsg || type == QtInfoMsg ||
        text.startsWith(QLatin1String("Detected locale")))
        return;
    std::fprintf(stderr, "%s\n", qUtf8Printable(tools::Printable(text)));
}

std::unique_ptr<tools::Console> MakeConsole(bool json, bool quiet)
{
    if (json)
        return std::make_unique<JsonConsole>(quiet);
    return std::make_unique<tools::TextConsole>(quiet);
}

// Why the log must not be where it is wanted: it would be scanned, cleared or replaced.
QString LogPathViolation(const Options& options)
{
    const QString resolved = ResolvedPath(options.logFile);
    const ApplicationDirectory application(options.application);
    for (const QString& directory :
         {application.Path(), application.Path().isEmpty() ? QString() : application.BackupPath(),
          options.download}) {
        if (!directory.isEmpty() && IsInside(resolved, ResolvedPath(directory)))
            return QStringLiteral("--log-file '%1' lies inside '%2', which is cleared or replaced.")
                .arg(options.logFile, directory);
    }
    const DownloadDirectory download(options.download);
    QStringList ownFiles = {options.xml, options.config, download.MarkerPath(),
                            download.RecordPath(), download.LockPath()};
    if (!application.Path().isEmpty())
        ownFiles.append(application.LockPath());
    for (const QString& file : ownFiles + options.keyFiles) {
        if (!file.isEmpty() && resolved == ResolvedPath(file))
            return QStringLiteral("--log-file '%1' is a file of another purpose.")
                .arg(options.logFile);
    }
    return QString();
}

int End(tools::Console& console, ExitStatus status, const QString& problem)
{
    console.Error(problem);
    console.Result(ResultWord(status), int(status));
    return int(status);
}

// Starts a Session or a Watch and runs until it is done.
template <typename Work>
int RunToTheEnd(QCoreApplication& app, Work& work)
{
    const Interrupt interrupt;
    QObject::connect(&interrupt, SIGNAL(interrupted()), &work, SLOT(Interrupt()));
    // Queued: it may finish before the loop runs, and exit() does nothing there.
    QObject::connect(&work, &Work::done, &app, &QCoreApplication::exit, Qt::QueuedConnection);
    work.Start();
    return app.exec();
}

int Run(QCoreApplication& app, const Options& options)
{
    const std::unique_ptr<tools::Console> owned = MakeConsole(options.json, options.quiet);
    tools::Console& console = *owned;
    LogFile log;
    if (!options.logFile.isEmpty()) {
        QString problem = LogPathViolation(options);
        if (problem.isEmpty())
            problem = log.Open(options.logFile);
        if (!problem.isEmpty())
            return End(console, ExitStatus::Refused, problem);
    }
    const LogForwarder logger(console, log, options.logLevel);
    if (options.watch) {
        Watch watch(options, console);
        return RunToTheEnd(app, watch);
    }
    UpdaterHost host(options);
    Session session(options, console, host);
    return RunToTheEnd(app, session);
}

} // namespace

int main(int argc, char** argv)
{
    tools::OpenMissingStreams();
    qInstallMessageHandler(PrintQtMessage);
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("kxupdate"));
    QNetworkProxyFactory::setUseSystemConfiguration(true);

    tools::CommandLine line(Program());
    Options options;
    QString problem;
    switch (line.Parse(QCoreApplication::arguments())) {
    case tools::CommandLine::Outcome::Print:
        std::fputs(qUtf8Printable(line.Text()), stdout);
        return int(ExitStatus::Done);
    case tools::CommandLine::Outcome::Run:
        problem = ReadOptions(line, options);
        if (problem.isEmpty())
            return Run(app, options);
        break;
    case tools::CommandLine::Outcome::Wrong:
        problem = line.Problem();
        break;
    }
    problem += QStringLiteral("; ") + line.HelpHint();
    // The line was not understood, but who writes this word wants no other answer.
    if (QCoreApplication::arguments().contains(QStringLiteral("--json")))
        return End(*MakeConsole(true, false), ExitStatus::Usage, problem);
    tools::TextConsole(false).Error(QStringLiteral("kxupdate: ") + problem);
    return int(ExitStatus::Usage);
}
