#pragma once

#include <kxupdater/file.h>

#include <QSharedData>
#include <QString>

#include <vector>

namespace common::http {
class IFileDownload;
}

namespace updater {

/**
 * What the transfers of a downloader have brought. The downloader writes down their starts and
 * ends; who wants to know reads it when he likes, and nobody is called. Shared, because its readers
 * may outlive the downloader. One thread only.
 */
class TransferLedger : public QSharedData
{
public:
    struct Transfer
    {
        common::http::IFileDownload* download; // alive as long as it is listed
        QString name;
        quint64 size;

        quint64 BytesDone() const;
    };

    /** Begins anew with these files to fetch; transfers that run stay. */
    void Begin(const FileList& files);
    void Start(common::http::IFileDownload* download, const File& file);
    /** Before the download is deleted; does nothing for one that does not run. */
    void End(common::http::IFileDownload* download, bool stored);
    /** Ends all transfers and hands their downloads over. */
    std::vector<common::http::IFileDownload*> EndAll();

    /** In the order of their start. */
    const std::vector<Transfer>& Running() const { return running; }
    int FilesTotal() const { return filesTotal; }
    int FilesDone() const { return filesDone; }
    /** Transfers that were started. */
    int FilesBegun() const { return filesBegun; }
    quint64 BytesTotal() const { return bytesTotal; }
    /** On disk, whatever became of the transfers. */
    quint64 BytesDone() const;
    /** Taken from the network. */
    quint64 BytesFetched() const;

private:
    void Book(const Transfer& transfer, bool stored);

    std::vector<Transfer> running;
    int filesTotal = 0;
    int filesDone = 0;
    int filesBegun = 0;
    quint64 bytesTotal = 0;
    quint64 bytesEnded = 0;   // BytesDone() of what has ended
    quint64 fetchedEnded = 0; // BytesFetched() of what has ended
};

} // namespace updater
