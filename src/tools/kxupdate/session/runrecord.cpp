#include "runrecord.h"

#include "files/paths.h"

#include <QCryptographicHash>
#include <QDateTime>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QUrl>

#include <algorithm>

namespace {

constexpr qint64 mostBytes = 64 * 1024;

// Versions come from the server and stand in one line.
QString OneLine(const QString& text)
{
    return QString::fromLatin1(QUrl::toPercentEncoding(text.left(200), " +/:~"));
}

} // namespace

RunRecord::RunRecord(const QString& path) : path(path)
{
    Load();
}

void RunRecord::Load()
{
    QFile file(path);
    if (!QFileInfo(path).isFile() || !file.open(QIODevice::ReadOnly))
        return;
    for (const QByteArray& line : file.read(mostBytes).split('\n')) {
        const QString name = QString::fromUtf8(line.left(qMax<qsizetype>(0, line.indexOf(": "))));
        const QString value = QString::fromUtf8(line.mid(name.size() + 2));
        if (name == QLatin1String("result"))
            result = value;
        else if (name == QLatin1String("version"))
            version = QUrl::fromPercentEncoding(value.toLatin1());
        else if (name == QLatin1String("time"))
            time = value;
        else if (name == QLatin1String("attempted"))
            attemptKey = value;
        else if (name == QLatin1String("attempts"))
            attempts = qMax(0, value.toInt());
    }
}

QString RunRecord::Store() const
{
    const QString text =
        QStringLiteral("result: %1\nversion: %2\ntime: %3\nattempted: %4\nattempts: %5\n")
            .arg(result, OneLine(version), time, attemptKey)
            .arg(attempts);
    const QByteArray bytes = text.toUtf8();
    const QString failure = QStringLiteral("Cannot write '%1': %2.");
    if (QFileInfo(path).isSymLink())
        return failure.arg(path, QStringLiteral("it is a symbolic link"));
    QSaveFile file(path);
    if (file.open(QIODevice::WriteOnly) && Commit(file, bytes))
        return QString();
    return failure.arg(path, file.errorString());
}

QString RunRecord::SetResult(const QString& word, const QString& about)
{
    result = word;
    version = about;
    time = QDateTime::currentDateTimeUtc().toString(Qt::ISODate);
    return Store();
}

QString RunRecord::SetAttempts(const QString& key, int count)
{
    attemptKey = key;
    attempts = count;
    return Store();
}

QString RunRecord::ClearAttempts()
{
    return attempts == 0 ? QString() : SetAttempts(QString(), 0);
}

QString RunRecord::Key(const QString& version, const updater::FileList& manifest)
{
    QStringList lines;
    for (const updater::File& file : manifest)
        lines.append(QStringLiteral("%1\n%2\n%3\n%4\n%5")
                         .arg(file.Name(), file.MD5())
                         .arg(file.Size())
                         .arg(file.PermissionsString(), file.SymlinkPath()));
    std::sort(lines.begin(), lines.end());
    lines.prepend(version);
    return QString::fromLatin1(QCryptographicHash::hash(lines.join(QStringLiteral("\n\n")).toUtf8(),
                                                        QCryptographicHash::Sha256)
                                   .toHex());
}
