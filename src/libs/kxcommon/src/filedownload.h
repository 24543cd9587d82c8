#pragma once

#include "httpfetch.h"
#include "partialfile.h"

#include <kxcommon/ifiledownload.h>

#include <QTimer>

#include <memory>

namespace common::http {

/** The download that CreateFileDownload() makes. */
class FileDownload : public IFileDownload
{
    Q_OBJECT
public:
    FileDownload(QNetworkAccessManager* manager, QObject* parent);
    ~FileDownload() override;

    QNetworkAccessManager* Manager() const override { return manager; }
    void SetUrl(const QUrl& newUrl) override { url = newUrl; }
    QUrl Url() const override { return url; }
    void SetFilePath(const QString& path) override { filePath = path; }
    QString FilePath() const override { return filePath; }
    void SetFileSize(quint64 newSize) override { fileSize = newSize; }
    quint64 FileSize() const override { return fileSize; }
    void SetFileMD5(const QString& md5) override { digest = md5; }
    QString FileMD5() const override { return digest; }
    void SetOption(int newAttempts) override { attempts = newAttempts; }
    int Option() const override { return attempts; }
    void SetTimeout(int seconds) override { timeout = seconds; }
    int Timeout() const override { return timeout; }
    bool IsRunning() const override { return running; }
    quint64 BytesReceived() const override;
    quint64 BytesFetched() const { return fetched; }
    int Attempt() const override { return attempt; }
    QFileDevice::Permissions FilePermissions() const override { return permissions; }
    void SetFilePermissions(QFileDevice::Permissions newPermissions) override
    {
        permissions = newPermissions;
    }
    bool StartDownload() override;

protected:
    void customEvent(QEvent* event) override;

private:
    Q_DISABLE_COPY(FileDownload)

    // filedownload.cpp: the start, the disk side, the end
    void OnFileEvent(const PartialFile::Event& event);
    void Order(void (PartialFile::*order)());
    void Fail(int code, const QString& text, bool removePartial);
    void Conclude();

    // filedownload_attempts.cpp: the network side
    void BeginAttempt();
    void BeginRequest(bool alwaysAskNetwork);
    void OnHead();
    void OnData();
    void OnEnded();
    void OnPause();
    void Drain();
    void EndAttempt();
    bool IsRightPart() const;
    void RememberValidator();
    void StartOver();
    void Refetch();
    void OnWrong(int code, const QString& reason);
    void FailFetch(int code, const QString& reason, bool removePartial);
    void RetryOrFail(int code, const QString& reason);

    QNetworkAccessManager* manager;

    // Settings; a start takes them as they are then.
    QUrl url;
    QString filePath;
    quint64 fileSize = 0;
    QString digest;
    int attempts = 3;
    int timeout = 30;
    QFileDevice::Permissions permissions;

    // The run.
    bool started = false;
    bool running = false;
    bool failing = false; // waits for the disk side before it says so
    int failureCode = 0;
    QString failureText;
    std::shared_ptr<TransferWorker> worker;
    std::shared_ptr<PartialFile> file;

    // The attempts.
    HttpFetch fetch;
    QTimer pause;
    QUrl source;
    qint64 expected = 0;
    int attemptsInAll = 0;
    int secondsOfSilence = 0;
    bool checked = false; // there is a digest
    int attempt = 0;
    qint64 accepted = 0;     // bytes of the file handed to the disk side
    quint64 fetched = 0;     // bytes that came, in all attempts
    QByteArray validator;    // ETag or date of what was fetched in this run
    bool rangeAsked = false; // by the request at hand
    bool validatorSent = false;
    bool bodyBegun = false; // the reply at hand brings the file
    bool bodyEnded = false;
    bool resumed = false;   // the file is made of more than one reply
    bool refetched = false; // a resumed file was wrong once: ranges are not asked for any more
};

} // namespace common::http
