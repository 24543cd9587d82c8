#include "linkorcopy.h"

#include "disk.h"
#include "output/console.h"

#include <QFile>
#include <QFileInfo>

#include <filesystem>

namespace publish {

bool LinkOrCopy(const QString& from, const QString& to, QString& error)
{
    std::error_code code;
    std::filesystem::create_hard_link(QFileInfo(from).filesystemFilePath(),
                                      QFileInfo(to).filesystemFilePath(), code);
    if (!code)
        return true;
    QFile file(from);
    if (!file.copy(to)) {
        error = QStringLiteral("cannot copy %1 to %2: %3")
                    .arg(Shown(from), Shown(to), file.errorString());
        return false;
    }
    return Sync(to, error);
}

} // namespace publish
