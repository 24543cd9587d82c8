// A host as small as can be, for campaigns that end it in the middle:
//     campaign_child update URL PACKAGE VERSION APP_DIR DOWNLOAD_DIR
//     campaign_child recover APP_DIR
// Exit status: 0 up to date, updated or whole, 1 failed, 2 wrong arguments.

#include <kxguard/installguard.h>
#include <kxguard/recover.h>
#include <kxupdater/iupdater.h>

#include <QCoreApplication>
#include <QNetworkAccessManager>
#include <QTextStream>

namespace {

int Recover(const QString& app)
{
    const guard::Recovery recovery = guard::Recover(app);
    QTextStream(stdout) << recovery.text << Qt::endl;
    return recovery.IsWhole() ? 0 : 1;
}

int Update(const QStringList& arguments)
{
    QTextStream out(stdout);
    QNetworkAccessManager manager;
    const std::unique_ptr<updater::IUpdater> updater(updater::CreateUpdater(&manager, nullptr));
    updater->SetURL(arguments[0]);
    updater->SetPackageName(arguments[1]);
    updater->SetCurrentVersion(arguments[2]);
    updater->SetLocalPackagePath(arguments[3]);
    updater->SetDownloadPath(arguments[4]);
    guard::InstallGuard guard(updater.get());

    using updater::IUpdater;
    bool isAssembled = false;
    QObject::connect(updater.get(), &IUpdater::waiting,
                     [&] { isAssembled ? updater->Install() : updater->Check(); });
    QObject::connect(updater.get(), &IUpdater::available, updater.get(), &IUpdater::Download);
    QObject::connect(updater.get(), &IUpdater::actual, updater.get(), &IUpdater::Finish);
    QObject::connect(updater.get(), &IUpdater::finished, [&] {
        if (updater->IsActual() || isAssembled)
            return QCoreApplication::exit(0);
        isAssembled = true;
        updater->Cancel();
    });
    QObject::connect(updater.get(), &IUpdater::error, [&](int code, const QString& text) {
        out << "error " << code << ": " << text << Qt::endl;
    });
    QObject::connect(updater.get(), &IUpdater::failed, [] { QCoreApplication::exit(1); });
    QObject::connect(updater.get(), &IUpdater::stateChanged,
                     [&](const QString& state) { out << state << Qt::endl; });
    return QCoreApplication::exec();
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const QStringList arguments = app.arguments().mid(1);
    if (arguments.size() == 2 && arguments[0] == QLatin1String("recover"))
        return Recover(arguments[1]);
    if (arguments.size() == 6 && arguments[0] == QLatin1String("update"))
        return Update(arguments.mid(1));
    return 2;
}
