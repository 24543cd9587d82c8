#include <kxupdater/iupdater.h>
#include <kxupdater/transferprogress.h>

#include <QCoreApplication>
#include <QNetworkAccessManager>

class Callback : public AppCallbackFunction
{
    int Call(const QString&, const QString&) override { return 0; }
};

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QNetworkAccessManager manager;
    Callback callback;
    QObject* object = updater::CreateUpdater(&manager, &app);
    auto* updater = dynamic_cast<updater::IUpdater*>(object);
    updater->SetAppCallback(&callback);
    const updater::TransferProgress progress(updater);
    if (progress.FilesTotal() != 0 || progress.SecondsLeft() != -1)
        return 1;
    QObject::connect(updater, &updater::IUpdater::waiting, &app, &QCoreApplication::quit);
    return app.exec();
}
