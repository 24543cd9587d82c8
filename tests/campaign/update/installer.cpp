// A host that others are set against: it gets ready, waits until it is told to go, and says what it
// came to.
//     campaign_installer MODE URL PACKAGE APP_DIR DOWNLOAD_DIR [STATE]
// MODE
//     install   installs what lies in DOWNLOAD_DIR, described by DOWNLOAD_DIR.xml
//     update    locks the application, checks, downloads and installs
//     queue     the same, but waits for the lock
//     recover   recovers the application
//     hold      as install, but waits for a second word when STATE is entered
//     die       as install, but is killed when STATE is entered
// It prints "ready", after a line on stdin does what it should (a number in the line is the moment
// to begin at, in nanoseconds of the system's monotonic clock), and prints "end RESULT", and behind
// that the reason, if there is one. RESULT is installed, current, busy, failed, or the name of a
// RecoveryState. Exit status: 0, 2 for wrong arguments.

#include <kxguard/errors.h>
#include <kxguard/installguard.h>
#include <kxguard/recover.h>
#include <kxupdater/iupdater.h>

#include <QCoreApplication>
#include <QFile>
#include <QNetworkAccessManager>
#include <QTextStream>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <thread>

namespace {

constexpr int queueMs = 120000;

void Print(const QString& line)
{
    std::printf("%s\n", qUtf8Printable(line));
    std::fflush(stdout);
}

// Blocks: nothing of this process goes on meanwhile but its worker threads. Then waits for the
// moment that the word names, so that others which got the same one begin in the same instant.
void AwaitWord()
{
    QByteArray word;
    for (int byte = std::getchar(); byte != '\n' && byte != EOF; byte = std::getchar())
        word += char(byte);
    const std::chrono::nanoseconds moment(word.toLongLong());
    std::this_thread::sleep_until(std::chrono::steady_clock::time_point(moment));
}

int End(const QString& result, const QString& reason = QString())
{
    Print(QStringLiteral("end %1 %2").arg(result, reason));
    return 0;
}

QString NameOf(guard::RecoveryState state)
{
    static const char* const names[] = {"whole",   "absent", "restored", "finished",
                                        "cleaned", "busy",   "failed"};
    return QString::fromLatin1(names[int(state)]);
}

int Recover(const QString& application)
{
    Print(QStringLiteral("ready"));
    AwaitWord();
    const guard::Recovery recovery = guard::Recover(application);
    return End(NameOf(recovery.state), recovery.text);
}

class Installer : public QObject
{
    Q_OBJECT
public:
    explicit Installer(const QStringList& arguments)
        : mode(arguments[0]),
          state(arguments.value(5)),
          updater(updater::CreateUpdater(&manager, nullptr)),
          guard(updater.get())
    {
        updater->SetURL(arguments[1]);
        updater->SetPackageName(arguments[2]);
        updater->SetCurrentVersion(QStringLiteral("1.0"));
        updater->SetLocalPackagePath(arguments[3]);
        updater->SetDownloadPath(arguments[4]);
        connect(updater.get(), SIGNAL(waiting()), SLOT(OnWaiting()));
        connect(updater.get(), SIGNAL(available()), updater.get(), SLOT(Download()));
        connect(updater.get(), SIGNAL(actual()), updater.get(), SLOT(Finish()));
        connect(updater.get(), SIGNAL(finished()), SLOT(OnFinished()));
        connect(updater.get(), SIGNAL(failed()), SLOT(OnFailed()));
        connect(updater.get(), SIGNAL(error(int, const QString&)),
                SLOT(OnError(int, const QString&)));
        connect(updater.get(), SIGNAL(stateChanged(const QString&)),
                SLOT(OnStateChanged(const QString&)));
        if (Checks())
            return;
        QFile description(arguments[4] + QStringLiteral(".xml"));
        if (description.open(QIODevice::ReadOnly))
            guard.SetPackageXML(QString::fromUtf8(description.readAll()));
        guard.SetVersion(QStringLiteral("2.0"));
        isAssembled = true;
    }

private Q_SLOTS:
    void OnWaiting()
    {
        if (!isReady) {
            isReady = true;
            Print(QStringLiteral("ready"));
            AwaitWord();
            if (Checks() && !TakesLock())
                return;
        }
        if (isAssembled)
            updater->Install();
        else
            updater->Check();
        installs = isAssembled;
    }

    void OnFinished()
    {
        if (installs)
            Leave(QStringLiteral("installed"));
        else if (updater->IsActual())
            Leave(QStringLiteral("current"));
        else {
            isAssembled = true;
            updater->Cancel();
        }
    }

    void OnFailed()
    {
        Leave(guard.LastErrorCode() == guard::InstallBusy ? QStringLiteral("busy")
                                                          : QStringLiteral("failed"),
              guard.LastError() + reasons);
    }

    void OnError(int code, const QString& text)
    {
        reasons += QStringLiteral(" [%1: %2]").arg(code).arg(text);
    }

    void OnStateChanged(const QString& name)
    {
        if (name != state)
            return;
        Print(QStringLiteral("state ") + name);
        if (mode == QLatin1String("die"))
            ::raise(SIGKILL);
        AwaitWord();
    }

private:
    bool Checks() const
    {
        return mode == QLatin1String("update") || mode == QLatin1String("queue");
    }

    bool TakesLock()
    {
        const guard::Problem problem = guard.Lock(mode == QLatin1String("queue") ? queueMs : 0);
        if (problem)
            Leave(problem.code == guard::InstallBusy ? QStringLiteral("busy")
                                                     : QStringLiteral("failed"),
                  problem.text);
        return !problem;
    }

    void Leave(const QString& result, const QString& reason = QString())
    {
        End(result, reason);
        QCoreApplication::exit(0);
    }

    const QString mode;
    const QString state;
    QNetworkAccessManager manager;
    const std::unique_ptr<updater::IUpdater> updater;
    guard::InstallGuard guard;
    bool isReady = false;
    bool isAssembled = false;
    bool installs = false;
    QString reasons;
};

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments().mid(1);
    if (arguments.size() < 5 || arguments.size() > 6)
        return 2;
    if (arguments[0] == QLatin1String("recover"))
        return Recover(arguments[3]);
    const Installer installer(arguments);
    return QCoreApplication::exec();
}

#include "installer.moc"
