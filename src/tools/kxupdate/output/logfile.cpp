#include "logfile.h"

#include "common/textwidth.h"

#include <QDateTime>
#include <QMutexLocker>

QString LogFile::Open(const QString& path)
{
    file.setFileName(path);
    const QFile::Permissions mode = QFile::ReadOwner | QFile::WriteOwner | QFile::ReadGroup;
    // Unbuffered: one write for a line is what keeps it whole beside those of other processes.
    if (file.open(QIODevice::WriteOnly | QIODevice::Append | QIODevice::Unbuffered, mode))
        return QString();
    return QStringLiteral("The log file '%1' cannot be opened: %2.").arg(path, file.errorString());
}

void LogFile::Append(const QString& line)
{
    const QString time = QDateTime::currentDateTimeUtc().toString(Qt::ISODateWithMs);
    const QByteArray bytes = (time + u' ' + tools::Printable(line) + u'\n').toUtf8();
    const QMutexLocker<QMutex> lock(&mutex);
    file.write(bytes);
}
