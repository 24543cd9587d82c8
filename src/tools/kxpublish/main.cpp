#include "commands.h"
#include "interrupt.h"
#include "output/console.h"
#include "source/platform.h"

#include "common/commandline.h"
#include "common/terminal.h"

#include <QCoreApplication>

namespace {

using publish::ExitStatus;

ExitStatus Run(const QStringList& words)
{
    tools::CommandLine line(publish::Program());
    const tools::CommandLine::Outcome outcome = line.Parse(words);
    // Behind a command that there is not, options are not looked at.
    const bool json = line.IsSet("json") || (outcome == tools::CommandLine::Outcome::Wrong &&
                                             words.contains(QStringLiteral("--json")));
    publish::SetOutputStyle({line.IsSet("quiet"), json});
    ExitStatus status = publish::ExitDone;
    switch (outcome) {
    case tools::CommandLine::Outcome::Print:
        publish::SetOutputStyle({});
        publish::PrintText(line.Text());
        return status;
    case tools::CommandLine::Outcome::Wrong:
        status = publish::ExitUsage;
        publish::Complain(line.Problem());
        publish::Say(line.HelpHint());
        break;
    case tools::CommandLine::Outcome::Run:
        status = publish::RunCommand(line);
        break;
    }
    publish::FinishOutput(line.Command(), status, publish::ResultWord(status));
    if (publish::IsOutputLost()) {
        publish::Complain(QStringLiteral("cannot write to the standard output"));
        return status == publish::ExitDone ? publish::ExitFailed : status;
    }
    return status;
}

} // namespace

int main(int argc, char** argv)
{
    tools::OpenMissingStreams();
    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("kxpublish"));
    QCoreApplication::setApplicationVersion(QStringLiteral(KXPUBLISH_VERSION));
    publish::CatchInterrupts();
    publish::LetOthersRead();
    return Run(QCoreApplication::arguments());
}
