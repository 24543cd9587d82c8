#include <kxcommon/qtlogger.h>

#include <QFile>
#include <QLoggingCategory>
#include <QMutex>
#include <QTextStream>

//! [logging]
void LogThroughQt()
{
    static common::logger::QtLogger logger; // not owned by the library: must outlive all logging
    common::logger::SetLogger(&logger);
    QLoggingCategory::setFilterRules(QStringLiteral("updater.*.debug=true"));
}
//! [logging]

//! [logger]
class FileLogger : public common::logger::ILogger
{
public:
    explicit FileLogger(const QString& path) : file(path)
    {
        file.open(QIODevice::Append | QIODevice::Text);
    }
    void Log(const common::logger::IMessage& message) override
    {
        if (message.Level() >= common::logger::Debug)
            return;
        const QMutexLocker lock(&mutex); // messages come from several threads at once
        QTextStream(&file) << message.Level() << ' ' << message.Category() << ' ' << message.Text()
                           << '\n';
    }

private:
    QFile file;
    QMutex mutex;
};
//! [logger]

void LogToFile(const QString& path)
{
    static FileLogger logger(path);
    common::logger::SetLogger(&logger);
}
