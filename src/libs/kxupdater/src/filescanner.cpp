#include <kxupdater/filescanner.h>

#include "filescantask.h"

#include <kxcommon/logger.h>
#include <kxupdater/errors.h>

#include <QThread>

#include <new>

KX_LOG_CATEGORY("updater.filescan")

namespace updater {

FileScanner::FileScanner() = default;

FileScanner::FileScanner(const QString& path) : path(path) {}

FileScanner::~FileScanner()
{
    const QPointer<FileScanTask> last = task;
    Abort(true);
    // Its thread has ended; the event loop, which would delete it later, may have as well.
    delete last;
}

void FileScanner::SetPath(const QString& newPath)
{
    path = newPath;
}

QString FileScanner::Path() const
{
    return path;
}

const FileList& FileScanner::Files() const
{
    return files;
}

bool FileScanner::Scan()
{
    KX_LOG(Debug) << "Scan";
    qRegisterMetaType<updater::FileList>();
    if (task) {
        task->disconnect(this);
        Abort(true);
    }
    delete results; // and with it whatever an earlier task still has under way
    files.clear();

    task = new (std::nothrow) FileScanTask(path);
    results = task ? new (std::nothrow) FileScanResults(this) : nullptr;
    if (!results) {
        delete task;
        KX_LOG(Critical) << "Failed to create scan task!";
        Q_EMIT failed(ScanTaskMissing, QStringLiteral("Failed to create scan task!"));
        return false;
    }

    if (QThread* thread = task->Thread()) {
        connect(thread, SIGNAL(started()), task, SLOT(run()), Qt::DirectConnection);
        connect(thread, SIGNAL(finished()), task, SLOT(deleteLater()), Qt::QueuedConnection);
    }
    connect(task, SIGNAL(succesed(const updater::FileList&)), results,
            SIGNAL(succesed(const updater::FileList&)), Qt::QueuedConnection);
    connect(task, SIGNAL(failed(int, const QString&)), results, SIGNAL(failed(int, const QString&)),
            Qt::QueuedConnection);
    connect(results, SIGNAL(succesed(const updater::FileList&)), this,
            SLOT(OnSuccessed(const updater::FileList&)));
    connect(results, SIGNAL(failed(int, const QString&)), this,
            SIGNAL(failed(int, const QString&)));
    task->Scan();
    return true;
}

void FileScanner::Abort(bool force)
{
    if (!task)
        return;
    task->Abort(force);
    task->deleteLater();
    task.clear();
}

void FileScanner::OnSuccessed(const FileList& found)
{
    KX_LOG(Debug) << "Scan finished. Found " << static_cast<quint64>(found.size()) << " files.";
    files = found;
    Q_EMIT succesed();
}

} // namespace updater
