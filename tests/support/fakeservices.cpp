#include "fakeservices.h"

#include <QTimer>

#include <new>

namespace kxtest {

bool FakeServices::createRequests = true;
bool FakeServices::createDownloads = true;
QString FakeServices::refusedDownload;
QMap<QString, QQueue<FakeServices::Reply>> FakeServices::replies;
QStringList FakeServices::calls;
QList<QPointer<FakeRequest>> FakeServices::requests;
QList<QPointer<FakeDownload>> FakeServices::downloads;

namespace {

FakeServices::Reply NextReply(const QUrl& url)
{
    const QString path = url.toString(QUrl::RemoveQuery);
    for (auto it = FakeServices::replies.begin(); it != FakeServices::replies.end(); ++it) {
        if (path.endsWith(it.key()) && !it.value().isEmpty())
            return it.value().dequeue();
    }
    return FakeServices::Silence();
}

} // namespace

void FakeServices::Reset()
{
    createRequests = true;
    createDownloads = true;
    refusedDownload.clear();
    replies.clear();
    calls.clear();
    requests.clear();
    downloads.clear();
}

void FakeServices::Answer(const QString& urlEnd, const QList<Reply>& answers)
{
    for (const Reply& reply : answers)
        replies[urlEnd].enqueue(reply);
}

QStringList FakeServices::Calls(const QString& prefix)
{
    QStringList found;
    for (const QString& call : std::as_const(calls)) {
        if (call.startsWith(prefix))
            found << call;
    }
    return found;
}

QList<FakeDownload*> FakeServices::RunningDownloads()
{
    QList<FakeDownload*> running;
    for (const QPointer<FakeDownload>& download : std::as_const(downloads)) {
        if (download && download->IsRunning())
            running << download;
    }
    return running;
}

FakeRequest::~FakeRequest()
{
    Note(QStringLiteral("deleted"));
}

void FakeRequest::Note(const QString& call)
{
    FakeServices::calls << QStringLiteral("request%1 ").arg(number) + call;
}

void FakeRequest::SetUrl(const QUrl& value)
{
    Note(QStringLiteral("SetUrl ") + value.toString());
    url = value;
}

void FakeRequest::SetIntParameter(int value)
{
    Note(QStringLiteral("SetIntParameter %1").arg(value));
    intParameter = value;
}

void FakeRequest::SetBoolParameter(bool value)
{
    Note(QStringLiteral("SetBoolParameter %1").arg(value));
    boolParameter = value;
}

bool FakeRequest::Send()
{
    Note(QStringLiteral("Send ") + url.toString());
    if (running)
        qFatal("Send() while a request is in flight");
    const FakeServices::Reply reply = NextReply(url);
    if (reply.kind == FakeServices::Reply::Refusal)
        return false;
    running = true;
    const int send = ++sends;
    if (reply.kind == FakeServices::Reply::Silence)
        return true;
    QTimer::singleShot(0, this, [this, reply, send] {
        if (!running || send != sends)
            return;
        if (reply.kind == FakeServices::Reply::Text)
            Finish(reply.text);
        else
            Fail(reply.code, reply.text);
    });
    return true;
}

void FakeRequest::Abort()
{
    Note(QStringLiteral("Abort"));
    running = false;
}

void FakeRequest::Finish(const QString& body)
{
    running = false;
    Q_EMIT requestFinished(body);
}

void FakeRequest::Fail(int code, const QString& text)
{
    running = false;
    Q_EMIT requestError(code, text);
}

FakeDownload::~FakeDownload()
{
    FakeServices::calls << QStringLiteral("deleted ") + path;
}

void FakeDownload::SetUrl(const QUrl& value)
{
    FakeServices::calls << QStringLiteral("SetUrl ") + value.toString(QUrl::FullyEncoded);
    url = value;
}

void FakeDownload::SetFilePath(const QString& value)
{
    FakeServices::calls << QStringLiteral("SetFilePath ") + value;
    path = value;
}

void FakeDownload::SetFileSize(quint64 value)
{
    FakeServices::calls << QStringLiteral("SetFileSize %1").arg(value);
    size = value;
}

void FakeDownload::SetFileMD5(const QString& value)
{
    FakeServices::calls << QStringLiteral("SetFileMD5 ") + value;
    md5 = value;
}

void FakeDownload::SetOption(int value)
{
    FakeServices::calls << QStringLiteral("SetOption %1").arg(value);
    option = value;
}

void FakeDownload::SetFilePermissions(QFileDevice::Permissions value)
{
    FakeServices::calls << QStringLiteral("SetFilePermissions %1").arg(int(value), 0, 16);
    permissions = value;
}

bool FakeDownload::StartDownload()
{
    const QString& refused = FakeServices::refusedDownload;
    running = refused.isEmpty() || !path.endsWith(refused);
    FakeServices::calls << QStringLiteral("StartDownload %1").arg(running);
    return running;
}

void FakeDownload::Complete()
{
    running = false;
    Q_EMIT complete();
}

void FakeDownload::Fail(int code, const QString& text)
{
    running = false;
    Q_EMIT failed(code, text);
}

} // namespace kxtest

namespace common::http {

IHttpRequest* CreateHttpRequest(QNetworkAccessManager* manager, QObject* parent)
{
    using kxtest::FakeServices;
    const int number = static_cast<int>(FakeServices::requests.size()) + 1;
    FakeServices::calls << QStringLiteral("CreateHttpRequest");
    if (!manager || !FakeServices::createRequests)
        return nullptr;
    auto* request = new kxtest::FakeRequest(number, parent);
    FakeServices::requests << request;
    return request;
}

IFileDownload* CreateFileDownload(QNetworkAccessManager* manager, QObject* parent)
{
    using kxtest::FakeServices;
    FakeServices::calls << QStringLiteral("CreateFileDownload");
    if (!manager || !FakeServices::createDownloads)
        return nullptr;
    auto* download = new kxtest::FakeDownload(manager, parent);
    FakeServices::downloads << download;
    return download;
}

} // namespace common::http
