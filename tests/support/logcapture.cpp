#include "logcapture.h"

#include <QThread>

namespace kxtest {

QString LogRecord::Line() const
{
    return QStringLiteral("%1 %2 %3").arg(category, QString::number(level), text);
}

LogCapture::LogCapture() : previous(common::logger::GetLogger())
{
    common::logger::SetLogger(this);
}

LogCapture::~LogCapture()
{
    common::logger::SetLogger(previous);
}

void LogCapture::Log(const common::logger::IMessage& message)
{
    LogRecord record;
    record.level = message.Level();
    record.category = QString::fromUtf8(message.Category());
    record.function = QString::fromUtf8(message.Function());
    record.text = message.Text();
    record.file = QString::fromUtf8(message.File());
    record.line = message.Line();
    record.thread = QThread::currentThreadId();
    const QMutexLocker lock(&mutex);
    records.push_back(record);
}

QVector<LogRecord> LogCapture::Records() const
{
    const QMutexLocker lock(&mutex);
    return QVector<LogRecord>(records.cbegin(), records.cend());
}

QStringList LogCapture::Lines() const
{
    QStringList lines;
    for (const LogRecord& record : Records())
        lines << record.Line();
    return lines;
}

QStringList LogCapture::Lines(const QString& category) const
{
    QStringList lines;
    for (const LogRecord& record : Records()) {
        if (record.category == category)
            lines << QStringLiteral("%1 %2").arg(QString::number(record.level), record.text);
    }
    return lines;
}

LogRecord LogCapture::Last() const
{
    const QMutexLocker lock(&mutex);
    return records.empty() ? LogRecord() : records.back();
}

int LogCapture::Count(const QString& line) const
{
    return static_cast<int>(Lines().count(line));
}

void LogCapture::Clear()
{
    const QMutexLocker lock(&mutex);
    records.clear();
}

} // namespace kxtest
