#include "logforwarder.h"

#include "common/console.h"

LogForwarder::LogForwarder(tools::Console& console, int level) : console(console), level(level)
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
        console.Error(QStringLiteral("log %1 %2: %3")
                          .arg(message.Level())
                          .arg(QLatin1String(message.Category()), message.Text()));
        return;
    }
    const QLatin1String plan("PREPARING: ");
    if (message.Level() == common::logger::Info && message.Text().startsWith(plan) &&
        QLatin1String(message.Category()) == QLatin1String("updater.core"))
        console.Message(QStringLiteral("    ") + message.Text().mid(plan.size()));
}
