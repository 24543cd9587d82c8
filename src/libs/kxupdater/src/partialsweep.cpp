#include "partialsweep.h"

#include <kxcommon/ifiledownload.h>
#include <kxcommon/logger.h>

#include <QDirIterator>
#include <QFile>

KX_LOG_CATEGORY("updater.download")

namespace updater {

PartialSweep::PartialSweep(const QString& root, const QSet<QString>& keep) : root(root), keep(keep)
{
}

PartialSweep::~PartialSweep()
{
    requestInterruption();
    wait();
}

bool PartialSweep::Succeeded() const
{
    return clean;
}

void PartialSweep::run()
{
    bool removedAll = true;
    QDirIterator entries(root,
                         QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                         QDirIterator::Subdirectories);
    while (entries.hasNext() && !isInterruptionRequested()) {
        const QString path = entries.next();
        const QFileInfo entry = entries.fileInfo();
        if (entry.isDir() && !entry.isSymLink())
            continue;
        if (!common::http::IsPartialFileName(entries.fileName()) || keep.contains(path))
            continue;
        if (!QFile::remove(path)) {
            KX_LOG(Error) << "Cannot remove '" << path << "'!";
            removedAll = false;
        }
    }
    clean = removedAll;
}

} // namespace updater
