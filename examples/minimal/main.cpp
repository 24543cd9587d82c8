// Brings the application in a directory up to date:
//     minimal URL PACKAGE VERSION APP_DIR DOWNLOAD_DIR
// Exit status: 0 up to date or updated, 1 failed, 2 wrong arguments.

#include <kxupdater/iupdater.h>

#include <QCoreApplication>
#include <QNetworkAccessManager>
#include <QTextStream>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    if (args.size() != 6)
        return 2;
    QTextStream out(stdout);

    //! [host]
    QNetworkAccessManager manager;
    updater::IUpdater* updater = updater::CreateUpdater(&manager, &app);
    updater->SetURL(args[1]);              // https://updates.example.org
    updater->SetPackageName(args[2]);      // demo-app
    updater->SetCurrentVersion(args[3]);   // 1.0
    updater->SetLocalPackagePath(args[4]); // the installed application
    updater->SetDownloadPath(args[5]);     // where the new version is assembled

    using updater::IUpdater;
    bool assembled = false;
    QObject::connect(updater, &IUpdater::waiting,
                     [&] { assembled ? updater->Install() : updater->Check(); });
    QObject::connect(updater, &IUpdater::available, updater, &IUpdater::Download);
    QObject::connect(updater, &IUpdater::actual, updater, &IUpdater::Finish);
    QObject::connect(updater, &IUpdater::finished, [&] {
        if (updater->IsActual() || assembled)
            return app.quit();
        assembled = true;
        updater->Cancel(); // restarts the stopped updater, which then waits
    });
    QObject::connect(updater, &IUpdater::error, [&](int code, const QString& text) {
        out << code << ": " << text << Qt::endl;
    });
    QObject::connect(updater, &IUpdater::failed, [&] { app.exit(1); });
    //! [host]
    QObject::connect(updater, &IUpdater::stateChanged,
                     [&](const QString& state) { out << state << Qt::endl; });
    return app.exec();
}
