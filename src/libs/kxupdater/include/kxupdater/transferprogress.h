#pragma once

#include <kxupdater/kxupdater_export.h>

#include <QList>
#include <QObject>
#include <QString>

#include <memory>

namespace updater {

class IUpdater;
class TransferMeter;

/**
 * Tells in bytes how the download of an update goes, for hosts that want more than a percentage.
 *
 *     auto* transfer = new updater::TransferProgress(updater, this);
 *     connect(transfer, SIGNAL(changed()), SLOT(OnTransferChanged()));
 *     // in the slot:  transfer->BytesDone(), transfer->BytesTotal(), transfer->SecondsLeft() ...
 *
 * It watches the DOWNLOADING step of one updater, made by CreateUpdater(), and changes nothing
 * about it. Everything is 0 at first and again when an assembly begins (PREPARING); from
 * DOWNLOADING on the figures are those of that step, and stay when it is over, however it ended. An
 * object that is made in the middle of the step, or after it, knows of what was before. Each
 * updater may have any number of them; an updater without one does no work for it.
 *
 * Without an updater, with one that CreateUpdater() did not make, and with one of another thread,
 * everything stays as it is at first, and a warning is logged. The updater may be deleted first:
 * the figures stay. This object may be deleted at any moment, inside its own signal and those of
 * the updater too; the updater may be deleted inside changed(), except by a host that runs an event
 * loop of its own inside a signal of the updater and has to use deleteLater() there. Owner thread
 * of the updater only.
 */
class KXUPDATER_EXPORT TransferProgress : public QObject
{
    Q_OBJECT
public:
    /** One transfer. */
    struct FileProgress
    {
        QString name;      //!< relative to the package, with "/" as separator; chosen by the server
        quint64 done = 0;  //!< bytes of the file on disk, resumed ones included; at most `total`
        quint64 total = 0; //!< bytes of the file
    };

    /** `updater` is not owned and may be null; `parent` owns this object and may be the updater. */
    explicit TransferProgress(IUpdater* updater, QObject* parent = nullptr);
    ~TransferProgress() override;

    /**
     * Bytes on disk of the files to fetch: of those that are stored, of those under way, and of
     * those that failed or were given up. What a resumed file had already counts, and so does a
     * file that is there already. At most BytesTotal(). Goes back when a file has to be fetched
     * again from byte 0.
     */
    quint64 BytesDone() const;
    /** Bytes of all files to fetch, as the server's list tells them; 0 before DOWNLOADING. */
    quint64 BytesTotal() const;
    /** Files to fetch that are in place, those that were there already included. */
    int FilesDone() const;
    /** Files to fetch; 0 before DOWNLOADING. Unchanged files, which are copied, do not count. */
    int FilesTotal() const;
    /**
     * Bytes that came over the network per second, averaged over the last 5 seconds; as of the last
     * changed(). 0 during the first half second of the step and when nothing is under way. Bytes of
     * repeated attempts count, those that were on disk already do not.
     */
    quint64 BytesPerSecond() const;
    /** Seconds until the rest has come at BytesPerSecond(), rounded up; -1 while that is 0. */
    int SecondsLeft() const;
    /** The transfers under way, in the order of their start; at most as many as run at once. */
    QList<FileProgress> ActiveFiles() const;

Q_SIGNALS:
    /**
     * The figures are others than before. Comes at most about ten times a second, and once when the
     * step is over, however it ended; always from the event loop, never from inside a signal of the
     * updater.
     */
    void changed();

private:
    Q_DISABLE_COPY(TransferProgress)

    void OnStateChanged(const QString& state);
    void OnStepOver();
    void OnTick();

    std::unique_ptr<TransferMeter> meter;
};

} // namespace updater
