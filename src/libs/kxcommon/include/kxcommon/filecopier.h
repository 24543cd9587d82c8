#pragma once

#include <kxcommon/kxcommon_export.h>

#include <QObject>
#include <QString>

#include <memory>

namespace common {

class CopyWorker;

/**
 * Copies files, symbolic links and directory trees in one run, on a worker thread.
 *
 *     auto copier = std::make_unique<common::FileCopier>();
 *     copier->AddDirectory(source, destination);
 *     connect(copier.get(), SIGNAL(succesed()), SLOT(OnCopied()));
 *     connect(copier.get(), SIGNAL(failed(int, const QString&)),
 *             SLOT(OnFailed(int, const QString&)));
 *     connect(copier.get(), SIGNAL(progress(int, int)), SLOT(OnProgress(int, int)));
 *     copier->Copy();
 *
 * The queue is filled before the single run. Jobs are carried out in the order of the queue and
 * stop at the first failure. Paths are absolute. Missing parent directories of destinations are
 * made, existing regular files and links at a destination are replaced and never written through,
 * permissions and modification times are kept, special files are failures. succesed() or failed()
 * comes once, progress() any number of times before, all on the owner's thread and never from
 * inside Copy(). The copier may be deleted at any moment, inside its own signals too: the run is
 * abandoned, the worker waited for, and nothing arrives afterwards. Owner thread only.
 */
class KXCOMMON_EXPORT FileCopier : public QObject
{
    Q_OBJECT
public:
    FileCopier();
    ~FileCopier() override;

    /** Queues a copy of the regular file at `source`, which may be a link to one. */
    void AddFile(const QString& source, const QString& destination);
    /** Queues a copy of the symbolic link at `source`: a link with the same target text. */
    void AddSymlink(const QString& source, const QString& destination);
    /**
     * Queues a copy of the tree under `source`, hidden entries included.
     * A destination that does not exist is absent or whole at every moment, also after a power cut:
     * the copy is made in the hidden sibling ".NAME.kxnew", brought to disk, and renamed into
     * place; a failure or the copier's deletion removes the sibling. An existing destination is
     * copied into. Source and destination must not lie inside one another.
     */
    void AddDirectory(const QString& source, const QString& destination);
    /**
     * Confines the destinations of AddFile() and AddSymlink() to the directory `root`: one that is
     * not below it, or is reached through a symbolic link below it, fails with CopyConfinement
     * before anything is written for it. `root` itself may be reached through links. Empty, the
     * default, confines nothing.
     */
    void SetDestinationRoot(const QString& root);

    /** Starts the run. False, without a signal, if one was started before; a run that cannot start
     *  for another reason is reported by failed(). */
    bool Copy();

Q_SIGNALS:
    /** Every job has been carried out. */
    void succesed();
    /** A job failed, and the run stopped; codes Copy... of <kxcommon/errors.h>. */
    void failed(int error, const QString& errorText);
    /** Amount done and in all, in bytes and entries scaled into int; 0 <= done <= total, total >=
     * 1, never decreasing, ends at the total, some 50 times a second at most. */
    void progress(int done, int total);

private:
    Q_DISABLE_COPY(FileCopier)

    std::unique_ptr<CopyWorker> worker;
};

} // namespace common
