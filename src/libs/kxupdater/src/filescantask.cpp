#include "filescantask.h"

#include <kxcommon/logger.h>
#include <kxupdater/errors.h>

#include <QCryptographicHash>
#include <QDeadlineTimer>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QThread>

#include <filesystem>
#include <new>
#include <system_error>

KX_LOG_CATEGORY("updater.filescan")

namespace updater {
namespace {

/** A file whose reading ends early once the scan is aborted: a large one would hold up the abort.
 */
class AbortableFile : public QFile
{
public:
    AbortableFile(const QString& path, const std::atomic<int>& abortRequested)
        : QFile(path), abortRequested(abortRequested)
    {
    }

protected:
    qint64 readData(char* data, qint64 size) override
    {
        return abortRequested.load(std::memory_order_relaxed) ? -1 : QFile::readData(data, size);
    }

private:
    const std::atomic<int>& abortRequested;
};

bool CanList(const QString& path)
{
    std::error_code error;
    const std::filesystem::directory_iterator entries(QFileInfo(path).filesystemFilePath(), error);
    return !error;
}

} // namespace

FileScanTask::FileScanTask(const QString& rootPath)
    : rootPath(rootPath), root(rootPath), thread(new (std::nothrow) QThread)
{
}

FileScanTask::~FileScanTask()
{
    Abort(true);
    // isRunning() is false a moment before the thread has ended.
    if (thread)
        thread->wait();
    delete thread;
}

QThread* FileScanTask::Thread() const
{
    return thread;
}

void FileScanTask::Scan()
{
    abortRequested = 0;
    if (!thread) {
        KX_LOG(Error) << "Thread variable is NULL!";
        Q_EMIT failed(ScanThreadMissing, QStringLiteral("Thread variable is NULL!"));
        return;
    }
    thread->start(QThread::InheritPriority);
}

void FileScanTask::Abort(bool force)
{
    if (force)
        abortRequested = 1;
    if (thread && thread->isRunning()) {
        KX_LOG(Debug) << "Waiting for the completion of the scanning thread...";
        thread->wait(QDeadlineTimer(QDeadlineTimer::Forever));
        KX_LOG(Debug) << "Wait finished!";
    }
}

void FileScanTask::run()
{
    KX_LOG(Info) << QStringLiteral("Start scanning path '%1'...").arg(rootPath);
    QElapsedTimer timer;
    timer.start();

    FileList files;
    const int code = ScanPath(rootPath, files);
    if (code == 0) {
        KX_LOG(Info) << QStringLiteral("Scanning path '%1' finished in %2 msec, found %3 files.")
                            .arg(rootPath, QString::number(timer.elapsed()),
                                 QString::number(files.size()));
        Q_EMIT succesed(files);
    } else {
        const QString text = QStringLiteral("Scanning path '%1' failed with error '%2'!")
                                 .arg(rootPath, QString::number(code));
        KX_LOG(Error) << text;
        Q_EMIT failed(code, text);
    }
    QThread::currentThread()->quit();
}

int FileScanTask::ScanPath(const QString& path, FileList& files)
{
    const QDir directory(path);
    if (!directory.exists()) {
        KX_LOG(Warning) << QStringLiteral("Path '%1' doesn't exists!").arg(path);
        return 0;
    }
    const QFileInfoList entries = directory.entryInfoList(
        QDir::Dirs | QDir::Files | QDir::System | QDir::NoDotAndDotDot, QDir::NoSort);
    // An empty list may also mean that the directory could not be read.
    if (entries.isEmpty() && !CanList(path))
        return ScanReadFailed;

    for (const QFileInfo& entry : entries) {
        if (abortRequested) {
            KX_LOG(Debug) << "user abort detected!";
            return ScanAborted;
        }
        int code = 0;
        if (entry.isSymLink())
            AppendSymlink(entry, files);
        else if (entry.isDir())
            code = ScanPath(entry.absoluteFilePath(), files);
        else
            code = AppendFile(entry, files);
        if (code != 0)
            return code;
    }
    return 0;
}

void FileScanTask::AppendSymlink(const QFileInfo& info, FileList& files)
{
    const QString target = info.absoluteDir().relativeFilePath(info.symLinkTarget());
    const QString name = root.relativeFilePath(info.absoluteFilePath());
    const QString md5 = QString::fromLatin1(
        QCryptographicHash::hash(target.toUtf8(), QCryptographicHash::Md5).toHex());
    const auto size = static_cast<quint64>(target.size());
    KX_LOG(Debug) << "Found symlink: '" << name << "' -> '" << target << "', size=" << size
                  << ", md5='" << md5 << "'.";
    files.append(File(name, md5, size, QString(), target));
}

int FileScanTask::AppendFile(const QFileInfo& info, FileList& files)
{
    // Opening a FIFO would wait for its other end, and a device may do anything.
    if (!info.isFile())
        return ScanReadFailed;

    AbortableFile file(info.absoluteFilePath(), abortRequested);
    if (!file.open(QIODevice::ReadOnly))
        return ScanReadFailed;
    QCryptographicHash hash(QCryptographicHash::Md5);
    const bool read = hash.addData(&file) && file.error() == QFileDevice::NoError;
    if (abortRequested) {
        KX_LOG(Debug) << "user abort detected!";
        return ScanAborted;
    }
    if (!read)
        return ScanReadFailed;
    files.append(File(root.relativeFilePath(info.absoluteFilePath()),
                      QString::fromLatin1(hash.result().toHex()), static_cast<quint64>(info.size()),
                      QString(), QString()));
    return 0;
}

} // namespace updater
