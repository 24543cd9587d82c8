#pragma once

#include <QFile>
#include <QMutex>
#include <QString>

/**
 * A file to which log lines are appended, each in one piece and with its time, so that several
 * processes may write it and a rotation that copies and truncates it loses none. Safe from any
 * thread.
 */
class LogFile
{
public:
    LogFile() = default;

    /** Opens `path`, made with mode 0640 when missing. Empty for success, else the reason. */
    QString Open(const QString& path);
    bool IsOpen() const { return file.isOpen(); }
    /** Control characters are replaced: a line stays one line. */
    void Append(const QString& line);

private:
    Q_DISABLE_COPY(LogFile)

    QMutex mutex;
    QFile file;
};
