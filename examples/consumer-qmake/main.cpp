// The host that consumer.pro builds. Its slots are connected by their signatures, which the
// compiler does not check: a misspelt one is reported at run time ("No such signal").

#include <kxupdater/build.h>
#include <kxupdater/iupdater.h>

#include <QCoreApplication>
#include <QNetworkAccessManager>
#include <QTextStream>

class Host : public QObject
{
    Q_OBJECT
public:
    explicit Host(QNetworkAccessManager* manager) : updater(updater::CreateUpdater(manager, this))
    {
        connect(updater, SIGNAL(waiting()), SLOT(OnWaiting()));
        connect(updater, SIGNAL(error(int, const QString&)), SLOT(OnError(int, const QString&)));
    }

private Q_SLOTS:
    void OnWaiting()
    {
        QTextStream(stdout) << "The updater waits for commands." << Qt::endl;
        QCoreApplication::quit();
    }
    void OnError(int code, const QString& text)
    {
        QTextStream(stderr) << code << ": " << text << Qt::endl;
    }

private:
    updater::IUpdater* updater; // owned by this object
};

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QTextStream(stdout) << "Builds for " << updater::Build::OSName() << ' '
                        << updater::Build::Platform() << Qt::endl;
    QNetworkAccessManager manager; // must outlive the updater
    Host host(&manager);
    return app.exec();
}

#include "main.moc"
