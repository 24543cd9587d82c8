#pragma once

#include <kxupdater/file.h>
#include <kxupdater/kxupdater_export.h>

#include <QObject>
#include <QString>
#include <QTimer>

QT_BEGIN_NAMESPACE
class QDomElement;
class QNetworkAccessManager;
QT_END_NAMESPACE

namespace common::http {
class IHttpRequest;
}

namespace updater {

class Version;

/**
 * Fetches the manifest of the latest build of one package: its files, where to download them, and
 * what to run.
 *
 *     updater::Package package(&manager, this);
 *     connect(&package, SIGNAL(ready()), SLOT(OnPackage()));
 *     connect(&package, SIGNAL(failed(int, const QString&)), SLOT(OnFailed(int, const QString&)));
 *     package.SetURL("https://example.org/packages");
 *     package.SetName("demo-app");
 *     package.Get();
 *
 * Asks for the version first, then for "NAME-vVERSION/windows/x64/index.xml" below the URL; each
 * step makes three sends at most, 5000 ms apart. Each Get() ends in one ready() or failed(), unless
 * Abort() comes first. A manifest without a usable build is ready with an empty list. Any operation
 * may be called from inside the signals. Owner thread only.
 */
class KXUPDATER_EXPORT Package : public QObject
{
    Q_OBJECT
public:
    /** Steps of a query and of its parts. */
    enum RequestState { Idle = 0, Running = 1, Done = 2, Failed = 3 };

    /** The manager is not owned and must outlive the query; `parent` owns the query. */
    Package(QNetworkAccessManager* manager, QObject* parent);
    ~Package() override;

    /** Name of the package in the URL and in the manifest; compared letter by letter. */
    virtual void SetName(const QString& name);
    /** The name as set. */
    virtual QString Name() const;
    /** Version that the server reported last; empty before. */
    virtual QString VersionString() const;
    /** Base URL of the server's packages. */
    virtual void SetURL(const QString& url);
    /** The base URL, or after a query the manifest's URL; empty when the manager was null. */
    virtual QString URL() const;
    /** Files of the build, in the manifest's order. Names are kept as received: not to be trusted.
     */
    virtual const updater::FileList& Files() const;
    /** Base URL of the build's files. */
    virtual QString DownloadURL() const;
    /** Name of the program to run, relative to the tree; as received, not to be trusted. */
    virtual QString ExecutableName() const;
    /** The package XML: a manifest reduced to this package and build. Empty before the first read.
     */
    virtual QString GetPackageXML();
    /** Reads `xml` as a manifest, without any request and without a signal. A text that does not
     * parse is stored, and leaves everything else as it was. */
    virtual void SetPackageXML(const QString& xml);
    /** Version of the installed software. */
    virtual void SetCurrentVersion(const QString& version);
    /** Starts a query. One that runs is reset, but its request goes on and completes the new one; a
     *  pending retry is dropped. */
    virtual void Get();

public Q_SLOTS:
    /** Ends running requests and drops pending retries; no signal follows. */
    virtual void Abort();

Q_SIGNALS:
    /** The manifest is read. */
    void ready();
    /** No try is left; codes 6002xx of <kxupdater/errors.h>, 6001xx of the version step, or those
     * of the request service. */
    void failed(int error, const QString& description);
    /** One try of the manifest's request failed; comes before failed() and before each retry. */
    void error(int error, const QString& description);

private Q_SLOTS:
    void OnVersionReady();
    void OnVersionFailed(int error, const QString& errorDesc);
    void OnRequestError(int error, const QString& errorDesc);
    void OnRequestFinished(const QString& result);
    bool SendRequest();

private:
    Q_DISABLE_COPY(Package)

    common::http::IHttpRequest* CreateRequest(QNetworkAccessManager* manager);
    Version* CreateVersion(QNetworkAccessManager* manager);
    bool Retry();
    bool ParseReply(const QString& reply);
    void CreatePackageXml(const QDomElement& build);
    void CheckReady();
    void Fail(int code, const QString& description);
    void Clear();

    QString name;
    common::http::IHttpRequest* request = nullptr; // owned
    Version* version = nullptr;                    // owned, deleted before the request
    FileList files;
    QString downloadUrl;
    QString executableName;
    QString packageXml;
    int retriesLeft;
    RequestState versionState = Idle;
    RequestState requestState = Idle;
    RequestState operationState = Idle;
    QString baseUrl;
    QTimer retryTimer;
    quint64 generation =
        0; // counts Get() and Abort(): tells after an emit whether either was called
};

} // namespace updater
