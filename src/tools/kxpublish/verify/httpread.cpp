#include "httpread.h"

#include "output/console.h"

namespace publish {
namespace {

constexpr qint64 bufferSize = 1024 * 1024;
constexpr int timeoutSeconds = 30;
constexpr int statusPartial = 206;

QString TooMuch(quint64 most)
{
    return QStringLiteral("has more than the expected %1 bytes").arg(most);
}

} // namespace

using common::http::HttpFetch;
using common::http::TransferError;

HttpRead::HttpRead(QNetworkAccessManager* manager, QObject* parent)
    : QObject(parent), fetch(manager, this), hash(QCryptographicHash::Md5)
{
    fetch.SetBufferSize(bufferSize);
    connect(&fetch, &HttpFetch::headReceived, this, &HttpRead::OnHead);
    connect(&fetch, &HttpFetch::dataReceived, this, &HttpRead::OnData);
    connect(&fetch, &HttpFetch::ended, this, &HttpRead::OnEnded);
}

void HttpRead::Start(const QUrl& url, quint64 newMost, Body kind)
{
    hash.reset();
    sha256 = Sha256();
    sha256Digest.clear();
    body.clear();
    cacheControl.clear();
    contentEncoding.clear();
    problem.clear();
    most = newMost;
    size = 0;
    keepBody = kind != Body::Hashed;
    onlyHead = false;
    const auto packing =
        kind == Body::KeptUnpacked ? HttpFetch::Packing::Allowed : HttpFetch::Packing::Never;
    fetch.Start(HttpFetch::MakeRequest(url, true, packing), timeoutSeconds);
}

void HttpRead::StartRange(const QUrl& url)
{
    problem.clear();
    onlyHead = true;
    hasRanges = false;
    QNetworkRequest request = HttpFetch::MakeRequest(url, true);
    request.setRawHeader("Range", "bytes=0-0");
    fetch.Start(request, timeoutSeconds);
}

void HttpRead::Abort()
{
    fetch.Close();
}

void HttpRead::OnHead()
{
    if (onlyHead) {
        hasRanges = fetch.Status() == statusPartial;
        Finish({});
        return;
    }
    cacheControl = fetch.Header("Cache-Control").toLower();
    contentEncoding = fetch.Header("Content-Encoding").trimmed().toLower();
    if (fetch.ContentLength() > 0 && quint64(fetch.ContentLength()) > most)
        Finish(TooMuch(most));
}

void HttpRead::OnData()
{
    Take();
}

bool HttpRead::Take()
{
    // No more is unpacked than it takes to see that there is too much.
    const quint64 wanted = qMin(most - size, quint64(fetch.BytesAvailable())) + 1;
    const QByteArray data = fetch.Read(qint64(wanted));
    size += quint64(data.size());
    if (size > most) {
        Finish(TooMuch(most));
        return false;
    }
    const QByteArrayView bytes(data.constData(), data.size());
    hash.addData(bytes);
    if (makesSha256)
        sha256.Add(bytes);
    if (keepBody)
        body += data;
    return true;
}

void HttpRead::OnEnded()
{
    const TransferError error = fetch.Error();
    if (error.kind != TransferError::Kind::None) {
        // Phrases of a server are part of the text.
        Finish(Printable(error.reason));
        return;
    }
    if (!onlyHead && !Take())
        return;
    if (!onlyHead && fetch.Header("Transfer-Encoding").isEmpty() &&
        qint64(size) < fetch.ContentLength()) {
        Finish(QStringLiteral("the connection was closed after %1 of %2 bytes")
                   .arg(size)
                   .arg(fetch.ContentLength()));
        return;
    }
    if (makesSha256)
        sha256Digest = sha256.Hex();
    Finish({});
}

void HttpRead::Finish(const QString& reason)
{
    problem = reason;
    fetch.Close();
    Q_EMIT done();
}

} // namespace publish
