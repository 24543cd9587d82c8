#include "paths.h"

#include <QFileInfo>
#include <QSaveFile>
#include <QTemporaryDir>

QString WriteProblem(const QString& directory)
{
    QTemporaryDir probe(directory + QStringLiteral("/.kxupdate-XXXXXX"));
    return probe.isValid() ? QString() : probe.errorString();
}

QString OwnFileProblem(const QString& file)
{
    const QFileInfo info(file);
    if (info.isSymLink())
        return QStringLiteral("'%1' is a symbolic link; remove it.").arg(file);
    if (info.exists() && !info.isFile())
        return QStringLiteral("'%1' is not a regular file; remove it.").arg(file);
    return QString();
}

bool Commit(QSaveFile& file, const QByteArray& bytes)
{
    // A write that stops short tells no reason, the one after it does.
    for (qint64 done = 0; done < bytes.size();) {
        const qint64 count = file.write(bytes.constData() + done, bytes.size() - done);
        if (count <= 0)
            return false;
        done += count;
    }
    return (file.flush() || file.flush()) && file.commit();
}
