// /proc as Linux has it. Elsewhere it is missing, and nothing is found.

#include "runningprograms.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <filesystem>

namespace guard {

RunningProgram FindRunningProgram(const QString& directory)
{
    const QString canonical = QFileInfo(directory).canonicalFilePath();
    if (canonical.isEmpty())
        return {};
    const QString inside = canonical + QLatin1Char('/');
    const QStringList names = QDir(QStringLiteral("/proc")).entryList(QDir::Dirs);
    for (const QString& name : names) {
        bool isProcess = false;
        const qint64 process = name.toLongLong(&isProcess);
        if (!isProcess || process == QCoreApplication::applicationPid())
            continue;
        // As the system spells it now, also when the program was renamed or removed meanwhile.
        std::error_code error;
        const std::filesystem::path target =
            std::filesystem::read_symlink(("/proc/" + name + "/exe").toStdString(), error);
        const QString path = QFile::decodeName(target.c_str());
        if (!error && path.startsWith(inside))
            return {process, path};
    }
    return {};
}

} // namespace guard
