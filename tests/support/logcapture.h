#pragma once

#include <kxcommon/logger.h>

#include <QMutex>
#include <QString>
#include <QStringList>
#include <QVector>

#include <vector>

namespace kxtest {

/** One message as the logger saw it. */
struct LogRecord
{
    int level = 0;
    QString category;
    QString function;
    QString text;
    QString file;
    int line = 0;
    Qt::HANDLE thread = nullptr; // QThread::currentThreadId() of the call

    /** "category level text" */
    QString Line() const;
};

/**
 * The process's logger for as long as it lives; the one before is put back. Records what comes from
 * every thread, in the order of arrival.
 */
class LogCapture : public common::logger::ILogger
{
public:
    LogCapture();
    ~LogCapture() override;

    void Log(const common::logger::IMessage& message) override;

    QVector<LogRecord> Records() const;
    /** All records as "category level text". */
    QStringList Lines() const;
    /** Those of one category as "level text". */
    QStringList Lines(const QString& category) const;
    /** The last record; a default one when there is none. */
    LogRecord Last() const;
    /** True when `line`, "category level text", was logged. */
    bool Contains(const QString& line) const { return Count(line) > 0; }
    int Count(const QString& line) const;
    void Clear();

private:
    Q_DISABLE_COPY(LogCapture)

    common::logger::ILogger* previous;
    mutable QMutex mutex;
    std::vector<LogRecord> records; // guarded by mutex; not shared with what Records() returns
};

} // namespace kxtest
