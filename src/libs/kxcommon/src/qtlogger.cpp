#include <kxcommon/qtlogger.h>

#include <QLoggingCategory>

namespace common::logger {
namespace {
QtMsgType TypeOf(int level)
{
    if (level >= Debug)
        return QtDebugMsg;
    if (level >= Info)
        return QtInfoMsg;
    return level >= Warning ? QtWarningMsg : QtCriticalMsg;
}
} // namespace

void QtLogger::Log(const IMessage& message)
{
    const QtMsgType type = TypeOf(message.Level());
    // Cheap enough to make per message, and so always under the rules in force.
    const QLoggingCategory category(message.Category());
    if (!category.isEnabled(type))
        return;
    const QMessageLogger logger(message.File(), message.Line(), message.Function(),
                                message.Category());
    const QString& text = message.Text();
    switch (type) {
    case QtDebugMsg:
        logger.debug().noquote() << text;
        break;
    case QtInfoMsg:
        logger.info().noquote() << text;
        break;
    case QtWarningMsg:
        logger.warning().noquote() << text;
        break;
    default:
        logger.critical().noquote() << text;
        break;
    }
}

} // namespace common::logger
