#include "appcallback.h"

#include <kxcommon/logger.h>

KX_LOG_CATEGORY("updater.callback")

namespace updater {

AppCallback::AppCallback(QObject* parent) : QThread(parent) {}

AppCallback::~AppCallback()
{
    wait();
}

void AppCallback::run()
{
    int code = 0;
    if (callback) {
        KX_LOG(Debug) << "Calling application callback...";
        code = callback->Call(downloadPath, localPackagePath);
        KX_LOG(Debug) << "application callback finished with code '" << code << "'.";
    } else {
        KX_LOG(Debug) << "Callback is not set!";
    }
    Q_EMIT result(code);
}

void AppCallback::SetDownloadPath(const QString& path)
{
    downloadPath = path;
}

QString AppCallback::DownloadPath()
{
    return downloadPath;
}

void AppCallback::SetLocalPackagePath(const QString& path)
{
    localPackagePath = path;
}

QString AppCallback::LocalPackagePath()
{
    return localPackagePath;
}

} // namespace updater
