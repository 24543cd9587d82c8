#pragma once

#include <kxupdater/file.h>
#include <kxupdater/kxupdater_export.h>

#include <QObject>
#include <QPointer>
#include <QString>

namespace updater {

class FileScanTask;
class FileScanResults;

/**
 * Lists a directory tree on a worker thread: every regular file and symbolic link with its size and
 * MD5 digest.
 *
 *     updater::FileScanner scanner(path);
 *     connect(&scanner, SIGNAL(succesed()), SLOT(OnScanned()));
 *     connect(&scanner, SIGNAL(failed(int, const QString&)), SLOT(OnFailed(int, const QString&)));
 *     scanner.Scan();
 *
 * Hidden entries are skipped, links are recorded and never followed, directories leave no record,
 * and a root that does not exist gives an empty list. An entry that cannot be read, a directory
 * that cannot be listed and a special file fail the whole scan. Each Scan() ends in one of the two
 * signals, on the owner's thread. The scanner may be deleted at any moment, inside its own signals
 * too; its destructor ends a running scan and waits for it. Owner thread only.
 */
class KXUPDATER_EXPORT FileScanner : public QObject
{
    Q_OBJECT
public:
    FileScanner();
    /** `path` is the root of the tree to scan. */
    explicit FileScanner(const QString& path);
    ~FileScanner() override;

    /** Root of the next scan; a running one keeps the root it has. */
    void SetPath(const QString& path);
    /** Root of the next scan. */
    QString Path() const;

    /** Result of the last successful scan, in the order of the file system; empty after a new
     * Scan() until that succeeds. Permissions are not recorded. */
    const FileList& Files() const;

    /**
     * Starts a scan. One that runs is aborted and waited for, and a result still under way is
     * dropped. False, after failed(600301), only when the task could not be created.
     */
    Q_INVOKABLE bool Scan();
    /**
     * Waits for a running scan, without a time limit; with `force` it is stopped first, which takes
     * as long as one read of one file. Its result, then usually failed(600303), is still delivered.
     */
    Q_INVOKABLE void Abort(bool force);

Q_SIGNALS:
    /** The scan is complete; see Files(). */
    void succesed();
    /** The scan failed; codes 6003xx of <kxupdater/errors.h>. */
    void failed(int errorCode, const QString& errorText);

private Q_SLOTS:
    void OnSuccessed(const updater::FileList& files);

private:
    Q_DISABLE_COPY(FileScanner)

    QString path;
    QPointer<FileScanTask> task;
    FileList files;
    QPointer<FileScanResults> results; // delivers what the task reports; a new scan replaces it
};

} // namespace updater
