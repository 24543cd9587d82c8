#pragma once

#include <kxcommon/ifiledownload.h>
#include <kxcommon/ihttprequest.h>

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QPointer>
#include <QQueue>
#include <QString>
#include <QStringList>

namespace kxtest {

class FakeRequest;
class FakeDownload;

/**
 * Replaces the factories of the transfer services in the programs that link kx_fakeservices: no
 * network, and every call on a service is written down in the order in which it comes.
 */
class FakeServices
{
public:
    /** What a send is answered with. */
    struct Reply
    {
        enum Kind { Text, Error, Silence, Refusal } kind = Text;
        QString text; // body or description
        int code = 0;
    };
    static Reply Body(const QString& text) { return {Reply::Text, text, 0}; }
    static Reply Failure(int code, const QString& text) { return {Reply::Error, text, code}; }
    /** The request runs until the test ends it. */
    static Reply Silence() { return {Reply::Silence, {}, 0}; }
    /** Send() returns false. */
    static Reply Refusal() { return {Reply::Refusal, {}, 0}; }

    /** Back to the state at start. */
    static void Reset();
    /** False: the factories return null. */
    static bool createRequests;
    static bool createDownloads;
    /** Downloads of a file with this name at the end of its path do not start. */
    static QString refusedDownload;
    /** Answers to the sends of URLs that end in the key (their query left out), one after another;
     *  a send without an answer is met with silence. Given in the next round of the event loop. */
    static QMap<QString, QQueue<Reply>> replies;
    static void Answer(const QString& urlEnd, const QList<Reply>& answers);

    static QStringList calls;
    /** The calls whose text begins with `prefix`. */
    static QStringList Calls(const QString& prefix);
    static QList<QPointer<FakeRequest>> requests;
    static QList<QPointer<FakeDownload>> downloads;
    /** The downloads that have started and are still alive. */
    static QList<FakeDownload*> RunningDownloads();
};

class FakeRequest : public common::http::IHttpRequest
{
    Q_OBJECT
public:
    FakeRequest(int number, QObject* parent) : IHttpRequest(parent), number(number) {}
    ~FakeRequest() override;

    void SetUrl(const QUrl& value) override;
    QUrl Url() const override { return url; }
    void SetIntParameter(int value) override;
    int IntParameter() const override { return intParameter; }
    bool Send() override;
    bool IsRunning() override { return running; }
    void SetBoolParameter(bool value) override;
    bool BoolParameter() const override { return boolParameter; }
    void Abort() override;

    /** Ends the running send. */
    void Finish(const QString& body);
    void Fail(int code, const QString& text);

private:
    void Note(const QString& call);

    const int number;
    QUrl url;
    int intParameter = 0;
    bool boolParameter = false;
    bool running = false;
    int sends = 0; // tells a late answer from that of the running send
};

class FakeDownload : public common::http::IFileDownload
{
    Q_OBJECT
public:
    FakeDownload(QNetworkAccessManager* manager, QObject* parent)
        : IFileDownload(parent), manager(manager)
    {
    }
    ~FakeDownload() override;

    QNetworkAccessManager* Manager() const override { return manager; }
    void SetUrl(const QUrl& value) override;
    QUrl Url() const override { return url; }
    void SetFilePath(const QString& value) override;
    QString FilePath() const override { return path; }
    void SetFileSize(quint64 value) override;
    quint64 FileSize() const override { return size; }
    void SetFileMD5(const QString& value) override;
    QString FileMD5() const override { return md5; }
    void SetOption(int value) override;
    int Option() const override { return option; }
    void SetTimeout(int value) override { timeout = value; }
    int Timeout() const override { return timeout; }
    bool IsRunning() const override { return running; }
    quint64 BytesReceived() const override { return 0; }
    int Attempt() const override { return running ? 1 : 0; }
    QFileDevice::Permissions FilePermissions() const override { return permissions; }
    void SetFilePermissions(QFileDevice::Permissions value) override;
    bool StartDownload() override;

    void Complete();
    void Fail(int code, const QString& text);

private:
    QNetworkAccessManager* manager;
    QUrl url;
    QString path;
    quint64 size = 0;
    QString md5;
    int option = 0;
    int timeout = 30;
    bool running = false;
    QFileDevice::Permissions permissions;
};

} // namespace kxtest
