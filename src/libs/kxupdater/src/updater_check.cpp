// QUERYING    asks the server             packageReady
// SCANNING    lists the installed tree    packageChanged, packageActual
// AVAILABLE   says what is offered
// Beside the machine: VerifyLocalUpdate().

#include "updater.h"

#include "filediff.h"
#include "updater_log.h"

#include <kxupdater/errors.h>
#include <kxupdater/filescanner.h>
#include <kxupdater/package.h>

#include <QFile>

#include <new>

namespace updater {

Package* Updater::CreatePackage(QNetworkAccessManager* manager)
{
    auto* created = new (std::nothrow) Package(manager, this);
    if (!created) {
        KX_LOG_STATE(Critical) << "Failed to create package!";
        return nullptr;
    }
    connect(created, SIGNAL(ready()), this, SIGNAL(packageReady()));
    connect(created, SIGNAL(error(int, const QString&)), this, SIGNAL(checkError()));
    connect(created, SIGNAL(failed(int, const QString&)), this, SIGNAL(error(int, const QString&)));
    return created;
}

const FileList& Updater::ServerFiles() const
{
    static const FileList none;
    return package ? package->Files() : none;
}

void Updater::OnQueryingStateEnter()
{
    if (!package) {
        KX_LOG_STATE(Critical) << "Package is not created!";
        Q_EMIT error(PackageMissing, QStringLiteral("Package is not created!"));
        return;
    }
    package->Get();
}

void Updater::OnScanningStateEnter()
{
    localFiles.clear();
    fileScanner.reset(new (std::nothrow) FileScanner(localPackagePath));
    if (!fileScanner) {
        KX_LOG_STATE(Critical) << "Failed to create file scanner!";
        Q_EMIT error(ScannerMissing, QStringLiteral("Failed to create file scanner!"));
        return;
    }
    connect(fileScanner.get(), SIGNAL(succesed()), this, SLOT(OnScanningFinished()));
    connect(fileScanner.get(), SIGNAL(failed(int, const QString&)), this,
            SIGNAL(error(int, const QString&)));
    fileScanner->Scan();
}

void Updater::OnScanningFinished()
{
    if (!fileScanner)
        return;
    localFiles = fileScanner->Files();
    if (IsChanged(localFiles, ServerFiles())) {
        Q_EMIT packageChanged();
        return;
    }
    KX_LOG_STATE(Info) << "No changes found in packages.";
    actual = true;
    Q_EMIT packageActual();
}

void Updater::OnScanningStateExit()
{
    fileScanner.reset();
}

void Updater::OnAvailableStateEnter()
{
    const QString version = ServerVersion();
    if (currentVersion != version) {
        KX_LOG_STATE(Info) << QStringLiteral("New version '%1' is avalable!").arg(version);
        Q_EMIT updateAvailable();
        return;
    }
    KX_LOG_STATE(Info) << "Version is unchanged, but some files need to be updated!";
    Q_EMIT updateRequered();
}

bool Updater::IsChanged(const FileList& local, const FileList& server)
{
    if (server.isEmpty()) {
        KX_LOG_STATE(Warning) << "Server package is empty!";
        return false;
    }
    const FileList downloads = Difference(server, local);
    if (!downloads.isEmpty()) {
        LogDifference("This files must be downloaded:", downloads);
        return true;
    }
    const FileList deletions = Difference(local, server);
    if (deletions.isEmpty())
        return false;
    LogDifference("This files must be deleted:", deletions);
    return true;
}

void Updater::LogDifference(const char* title, const FileList& files)
{
    const QString rule(46, QLatin1Char('-'));
    KX_LOG_STATE(Debug) << rule;
    KX_LOG_STATE(Debug) << title;
    for (const File& file : files)
        KX_LOG_STATE(Debug) << "      * '" << file.Name() << "'";
    KX_LOG_STATE(Debug) << rule;
}

bool Updater::VerifyLocalUpdate(const QString& path, const QString& xmlFile)
{
    Package manifest(networkManager, this);
    manifest.SetName(PackageName());
    if (!QFile::exists(xmlFile)) {
        KX_LOG_STATE(Error) << "Update XML file not exists: " << xmlFile;
        return false;
    }
    QFile file(xmlFile);
    if (!file.open(QIODevice::ReadOnly)) {
        KX_LOG_STATE(Error) << "Failed to opem update XML file: " << xmlFile << " "
                            << file.errorString();
        return false;
    }
    manifest.SetPackageXML(QString::fromUtf8(file.readAll()));
    if (manifest.Files().isEmpty()) {
        KX_LOG_STATE(Error) << "Update XML package is empty!";
        return false;
    }

    auto* scanner = new (std::nothrow) FileScanner(path);
    if (!scanner)
        return false;
    scanner->setParent(this);
    localPackageFiles.insert(scanner, manifest.Files());
    connect(scanner, SIGNAL(succesed()), this, SLOT(OnVerifyLocalUpdateScanFinished()));
    connect(scanner, SIGNAL(failed(int, const QString&)), this,
            SLOT(OnVerifyLocalUpdateScanFailed(int, const QString&)));
    scanner->Scan();
    return true;
}

void Updater::OnVerifyLocalUpdateScanFinished()
{
    bool result = false;
    if (auto* scanner = qobject_cast<FileScanner*>(sender())) {
        // Without a manifest nothing can match, least of all an empty list.
        const FileList expected = localPackageFiles.take(scanner);
        result = !expected.isEmpty() && !IsChanged(scanner->Files(), expected);
        scanner->deleteLater();
    }
    Q_EMIT localUpdateVerificationFinished(result);
}

void Updater::OnVerifyLocalUpdateScanFailed(int errorCode, const QString& errorText)
{
    if (auto* scanner = qobject_cast<FileScanner*>(sender())) {
        localPackageFiles.remove(scanner);
        scanner->deleteLater();
    }
    KX_LOG_STATE(Error) << "File scanner failed with error " << errorCode << ": " << errorText;
    Q_EMIT localUpdateVerificationFinished(false);
}

} // namespace updater
