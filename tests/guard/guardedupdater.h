#pragma once

#include "guardsite.h"

#include <kxguard/installguard.h>
#include <kxupdater/iupdater.h>

#include <QHash>
#include <QNetworkAccessManager>
#include <QPair>
#include <QSemaphore>
#include <QString>
#include <QStringList>

#include <atomic>
#include <functional>
#include <memory>

namespace kxtest {

/** A host's callback that answers `code`, after it has done what it is told to. */
class HostCallback : public updater::AppCallbackFunction
{
public:
    int Call(const QString& downloadPath, const QString& localPackagePath) override;

    std::function<void()> action;
    int code = 0;
    std::atomic<int> calls{0};
    QString downloadPath;
    QString localPackagePath;
    std::atomic<Qt::HANDLE> thread{nullptr};
};

/**
 * An updater for the trees of a site and a guard that watches over it. The updater has asked no
 * server: the guard is told what the package is.
 */
class GuardedUpdater
{
public:
    /** Waits until the updater rests. */
    explicit GuardedUpdater(const GuardSite& site);
    ~GuardedUpdater();

    updater::IUpdater* Updater() const { return updater.get(); }
    guard::InstallGuard& Guard() const { return *guard; }
    void DeleteGuard() { guard.reset(); }

    /** Install() and the way to its end, restarted before if need be; true for finished(). */
    bool Install();
    /** Restarts the updater, and waits until it rests. */
    bool Rest();
    /** Runs `function` each time when the state is entered, after the guard has heard of it. */
    void AtState(const QString& name, std::function<void()> function);
    /** Runs the event loop until the state was entered, since the start or the last Forget(). */
    bool Reach(const QString& state);
    void Forget();

    /** What error() has brought. */
    const QList<QPair<int, QString>>& Errors() const { return errors; }
    int Code() const { return errors.isEmpty() ? 0 : errors.first().first; }
    const QStringList& States() const { return states; }
    /** Signals of an end, in their order. */
    const QStringList& Ends() const { return ends; }
    /** All of it, for messages. */
    QByteArray Report() const;

private:
    Q_DISABLE_COPY(GuardedUpdater)

    QNetworkAccessManager manager;
    std::unique_ptr<updater::IUpdater> updater;
    std::unique_ptr<guard::InstallGuard> guard;
    QHash<QString, std::function<void()>> atState;
    QList<QPair<int, QString>> errors;
    QStringList states;
    QStringList ends;
};

/** An updater that does nothing by itself: what it says is up to the test. */
class IdleUpdater : public updater::IUpdater
{
public:
    explicit IdleUpdater(const GuardSite& site);

    /** Does as an updater does that installs, as far as the swap: calls the callback on a thread of
     *  its own, and after a refusal says that it failed. */
    int CallBack();

    void SetURL(const QString&) override {}
    QString URL() const override { return {}; }
    void SetDownloadPath(const QString& path) override { downloadPath = path; }
    QString DownloadPath() const override { return downloadPath; }
    void SetCurrentVersion(const QString& version) override { currentVersion = version; }
    QString CurrentVersion() const override { return currentVersion; }
    QString ServerVersion() const override { return serverVersion; }
    bool IsActual() const override { return false; }
    void SetCheckInterval(int) override {}
    int CheckInterval() const override { return 0; }
    void SetPackageName(const QString& name) override { packageName = name; }
    QString PackageName() const override { return packageName; }
    void SetLocalPackagePath(const QString& path) override { localPackagePath = path; }
    QString LocalPackagePath() const override { return localPackagePath; }
    void SetAppCallback(updater::AppCallbackFunction* function) override { callback = function; }
    updater::AppCallbackFunction* AppCallback() const override { return callback; }
    QString ExecutablePath() const override { return {}; }
    bool VerifyLocalUpdate(const QString&, const QString&) override { return false; }
    QString PackageXML() const override { return packageXml; }
    void Check() override {}
    void Wait() override {}
    void Download() override {}
    void Install() override {}
    void Cancel() override {}
    void Finish() override {}

    QString downloadPath;
    QString localPackagePath;
    QString currentVersion;
    QString serverVersion;
    QString packageName;
    QString packageXml;
    updater::AppCallbackFunction* callback = nullptr;
};

} // namespace kxtest
