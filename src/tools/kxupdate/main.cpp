#include "common/commandline.h"
#include "common/console.h"
#include "common/terminal.h"
#include "exitstatus.h"
#include "interrupt.h"
#include "logforwarder.h"
#include "options.h"
#include "session.h"
#include "updaterhost.h"
#include "watch.h"

#include <QCoreApplication>
#include <QNetworkProxyFactory>

#include <cstdio>

namespace {

// Qt warns in every environment without a language that it takes UTF-8, which is what is wanted.
void PrintQtMessage(QtMsgType type, const QMessageLogContext&, const QString& text)
{
    if (type == QtDebugMsg || type == QtInfoMsg ||
        text.startsWith(QLatin1String("Detected locale")))
        return;
    std::fprintf(stderr, "%s\n", qUtf8Printable(text));
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
    tools::Console console(options.quiet);
    const LogForwarder logger(console, options.logLevel);
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
    std::fprintf(stderr, "kxupdate: %s; %s\n", qUtf8Printable(problem),
                 qUtf8Printable(line.HelpHint()));
    return int(ExitStatus::Usage);
}
