#pragma once

#include <kxcommon/kxcommon_export.h>

#include <QFileDevice>
#include <QObject>
#include <QString>
#include <QUrl>

QT_BEGIN_NAMESPACE
class QNetworkAccessManager;
QT_END_NAMESPACE

namespace common::http {

/**
 * Fetches one file over http or https, checks it, and puts it into place.
 *
 *     auto* download = common::http::CreateFileDownload(&manager, this);
 *     connect(download, SIGNAL(complete()), SLOT(OnComplete()));
 *     connect(download, SIGNAL(failed(int, const QString&)), SLOT(OnFailed(int, const QString&)));
 *     download->SetUrl(url);
 *     download->SetFilePath(path);
 *     download->SetFileSize(size);
 *     download->SetFileMD5(md5);
 *     download->StartDownload();
 *
 * One object transfers one file once. A successful StartDownload() is followed by exactly one of
 * complete() and failed(), never from inside the call; the object may be deleted inside either, and
 * at any other moment, which ends the transfer silently and keeps what has arrived for a resume.
 *
 * The data is written to PartialFilePath() beside the destination and renamed into place once size
 * and digest are right: the destination never holds a partial file. A regular file, never a link,
 * that is already right is not fetched again. Failures that can pass by themselves (connection
 * lost, timeout, 408, 429, 5xx) are tried again after pauses of 0.5 s and 1 s; a cut transfer goes
 * on where it stopped. Hashing and writing happen on a worker thread; everything else, the signals
 * included, on the owner's thread.
 */
class KXCOMMON_EXPORT IFileDownload : public QObject
{
    Q_OBJECT
public:
    /** For classes that implement a download; `parent` owns it. */
    explicit IFileDownload(QObject* parent = nullptr);
    ~IFileDownload() override;

    /** The manager given to CreateFileDownload(). */
    virtual QNetworkAccessManager* Manager() const = 0;
    /** Source; http and https only. */
    virtual void SetUrl(const QUrl& url) = 0;
    /** The source as set; a redirect never changes it. */
    virtual QUrl Url() const = 0;
    /** Destination file; missing directories are made. An existing file or link is replaced. */
    virtual void SetFilePath(const QString& path) = 0;
    /** The destination as set. */
    virtual QString FilePath() const = 0;
    /** Expected size in bytes; the transfer stops as soon as more has come. */
    virtual void SetFileSize(quint64 size) = 0;
    /** The expected size as set. */
    virtual quint64 FileSize() const = 0;
    /** Expected MD5 as 32 hexadecimal digits of either case; empty: not checked. */
    virtual void SetFileMD5(const QString& md5) = 0;
    /** The expected MD5 as set. */
    virtual QString FileMD5() const = 0;
    /** Attempts in all; below 1 counts as 1. Default 3. */
    virtual void SetOption(int attempts) = 0;
    /** The number of attempts in all. */
    virtual int Option() const = 0;
    /** Seconds without any data before an attempt has timed out; 0 or less: never. Default 30. */
    virtual void SetTimeout(int seconds) = 0;
    /** The seconds as set. */
    virtual int Timeout() const = 0;
    /** True from a successful StartDownload() until just before its outcome is signalled. */
    virtual bool IsRunning() const = 0;
    /** Bytes of the file that are on disk so far, resumed ones included. */
    virtual quint64 BytesReceived() const = 0;
    /** Number of the running attempt, from 1; 0 before the start. */
    virtual int Attempt() const = 0;
    /** The permissions as set; none by default. */
    virtual QFileDevice::Permissions FilePermissions() const = 0;
    /** Permissions of the stored file; none: those of a newly made file. */
    virtual void SetFilePermissions(QFileDevice::Permissions permissions) = 0;
    /** Starts; false, and nothing else, when already started or for settings that can never work: a
     *  URL that is empty, invalid or not http(s), or an empty path. */
    virtual bool StartDownload() = 0;

Q_SIGNALS:
    /** The file stands at its destination, checked. */
    void complete();
    /** The transfer failed; codes Download... of <kxcommon/errors.h>. */
    void failed(int code, const QString& description);
};

/**
 * Makes a download; null when `manager` is null or memory ran out.
 * The manager is not owned and must outlive the download; `parent` owns the download.
 */
KXCOMMON_EXPORT IFileDownload* CreateFileDownload(QNetworkAccessManager* manager, QObject* parent);

/**
 * Bytes that `download` has taken from the network so far: what a speed is measured by. Those of
 * repeated attempts count, those that were on disk already do not, so it differs from
 * BytesReceived(), and never goes back. 0 for null, and for a download that CreateFileDownload()
 * did not make. Owner thread only.
 */
KXCOMMON_EXPORT quint64 BytesFetched(const IFileDownload* download);

/**
 * Where a download to `destination` keeps its unfinished data: the hidden sibling ".NAME.kx.part",
 * NAME cut and hashed where that would exceed 255 bytes.
 */
KXCOMMON_EXPORT QString PartialFilePath(const QString& destination);

/** True when `fileName`, a name without directories, is one that PartialFilePath() makes. */
KXCOMMON_EXPORT bool IsPartialFileName(const QString& fileName);

} // namespace common::http
