#include <kxupdater/version.h>

#include "retrydelay.h"
#include "xmlguard.h"

#include <kxcommon/ihttprequest.h>
#include <kxcommon/logger.h>
#include <kxcommon/version.h>
#include <kxupdater/errors.h>

#include <QDomDocument>
#include <QUrlQuery>
#include <QUuid>

KX_LOG_CATEGORY("updater.version")

namespace updater {
namespace {
const QString replyFileName = QStringLiteral("version.xml");
const QString rootElement = QStringLiteral("version");
const QString idItem = QStringLiteral("id");
constexpr int triesPerQuery = 3;
constexpr int requestTimeoutSeconds = 30;
} // namespace

Version::Version(QNetworkAccessManager* manager, QObject* parent)
    : QObject(parent), request(CreateRequest(manager)), retriesLeft(triesPerQuery)
{
    retryTimer.setSingleShot(true);
    connect(&retryTimer, SIGNAL(timeout()), this, SLOT(SendRequest()));
}

Version::~Version()
{
    KX_LOG(Debug) << "destroyed.";
    delete request;
}

bool Version::Get()
{
    retryTimer.stop();
    retriesLeft = triesPerQuery;
    if (request) {
        QUrl url = request->Url();
        if (url.hasQuery()) {
            url.setQuery(QUrlQuery());
            request->SetUrl(url);
        }
    }
    return SendRequest();
}

void Version::Abort()
{
    retryTimer.stop();
    if (request)
        request->Abort();
}

QString Version::URL() const
{
    return request ? request->Url().toString() : QString();
}

void Version::SetURL(const QString& url)
{
    if (!request) {
        KX_LOG(Critical) << "Failed to set URL!";
        return;
    }
    request->SetUrl(QUrl(url + QLatin1Char('/') + replyFileName, QUrl::TolerantMode));
}

QString Version::PackageName() const
{
    return packageName;
}

void Version::SetPackageName(const QString& name)
{
    packageName = name;
}

QString Version::VersionString()
{
    return receivedVersion;
}

void Version::SetCurrentVersion(const QString& version)
{
    currentVersion = version;
}

common::http::IHttpRequest* Version::CreateRequest(QNetworkAccessManager* manager)
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

bool Version::SendRequest()
{
    KX_LOG(Debug) << "Sending version request...";
    if (!request) {
        KX_LOG(Critical) << "Request is not created!";
        Q_EMIT failed(VersionRequestMissing, QStringLiteral("Request is not created!"));
        return false;
    }
    if (request->IsRunning()) {
        KX_LOG(Critical) << "Request already running!";
        return false;
    }
    if (!request->Send()) {
        KX_LOG(Critical) << "Failed to send request!";
        Q_EMIT failed(VersionSendFailed, QStringLiteral("Failed to send request!"));
        return false;
    }
    --retriesLeft;
    return true;
}

bool Version::Retry()
{
    if (retriesLeft < 1) {
        KX_LOG(Error) << "Can't retry request - no more tries!";
        return false;
    }
    KX_LOG(Debug) << "Retrying request by timer...";
    retryTimer.start(internal::RetryDelay());
    return true;
}

void Version::OnRequestError(int error, const QString& errorDesc)
{
    KX_LOG(Error) << "Request failed with error '" << error << "'.";
    if (!Retry())
        Q_EMIT failed(error, errorDesc);
}

void Version::OnRequestFinished(const QString& result)
{
    KX_LOG(Debug) << "Request finished!";
    if (!ParseReply(result)) {
        KX_LOG(Critical) << "Failed to parse reply!";
        if (!Retry())
            Q_EMIT failed(VersionParseFailed, QStringLiteral("Failed to parse reply!"));
        return;
    }
    if (!request) {
        KX_LOG(Critical) << "Request is null, failed to parse reply";
        Q_EMIT failed(VersionParseFailed, QStringLiteral("Request is null, failed to parse reply"));
        return;
    }

    QUrl url = request->Url();
    // An "id" in the query marks the second look: its answer stands, or an updater that is newer
    // than its server would ask for ever.
    const bool firstLook = !QUrlQuery(url).hasQueryItem(idItem);
    if (firstLook && common::Version(currentVersion) > common::Version(receivedVersion)) {
        KX_LOG(Debug) << "Current version is greater than received, re-check: " << currentVersion
                      << " > " << receivedVersion;
        QUrlQuery query;
        query.addQueryItem(idItem, QUuid::createUuid().toString(QUuid::Id128));
        url.setQuery(query);
        request->SetUrl(url);
        SendRequest();
        return;
    }
    Q_EMIT ready();
}

bool Version::ParseReply(const QString& reply)
{
    QDomDocument document;
    if (!IsSafeXml(reply) || !document.setContent(reply)) {
        KX_LOG(Error) << "Failed to set XML content!";
        return false;
    }
    const QDomElement root = document.documentElement();
    if (root.isNull() || root.tagName() != rootElement) {
        KX_LOG(Error) << "Can't find root XML element!";
        return false;
    }
    receivedVersion = root.text();
    return true;
}

} // namespace updater
