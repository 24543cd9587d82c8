#include "console.h"
#include "exitstatus.h"
#include "interrupt.h"
#include "logforwarder.h"
#include "options.h"
#include "session.h"
#include "terminal.h"

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

int Run(QCoreApplication& app, const Options& options)
{
    Console console(options.quiet);
    const LogForwarder logger(console, options.logLevel);
    const Interrupt interrupt;
    Session session(options, console);
    QObject::connect(&interrupt, SIGNAL(interrupted()), &session, SLOT(Interrupt()));
    // Queued: a session may finish before the loop runs, and exit() does nothing there.
    QObject::connect(&session, &Session::done, &app, &QCoreApplication::exit, Qt::QueuedConnection);
    session.Start();
    return app.exec();
}

} // namespace

int main(int argc, char** argv)
{
    OpenMissingStreams();
    qInstallMessageHandler(PrintQtMessage);
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("kxupdate"));
    QNetworkProxyFactory::setUseSystemConfiguration(true);

    Options options;
    QString problem;
    switch (ParseOptions(QCoreApplication::arguments(), options, problem)) {
    case ParseOutcome::Run:
        return Run(app, options);
    case ParseOutcome::Help:
        std::fputs(qUtf8Printable(HelpText()), stdout);
        return int(ExitStatus::Done);
    case ParseOutcome::Version:
        std::puts("kxupdate " KX_VERSION);
        return int(ExitStatus::Done);
    case ParseOutcome::Wrong:
        break;
    }
    std::fprintf(stderr, "kxupdate: %s; see kxupdate --help\n", qUtf8Printable(problem));
    return int(ExitStatus::Usage);
}
