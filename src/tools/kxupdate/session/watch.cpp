#include "watch.h"

#include "common/console.h"
#include "exitstatus.h"
#include "files/configfile.h"
#include "session.h"

namespace {

constexpr int longestWait = 2147483; // seconds: the updater's timer counts milliseconds in an int

} // namespace

Watch::Watch(const Options& options, tools::Console& console, QObject* parent)
    : QObject(parent),
      options(options),
      console(console),
      host(options),
      updater(host.updater.get())
{
    if (options.interval > 0)
        updater->SetCheckInterval(options.interval);
    connect(updater, SIGNAL(checking()), SLOT(OnChecking()));
    connect(updater, SIGNAL(stateChanged(const QString&)), SLOT(OnStateChanged(const QString&)));
}

Watch::~Watch() = default;

void Watch::Start()
{
    BeginRound();
    session->Start();
}

void Watch::BeginRound()
{
    session = std::make_unique<Session>(options, console, host);
    // Queued: the session goes with its round, and may end it inside a signal of the updater.
    connect(session.get(), SIGNAL(done(int)), this, SLOT(OnRoundDone(int)), Qt::QueuedConnection);
}

void Watch::OnChecking()
{
    // The first check is the session's; all others begin when the time is over.
    if (session)
        return;
    ReadVersion();
    BeginRound();
    session->JoinCheck();
}

void Watch::ReadVersion()
{
    // Somebody may have installed another version meanwhile.
    ConfigFile config;
    if (!options.currentFromConfig)
        return;
    const QString problem = config.Load(options.config);
    if (problem.isEmpty() && config.Has("version"))
        options.current = config.Value("version");
    else
        console.Error(
            QStringLiteral("Going on with version %1: %2.")
                .arg(options.current, problem.isEmpty()
                                          ? QStringLiteral("'%1' names none").arg(options.config)
                                          : problem));
}

void Watch::OnStateChanged(const QString& name)
{
    stateName = name;
}

void Watch::OnRoundDone(int status)
{
    const QString installed = session->InstalledVersion();
    if (!installed.isEmpty())
        options.current = installed;
    // What was good once may be so again: another run, or a volume that is not mounted.
    const bool isUseless = !hasBegun && !session->PlacesAreGood();
    hasBegun = true;
    session.reset();

    const bool isBroken = status == int(ExitStatus::Broken);
    if (isBroken || isUseless)
        return End(status);
    if (ending)
        return End(int(ExitStatus::Done));
    AwaitNextRound();
}

void Watch::AwaitNextRound()
{
    console.Message(QStringLiteral("Checking again in %1 seconds.")
                        .arg(qMin(updater->CheckInterval(), longestWait)));
    // Only the way into WAITING starts the timer. A finished updater has stopped, and is started
    // again by Cancel().
    if (stateName == QLatin1String("SUCCESS"))
        updater->Cancel();
    else if (stateName != QLatin1String("WAITING"))
        updater->Wait();
}

void Watch::Interrupt()
{
    if (ending && !session)
        return;
    ending = true;
    if (session)
        return session->Interrupt();
    End(int(ExitStatus::Done));
}

void Watch::End(int status)
{
    ending = true;
    console.Message(QStringLiteral("The watch has ended."));
    Q_EMIT done(status);
}
