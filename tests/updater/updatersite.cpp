#include "updatersite.h"

#include "manifest.h"
#include "retrydelay.h"

#include <kxupdater/build.h>

#include <QStateMachine>
#include <QTest>

namespace kxtest {
namespace {

constexpr int waitMs = 60000;

} // namespace

UpdaterSite::UpdaterSite(const QStringList& categories) : journal(categories)
{
    journal.Mask(base.Root(), QStringLiteral("~"));
    journal.Mask(server.Url(QString()).toString(), QStringLiteral("http://server"));
    server.ServeDirectory(QStringLiteral("/files"), Path(QStringLiteral("fresh")));
}

QString UpdaterSite::ManifestPath(const QString& version) const
{
    return QLatin1Char('/') +
           kxtest::ManifestPath(QStringLiteral("demo"), version, updater::Build::Platform());
}

updater::FileList UpdaterSite::Publish(const QString& version, const QString& executable)
{
    const updater::FileList files = ScanForManifest(Path(QStringLiteral("fresh")));
    Publish(version, files, executable);
    return files;
}

void UpdaterSite::Publish(const QString& version, const updater::FileList& files,
                          const QString& executable)
{
    const QString manifest = ManifestFor(
        QStringLiteral("demo"), server.Url(QStringLiteral("/files")).toString(), executable, files);
    server.SetBody(ManifestPath(version), manifest.toUtf8());
    server.SetBody(VersionPath(), VersionReply(version).toUtf8());
}

bool UpdaterSite::Start()
{
    updater = std::make_unique<updater::Updater>(&manager, nullptr);
    updater->SetURL(server.Url(QString()).toString());
    updater->SetPackageName(QStringLiteral("demo"));
    updater->SetCurrentVersion(QStringLiteral("1.0"));
    updater->SetLocalPackagePath(Path(QStringLiteral("app")));
    updater->SetDownloadPath(Path(QStringLiteral("next")));
    journal.Trace(updater.get());
    const bool waits = Run(QString(), QStringLiteral("WAITING"));
    journal.Clear();
    return waits;
}

void UpdaterSite::Command(const QString& name)
{
    if (!QMetaObject::invokeMethod(updater.get(), qPrintable(name), Qt::DirectConnection))
        qFatal("no command %s", qPrintable(name));
}

bool UpdaterSite::Run(const QString& command, const QString& state)
{
    if (!command.isEmpty())
        Command(command);
    const auto there = [&] {
        return journal.State() == state &&
               (state != QLatin1String("SUCCESS") || !MachineOf(*updater)->isRunning());
    };
    if (QTest::qWaitFor(there, waitMs))
        return true;
    qWarning("%s is not reached; the journal ends:\n%s", qPrintable(state),
             qPrintable(journal.Lines()
                            .mid(qMax<qsizetype>(0, journal.Lines().size() - 20))
                            .join(QLatin1Char('\n'))));
    return false;
}

ShortRetries::ShortRetries(int milliseconds) : before(updater::internal::RetryDelay())
{
    updater::internal::SetRetryDelay(milliseconds);
}

ShortRetries::~ShortRetries()
{
    updater::internal::SetRetryDelay(before);
}

} // namespace kxtest
