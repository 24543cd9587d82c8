#include "filedownload.h"

#include <kxcommon/errors.h>

#include <QDir>
#include <QFileInfo>

#include <limits>
#include <new>

namespace common::http {
namespace {

constexpr int digestDigits = 32;

bool IsDigest(const QString& text)
{
    if (text.size() != digestDigits)
        return false;
    for (const QChar c : text) {
        const char digit = c.toLatin1();
        const bool hexadecimal = (digit >= '0' && digit <= '9') || (digit >= 'a' && digit <= 'f') ||
                                 (digit >= 'A' && digit <= 'F');
        if (!hexadecimal)
            return false;
    }
    return true;
}

// Absolute, so that a change of the working directory does not move it; empty when no file can
// have that path.
QString DestinationOf(const QString& path)
{
    if (path.isEmpty() || path.contains(QChar(0)))
        return QString();
    const QString absolute = QFileInfo(QDir::fromNativeSeparators(path)).absoluteFilePath();
    const QString name = absolute.section(QLatin1Char('/'), -1);
    const bool directory = name.isEmpty() || name == QLatin1String(".") ||
                           name == QLatin1String("..") || path.endsWith(QLatin1Char('/'));
    return directory ? QString() : absolute;
}

} // namespace

FileDownload::FileDownload(QNetworkAccessManager* manager, QObject* parent)
    : IFileDownload(parent), manager(manager), fetch(manager, this), pause(this)
{
    pause.setSingleShot(true);
    connect(&pause, &QTimer::timeout, this, &FileDownload::OnPause);
    connect(&fetch, &HttpFetch::headReceived, this, &FileDownload::OnHead);
    connect(&fetch, &HttpFetch::dataReceived, this, &FileDownload::OnData);
    connect(&fetch, &HttpFetch::ended, this, &FileDownload::OnEnded);
}

FileDownload::~FileDownload()
{
    fetch.Close();
    if (!file)
        return;
    file->SetReceiver(nullptr);
    worker->Remove(file.get());
    file->Abandon();
}

quint64 FileDownload::BytesReceived() const
{
    return file ? quint64(file->BytesOnDisk()) : 0;
}

bool FileDownload::StartDownload()
{
    const QString destination = DestinationOf(filePath);
    if (started || !IsFetchable(url) || destination.isEmpty())
        return false;
    started = true;
    running = true;
    source = url;
    expected = qint64(qMin<quint64>(fileSize, std::numeric_limits<qint64>::max()));
    checked = !digest.isEmpty();
    attemptsInAll = qMax(1, attempts);
    secondsOfSilence = timeout;
    failing = true;
    if (checked && !IsDigest(digest)) {
        failureCode = DownloadDigest;
        failureText = FetchFailureText(
            source, QStringLiteral("the expected digest '%1' is not an MD5").arg(digest));
    } else if (!(worker = TransferWorker::Get())) {
        failureCode = DownloadWrite;
        failureText = QStringLiteral("Cannot write '%1': no thread could be started.")
                          .arg(QDir::toNativeSeparators(destination));
    } else {
        failing = false;
    }
    if (failing) {
        QMetaObject::invokeMethod(this, &FileDownload::Conclude, Qt::QueuedConnection);
        return true;
    }
    PartialFile::Settings settings;
    settings.destination = destination;
    settings.size = expected;
    settings.digest = QByteArray::fromHex(digest.toLatin1());
    settings.permissions = permissions;
    file = std::make_shared<PartialFile>(settings);
    file->SetReceiver(this);
    Order(&PartialFile::Prepare);
    return true;
}

void FileDownload::Order(void (PartialFile::*order)())
{
    (file.get()->*order)();
    worker->Schedule(file);
}

void FileDownload::customEvent(QEvent* event)
{
    if (event->type() != PartialFile::NotificationType())
        return;
    for (const PartialFile::Event& happened : file->TakeEvents()) {
        const bool last = happened.kind == PartialFile::Event::Present ||
                          happened.kind == PartialFile::Event::Stored ||
                          happened.kind == PartialFile::Event::Closed;
        if (last) {
            Conclude();
            return;
        }
        OnFileEvent(happened);
    }
}

void FileDownload::OnFileEvent(const PartialFile::Event& event)
{
    if (failing)
        return;
    switch (event.kind) {
    case PartialFile::Event::Ready:
        accepted = event.bytes;
        resumed = accepted > 0;
        BeginAttempt();
        break;
    case PartialFile::Event::Room:
        Drain();
        break;
    case PartialFile::Event::WrongDigest:
        OnWrong(DownloadDigest,
                QStringLiteral("its MD5 is %1, expected was %2").arg(event.text, digest.toLower()));
        break;
    default:
        // Content that could not be written is of no use, unless there only was no room for it.
        Fail(event.code, event.text, event.code == DownloadWrite);
        break;
    }
}

void FileDownload::Fail(int code, const QString& text, bool removePartial)
{
    failing = true;
    failureCode = code;
    failureText = text;
    fetch.Close();
    pause.stop();
    // Signalled when the file is closed, so that the host can start anew from inside the signal.
    file->Close(removePartial);
    worker->Schedule(file);
}

void FileDownload::Conclude()
{
    running = false;
    fetch.Close();
    if (failing)
        Q_EMIT failed(failureCode, failureText);
    else
        Q_EMIT complete();
}

quint64 BytesFetched(const IFileDownload* download)
{
    const auto* own = qobject_cast<const FileDownload*>(download);
    return own ? own->BytesFetched() : 0;
}

IFileDownload* CreateFileDownload(QNetworkAccessManager* manager, QObject* parent)
{
    return manager ? new (std::nothrow) FileDownload(manager, parent) : nullptr;
}

} // namespace common::http
