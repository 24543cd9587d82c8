#include <kxupdater/downloader.h>

#include "transferledger.h"

#include <kxcommon/ifiledownload.h>
#include <kxcommon/logger.h>
#include <kxcommon/pathguard.h>
#include <kxupdater/errors.h>

#include <QDir>
#include <QPointer>
#include <QUrl>

#include <vector>

KX_LOG_CATEGORY("updater.download")

namespace updater {
namespace {
constexpr unsigned int defaultMaxDownloads = 4;
constexpr unsigned int upperMaxDownloads = 16;
constexpr int attemptsPerFile = 3;
} // namespace

using common::http::IFileDownload;

Downloader::Downloader(QNetworkAccessManager* manager, QObject* parent)
    : QObject(parent),
      manager(manager),
      ledger(new TransferLedger),
      maxDownloads(defaultMaxDownloads)
{
    KX_LOG(Info) << "created, maximum downloads: " << maxDownloads << ".";
}

Downloader::~Downloader()
{
    // Not through the virtual call: a derived class is gone by now.
    Downloader::Abort();
}

void Downloader::SetURL(const QString& newUrl)
{
    KX_LOG(Debug) << "Setting URL '" << newUrl << "'.";
    url = newUrl;
}

QString Downloader::URL() const
{
    return url;
}

void Downloader::SetDownloadPath(const QString& path)
{
    KX_LOG(Debug) << "Setting download path '" << path << "'.";
    downloadPath = path;
}

QString Downloader::DownloadPath() const
{
    return downloadPath;
}

void Downloader::SetMaxDownloads(unsigned int count)
{
    if (count < 1 || count > upperMaxDownloads) {
        KX_LOG(Error) << "Can't set maximum downloads to : " << count
                      << ", reset to default value.";
        count = defaultMaxDownloads;
    }
    KX_LOG(Debug) << "Setting maximum downloads to : " << count << ".";
    maxDownloads = count;
}

unsigned int Downloader::MaxDownloads() const
{
    return maxDownloads;
}

void Downloader::SetFiles(const FileList& newFiles)
{
    if (newFiles.isEmpty())
        KX_LOG(Warning) << "Trying to set empty list of files to be download!";
    files = newFiles;
}

const FileList& Downloader::GetFiles() const
{
    return files;
}

bool Downloader::Start()
{
    if (files.isEmpty())
        KX_LOG(Error) << "Trying to start with empty list of files!";
    ++run;
    pending = files;
    ledger->Begin(files);
    SendRequest();
    return true;
}

void Downloader::Abort()
{
    ++run;
    // Emptied first: a host that looks at the downloader from inside the signal finds it idle.
    const std::vector<IFileDownload*> transfers = ledger->EndAll();
    if (transfers.empty())
        return;
    qDeleteAll(transfers);
    Q_EMIT failed(DownloadAborted, QStringLiteral("User abort download!"));
}

void Downloader::SendRequest()
{
    KX_LOG(Debug) << "Sending download requests...";
    while (!pending.isEmpty() && ledger->Running().size() < maxDownloads) {
        IFileDownload* transfer = CreateDownload(pending.first());
        if (!transfer) {
            Q_EMIT failed(DownloadStartFailed,
                          QStringLiteral("Failed to create file download request."));
            return;
        }
        ledger->Start(transfer, pending.takeFirst());
    }
}

IFileDownload* Downloader::CreateDownload(const File& file)
{
    const QString name = file.Name();
    IFileDownload* transfer = common::http::CreateFileDownload(manager, this);
    if (!transfer) {
        KX_LOG(Critical) << "Failed to create file download for file '" << name << "'.";
        return nullptr;
    }
    connect(transfer, SIGNAL(complete()), this, SLOT(OnFileDownloadComplete()));
    connect(transfer, SIGNAL(failed(int, const QString&)), this,
            SLOT(OnFileDownloadFailed(int, const QString&)));

    QString base = url;
    if (!base.endsWith(QLatin1Char('/')))
        base += QLatin1Char('/');
    QString directory = QDir::toNativeSeparators(downloadPath);
    if (!directory.endsWith(QDir::separator()))
        directory += QDir::separator();

    transfer->SetOption(attemptsPerFile);
    transfer->SetUrl(QUrl(base + name, QUrl::TolerantMode));
    transfer->SetFilePath(QDir::toNativeSeparators(directory + name));
    transfer->SetFileMD5(file.MD5());
    transfer->SetFileSize(file.Size());
    transfer->SetFilePermissions(file.Permissions());

    KX_LOG(Info) << "Trying to start download file '" << name << "'...";
    // The name is the server's: it must not lead out of the directory, and the transfer itself
    // takes any path.
    const bool confined =
        !downloadPath.isEmpty() && common::PathGuard::Violation(downloadPath, name).isEmpty();
    if (!confined || !transfer->StartDownload()) {
        KX_LOG(Critical) << "Can't start download file '" << name << "'!";
        return nullptr;
    }
    return transfer;
}

void Downloader::OnFileDownloadComplete()
{
    const QPointer<Downloader> self(this);
    if (auto* transfer = qobject_cast<IFileDownload*>(sender())) {
        ledger->End(transfer, true);
        delete transfer;
        const int total = static_cast<int>(files.size());
        const int left =
            static_cast<int>(ledger->Running().size()) + static_cast<int>(pending.size());
        const quint64 reported = run;
        Q_EMIT progress(total - left, total);
        // Whoever aborted or started anew inside the signal has settled what comes next.
        if (!self || run != reported)
            return;
    } else {
        KX_LOG(Error) << "DownloadComplete() - File download is null!";
    }

    if (!pending.isEmpty()) {
        SendRequest();
    } else if (ledger->Running().empty()) {
        KX_LOG(Info) << "Download complete!";
        Q_EMIT complete();
    }
}

void Downloader::OnFileDownloadFailed(int error, const QString& errorString)
{
    // The text belongs to the transfer that goes now.
    const QString text = errorString;
    if (auto* transfer = qobject_cast<IFileDownload*>(sender())) {
        ledger->End(transfer, false);
        delete transfer;
    } else {
        KX_LOG(Error) << "DownloadFailed() - File download is null!";
    }
    Q_EMIT failed(error, text);
}

} // namespace updater
