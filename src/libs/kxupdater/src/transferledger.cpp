#include "transferledger.h"

#include <kxcommon/ifiledownload.h>

#include <algorithm>
#include <limits>

namespace updater {

using common::http::IFileDownload;

namespace {

// The sizes are the server's, and need not fit together.
quint64 Sum(quint64 a, quint64 b)
{
    return b > std::numeric_limits<quint64>::max() - a ? std::numeric_limits<quint64>::max()
                                                       : a + b;
}

} // namespace

quint64 TransferLedger::Transfer::BytesDone() const
{
    return std::min(download->BytesReceived(), size);
}

void TransferLedger::Begin(const FileList& files)
{
    filesTotal = static_cast<int>(files.size());
    filesDone = 0;
    filesBegun = static_cast<int>(running.size());
    bytesTotal = 0;
    for (const File& file : files)
        bytesTotal = Sum(bytesTotal, file.Size());
    bytesEnded = 0;
    fetchedEnded = 0;
}

void TransferLedger::Start(IFileDownload* download, const File& file)
{
    running.push_back({download, file.Name(), file.Size()});
    ++filesBegun;
}

void TransferLedger::End(IFileDownload* download, bool stored)
{
    const auto ended =
        std::find_if(running.begin(), running.end(), [download](const Transfer& transfer) {
            return transfer.download == download;
        });
    if (ended == running.end())
        return;
    Book(*ended, stored);
    running.erase(ended);
}

std::vector<IFileDownload*> TransferLedger::EndAll()
{
    std::vector<IFileDownload*> downloads;
    for (const Transfer& transfer : running) {
        Book(transfer, false);
        downloads.push_back(transfer.download);
    }
    running.clear();
    return downloads;
}

void TransferLedger::Book(const Transfer& transfer, bool stored)
{
    if (stored)
        ++filesDone;
    bytesEnded = Sum(bytesEnded, transfer.BytesDone());
    fetchedEnded += common::http::BytesFetched(transfer.download);
}

quint64 TransferLedger::BytesDone() const
{
    quint64 bytes = bytesEnded;
    for (const Transfer& transfer : running)
        bytes = Sum(bytes, transfer.BytesDone());
    return bytes;
}

quint64 TransferLedger::BytesFetched() const
{
    quint64 bytes = fetchedEnded;
    for (const Transfer& transfer : running)
        bytes += common::http::BytesFetched(transfer.download);
    return bytes;
}

} // namespace updater
