#include "session.h"

#include "common/console.h"
#include "files/configfile.h"
#include "files/packagefile.h"
#include "files/paths.h"
#include "output/errorhints.h"
#include "refusal.h"

#include <kxguard/diskspace.h>
#include <kxupdater/transferprogress.h>

#include <QDir>
#include <QFileInfo>

namespace {

QString Shown(const QUrl& url)
{
    return url.toDisplayString(QUrl::RemovePassword);
}

} // namespace

Session::Session(const Options& options, tools::Console& console, UpdaterHost& host,
                 QObject* parent)
    : QObject(parent),
      options(options),
      console(console),
      application(options.application),
      download(options.download),
      host(host),
      updater(host.updater.get()),
      installGuard(host.updater.get()),
      diagnosis(host.manager, QUrl(options.url)),
      transfer(std::make_unique<updater::TransferProgress>(host.updater.get())),
      record(options.download.isEmpty() ? QString() : download.RecordPath())
{
    updater->SetPackageName(options.package);
    updater->SetCurrentVersion(options.current);
    updater->SetLocalPackagePath(options.application);
    updater->SetDownloadPath(options.download);
    if (!options.url.isEmpty())
        updater->SetURL(options.url);
    installGuard.SetKeys(options.keys);
    installGuard.SetDowngradeAllowed(options.allowDowngrade);
    installGuard.SetRunningProgramRefused(options.refuseRunning);
    // After the guard, which mends at each end of an install what is to be reported here.
    ConnectUpdater();
}

Session::~Session() = default;

void Session::ConnectUpdater()
{
    updater::IUpdater* source = updater;
    connect(source, SIGNAL(waiting()), SLOT(OnWaiting()));
    connect(source, SIGNAL(actual()), SLOT(OnActual()));
    connect(source, SIGNAL(updateAvailable()), SLOT(OnUpdateAvailable()));
    connect(source, SIGNAL(updateRequered()), SLOT(OnUpdateRequered()));
    connect(source, SIGNAL(available()), SLOT(OnAvailable()));
    connect(source, SIGNAL(finished()), SLOT(OnFinished()));
    connect(source, SIGNAL(failed()), SLOT(OnFailed()));
    connect(source, SIGNAL(canceled()), SLOT(OnCanceled()));
    connect(source, SIGNAL(checkError()), SLOT(OnCheckError()));
    connect(&host, SIGNAL(error(int, const QString&)), SLOT(OnError(int, const QString&)));
    connect(source, SIGNAL(stateChanged(const QString&)), SLOT(OnStateChanged(const QString&)));
    connect(source, SIGNAL(progress(int)), SLOT(OnProgress(int)));
    connect(&host.manager, SIGNAL(silent(int)), SLOT(OnSilent(int)));
    connect(transfer.get(), SIGNAL(changed()), SLOT(OnTransferChanged()));
    connect(source, SIGNAL(localUpdateVerificationFinished(bool)), SLOT(OnVerified(bool)));
}

void Session::Start()
{
    // The locks come before everything that writes, the waiting before everything that commands.
    switch (options.command) {
    case Options::Command::Check:
        steps = {&Session::CheckDirectories, &Session::AwaitReady, &Session::CheckServer,
                 &Session::FindDamage, &Session::ReportCheck};
        break;
    case Options::Command::Download:
        steps = {
            &Session::CheckDirectories, &Session::TakeLocks,           &Session::AwaitReady,
            &Session::CheckServer,      &Session::RequireLaterVersion, &Session::PrepareDownload,
            &Session::Download,         &Session::KeepPackage,         &Session::Conclude};
        break;
    case Options::Command::Install:
        steps = {&Session::CheckDirectories, &Session::TakeLocks,  &Session::MendApplication,
                 &Session::LoadPackage,      &Session::AwaitReady, &Session::Install,
                 &Session::Conclude};
        break;
    case Options::Command::Update:
    case Options::Command::Repair:
        steps = {&Session::CheckDirectories,
                 &Session::TakeLocks,
                 &Session::MendApplication,
                 &Session::AwaitReady,
                 &Session::CheckServer,
                 &Session::RequireSameVersion,
                 &Session::RequireLaterVersion,
                 &Session::FindDamage,
                 &Session::CheckAttempts,
                 &Session::PrepareDownload,
                 &Session::CountAttempt,
                 &Session::Download,
                 &Session::KeepPackage,
                 &Session::Restart,
                 &Session::Install,
                 &Session::Conclude};
        break;
    case Options::Command::Verify:
        steps = {&Session::LoadPackage, &Session::VerifyTree, &Session::VerifySignature,
                 &Session::Conclude};
        break;
    case Options::Command::Recover:
        recoveryDeadline.setRemainingTime(qint64(options.wait) * 1000);
        steps = {&Session::Recover};
        break;
    case Options::Command::Status:
        steps = {&Session::ReportStatus};
        break;
    }
    tree = options.download.isEmpty() ? options.application : options.download;
    Next();
}

void Session::JoinCheck()
{
    // Before the updater asks the server, and so before it looks at the application.
    joining = true;
    Start();
    while (!finished && steps.constFirst() != &Session::AwaitReady)
        (this->*steps.takeFirst())();
    joining = false;
    steps.remove(0, 2);
    if (!finished)
        AnnounceCheck();
}

bool Session::Swaps() const
{
    return options.command == Options::Command::Install ||
           options.command == Options::Command::Update ||
           options.command == Options::Command::Repair;
}

bool Session::Assembles() const
{
    return options.command == Options::Command::Download ||
           options.command == Options::Command::Update ||
           options.command == Options::Command::Repair;
}

void Session::Next()
{
    // From the loop, never from inside a signal of the updater: a step may block or delete.
    awaited = Awaited::Nothing;
    if (joining)
        return;
    QMetaObject::invokeMethod(this, "RunStep", Qt::QueuedConnection);
}

void Session::RunStep()
{
    if (finished || steps.isEmpty())
        return;
    // The outcome of a step may have been on its way when the user gave up.
    if (canceling && !swapBegan)
        return OnCanceled();
    (this->*steps.takeFirst())();
}

void Session::Finish(ExitStatus status, const QString& word)
{
    if (finished)
        return;
    finished = true;
    awaited = Awaited::Nothing;
    console.EndProgress();
    const QString result = word.isEmpty() ? ResultWord(status) : word;
    RecordOutcome(status, result);
    console.Result(result, int(status));
    Q_EMIT done(int(status));
}

void Session::Refuse(const QString& reason)
{
    Fail(reason, ExitStatus::Refused);
}

void Session::Refuse(const guard::Problem& problem)
{
    console.Failure(problem.code, problem.text, ErrorHint(problem.code, problem.text));
    Finish(RefusalStatus(problem.code));
}

void Session::Fail(const QString& reason, ExitStatus status)
{
    console.Error(reason);
    Finish(status);
}

void Session::CheckDirectories()
{
    const bool swaps = Swaps();
    const bool assembles = Assembles();

    QString reason = application.Violation();
    if (reason.isEmpty() && swaps)
        reason = application.SwapViolation();
    if (reason.isEmpty() && !options.download.isEmpty())
        reason = download.Violation(application);
    if (reason.isEmpty() && (swaps || assembles))
        reason = FilePlaceViolation();
    if (reason.isEmpty() && swaps && !options.config.isEmpty())
        reason = ConfigFile::ReplaceProblem(options.config);
    if (reason.isEmpty() && assembles)
        reason = download.ClaimViolation();
    if (!reason.isEmpty())
        return Refuse(reason);
    // What nothing would be installed from is not worth a download.
    const guard::Problem exposed = assembles ? installGuard.CheckDownloadPath() : guard::Problem();
    if (exposed)
        return Refuse(exposed);
    placesAreGood = true;

    if (options.command == Options::Command::Download) {
        const QString warning = application.SwapViolation();
        if (!warning.isEmpty())
            console.Message(QStringLiteral("Note for the install: ") + warning);
    }
    Next();
}

QString Session::FilePlaceViolation() const
{
    // Who may write the directory must not choose what is overwritten.
    const QString foreign = OwnFileProblem(options.xml);
    if (!foreign.isEmpty())
        return QStringLiteral("The package description ") + foreign;
    const QString xml = ResolvedPath(options.xml);
    const QString config = options.config.isEmpty() ? QString() : ResolvedPath(options.config);
    for (const QString& directory :
         {download.Path(), application.Path(), application.BackupPath()}) {
        const QString place = ResolvedPath(directory);
        if (IsInside(xml, place))
            return QStringLiteral("--xml '%1' lies inside '%2', which is cleared or replaced.")
                .arg(options.xml, directory);
        if (!config.isEmpty() && IsInside(config, place))
            return QStringLiteral("--config '%1' lies inside '%2', which is cleared or replaced.")
                .arg(options.config, directory);
    }
    for (const QString& written :
         {options.xml, download.MarkerPath(), download.RecordPath(), download.LockPath()}) {
        if (ResolvedPath(written) == config)
            return QStringLiteral("'%1' is the configuration, and would be overwritten.")
                .arg(written);
    }
    return QString();
}

void Session::AwaitReady()
{
    // The updater enters WAITING once the loop runs, which may have happened by now.
    if (stateName == QLatin1String("WAITING"))
        return Next();
    awaited = Awaited::Waiting;
}

void Session::CheckServer()
{
    AnnounceCheck();
    updater->Check();
}

void Session::AnnounceCheck()
{
    console.Message(QStringLiteral("Checking '%1' at %2 for '%3'.")
                        .arg(options.package, Shown(QUrl(options.url)), application.Path()));
    // What swaps has mended it before.
    if (options.command == Options::Command::Check)
        ReportSwap();
    awaited = Awaited::Check;
}

void Session::ReportCheck()
{
    Finish(repair ? ExitStatus::RepairNeeded : ExitStatus::UpdateAvailable);
}

void Session::PrepareDownload()
{
    QString problem = download.ClaimViolation();
    if (!problem.isEmpty())
        return Refuse(problem);
    guard::SpaceDemand demand;
    demand.download = download.Path();
    demand.freedBesideDownload = download.ClearedSize(manifest);
    if (Swaps()) {
        demand.application = application.Path();
        demand.freedBesideApplication = application.LeftoverSize();
    }
    problem = guard::SpaceProblem(manifest, demand);
    if (!problem.isEmpty())
        return Refuse(problem);
    problem = download.Claim();
    int removed = 0;
    if (problem.isEmpty())
        problem = download.Clear(manifest, removed);
    if (!problem.isEmpty())
        return Fail(problem);
    if (removed > 0)
        console.Message(QStringLiteral("Removed %1 stale %2 from '%3'.")
                            .arg(removed)
                            .arg(removed == 1 ? QStringLiteral("entry") : QStringLiteral("entries"),
                                 download.Path()));
    Next();
}

void Session::Download()
{
    awaited = Awaited::Download;
    updater->Download();
}

void Session::KeepPackage()
{
    console.EndProgress();
    QDir().mkpath(QFileInfo(options.xml).absolutePath());
    packageXml = updater->PackageXML();
    const QString problem = packagefile::Write(options.xml, packageXml, updater->ServerVersion());
    if (!problem.isEmpty())
        return Fail(problem);
    console.Message(QStringLiteral("The new version is complete in '%1'.").arg(download.Path()));
    Next();
}

void Session::Restart()
{
    // A finished updater has stopped; this is how it is started again.
    awaited = Awaited::Waiting;
    updater->Cancel();
}

void Session::LoadPackage()
{
    QString xml;
    const QString problem = packagefile::Read(options.xml, xml);
    if (!problem.isEmpty()) {
        const bool own = options.command == Options::Command::Install;
        return Refuse(own ? problem + QStringLiteral(" Run 'kxupdate download' first.") : problem);
    }
    const QString name =
        options.package.isEmpty() ? packagefile::PackageName(xml) : options.package;
    manifest = packagefile::Files(name, xml);
    if (manifest.isEmpty())
        return Refuse(
            QStringLiteral("'%1' describes no files of a package '%2'.").arg(options.xml, name));
    updater->SetPackageName(name);
    const guard::Problem untrusted = SignatureProblem(xml, packagefile::Version(xml));
    if (untrusted)
        return Refuse(untrusted);
    packageXml = xml;
    Next();
}

QString Session::NewVersion() const
{
    return options.command == Options::Command::Install ? packagefile::Version(packageXml)
                                                        : updater->ServerVersion();
}

void Session::VerifyTree()
{
    console.Message(QStringLiteral("Verifying '%1' against '%2'.").arg(tree, options.xml));
    awaited = Awaited::Verification;
    if (!updater->VerifyLocalUpdate(tree, options.xml))
        Fail(QStringLiteral("'%1' cannot be verified against '%2'.").arg(tree, options.xml));
}

void Session::Install()
{
    hadApplication = application.Exists();
    console.Dropped(application.Unlisted(manifest));
    installGuard.SetPackageXML(packageXml);
    installGuard.SetVersion(NewVersion());
    awaited = Awaited::Install;
    updater->Install();
}

void Session::Conclude()
{
    switch (options.command) {
    case Options::Command::Download:
        console.Message(QStringLiteral("Ready to install with 'kxupdate install'."));
        return Finish(ExitStatus::Done, QStringLiteral("downloaded"));
    case Options::Command::Verify:
        console.Message(QStringLiteral("'%1' is what '%2' describes.").arg(tree, options.xml));
        return Finish(ExitStatus::Done, QStringLiteral("verified"));
    case Options::Command::Check:
    case Options::Command::Install:
    case Options::Command::Update:
    case Options::Command::Repair:
    case Options::Command::Recover:
    case Options::Command::Status:
        break;
    }

    console.EndProgress();
    if (application.BackupExists())
        console.Warning(
            QStringLiteral("The old version could not be removed whole. What is left of "
                           "it is in '%1'; remove it.")
                .arg(application.BackupPath()));
    if (canceling)
        console.Message(QStringLiteral("The swap was under way and has been finished."));
    installedVersion = NewVersion();
    KeepVersion();
    RunProgram();
    if (options.command == Options::Command::Install) {
        console.Message(QStringLiteral("Installed in '%1'.").arg(application.Path()));
        return Finish(ExitStatus::Done, QStringLiteral("installed"));
    }
    console.Message(
        QStringLiteral("'%1' now holds version %2.").arg(application.Path(), installedVersion));
    Finish(ExitStatus::Done, repair           ? QStringLiteral("repaired")
                             : hadApplication ? QStringLiteral("updated")
                                              : QStringLiteral("installed"));
}
