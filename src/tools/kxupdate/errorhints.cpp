#include "errorhints.h"

#include <kxcommon/errors.h>
#include <kxupdater/errors.h>

bool IsServerError(int code)
{
    switch (code) {
    case common::DownloadCreateDirectory:
    case common::DownloadWrite:
    case common::DownloadNoSpace:
    case common::DownloadStore:
    case common::DownloadBusy:
    case common::DownloadPermissions:
        return false;
    default:
        break;
    }
    const int group = code / 100;
    return group == 6101 || group == 6102 || group == 6001 || group == 6002 ||
           code == updater::DownloadStartFailed;
}

QString ErrorHint(int code, const QString& text)
{
    switch (code) {
    case common::HttpRequestTimeout:
    case common::DownloadTimeout:
        return QStringLiteral("The server does not answer. Try again later.");
    case common::HttpRequestNetwork:
        return QStringLiteral("Is the network up, and is --url the server's address?");
    case common::DownloadNetwork:
        return QStringLiteral("Is the network up? What has been downloaded is kept for the next "
                              "run.");
    case common::HttpRequestStatus:
        if (text.contains(QLatin1String("version.xml")))
            return QStringLiteral("Is --url right? It is the address below which the server has "
                                  "packages/version.xml.");
        if (text.contains(QLatin1String("index.xml")))
            return QStringLiteral("Is --package right? The server publishes no such package in its "
                                  "latest version.");
        return QString();
    case common::DownloadStatus:
        return QStringLiteral("The server's manifest lists a file that the server does not have: "
                              "tell its publisher.");
    case common::DownloadTooLarge:
    case common::DownloadTooSmall:
    case common::DownloadDigest:
        return QStringLiteral("The server sends another file than its manifest lists. Try again "
                              "later, and tell its publisher if it stays so.");
    case common::HttpRequestProxy:
    case common::DownloadProxy:
        return QStringLiteral("Check the proxy settings (http_proxy, https_proxy, no_proxy).");
    case common::HttpRequestTls:
    case common::DownloadTls:
        return QStringLiteral("Check the server's certificate, and this machine's clock.");
    case common::DownloadNoSpace:
    case common::CopyNoSpace:
        return QStringLiteral("Free some space and run the command again.");
    case common::DownloadCreateDirectory:
    case common::DownloadWrite:
    case common::DownloadStore:
    case common::CopyWrite:
    case common::CopyCreateDirectory:
        return QStringLiteral("Can the directory be written, and is there space?");
    case updater::VersionParseFailed:
    case updater::PackageParseFailed:
        return QStringLiteral("What the server sends is not an update description. Is --url right, "
                              "and does the network want a login first?");
    case updater::ScanReadFailed:
        return QStringLiteral("A file or directory in the tree cannot be read; check its rights.");
    case updater::BackupFailed:
        return QStringLiteral("Does another program use the application directory?");
    default:
        return QString();
    }
}
