#pragma once

#include <kxupdater/iupdater.h>

#include <QString>
#include <QThread>

namespace updater {

/**
 * Runs the host's callback on a thread of its own and reports its result once.
 * The callback and both paths are set before start() and only read by the thread. Deleting the
 * object waits for the callback to return.
 */
class AppCallback : public QThread
{
    Q_OBJECT
public:
    explicit AppCallback(QObject* parent);
    ~AppCallback() override;

    void run() override;
    virtual void SetDownloadPath(const QString& path);
    virtual QString DownloadPath();
    virtual void SetLocalPackagePath(const QString& path);
    virtual QString LocalPackagePath();

    AppCallbackFunction* callback = nullptr; // not owned; null counts as success

Q_SIGNALS:
    /** 0 for success, otherwise the callback's code; emitted in the worker thread. */
    void result(int code);

private:
    Q_DISABLE_COPY(AppCallback)

    QString downloadPath;
    QString localPackagePath;
};

} // namespace updater
