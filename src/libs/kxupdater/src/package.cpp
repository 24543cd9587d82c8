#include <kxupdater/package.h>

#include "retrydelay.h"
#include "xmlguard.h"

#include <kxcommon/ihttprequest.h>
#include <kxcommon/logger.h>
#include <kxupdater/build.h>
#include <kxupdater/errors.h>
#include <kxupdater/version.h>

#include <QDomDocument>
#include <QPointer>

#include <new>

KX_LOG_CATEGORY("updater.package")

namespace updater {
namespace {
const QString rootElement = QStringLiteral("packages");
const QString packageElement = QStringLiteral("package");
const QString buildElement = QStringLiteral("build");
const QString fileElement = QStringLiteral("file");
const QString nameAttribute = QStringLiteral("name");
const QString manifestFileName = QStringLiteral("index.xml");
constexpr int triesPerQuery = 3;
constexpr int requestTimeoutSeconds = 30;
} // namespace

Package::Package(QNetworkAccessManager* manager, QObject* parent)
    : QObject(parent), retriesLeft(triesPerQuery)
{
    request = CreateRequest(manager);
    version = CreateVersion(manager);
    retryTimer.setSingleShot(true);
    connect(&retryTimer, SIGNAL(timeout()), this, SLOT(SendRequest()));
}

Package::~Package()
{
    KX_LOG(Debug) << "destroyed.";
    delete version;
    delete request;
}

void Package::SetName(const QString& packageName)
{
    KX_LOG(Debug) << "Setting name to '" << packageName << "'.";
    name = packageName;
    if (!version) {
        KX_LOG(Critical) << "Failed to set package to version!";
        return;
    }
    version->SetPackageName(name);
}

QString Package::Name() const
{
    return name;
}

QString Package::VersionString() const
{
    return version ? version->VersionString() : QString();
}

void Package::SetURL(const QString& url)
{
    baseUrl = url;
    if (request)
        request->SetUrl(QUrl(url, QUrl::TolerantMode));
    else
        KX_LOG(Critical) << "Failed to set URL!";
    if (version)
        version->SetURL(url);
    else
        KX_LOG(Critical) << "Failed to set URL to version!";
}

QString Package::URL() const
{
    return request ? request->Url().toString() : QString();
}

const FileList& Package::Files() const
{
    return files;
}

QString Package::DownloadURL() const
{
    return downloadUrl;
}

QString Package::ExecutableName() const
{
    return executableName;
}

QString Package::GetPackageXML()
{
    return packageXml;
}

void Package::SetPackageXML(const QString& xml)
{
    packageXml = xml;
    ParseReply(xml);
}

void Package::SetCurrentVersion(const QString& currentVersion)
{
    if (version)
        version->SetCurrentVersion(currentVersion);
}

void Package::Get()
{
    KX_LOG(Debug) << "Getting package info...";
    if (operationState == Running)
        KX_LOG(Warning) << "Get package already started! This will reset current operation!";

    ++generation;
    retryTimer.stop();
    operationState = Running;
    retriesLeft = triesPerQuery;
    Clear();
    versionState = Running;
    if (!version) {
        versionState = Failed;
        KX_LOG(Critical) << "Version request is not created!";
        Fail(PackageVersionMissing, QStringLiteral("Version request is not created!"));
        return;
    }
    version->Get();
}

void Package::Abort()
{
    ++generation;
    retryTimer.stop();
    if (version)
        version->Abort();
    if (request)
        request->Abort();
}

common::http::IHttpRequest* Package::CreateRequest(QNetworkAccessManager* manager)
{
    auto* created = common::http::CreateHttpRequest(manager, this);
    if (!created) {
        KX_LOG(Critical) << "Failed to create request!";
        return nullptr;
    }
    created->SetIntParameter(requestTimeoutSeconds);
    created->SetBoolParameter(true);
    connect(created, SIGNAL(requestError(int, const QString&)), this,
            SLOT(OnRequestError(int, const QString&)));
    connect(created, SIGNAL(requestFinished(const QString&)), this,
            SLOT(OnRequestFinished(const QString&)));
    return created;
}

Version* Package::CreateVersion(QNetworkAccessManager* manager)
{
    auto* created = new (std::nothrow) Version(manager, this);
    if (!created) {
        KX_LOG(Critical) << "Failed to create version!";
        return nullptr;
    }
    created->SetPackageName(name);
    connect(created, SIGNAL(ready()), this, SLOT(OnVersionReady()));
    connect(created, SIGNAL(failed(int, const QString&)), this,
            SLOT(OnVersionFailed(int, const QString&)));
    return created;
}

void Package::OnVersionReady()
{
    KX_LOG(Debug) << "Version on server '" << VersionString() << "'.";
    if (request) {
        const QString path =
            QStringLiteral("/%1-v%2/%3/%4/%5")
                .arg(name, VersionString(), Build::OSName(), Build::Platform(), manifestFileName);
        request->SetUrl(QUrl(baseUrl + path, QUrl::TolerantMode));
    }
    versionState = Done;
    SendRequest();
}

void Package::OnVersionFailed(int code, const QString& errorDesc)
{
    KX_LOG(Error) << "Version request failed!";
    versionState = Failed;
    Fail(code, errorDesc);
}

bool Package::SendRequest()
{
    KX_LOG(Debug) << "Sending version request...";
    if (!request) {
        requestState = Failed;
        KX_LOG(Critical) << "Request is not created!";
        Fail(PackageRequestMissing, QStringLiteral("Request is not created!"));
        return false;
    }
    if (request->IsRunning()) {
        KX_LOG(Critical) << "Request already running!";
        return false;
    }
    requestState = Running;
    if (!request->Send()) {
        requestState = Failed;
        KX_LOG(Critical) << "Failed to send request!";
        Fail(PackageSendFailed, QStringLiteral("Failed to send request!"));
        return false;
    }
    --retriesLeft;
    return true;
}

bool Package::Retry()
{
    if (retriesLeft < 1) {
        KX_LOG(Error) << "Can't retry request - no more tries!";
        return false;
    }
    KX_LOG(Debug) << "Retrying request by timer...";
    retryTimer.start(internal::RetryDelay());
    return true;
}

void Package::OnRequestError(int code, const QString& errorDesc)
{
    KX_LOG(Error) << "Request failed with error '" << code << "'.";
    Clear();

    const QPointer<Package> self(this);
    const quint64 query = generation;
    Q_EMIT error(code, errorDesc);
    // The host may have aborted or restarted the query inside the signal: it is another one's turn
    // now.
    if (!self || generation != query)
        return;

    if (!Retry()) {
        requestState = Failed;
        Fail(code, errorDesc);
    }
}

void Package::OnRequestFinished(const QString& result)
{
    KX_LOG(Debug) << "Request finished!";
    if (!ParseReply(result)) {
        KX_LOG(Critical) << "Failed to parse reply!";
        if (!Retry())
            Fail(PackageParseFailed, QStringLiteral("Failed to parse reply!"));
        return;
    }
    requestState = Done;
    CheckReady();
}

void Package::CheckReady()
{
    if (operationState == Done || versionState != Done || requestState != Done)
        return;
    operationState = Done;
    KX_LOG(Info) << "Ready!";
    Q_EMIT ready();
}

void Package::Fail(int code, const QString& description)
{
    if (operationState == Failed)
        return;
    operationState = Failed;
    KX_LOG(Error) << "Getting package failed with error " << code << ", '" << description << "'!";

    const QPointer<Package> self(this);
    const quint64 query = generation;
    Q_EMIT failed(code, description);
    if (self && generation == query)
        Abort();
}

void Package::Clear()
{
    files.clear();
    downloadUrl.clear();
    executableName.clear();
}

static bool GetBuild(const QDomElement& build, FileList& files)
{
    files.clear();
    for (QDomElement file = build.firstChildElement(fileElement); !file.isNull();
         file = file.nextSiblingElement(fileElement)) {
        QString name = file.attribute(nameAttribute);
        if (name.isEmpty()) {
            KX_LOG(Error) << "Found file with empty name!";
            continue;
        }
        while (name.startsWith(QLatin1Char('/')))
            name.remove(0, 1);
        files.append(File(name, file.attribute(QStringLiteral("md5")),
                          file.attribute(QStringLiteral("size")).toULongLong(nullptr, 10),
                          file.attribute(QStringLiteral("permissions")),
                          file.attribute(QStringLiteral("symlink"))));
    }
    KX_LOG(Debug) << "Found " << static_cast<quint64>(files.size()) << " files in build.";
    return true;
}

bool Package::ParseReply(const QString& reply)
{
    QDomDocument document;
    if (!IsSafeXml(reply) || !document.setContent(reply)) {
        KX_LOG(Error) << "Failed to parse reply - can't set XML document content!";
        return false;
    }
    const QDomElement root = document.documentElement();
    if (root.isNull() || root.tagName() != rootElement) {
        KX_LOG(Error) << "Failed to parse reply - can't get root element!";
        return false;
    }

    for (QDomElement package = root.firstChildElement(packageElement); !package.isNull();
         package = package.nextSiblingElement(packageElement)) {
        const QString packageName = package.attribute(nameAttribute);
        if (packageName != name) {
            KX_LOG(Debug) << "Found unknown package '" << packageName << "'.";
            continue;
        }
        const QDomElement build = package.firstChildElement(buildElement);
        if (build.isNull()) {
            KX_LOG(Warning) << "Build element not found in package!";
            continue;
        }
        const QString url = build.attribute(QStringLiteral("DownloadURL"));
        const QString executable = build.attribute(QStringLiteral("PostExec"));
        if (url.isEmpty()) {
            KX_LOG(Error) << "Failed to get download URL for build!";
            continue;
        }
        if (!GetBuild(build, files)) {
            Clear();
            KX_LOG(Error) << "Getting build failed!";
            continue;
        }
        CreatePackageXml(build);
        downloadUrl = url;
        executableName = executable;
        KX_LOG(Debug) << "Download URL: '" << downloadUrl << "'.";
        KX_LOG(Debug) << "Executable Name: '" << executableName << "'.";
        KX_LOG(Info) << "Parsing successed!";
        return true;
    }

    // Not an error: the server may well have nothing for this package.
    KX_LOG(Warning) << "No build found!";
    return true;
}

void Package::CreatePackageXml(const QDomElement& build)
{
    QDomDocument document;
    document.appendChild(document.createProcessingInstruction(
        QStringLiteral("xml"), QStringLiteral("version=\"1.0\" encoding=\"utf-8\"")));
    QDomElement root = document.createElement(rootElement);
    document.appendChild(root);
    QDomElement package = document.createElement(packageElement);
    package.setAttribute(nameAttribute, name);
    root.appendChild(package);
    // Moved, not copied: the received document is done with, and may be large.
    package.appendChild(build);
    packageXml = document.toString(1);
}

} // namespace updater
