#pragma once

#include "nativefile.h"
#include "transferworker.h"

#include <QByteArray>
#include <QCryptographicHash>
#include <QEvent>
#include <QString>

#include <atomic>
#include <deque>
#include <mutex>
#include <vector>

QT_BEGIN_NAMESPACE
class QObject;
QT_END_NAMESPACE

namespace common::http {

/**
 * The disk side of one download: looks whether the file is there already, keeps the partial file
 * and its digest, and puts it into place. The owner gives orders, which the worker thread carries
 * out one after another; results come back as events, announced to a receiver in the owner's
 * thread.
 */
class PartialFile : public WorkerJob
{
public:
    struct Settings
    {
        QString destination; //!< absolute
        qint64 size = 0;
        QByteArray digest; //!< 16 bytes, or empty: not checked
        QFileDevice::Permissions permissions;
    };

    struct Event
    {
        enum Kind {
            Present,     //!< the destination is right already; nothing more comes
            Ready,       //!< of Prepare(): the partial file holds so many bytes
            Room,        //!< there is room for data again, after HasRoom() was false
            WrongDigest, //!< of Finish(): the partial file is as it was, text is its digest
            Stored,      //!< the file is in place; nothing more comes
            Failed,      //!< code and text; only Close() is obeyed from now on
            Closed,      //!< of Close(); nothing more comes
        };
        Kind kind;
        qint64 bytes = 0;
        int code = 0;
        QString text;
    };

    explicit PartialFile(const Settings& settings);
    ~PartialFile() override;

    /** Type of the events that tell the receiver to call TakeEvents(). */
    static QEvent::Type NotificationType();

    // Orders; owner thread. The job has to be scheduled after each.
    void Prepare() { Give({Order::Prepare, QByteArray()}); }
    void Append(const QByteArray& data) { Give({Order::Append, data}); }
    /** Throws away what is there and begins at byte 0. */
    void Restart() { Give({Order::Restart, QByteArray()}); }
    void Finish() { Give({Order::Finish, QByteArray()}); }
    /** Ends the work; an empty partial file goes in any case. */
    void Close(bool remove) { Give({remove ? Order::CloseAndRemove : Order::Close, QByteArray()}); }

    /** False while the worker has enough to write; Room comes when that is over. Owner thread. */
    bool HasRoom();
    std::vector<Event> TakeEvents();
    /** Null ends the notifications; none is under way afterwards but those already posted. */
    void SetReceiver(QObject* receiver);
    /** Bytes of the file on disk. Any thread. */
    qint64 BytesOnDisk() const { return onDisk; }

    bool Step() override;
    /** Gives the file up at once. Only when the worker does not step this job any more. */
    void Abandon();

private:
    struct Order
    {
        enum Kind { Prepare, Append, Restart, Finish, Close, CloseAndRemove } kind;
        QByteArray data;
    };
    enum class Phase { Obeying, HashingPresent, HashingPartial };

    void Give(Order order);
    bool TakeOrder(Order& order);
    bool HasOrders();
    void Post(Event event);
    void Fail(int code, const QString& text);
    void FailToWrite();

    // Carried out by the worker.
    void Obey(const Order& order);
    void BeginWork();
    void HashPiece();
    void OpenPartial();
    void OnPresentHashed();
    void OnPartialHashed();
    void Write(const QByteArray& data);
    void StartOver();
    void Store();
    bool ApplyPermissions(const QString& path);
    void CloseFile(bool remove);
    void Unclaim();

    const Settings settings;
    const QString partialPath;

    // Worker thread, and the owner once the job is removed from the worker.
    NativeFile file;
    QCryptographicHash hash{QCryptographicHash::Md5};
    Phase phase = Phase::Obeying;
    QString claim; // key in the registry of partial files; empty: none
    bool failed = false;

    std::atomic<qint64> onDisk{0};

    // Guarded by the mutex.
    std::mutex mutex;
    std::deque<Order> orders;
    std::vector<Event> events;
    QObject* receiver = nullptr;
    qint64 waitingBytes = 0;
    bool roomWanted = false;
    bool notified = false;
};

} // namespace common::http
