#include "partialfile.h"

#include <kxcommon/errors.h>
#include <kxcommon/ifiledownload.h>

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>

#include <filesystem>
#include <set>
#include <system_error>

namespace common::http {
namespace {

constexpr qint64 pieceSize = 256 * 1024;
// What the worker may have waiting; more would only take memory.
constexpr qint64 mostWaiting = 1024 * 1024;

std::mutex claimsMutex;
std::set<QString>& Claims()
{
    static std::set<QString> claims; // guarded by claimsMutex
    return claims;
}

QString Shown(const QString& path)
{
    return QDir::toNativeSeparators(path);
}

} // namespace

PartialFile::PartialFile(const Settings& settings)
    : settings(settings), partialPath(PartialFilePath(settings.destination))
{
}

PartialFile::~PartialFile()
{
    Unclaim();
}

QEvent::Type PartialFile::NotificationType()
{
    static const int type = QEvent::registerEventType();
    return QEvent::Type(type);
}

void PartialFile::Give(Order order)
{
    const std::lock_guard<std::mutex> lock(mutex);
    waitingBytes += order.data.size();
    orders.push_back(std::move(order));
}

bool PartialFile::HasRoom()
{
    const std::lock_guard<std::mutex> lock(mutex);
    roomWanted = waitingBytes >= mostWaiting;
    return !roomWanted;
}

std::vector<PartialFile::Event> PartialFile::TakeEvents()
{
    const std::lock_guard<std::mutex> lock(mutex);
    notified = false;
    std::vector<Event> taken;
    taken.swap(events);
    return taken;
}

void PartialFile::SetReceiver(QObject* newReceiver)
{
    const std::lock_guard<std::mutex> lock(mutex);
    receiver = newReceiver;
}

void PartialFile::Post(Event event)
{
    const std::lock_guard<std::mutex> lock(mutex);
    events.push_back(std::move(event));
    if (!receiver || notified)
        return;
    notified = true;
    // Under the lock, so that the receiver cannot go away meanwhile.
    QCoreApplication::postEvent(receiver, new QEvent(NotificationType()));
}

bool PartialFile::TakeOrder(Order& order)
{
    const std::lock_guard<std::mutex> lock(mutex);
    if (orders.empty())
        return false;
    order = std::move(orders.front());
    orders.pop_front();
    return true;
}

bool PartialFile::HasOrders()
{
    const std::lock_guard<std::mutex> lock(mutex);
    return !orders.empty();
}

bool PartialFile::Step()
{
    if (phase != Phase::Obeying) {
        HashPiece();
        return phase != Phase::Obeying || HasOrders();
    }
    // Data comes in small portions: several are one step.
    qint64 handled = 0;
    Order order;
    while (phase == Phase::Obeying && handled < pieceSize && TakeOrder(order)) {
        Obey(order);
        handled += order.data.size();
        if (order.kind != Order::Append)
            break;
    }
    if (handled > 0) {
        bool room = false;
        {
            const std::lock_guard<std::mutex> lock(mutex);
            waitingBytes -= handled;
            room = roomWanted && waitingBytes < mostWaiting / 2;
            roomWanted = roomWanted && !room;
        }
        if (room)
            Post({Event::Room, 0, 0, QString()});
    }
    return phase != Phase::Obeying || HasOrders();
}

void PartialFile::Obey(const Order& order)
{
    if (order.kind == Order::Close || order.kind == Order::CloseAndRemove) {
        CloseFile(order.kind == Order::CloseAndRemove);
        failed = true;
        Post({Event::Closed, 0, 0, QString()});
        return;
    }
    if (failed)
        return;
    switch (order.kind) {
    case Order::Prepare:
        BeginWork();
        break;
    case Order::Append:
        Write(order.data);
        break;
    case Order::Restart:
        StartOver();
        break;
    default:
        Store();
        break;
    }
}

void PartialFile::Fail(int code, const QString& text)
{
    failed = true;
    Post({Event::Failed, 0, code, text});
}

void PartialFile::FailToWrite()
{
    Fail(file.IsNoSpace() ? DownloadNoSpace : DownloadWrite,
         QStringLiteral("Cannot write the partial file '%1': %2.")
             .arg(Shown(partialPath), file.ErrorText()));
}

void PartialFile::BeginWork()
{
    const QFileInfo partial(partialPath);
    std::error_code error;
    std::filesystem::create_directories(QFileInfo(partial.path()).filesystemAbsoluteFilePath(),
                                        error);
    if (error) {
        Fail(DownloadCreateDirectory,
             QStringLiteral("Cannot make the directory '%1': %2.")
                 .arg(Shown(partial.path()), QString::fromLocal8Bit(error.message().c_str())));
        return;
    }
    // One directory can have many paths.
    const QString key =
        QFileInfo(partial.path()).canonicalFilePath() + QLatin1Char('/') + partial.fileName();
    {
        const std::lock_guard<std::mutex> lock(claimsMutex);
        if (Claims().insert(key).second)
            claim = key;
    }
    if (claim.isEmpty()) {
        Fail(DownloadBusy,
             QStringLiteral("Cannot download to '%1': another transfer is writing it.")
                 .arg(Shown(settings.destination)));
        return;
    }
    qint64 size = 0;
    const NativeFile::Entry entry = NativeFile::EntryAt(settings.destination, &size);
    if (entry == NativeFile::Entry::Directory) {
        Fail(DownloadStore, QStringLiteral("Cannot store '%1': a directory stands there.")
                                .arg(Shown(settings.destination)));
        return;
    }
    // Without a digest nothing tells that a present file is the right one.
    if (entry == NativeFile::Entry::RegularFile && size == settings.size &&
        !settings.digest.isEmpty() && file.OpenExisting(settings.destination)) {
        phase = Phase::HashingPresent;
        return;
    }
    OpenPartial();
}

void PartialFile::OpenPartial()
{
    hash.reset();
    const NativeFile::Opened opened = file.OpenForWriting(partialPath);
    if (opened == NativeFile::Opened::Busy) {
        Fail(DownloadBusy,
             QStringLiteral("Cannot download to '%1': another process is writing '%2'.")
                 .arg(Shown(settings.destination), Shown(partialPath)));
        return;
    }
    if (opened == NativeFile::Opened::Failed) {
        FailToWrite();
        return;
    }
    const qint64 size = file.Size();
    if (size == 0) {
        Post({Event::Ready, 0, 0, QString()});
    } else if (size > settings.size || settings.digest.isEmpty()) {
        // Nothing could tell whether what is left of an earlier run fits.
        StartOver();
        if (!failed)
            Post({Event::Ready, 0, 0, QString()});
    } else {
        phase = Phase::HashingPartial;
    }
}

void PartialFile::HashPiece()
{
    thread_local std::vector<char> buffer(pieceSize);
    const qint64 got = file.Read(buffer.data(), pieceSize);
    if (got > 0) {
        hash.addData(QByteArrayView(buffer.data(), got));
        if (phase == Phase::HashingPartial)
            onDisk += got;
        return;
    }
    const Phase finished = phase;
    phase = Phase::Obeying;
    if (finished == Phase::HashingPresent) {
        OnPresentHashed();
    } else if (got < 0) {
        FailToWrite();
    } else {
        OnPartialHashed();
    }
}

void PartialFile::OnPresentHashed()
{
    if (hash.result() != settings.digest) {
        file.Close();
        OpenPartial();
        return;
    }
    if (!ApplyPermissions(settings.destination))
        return;
    file.Close();
    if (NativeFile::EntryAt(partialPath) != NativeFile::Entry::Missing)
        NativeFile::Remove(partialPath);
    onDisk = settings.size;
    Unclaim();
    Post({Event::Present, 0, 0, QString()});
}

void PartialFile::OnPartialHashed()
{
    // Left whole by a run that ended before it could be put into place.
    if (onDisk == settings.size && hash.result() == settings.digest) {
        Store();
        return;
    }
    if (onDisk >= settings.size) {
        StartOver();
        if (failed)
            return;
    }
    Post({Event::Ready, onDisk, 0, QString()});
}

void PartialFile::Write(const QByteArray& data)
{
    if (!file.Write(data.constData(), data.size())) {
        FailToWrite();
        return;
    }
    hash.addData(data);
    onDisk += data.size();
}

void PartialFile::StartOver()
{
    hash.reset();
    onDisk = 0;
    if (!file.Truncate())
        FailToWrite();
}

void PartialFile::Store()
{
    const QByteArray digest = hash.result();
    if (!settings.digest.isEmpty() && digest != settings.digest) {
        Post({Event::WrongDigest, 0, 0, QString::fromLatin1(digest.toHex())});
        return;
    }
    if (!ApplyPermissions(partialPath))
        return;
    if (!file.MoveTo(settings.destination)) {
        Fail(DownloadStore, QStringLiteral("Cannot store '%1': %2.")
                                .arg(Shown(settings.destination), file.ErrorText()));
        return;
    }
    Unclaim();
    Post({Event::Stored, 0, 0, QString()});
}

bool PartialFile::ApplyPermissions(const QString& path)
{
    if (!settings.permissions || file.SetPermissions(settings.permissions))
        return true;
    Fail(DownloadPermissions, QStringLiteral("Cannot set the permissions of '%1': %2.")
                                  .arg(Shown(path), file.ErrorText()));
    return false;
}

void PartialFile::CloseFile(bool remove)
{
    // Without a claim there is no partial file of this transfer.
    const bool mine = !claim.isEmpty() && file.IsOpen() && phase != Phase::HashingPresent;
    const bool empty = mine && file.Size() == 0;
    if (mine && (remove || empty))
        NativeFile::Remove(partialPath);
    file.Close();
    phase = Phase::Obeying;
    Unclaim();
}

void PartialFile::Abandon()
{
    CloseFile(false);
    failed = true;
}

void PartialFile::Unclaim()
{
    if (claim.isEmpty())
        return;
    const std::lock_guard<std::mutex> lock(claimsMutex);
    Claims().erase(claim);
    claim.clear();
}

} // namespace common::http
