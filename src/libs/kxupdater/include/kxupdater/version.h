#pragma once

#include <kxupdater/kxupdater_export.h>

#include <QObject>
#include <QString>
#include <QTimer>

QT_BEGIN_NAMESPACE
class QNetworkAccessManager;
QT_END_NAMESPACE

namespace common::http {
class IHttpRequest;
}

namespace updater {

/**
 * Asks the update server which version is the latest.
 *
 *     updater::Version version(&manager, this);
 *     connect(&version, SIGNAL(ready()), SLOT(OnVersion()));
 *     connect(&version, SIGNAL(failed(int, const QString&)), SLOT(OnFailed(int, const QString&)));
 *     version.SetURL("https://example.org/packages");
 *     version.Get();
 *
 * Fetches "version.xml" below the URL: `<version>2.4.1</version>`. Three sends at most, 5000 ms
 * apart. A reply older than SetCurrentVersion() is asked for once more, past every cache, and then
 * accepted. Each Get() ends in one ready() or failed(), unless Abort() comes first. Owner thread
 * only.
 */
class KXUPDATER_EXPORT Version : public QObject
{
    Q_OBJECT
public:
    /** The manager is not owned and must outlive the query; `parent` owns the query. */
    Version(QNetworkAccessManager* manager, QObject* parent);
    ~Version() override;

    /** Starts a query; a pending retry of an earlier one is dropped. False when nothing was sent.
     */
    virtual bool Get();

public Q_SLOTS:
    /** Ends a running request and drops a pending retry; no signal follows. */
    virtual void Abort();

public:
    /** URL of the reply, as the last send used it; empty when the manager was null. */
    virtual QString URL() const;
    /** Base URL; "/version.xml" is appended. */
    virtual void SetURL(const QString& url);
    /** The name as set. */
    virtual QString PackageName() const;
    /** Kept for the caller; takes no part in the request. */
    virtual void SetPackageName(const QString& name);
    /** Version text of the last reply that parsed, as it stood there. */
    virtual QString VersionString();

public Q_SLOTS:
    /** Version of the installed software. */
    void SetCurrentVersion(const QString& version);

Q_SIGNALS:
    /** VersionString() holds the server's answer. */
    void ready();
    /** No try is left; codes 6001xx of <kxupdater/errors.h>, or those of the request service. */
    void failed(int error, const QString& description);

private Q_SLOTS:
    bool SendRequest();
    void OnRequestError(int error, const QString& errorDesc);
    void OnRequestFinished(const QString& result);

private:
    Q_DISABLE_COPY(Version)

    common::http::IHttpRequest* CreateRequest(QNetworkAccessManager* manager);
    bool Retry();
    bool ParseReply(const QString& reply);

    common::http::IHttpRequest* request = nullptr; // owned, deleted first of all
    QString packageName;
    QString receivedVersion;
    QString currentVersion;
    int retriesLeft;
    QTimer retryTimer;
};

} // namespace updater
