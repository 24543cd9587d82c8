// The host that CMakeLists.txt builds.

#include <kxupdater/build.h>
#include <kxupdater/iupdater.h>

#include <QCoreApplication>
#include <QNetworkAccessManager>
#include <QTextStream>

/** Called before an install touches the application; this one has nothing to close. */
class CloseNothing : public updater::AppCallbackFunction
{
    int Call(const QString&, const QString&) override { return 0; }
};

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QTextStream out(stdout);
    out << "Builds for " << updater::Build::OSName() << ' ' << updater::Build::Platform()
        << Qt::endl;

    QNetworkAccessManager manager;
    CloseNothing callback;
    updater::IUpdater* updater = updater::CreateUpdater(&manager, &app);
    updater->SetAppCallback(&callback);
    QObject::connect(updater, &updater::IUpdater::waiting, [&] {
        out << "The updater waits for commands." << Qt::endl;
        app.quit();
    });
    return app.exec();
}
