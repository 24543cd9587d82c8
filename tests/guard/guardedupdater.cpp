#include "guardedupdater.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QThread>
#include <QTimer>

#include <thread>

namespace kxtest {
namespace {

constexpr int patience = 60000;

bool WaitFor(const std::function<bool()>& condition)
{
    QTimer limit;
    limit.setSingleShot(true);
    limit.start(patience);
    while (!condition()) {
        if (!limit.isActive())
            return false;
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }
    return true;
}

} // namespace

int HostCallback::Call(const QString& download, const QString& local)
{
    downloadPath = download;
    localPackagePath = local;
    thread = QThread::currentThreadId();
    ++calls;
    if (action)
        action();
    return code;
}

GuardedUpdater::GuardedUpdater(const GuardSite& site)
    : updater(updater::CreateUpdater(&manager, nullptr)),
      guard(std::make_unique<guard::InstallGuard>(updater.get()))
{
    updater->SetLocalPackagePath(site.App());
    updater->SetDownloadPath(site.Next());
    updater->SetPackageName(GuardSite::package);
    updater->SetCurrentVersion(QStringLiteral("1.0"));
    guard->SetPackageXML(site.Xml());

    using updater::IUpdater;
    QObject::connect(updater.get(), &IUpdater::stateChanged, [this](const QString& name) {
        states << name;
        if (const std::function<void()> function = atState.value(name))
            function();
    });
    QObject::connect(updater.get(), &IUpdater::error,
                     [this](int code, const QString& text) { errors << qMakePair(code, text); });
    QObject::connect(updater.get(), &IUpdater::waiting, [this] { ends << "waiting"; });
    QObject::connect(updater.get(), &IUpdater::finished, [this] { ends << "finished"; });
    QObject::connect(updater.get(), &IUpdater::failed, [this] { ends << "failed"; });
    QObject::connect(updater.get(), &IUpdater::canceled, [this] { ends << "canceled"; });
    if (!WaitFor([this] { return ends.contains(QStringLiteral("waiting")); }))
        qFatal("the updater does not start");
    Forget();
}

GuardedUpdater::~GuardedUpdater()
{
    guard.reset();
    updater.reset();
}

bool GuardedUpdater::Rest()
{
    const QString last = ends.isEmpty() ? QString() : ends.last();
    if (last == QLatin1String("finished"))
        updater->Cancel();
    else if (last == QLatin1String("failed") || last == QLatin1String("canceled"))
        updater->Wait();
    return WaitFor([this] { return ends.isEmpty() || ends.last() == QLatin1String("waiting"); });
}

bool GuardedUpdater::Install()
{
    if (!Rest())
        return false;
    Forget();
    updater->Install();
    return WaitFor([this] { return !ends.isEmpty(); }) && ends.last() == QLatin1String("finished");
}

void GuardedUpdater::AtState(const QString& name, std::function<void()> function)
{
    atState.insert(name, std::move(function));
}

bool GuardedUpdater::Reach(const QString& state)
{
    return WaitFor([&] { return states.contains(state); });
}

void GuardedUpdater::Forget()
{
    errors.clear();
    states.clear();
    ends.clear();
}

QByteArray GuardedUpdater::Report() const
{
    QStringList lines = {states.join(u' '), ends.join(u' ')};
    for (const QPair<int, QString>& error : errors)
        lines << QStringLiteral("error %1 %2").arg(error.first).arg(error.second);
    if (guard)
        lines << QStringLiteral("guard %1 %2").arg(guard->LastErrorCode()).arg(guard->LastError());
    return lines.join(u'\n').toUtf8();
}

IdleUpdater::IdleUpdater(const GuardSite& site)
    : downloadPath(site.Next()),
      localPackagePath(site.App()),
      currentVersion(QStringLiteral("1.0")),
      packageName(GuardSite::package),
      packageXml(site.Xml())
{
}

int IdleUpdater::CallBack()
{
    Q_EMIT stateChanged(QStringLiteral("INSTALLING"));
    Q_EMIT installing();
    Q_EMIT stateChanged(QStringLiteral("APPCALLBACK"));
    int code = 0;
    std::thread thread([&] { code = callback->Call(downloadPath, localPackagePath); });
    thread.join();
    if (code == 0)
        return 0;
    Q_EMIT error(code, QStringLiteral("Application callback failed!"));
    Q_EMIT stateChanged(QStringLiteral("FAILED"));
    Q_EMIT failed();
    return code;
}

} // namespace kxtest
