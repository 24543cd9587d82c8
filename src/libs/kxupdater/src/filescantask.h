#pragma once

#include <kxupdater/file.h>

#include <QDir>
#include <QObject>
#include <QString>

#include <atomic>

QT_BEGIN_NAMESPACE
class QFileInfo;
class QThread;
QT_END_NAMESPACE

namespace updater {

/**
 * One walk of a tree on a thread of its own, which the task owns.
 * Lives in the thread of its scanner; only run() is executed by the worker.
 */
class FileScanTask : public QObject
{
    Q_OBJECT
public:
    explicit FileScanTask(const QString& rootPath);
    /** Aborts, waits and deletes the thread. */
    ~FileScanTask() override;

    /** The thread of the walk, null when it could not be created. */
    QThread* Thread() const;

public Q_SLOTS:
    /** Starts the thread; without one, emits failed(600304). */
    void Scan();
    /** With `force`, asks the walk to stop; waits for it in both cases, without a time limit. */
    void Abort(bool force);
    /** The walk; executed in the worker thread. */
    void run();

Q_SIGNALS:
    void succesed(const updater::FileList& files);
    void failed(int errorCode, const QString& errorText);

private:
    Q_DISABLE_COPY(FileScanTask)

    int ScanPath(const QString& path, FileList& files);
    void AppendSymlink(const QFileInfo& info, FileList& files);
    int AppendFile(const QFileInfo& info, FileList& files);

    const QString rootPath;             // set before start, read by the worker
    const QDir root;                    // worker only
    std::atomic<int> abortRequested{0}; // shared flag
    QThread* thread;                    // owner thread only
};

/**
 * Carries the results of one task to its scanner. Deleting it drops those that are still under way,
 * which disconnecting alone would not: a queued signal is delivered even after a disconnect.
 */
class FileScanResults : public QObject
{
    Q_OBJECT
public:
    explicit FileScanResults(QObject* parent) : QObject(parent) {}

Q_SIGNALS:
    void succesed(const updater::FileList& files);
    void failed(int errorCode, const QString& errorText);
};

} // namespace updater
