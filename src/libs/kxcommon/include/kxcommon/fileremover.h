#pragma once

#include <kxcommon/kxcommon_export.h>

#include <QObject>
#include <QString>

#include <memory>

namespace common {

class RemoveWorker;

/**
 * Removes directory trees in one run, on a worker thread.
 *
 *     auto remover = std::make_unique<common::FileRemover>();
 *     remover->AddDirectory(path);
 *     connect(remover.get(), SIGNAL(succesed()), SLOT(OnRemoved()));
 *     connect(remover.get(), SIGNAL(failed(int, const QString&)),
 *             SLOT(OnFailed(int, const QString&)));
 *     remover->Remove();
 *
 * Never follows a symbolic link: a link inside a tree is removed, what it points to is not, and the
 * same holds when the queued path itself is a link. Read-only entries are removed. A path that does
 * not exist counts as removed; a plain file, an empty path, the root and the user's home directory
 * are failures. Signals, threads and deletion are those of FileCopier.
 */
class KXCOMMON_EXPORT FileRemover : public QObject
{
    Q_OBJECT
public:
    FileRemover();
    ~FileRemover() override;

    /** Queues the directory at `path` with everything under it. */
    void AddDirectory(const QString& path);

    /** Starts the run. False, without a signal, if one was started before; a run that cannot start
     *  for another reason is reported by failed(). */
    bool Remove();

Q_SIGNALS:
    /** Every queued directory is gone. */
    void succesed();
    /** An entry could not be removed, and the run stopped; codes Remove... of <kxcommon/errors.h>.
     */
    void failed(int error, const QString& errorText);
    /** Entries done and in all, as for FileCopier. */
    void progress(int done, int total);

private:
    Q_DISABLE_COPY(FileRemover)

    std::unique_ptr<RemoveWorker> worker;
};

} // namespace common
