#include "filedownload.h"

#include "transfertuning.h"

#include <kxcommon/errors.h>

namespace common::http {
namespace {

constexpr qint64 portion = 128 * 1024;
constexpr qint64 bufferSize = 512 * 1024;

int CodeOf(TransferError::Kind kind)
{
    switch (kind) {
    case TransferError::Kind::Timeout:
        return DownloadTimeout;
    case TransferError::Kind::Status:
        return DownloadStatus;
    case TransferError::Kind::Redirect:
        return DownloadRedirect;
    case TransferError::Kind::Proxy:
        return DownloadProxy;
    case TransferError::Kind::Tls:
        return DownloadTls;
    default:
        return DownloadNetwork;
    }
}

struct ContentRange
{
    qint64 begin = -1; // -1: not to be understood
    qint64 total = -1; // -1: not told
};

// "bytes 100-199/200", where the size may be "*".
ContentRange ParseContentRange(const QByteArray& header)
{
    ContentRange range;
    const QByteArray text = header.trimmed();
    const qsizetype dash = text.indexOf('-');
    const qsizetype slash = text.indexOf('/');
    if (!text.toLower().startsWith("bytes ") || dash < 0 || slash < dash)
        return range;
    bool good = false;
    const qint64 begin = text.mid(6, dash - 6).trimmed().toLongLong(&good);
    if (good)
        range.begin = begin;
    const qint64 total = text.mid(slash + 1).trimmed().toLongLong(&good);
    if (good)
        range.total = total;
    return range;
}

} // namespace

void FileDownload::BeginAttempt()
{
    ++attempt;
    BeginRequest(false);
}

void FileDownload::BeginRequest(bool alwaysAskNetwork)
{
    // Without a digest only a validator can tell that the parts fit together.
    if (accepted > 0 && (refetched || (!checked && validator.isEmpty())))
        StartOver();
    bodyBegun = false;
    bodyEnded = false;
    rangeAsked = accepted > 0;
    validatorSent = rangeAsked && !validator.isEmpty();
    QNetworkRequest request = HttpFetch::MakeRequest(source, alwaysAskNetwork);
    // A cache of the host would keep every file a second time.
    request.setAttribute(QNetworkRequest::CacheSaveControlAttribute, false);
    if (rangeAsked)
        request.setRawHeader("Range", "bytes=" + QByteArray::number(accepted) + '-');
    if (validatorSent)
        request.setRawHeader("If-Range", validator);
    fetch.SetBufferSize(bufferSize);
    fetch.Start(request, secondsOfSilence);
}

void FileDownload::StartOver()
{
    accepted = 0;
    resumed = false;
    Order(&PartialFile::Restart);
}

void FileDownload::Refetch()
{
    // Once at most: from now on no range is asked for, and so nothing is resumed.
    fetch.Close();
    refetched = true;
    validator.clear();
    StartOver();
    BeginRequest(true);
}

void FileDownload::OnHead()
{
    const int status = fetch.Status();
    if (status == 206 && rangeAsked) {
        if (!IsRightPart()) {
            Refetch();
            return;
        }
        resumed = true;
    } else if (status == 206 || status >= 300) {
        FailFetch(DownloadStatus,
                  QStringLiteral("the server answered with status %1, which was not asked for")
                      .arg(status),
                  false);
        return;
    } else if (accepted > 0) {
        // The server knows no ranges, or has another file by now.
        StartOver();
    }
    RememberValidator();
    const qint64 length = fetch.Header("Transfer-Encoding").isEmpty() ? fetch.ContentLength() : -1;
    if (length >= 0 && length != expected - accepted) {
        const bool more = length > expected - accepted;
        OnWrong(more ? DownloadTooLarge : DownloadTooSmall,
                QStringLiteral("the server announces a file of %1 bytes, expected were %2")
                    .arg(accepted + length)
                    .arg(expected));
        return;
    }
    bodyBegun = true;
}

bool FileDownload::IsRightPart() const
{
    const ContentRange range = ParseContentRange(fetch.Header("Content-Range"));
    return range.begin == accepted && (range.total < 0 || range.total == expected);
}

void FileDownload::RememberValidator()
{
    QByteArray told = fetch.Header("ETag").trimmed();
    if (told.isEmpty() || told.startsWith("W/"))
        told = fetch.Header("Last-Modified").trimmed();
    // A part that was sent on condition of the validator needs not repeat it.
    const bool confirmed = fetch.Status() == 206 && validatorSent;
    if (!told.isEmpty() || !confirmed)
        validator = told;
}

void FileDownload::OnData()
{
    Drain();
}

void FileDownload::OnEnded()
{
    bodyEnded = true;
    Drain();
}

void FileDownload::Drain()
{
    if (failing)
        return;
    while (bodyBegun && fetch.BytesAvailable() > 0) {
        if (!file->HasRoom()) {
            fetch.SetReading(false);
            return;
        }
        const QByteArray data = fetch.Read(portion);
        if (data.isEmpty())
            break;
        fetched += quint64(data.size());
        if (data.size() > expected - accepted) {
            OnWrong(DownloadTooLarge,
                    QStringLiteral("more than the expected %1 bytes came").arg(expected));
            return;
        }
        accepted += data.size();
        file->Append(data);
        worker->Schedule(file);
    }
    if (bodyEnded)
        EndAttempt();
    else
        fetch.SetReading(true);
}

void FileDownload::EndAttempt()
{
    const TransferError error = fetch.Error();
    bodyEnded = false;
    fetch.Close();
    // When all has come, it does not matter how the connection ended.
    if (bodyBegun && accepted == expected) {
        bodyBegun = false;
        Order(&PartialFile::Finish);
        return;
    }
    if (error.kind == TransferError::Kind::None || (bodyBegun && error.closed)) {
        // Cut or complete, that cannot be told apart: a body may end with its connection, and Qt
        // takes one that was cut for complete at times.
        RetryOrFail(
            DownloadTooSmall,
            QStringLiteral("the reply ended after %1 of %2 bytes").arg(accepted).arg(expected));
        return;
    }
    if (error.status == 416 && rangeAsked) {
        Refetch();
        return;
    }
    QString reason = error.reason;
    if (bodyBegun)
        reason += QStringLiteral(" after %1 of %2 bytes").arg(accepted).arg(expected);
    if (error.passing)
        RetryOrFail(CodeOf(error.kind), reason);
    else
        FailFetch(CodeOf(error.kind), reason, false);
}

void FileDownload::RetryOrFail(int code, const QString& reason)
{
    bodyBegun = false;
    if (attempt < attemptsInAll) {
        pause.start(PauseAfterAttempt(attempt));
        return;
    }
    FailFetch(code, reason, false);
}

void FileDownload::OnPause()
{
    BeginAttempt();
}

void FileDownload::OnWrong(int code, const QString& reason)
{
    if (resumed && !refetched)
        Refetch();
    else
        FailFetch(code, reason, true);
}

void FileDownload::FailFetch(int code, const QString& reason, bool removePartial)
{
    const QString count = attempt > 1 ? QStringLiteral(" (attempt %1)").arg(attempt) : QString();
    Fail(code, FetchFailureText(source, reason + count), removePartial);
}

} // namespace common::http
