#include "session.h"

#include "common/console.h"
#include "files/packagefile.h"
#include "files/paths.h"
#include "output/errorhints.h"
#include "refusal.h"
#include "statenames.h"
#include "treereport.h"

#include <kxupdater/errors.h>
#include <kxupdater/transferprogress.h>

#include <QTimer>

namespace {

// The updater tries three times, 5 s apart, and says nothing before the last.
constexpr int slowCheckMs = 3000;

// The updater counts files, so that a large one among small ones would stand at 99 % for long.
void AddTransfer(const updater::TransferProgress& transfer, tools::ProgressFigures& figures)
{
    const quint64 bytes = transfer.BytesTotal();
    const int files = transfer.FilesTotal();
    if (files == 0)
        return;
    figures.filesDone = transfer.FilesDone();
    figures.filesTotal = files;
    figures.bytesDone = qint64(transfer.BytesDone());
    figures.bytesTotal = qint64(bytes);
    if (figures.filesDone < files) {
        figures.bytesPerSecond = qint64(transfer.BytesPerSecond());
        figures.secondsLeft = transfer.SecondsLeft();
    }
    const QList<updater::TransferProgress::FileProgress> active = transfer.ActiveFiles();
    if (!active.isEmpty())
        figures.file = active.first().name;

    // Of the bytes that are shown: more may have come since.
    const double share =
        bytes > 0 ? double(figures.bytesDone) / double(bytes) : double(figures.filesDone) / files;
    // What has come still has to be checked and put into place.
    figures.percent = figures.filesDone == files ? 100 : qMin(99, int(share * 100));
}

} // namespace

void Session::Interrupt()
{
    if (finished)
        return;
    console.BreakLine();
    // From here on only the end of the swap leaves a whole application in place.
    if (swapBegan) {
        console.Warning(QStringLiteral("The application is being replaced: finishing that first."));
        canceling = true;
        return;
    }
    if (canceling)
        return;
    canceling = true;
    console.Warning(QStringLiteral("Canceling."));

    switch (awaited) {
    case Awaited::Check:
    case Awaited::Download:
    case Awaited::Install:
        updater->Cancel();
        break;
    case Awaited::Nothing:
    case Awaited::Waiting:
    case Awaited::Verification:
    case Awaited::Scan:
        OnCanceled();
        break;
    }
}

void Session::OnWaiting()
{
    if (awaited == Awaited::Waiting)
        Next();
}

void Session::OnActual()
{
    if (awaited != Awaited::Check)
        return;
    // Also when there is nothing to do: the version goes into the configuration.
    const guard::Problem untrusted =
        SignatureProblem(updater->PackageXML(), updater->ServerVersion());
    if (untrusted)
        return Refuse(untrusted);
    // The check finds nothing to do as well when the server lists nothing at all.
    manifest = packagefile::Files(options.package, updater->PackageXML());
    if (manifest.isEmpty())
        return Fail(QStringLiteral("The server's manifest lists no files of the package '%1'. Is "
                                   "--package right?")
                        .arg(options.package),
                    ExitStatus::ServerFailed);
    ReportVersions(QStringLiteral("up-to-date"));
    if (options.current != updater->ServerVersion())
        console.Message(QStringLiteral("%1 says '%2', but the files are those of '%3'.")
                            .arg(options.currentFromConfig ? QStringLiteral("The configuration")
                                                           : QStringLiteral("--current"),
                                 options.current, updater->ServerVersion()));
    console.Message(QStringLiteral("Up to date."));
    FinishUpToDate();
}

void Session::OnUpdateAvailable()
{
    repair = false;
}

void Session::OnUpdateRequered()
{
    repair = true;
}

void Session::OnAvailable()
{
    if (awaited != Awaited::Check)
        return;
    const QString version = updater->ServerVersion();
    const guard::Problem untrusted = SignatureProblem(updater->PackageXML(), version);
    if (untrusted)
        return Refuse(untrusted);
    manifest = packagefile::Files(options.package, updater->PackageXML());
    ReportVersions(ResultWord(repair ? ExitStatus::RepairNeeded : ExitStatus::UpdateAvailable));
    if (repair)
        console.Message(QStringLiteral("Version %1 is installed, but some of its files are "
                                       "damaged, missing or not its own.")
                            .arg(version));
    else if (IsDowngrade())
        console.Message(QStringLiteral("The server has version %1, which is earlier than the "
                                       "installed %2.")
                            .arg(version, options.current));
    else
        console.Message(QStringLiteral("Version %1 is available.").arg(version));
    Next();
}

void Session::ReportVersions(const QString& verdict)
{
    console.Data(QStringLiteral("installed"), options.current);
    console.Data(QStringLiteral("server"), updater->ServerVersion());
    console.Data(QStringLiteral("verdict"), verdict);
}

void Session::OnFinished()
{
    if (awaited == Awaited::Download || awaited == Awaited::Install)
        Next();
}

void Session::OnCanceled()
{
    if (!canceling)
        return;
    console.Message(QStringLiteral("Canceled; the application is untouched."));
    Finish(ExitStatus::Canceled);
}

void Session::OnCheckError()
{
    console.Message(QStringLiteral("    no answer, or not the right one; trying again"));
}

void Session::OnSlowCheck()
{
    if (stateName == QLatin1String("QUERYING"))
        console.Message(QStringLiteral("    no answer yet; still trying, a few more seconds"));
}

void Session::OnSilent(int seconds)
{
    console.Message(QStringLiteral("    no data came for %1 seconds").arg(seconds));
}

void Session::OnError(int code, const QString& text)
{
    if (finished)
        return;
    // The end of the other transfers says nothing beside the error, or the wish, that ended them.
    if (code == updater::DownloadAborted && (canceling || !errors.isEmpty()))
        return;
    // The updater has one text for all that its callback, the guard, refuses.
    const QString reason = code == installGuard.LastErrorCode() ? installGuard.LastError() : text;
    errors.append({code, reason, stateName});
    console.Failure(code, reason, ErrorHint(code, reason, diagnosis.Finding()));
}

void Session::OnStateChanged(const QString& name)
{
    if (stateName == QLatin1String("DOWNLOADING"))
        ShowProgress();
    stateName = name;
    if (IsSwapState(name))
        swapBegan = true;
    const QString description = StateDescription(name);
    if (name == QLatin1String("QUERYING"))
        QTimer::singleShot(slowCheckMs, this, SLOT(OnSlowCheck()));
    if (description.isEmpty())
        return;
    // One bar spans the swap; the steps before it have one each, or none.
    if (!swapBegan) {
        console.EndProgress();
        percent = 0;
    }
    console.State(name, description);
}

void Session::OnProgress(int done)
{
    percent = done;
    ShowProgress();
}

void Session::OnTransferChanged()
{
    if (stateName == QLatin1String("DOWNLOADING"))
        ShowProgress();
}

void Session::ShowProgress()
{
    tools::ProgressFigures figures;
    figures.step = StepName(stateName);
    figures.percent = percent;
    if (stateName == QLatin1String("DOWNLOADING"))
        AddTransfer(*transfer, figures);
    console.Progress(figures);
}

void Session::OnFailed()
{
    console.EndProgress();
    const ReportedError first = errors.value(0);

    switch (awaited) {
    case Awaited::Check:
        if (options.command != Options::Command::Check)
            console.Message(QStringLiteral("The application is untouched."));
        return Finish(IsServerError(first.code) ? ExitStatus::ServerFailed : ExitStatus::Failed);
    case Awaited::Download:
        if (first.code == updater::VerificationFailed) {
            tree = download.Path();
            return ReportDifferences();
        }
        console.Message(QStringLiteral("The application is untouched."));
        return Finish(IsServerError(first.code) ? ExitStatus::ServerFailed : ExitStatus::Failed);
    case Awaited::Install:
        return IsRefusal(first.code) ? ConcludeRefusal(first.code) : ConcludeFailedSwap();
    default:
        return Finish(ExitStatus::Failed);
    }
}

void Session::ConcludeRefusal(int code)
{
    if (code == guard::PackageDiffers)
        return ReportDifferences();
    console.Message(QStringLiteral("The application is untouched."));
    Finish(RefusalStatus(code));
}

void Session::ConcludeFailedSwap()
{
    // The updater leaves the old version beside its place when it cannot put it back, and the guard
    // has tried once more by now.
    const guard::Recovery recovery = installGuard.Recover();
    if (!hadApplication && recovery.state == guard::RecoveryState::Absent)
        return Fail(QStringLiteral("There was no application before; nothing is installed."));
    if (!recovery.IsWhole())
        return Fail(recovery.text, ExitStatus::Broken);
    if (errors.value(0).state != QLatin1String("MOVING"))
        return Fail(
            QStringLiteral("The application in '%1' is untouched.").arg(application.Path()));
    Fail(QStringLiteral("The old version is back in '%1', as it was.").arg(application.Path()),
         ExitStatus::RolledBack);
}

void Session::OnVerified(bool result)
{
    if (awaited != Awaited::Verification)
        return;
    if (!result)
        return ReportDifferences();

    // A verification leaves hidden names out, but they would be installed with the rest.
    if (!HiddenDifferences().isEmpty())
        return ReportDifferences();
    Next();
}

QList<tools::Difference> Session::HiddenDifferences() const
{
    QList<tools::Difference> differences;
    if (tree != download.Path())
        return differences;
    for (const QString& name : download.HiddenEntries())
        differences.append({QStringLiteral("unexpected"), name});
    return differences;
}

void Session::ReportDifferences()
{
    // The verdict names no files. A second scan does, and costs only those who need it.
    awaited = Awaited::Scan;
    scanner = std::make_unique<updater::FileScanner>(tree);
    connect(scanner.get(), SIGNAL(succesed()), SLOT(OnScanned()));
    connect(scanner.get(), SIGNAL(failed(int, const QString&)),
            SLOT(OnScanFailed(int, const QString&)));
    scanner->Scan();
}

void Session::OnScanned()
{
    if (awaited != Awaited::Scan)
        return;
    console.Differences(TreeDifferences(scanner->Files(), manifest) + HiddenDifferences());
    QString text = QStringLiteral("'%1' is not what the package describes.").arg(tree);
    if (options.command != Options::Command::Verify)
        text += QStringLiteral(" The application is untouched.");
    if (options.command == Options::Command::Install)
        text += QStringLiteral(" Run 'kxupdate download' again.");
    if (options.command == Options::Command::Verify)
        text += !options.download.isEmpty() ? QStringLiteral(" 'kxupdate download' completes it.")
                                            : QStringLiteral(" 'kxupdate repair' mends it.");
    Fail(text, ExitStatus::VerificationFailed);
}

void Session::OnScanFailed(int code, const QString& text)
{
    if (awaited != Awaited::Scan)
        return;
    console.Failure(code, text, ErrorHint(code, text));
    Fail(QStringLiteral("What differs in '%1' cannot be told.").arg(tree),
         ExitStatus::VerificationFailed);
}
