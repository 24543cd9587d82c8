#include "launcher.h"

#include "files/paths.h"

#include <kxcommon/pathguard.h>

#include <QFileInfo>
#include <QProcess>

QString Launch(const QString& application, const QString& name)
{
    if (name.isEmpty())
        return QStringLiteral("The package names no program to start.");
    const QString failure = QStringLiteral("The package's program '%1' is not started: %2.");
    const QString violation = common::PathGuard::NameViolation(name);
    if (!violation.isEmpty())
        return failure.arg(name, violation);

    const QString path = application + u'/' + name;
    const QFileInfo info(path);
    const QString target = info.canonicalFilePath();
    if (target.isEmpty())
        return failure.arg(name, QStringLiteral("it does not exist"));
    if (!IsInside(target, ResolvedPath(application)))
        return failure.arg(
            name, QStringLiteral("a symbolic link leads out of the application directory"));
    if (!info.isFile() || !info.isExecutable())
        return failure.arg(name, QStringLiteral("it is not an executable file"));

    QProcess process;
    process.setProgram(path);
    process.setWorkingDirectory(application);
    process.setStandardInputFile(QProcess::nullDevice());
    process.setStandardOutputFile(QProcess::nullDevice());
    process.setStandardErrorFile(QProcess::nullDevice());
    if (process.startDetached())
        return QString();
    return failure.arg(name, process.errorString());
}
