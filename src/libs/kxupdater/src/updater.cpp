#include "updater.h"

#include "appcallback.h"
#include "partialsweep.h"
#include "stepmachine.h"
#include "transferledger.h"
#include "updater_log.h"

#include <kxcommon/filecopier.h>
#include <kxcommon/fileremover.h>
#include <kxupdater/downloader.h>
#include <kxupdater/filescanner.h>
#include <kxupdater/package.h>

#include <QDir>
#include <QUrl>

#include <limits>

namespace updater {
namespace {

constexpr int defaultCheckInterval = 2592000; // 30 days
const QString packagesSegment = QStringLiteral("packages");

/** Deletes a worker that has nothing to say any more. */
template <typename Worker>
void Silence(std::unique_ptr<Worker>& worker)
{
    if (worker)
        worker->disconnect();
    worker.reset();
}

bool IsSeparator(QChar c)
{
    return c == QLatin1Char('/') || c == QDir::separator();
}

} // namespace

IUpdater* CreateUpdater(QNetworkAccessManager* manager, QObject* parent)
{
    return new Updater(manager, parent);
}

Updater::Updater(QNetworkAccessManager* manager, QObject* parent)
    : networkManager(manager),
      stateMachine(nullptr),
      stateName(QStringLiteral("INITIALIZING")),
      transfers(new TransferLedger)
{
    package.reset(CreatePackage(manager));
    setParent(parent);
    SetCheckInterval(defaultCheckInterval);
    BuildStateMachine();
}

Updater::~Updater()
{
    KX_LOG_STATE(Debug) << "destroyed!";
    const QList<FileScanner*> verifications = localPackageFiles.keys();
    for (FileScanner* scanner : verifications)
        scanner->disconnect();
    qDeleteAll(verifications);

    Silence(partialSweep);
    Silence(appCallbackThread);
    Silence(fileRemover);
    Silence(fileCopier);
    Silence(downloader);
    Silence(fileScanner);
    Silence(package);
}

void Updater::SetURL(const QString& url)
{
    if (!package) {
        KX_LOG_STATE(Critical) << "Failed to set URL!";
        return;
    }
    package->SetURL(QStringLiteral("%1/%2").arg(url, packagesSegment));
    // Without the password of a login: logs are kept, and read by others.
    KX_LOG_STATE(Info) << "Setting URL '" << QUrl(url).toDisplayString() << "'.";
}

QString Updater::URL() const
{
    if (!package)
        return {};
    QString url = package->URL();
    const qsizetype query = url.indexOf(QLatin1Char('?'));
    if (query >= 0)
        url.truncate(query);
    const QString suffix = QLatin1Char('/') + packagesSegment;
    if (url.endsWith(suffix))
        url.chop(suffix.size());
    return url;
}

void Updater::SetDownloadPath(const QString& path)
{
    downloadPath = path;
    KX_LOG_STATE(Info) << "Setting download path '" << path << "'.";
}

QString Updater::DownloadPath() const
{
    return downloadPath;
}

void Updater::SetCurrentVersion(const QString& version)
{
    currentVersion = version;
    if (package)
        package->SetCurrentVersion(version);
    KX_LOG_STATE(Info) << "Setting current version '" << version << "'.";
}

QString Updater::CurrentVersion() const
{
    return currentVersion;
}

QString Updater::ServerVersion() const
{
    return package ? package->VersionString() : QString();
}

bool Updater::IsActual() const
{
    return actual;
}

void Updater::SetCheckInterval(int seconds)
{
    checkInterval = seconds;
    // A timer counts in int: 30 days are more milliseconds than it can hold.
    const qint64 longest = std::numeric_limits<int>::max();
    if (seconds < 0)
        checkTimer.stop();
    checkTimer.setInterval(static_cast<int>(qBound(qint64(-1), qint64(seconds) * 1000, longest)));
    checkTimer.setSingleShot(true);
    KX_LOG_STATE(Info) << "Setting check interval '" << seconds << "'.";
}

int Updater::CheckInterval() const
{
    return checkInterval;
}

void Updater::SetPackageName(const QString& name)
{
    if (!package) {
        KX_LOG_STATE(Critical) << "Failed to set package name!";
        return;
    }
    package->SetName(name);
    KX_LOG_STATE(Info) << "Setting package name to '" << name << "'.";
}

QString Updater::PackageName() const
{
    return package ? package->Name() : QString();
}

void Updater::SetLocalPackagePath(const QString& path)
{
    localPackagePath = path;
    KX_LOG_STATE(Info) << "Setting local package path to '" << path << "'.";
}

QString Updater::LocalPackagePath() const
{
    return localPackagePath;
}

void Updater::SetAppCallback(AppCallbackFunction* callback)
{
    appCallback = callback;
    KX_LOG_STATE(Info) << "Setting application callback to '" << static_cast<const void*>(callback)
                       << "'.";
}

AppCallbackFunction* Updater::AppCallback() const
{
    return appCallback;
}

QString Updater::ExecutablePath() const
{
    if (!package)
        return {};
    return QDir::cleanPath(QDir::cleanPath(DownloadPath()) + QDir::separator() +
                           package->ExecutableName());
}

QString Updater::PackageXML() const
{
    return package ? package->GetPackageXML() : QString();
}

QString Updater::BackupPath() const
{
    const QString path = LocalPackagePath();
    qsizetype end = path.size();
    while (end > 0 && IsSeparator(path.at(end - 1)))
        --end;
    // A root is nothing but separators, or a drive before them.
    const bool isDrive =
        QDir::separator() == QLatin1Char('\\') && end == 2 && path.at(1) == QLatin1Char(':');
    return (end == 0 || isDrive ? path : path.left(end)) + QLatin1String(".old");
}

void Updater::Check()
{
    KX_LOG_STATE(Debug) << "<<<--- CHECK";
    Q_EMIT check();
}

void Updater::Wait()
{
    KX_LOG_STATE(Debug) << "<<<--- WAIT";
    Q_EMIT wait();
}

void Updater::Download()
{
    KX_LOG_STATE(Debug) << "<<<--- DOWNLOAD";
    Q_EMIT download();
}

void Updater::Install()
{
    KX_LOG_STATE(Debug) << "<<<--- INSTALL";
    Q_EMIT install();
}

void Updater::Cancel()
{
    KX_LOG_STATE(Debug) << "<<<--- CANCEL";
    if (!stateMachine->isRunning()) {
        KX_LOG_STATE(Debug) << "Restarting state machine...";
        stateMachine->start();
        return;
    }
    Q_EMIT cancel();
}

void Updater::Finish()
{
    KX_LOG_STATE(Debug) << "<<<--- FINISH";
    Q_EMIT finish();
}

} // namespace updater
