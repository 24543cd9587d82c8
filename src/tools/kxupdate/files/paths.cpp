#include "paths.h"

#include <QDir>
#include <QFileInfo>
#include <QSaveFile>
#include <QTemporaryDir>
#include <QTemporaryFile>

QString ResolvedPath(const QString& path)
{
    QString existing = QDir::cleanPath(path);
    QString rest;
    for (;;) {
        const QString canonical = QFileInfo(existing).canonicalFilePath();
        if (!canonical.isEmpty())
            return rest.isEmpty() ? canonical : QDir::cleanPath(canonical + u'/' + rest);
        const qsizetype cut = existing.lastIndexOf(u'/');
        if (cut < 0)
            return QDir::cleanPath(path);
        const QString name = existing.mid(cut + 1);
        rest = rest.isEmpty() ? name : name + u'/' + rest;
        existing.truncate(cut);
        if (existing.isEmpty())
            existing = QStringLiteral("/");
    }
}

bool IsInside(const QString& inner, const QString& outer)
{
    if (inner == outer)
        return true;
    return inner.startsWith(outer.endsWith(u'/') ? outer : outer + u'/');
}

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

QString FileProblem(const QString& path)
{
    // On a full volume only what stands in a file finds no room, so the probe writes something.
    QTemporaryFile probe(path + QStringLiteral(".XXXXXX"));
    if (probe.open() && probe.write("x") == 1 && probe.flush())
        return QStringLiteral("the system does not tell why");
    return probe.errorString();
}

QString Sample(const QStringList& names)
{
    constexpr qsizetype shown = 5;
    QString text = names.mid(0, shown).join(QStringLiteral(", "));
    if (names.size() > shown)
        text += QStringLiteral(" and %1 more").arg(names.size() - shown);
    return text;
}
