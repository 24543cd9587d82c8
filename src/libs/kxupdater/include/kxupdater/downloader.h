#pragma once

#include <kxupdater/file.h>
#include <kxupdater/kxupdater_export.h>

#include <QObject>
#include <QSharedDataPointer>
#include <QString>

QT_BEGIN_NAMESPACE
class QNetworkAccessManager;
QT_END_NAMESPACE

namespace common::http {
class IFileDownload;
}

namespace updater {

class TransferLedger;

/**
 * Fetches a list of files from a base URL into a directory, several at a time.
 *
 *     updater::Downloader downloader(&manager, this);
 *     connect(&downloader, SIGNAL(complete()), SLOT(OnComplete()));
 *     connect(&downloader, SIGNAL(failed(int, const QString&)),
 *             SLOT(OnFailed(int, const QString&)));
 *     downloader.SetURL("https://example.org/files");
 *     downloader.SetDownloadPath(directory);
 *     downloader.SetFiles(files);
 *     downloader.Start();
 *
 * failed() may come any number of times, once per file that failed; the other files go on and
 * complete() may still follow, so the owner decides whether to call Abort(). A file whose name
 * leads out of the directory, or that would be written through a symbolic link inside it, is never
 * started (600500). The destructor aborts: it emits failed(600502) if transfers are running. May be
 * deleted inside its own signals. Owner thread only.
 */
class KXUPDATER_EXPORT Downloader : public QObject
{
    Q_OBJECT
public:
    /** The manager is not owned and must outlive the downloader; `parent` owns the downloader. */
    Downloader(QNetworkAccessManager* manager, QObject* parent);
    ~Downloader() override;

    /** Base URL; a file's name is appended, with a "/" between them. */
    virtual void SetURL(const QString& url);
    /** The base URL as set. */
    virtual QString URL() const;
    /** Directory that receives the files; made when missing. */
    virtual void SetDownloadPath(const QString& path);
    /** The directory as set. */
    virtual QString DownloadPath() const;
    /**
     * Limits how many transfers run at the same time.
     * Range 1 to 16, default 4; any other value selects the default and is logged as an error.
     * Running transfers keep going; the new limit counts from the next start.
     */
    virtual void SetMaxDownloads(unsigned int count);
    /** The limit; the default one after a value out of range. */
    virtual unsigned int MaxDownloads() const;
    /** Files to fetch, in this order. Counts from the next Start(). */
    virtual void SetFiles(const updater::FileList& files);
    /** The files as set. */
    virtual const updater::FileList& GetFiles() const;
    /** Starts fetching; always true. With an empty list nothing starts and no signal follows. */
    Q_INVOKABLE virtual bool Start();
    /** Ends all running transfers, then emits failed(600502); silent when none runs. */
    Q_INVOKABLE virtual void Abort();

Q_SIGNALS:
    /** Files that are neither waiting nor running any more, and files in all. */
    void progress(int current, int total);
    /** No file is waiting or running any more. */
    void complete();
    /** A file failed, with the code of the download service, or 6005xx of <kxupdater/errors.h>. */
    void failed(int error, const QString& errorString);

private Q_SLOTS:
    void OnFileDownloadComplete();
    void OnFileDownloadFailed(int error, const QString& errorString);

private:
    friend class Updater; // shares its ledger
    Q_DISABLE_COPY(Downloader)

    void SendRequest();
    common::http::IFileDownload* CreateDownload(const File& file);

    QNetworkAccessManager* manager;
    QString url;
    QString downloadPath;
    FileList files;
    FileList pending;
    QExplicitlySharedDataPointer<TransferLedger> ledger; // holds the transfers that run
    unsigned int maxDownloads = 4;
    quint64 run = 0; // counts Start() and Abort(): tells after an emit whether either was called
};

} // namespace updater
