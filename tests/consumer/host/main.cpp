#include <kxupdater/iupdater.h>

#include <QCoreApplication>
#include <QNetworkAccessManager>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QNetworkAccessManager manager;
    updater::IUpdater* updater = updater::CreateUpdater(&manager, &app);
    QObject::connect(updater, &updater::IUpdater::waiting, &app, &QCoreApplication::quit);
    return app.exec();
}
