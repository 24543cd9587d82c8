#include "logforwarder.h"

#include "common/console.h"
#include "logfile.h"

LogForwarder::LogForwarder(tools::Console& console, LogFile& file, int level)
    : console(console),
      file(file),
      level(level < 0 && file.IsOpen() ? int(common::logger::Info) : level)
{
    common::logger::SetLogger(this);
}

LogForwarder::~LogForwarder()
{
    common::logger::SetLogger(nullptr);
}

void LogForwarder::Log(const common::logger::IMessage& message)
{
    if (message.Level() <= level) {
        const QString line = QStringLiteral("%1 %2: %3")
                                 .arg(message.Level())
                                 .arg(QLatin1String(message.Category()), message.Text());
        if (!file.IsOpen())
            return console.Log(QStringLiteral("log ") + line);
        file.Append(line);
    }
    const QLatin1String plan("PREPARING: ");
    if (message.Level() == common::logger::Info && message.Text().startsWith(plan) &&
        QLatin1String(message.Category()) == QLatin1String("updater.core"))
        console.Message(QStringLiteral("    ") + message.Text().mid(plan.size()));
}
