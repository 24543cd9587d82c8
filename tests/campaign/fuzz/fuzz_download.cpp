// Replies to the download of a file: status, headers and bodies as a server, or somebody on the
// way, may choose them, over several attempts, with an earlier partial file or without. What
// completes is the file and nothing else.
//
// An input is what lies in the partial file, then replies, with a line "----" before each: the
// status, headers, an empty line, the body. "!" as a header cuts the connection behind the body.
// "@RANGE" and
// "@REST" stand for what an honest server would say to the request at hand.

#include "fuzztarget.h"

#include "transfertuning.h"
#include "transferworker.h"

#include <kxcommon/ifiledownload.h>

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QTemporaryDir>

#include <cstring>
#include <memory>

namespace {

using common::http::IFileDownload;

const QByteArray content = QByteArrayLiteral("0123456789abcdefghijklmnopqrstuvwxyz");
// Attempts, redirects of each, and what is fetched anew.
constexpr int mostRequests = 200;

struct Reply
{
    int status = 0;
    QList<QPair<QByteArray, QByteArray>> headers;
    QByteArray body;
    bool isCut = false;
};

Reply ParseReply(const QByteArray& text)
{
    Reply reply;
    const qsizetype end = text.indexOf("\n\n");
    const QList<QByteArray> lines = (end < 0 ? text : text.left(end)).split('\n');
    reply.body = end < 0 ? QByteArray() : text.mid(end + 2);
    reply.status = lines.first().toInt();
    for (const QByteArray& line : lines.mid(1)) {
        const qsizetype colon = line.indexOf(':');
        if (line == "!")
            reply.isCut = true;
        else if (colon > 0)
            reply.headers.append({line.left(colon), line.mid(colon + 1).trimmed()});
    }
    return reply;
}

/** Gives its body in one piece, when the event loop comes to it. */
class ScriptedReply : public QNetworkReply
{
public:
    ScriptedReply(const QNetworkRequest& request, const Reply& script, QObject* parent)
        : QNetworkReply(parent), body(script.body), isCut(script.isCut)
    {
        setRequest(request);
        setUrl(request.url());
        setOperation(QNetworkAccessManager::GetOperation);
        open(QIODevice::ReadOnly | QIODevice::Unbuffered);
        if (script.status > 0)
            setAttribute(QNetworkRequest::HttpStatusCodeAttribute, script.status);
        for (const auto& header : script.headers)
            setRawHeader(header.first, header.second);
        QMetaObject::invokeMethod(
            this, [this] { Give(); }, Qt::QueuedConnection);
    }

    void abort() override { isAborted = true; }
    qint64 bytesAvailable() const override
    {
        return isGiven ? body.size() - position + QIODevice::bytesAvailable() : 0;
    }
    bool isSequential() const override { return true; }

protected:
    qint64 readData(char* data, qint64 size) override
    {
        const qint64 count = isGiven ? qMin(size, body.size() - position) : 0;
        std::memcpy(data, body.constData() + position, size_t(count));
        position += count;
        return count;
    }

private:
    void Give()
    {
        if (isAborted)
            return;
        Q_EMIT metaDataChanged();
        if (isAborted)
            return;
        isGiven = true;
        if (!body.isEmpty())
            Q_EMIT readyRead();
        QMetaObject::invokeMethod(
            this, [this] { End(); }, Qt::QueuedConnection);
    }

    void End()
    {
        if (isAborted)
            return;
        const int status = attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
        if (isCut)
            setError(RemoteHostClosedError, QStringLiteral("closed"));
        else if (status >= 400)
            setError(UnknownContentError, QStringLiteral("status"));
        setFinished(true);
        Q_EMIT finished();
    }

    const QByteArray body;
    const bool isCut;
    qint64 position = 0;
    bool isGiven = false;
    bool isAborted = false;
};

class Server : public QNetworkAccessManager
{
public:
    QList<QByteArray> replies;

protected:
    QNetworkReply* createRequest(Operation operation, const QNetworkRequest& request,
                                 QIODevice*) override
    {
        KX_FUZZ_REQUIRE(operation == GetOperation && ++requests < mostRequests);
        // From https never to anything else, whatever a redirect says.
        KX_FUZZ_REQUIRE(request.url().scheme() == QLatin1String("https"));
        const QByteArray range = request.rawHeader("Range");
        KX_FUZZ_REQUIRE(!request.hasRawHeader("If-Range") || !range.isEmpty());
        qsizetype begin = 0;
        if (!range.isEmpty()) {
            KX_FUZZ_REQUIRE(range.startsWith("bytes=") && range.endsWith('-'));
            begin = range.mid(6).chopped(1).toLongLong();
            KX_FUZZ_REQUIRE(begin > 0 && begin <= content.size());
        }
        QByteArray text = replies.isEmpty() ? QByteArrayLiteral("503") : replies.takeFirst();
        const QByteArray size = QByteArray::number(content.size());
        text.replace("@RANGE", "bytes " + QByteArray::number(begin) + '-' +
                                   QByteArray::number(content.size() - 1) + '/' + size);
        text.replace("@REST", content.mid(begin));
        return new ScriptedReply(request, ParseReply(text), this);
    }

private:
    int requests = 0;
};

/** A directory that is empty for each input. */
const QString& EmptyDirectory()
{
    static const QTemporaryDir directory;
    static const QString path = directory.path();
    for (const QString& name : QDir(path).entryList(QDir::Files | QDir::Hidden))
        QFile::remove(path + QLatin1Char('/') + name);
    return path;
}

QByteArray Read(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void Write(const QString& path, const QByteArray& bytes)
{
    QFile file(path);
    KX_FUZZ_REQUIRE(file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size());
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    static QCoreApplication app(*argc, *argv);
    // The worker thread is one for all inputs.
    static const auto worker = common::http::TransferWorker::Get();
    KX_FUZZ_REQUIRE(worker);
    common::http::Tuning().firstPauseMs = 0;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray input = kxfuzz::Bytes(data, size);
    Server server;
    qsizetype begin = input.indexOf("----\n");
    const QByteArray earlier = begin < 0 ? input : input.left(begin);
    while (begin >= 0) {
        const qsizetype next = input.indexOf("\n----\n", begin + 5);
        server.replies.append(input.mid(begin + 5, next < 0 ? -1 : next - begin - 5));
        begin = next < 0 ? -1 : next + 1;
    }

    const QString directory = EmptyDirectory();
    const QString path = directory + QStringLiteral("/file");
    const QString partial = common::http::PartialFilePath(path);
    if (!earlier.isEmpty())
        Write(partial, earlier);
    const std::unique_ptr<IFileDownload> download(
        common::http::CreateFileDownload(&server, nullptr));
    download->SetUrl(QUrl(QStringLiteral("https://h/file")));
    download->SetFilePath(path);
    download->SetFileSize(quint64(content.size()));
    download->SetFileMD5(
        QString::fromLatin1(QCryptographicHash::hash(content, QCryptographicHash::Md5).toHex()));
    download->SetTimeout(0);

    QEventLoop loop;
    int completed = 0;
    int failed = 0;
    QObject::connect(download.get(), &IFileDownload::complete, &loop, [&] {
        ++completed;
        loop.quit();
    });
    QObject::connect(download.get(), &IFileDownload::failed, &loop, [&] {
        ++failed;
        loop.quit();
    });
    KX_FUZZ_REQUIRE(download->StartDownload());
    loop.exec();
    QCoreApplication::processEvents();

    KX_FUZZ_REQUIRE(completed + failed == 1);
    KX_FUZZ_REQUIRE(QFile::exists(path) == (completed == 1));
    if (completed)
        KX_FUZZ_REQUIRE(Read(path) == content && !QFile::exists(partial));
    const QStringList names = QDir(directory).entryList(QDir::Files | QDir::Hidden);
    KX_FUZZ_REQUIRE(names.size() <= 1);
    return 0;
}
