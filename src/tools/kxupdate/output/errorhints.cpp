#include "errorhints.h"

#include <kxcommon/errors.h>
#include <kxguard/errors.h>
#include <kxupdater/errors.h>

#include <QUrl>

namespace {

struct Row
{
    int code;
    const char* hint;
};

const char* const memory = "Memory has run out. Close other programs and run the command again.";
const char* const silent = "The server does not answer. Try again later.";
const char* const kept = "What has been downloaded is kept for the next run.";
const char* const otherFile = "The server sends another file than its manifest lists. Try again "
                              "later, and tell its publisher if it stays so.";
const char* const noDescription = "What the server sends is not an update description. Is --url "
                                  "right? If it is, tell the server's publisher.";
const char* const redirect = "Is --url the server's final address, and does the network want a "
                             "login first? Open the address in a browser to see.";
const char* const proxy = "Check the proxy settings: --proxy, or http_proxy, https_proxy and "
                          "no_proxy.";
const char* const certificate =
    "Check this machine's clock and the server's certificate; --ca-file "
    "names one of your own.";
const char* const noSpace = "Free some space and run the command again.";
const char* const rights = "Can the directory be written, and is there space?";
const char* const disk = "Check the disk and the rights of the file, and run the command again.";
const char* const fileSystem = "Choose a --download directory on a file system that has links and "
                               "rights, best on that of the application.";
const char* const badName = "The server's manifest has a file name that is not allowed: tell its "
                            "publisher.";
const char* const inUse = "Does another program use the application directory? Close it, check the "
                          "rights of the parent directory, and run the command again.";
const char* const again = "Run the command again.";
const char* const downloadAgain = "Run 'kxupdate download' or 'kxupdate update' again.";
const char* const notThePublishers = "Nothing of it is used. Tell the publisher: either the server "
                                     "does not hold what was signed, or "
                                     "somebody else has put it there.";

const Row rows[] = {
    {updater::VersionRequestMissing, memory},
    {updater::VersionSendFailed, "Is --url an address that begins with http:// or https://?"},
    {updater::VersionParseFailed, noDescription},
    {updater::PackageVersionMissing, memory},
    {updater::PackageRequestMissing, memory},
    {updater::PackageSendFailed, "Is --package right? If it is, tell the server's publisher that "
                                 "its version text makes no valid address."},
    {updater::PackageParseFailed, noDescription},
    {updater::ScanTaskMissing, memory},
    {updater::ScanReadFailed, "A file or directory in the tree cannot be read, or is no file; "
                              "check its rights, or remove what does not belong there."},
    {updater::ScanAborted, again},
    {updater::ScanThreadMissing, memory},
    {updater::PackageMissing, memory},
    {updater::ScannerMissing, memory},
    {updater::CopierMissing, memory},
    {updater::RemoverMissing, memory},
    {updater::DownloaderMissing, memory},
    {updater::VerificationFailed, "Run the command again: only what differs is fetched. If the "
                                  "same files differ again, tell the server's publisher."},
    {updater::CallbackFailed, memory},
    {updater::BackupFailed, inUse},
    {updater::SymlinkFailed, fileSystem},
    {updater::RestoreFailed,
     "The old version is in the directory with '.old' at its end. 'kxupdate "
     "install' and 'kxupdate update' rename it back first."},
    {updater::UpdateReverted, "The error before this one says why. Put that right and run the "
                              "command again."},
    {updater::DownloadStartFailed, badName},
    {updater::DownloadAborted, again},
    {common::HttpRequestTimeout, silent},
    {common::HttpRequestStatus, "The server refuses or fails. Is --url right? Try again later."},
    {common::HttpRequestNetwork, "Is the network up, and is --url the server's address?"},
    {common::HttpRequestTooLarge, "This is no update description. Is --url right?"},
    {common::HttpRequestRedirect, redirect},
    {common::HttpRequestProxy, proxy},
    {common::HttpRequestTls, certificate},
    {common::DownloadTimeout, silent},
    {common::DownloadStatus, "The server refuses or fails. Try again later, and tell its publisher "
                             "if it stays so."},
    {common::DownloadNetwork, "Is the network up?"},
    {common::DownloadTooLarge, otherFile},
    {common::DownloadRedirect, redirect},
    {common::DownloadProxy, proxy},
    {common::DownloadTls, certificate},
    {common::DownloadTooSmall, otherFile},
    {common::DownloadDigest, otherFile},
    {common::DownloadCreateDirectory, rights},
    {common::DownloadWrite, rights},
    {common::DownloadNoSpace, noSpace},
    {common::DownloadStore, rights},
    {common::DownloadBusy, "Does another program update into the same --download directory? Wait "
                           "until it has ended."},
    {common::DownloadPermissions, fileSystem},
    {common::CopySourceMissing, "An installed file disappeared meanwhile. Run the command again."},
    {common::CopyRead, disk},
    {common::CopyWrite, rights},
    {common::CopyNoSpace, noSpace},
    {common::CopyCreateDirectory, rights},
    {common::CopyReplace, "Remove what stands in the way, or empty the --download directory, and "
                          "run the command again."},
    {common::CopyLink, fileSystem},
    {common::CopySpecialFile, "A pipe, a socket or a device does not belong there: remove it."},
    {common::CopyOverlap, "Keep the --download directory and the application apart."},
    {common::CopySync, "Check the disk."},
    {common::CopyPlace, inUse},
    {common::CopyConfinement, badName},
    {common::CopyAttributes, fileSystem},
    {common::CopyStart, memory},
    {common::RemoveFailed, inUse},
    {common::RemoveList, disk},
    {common::RemoveNotADirectory, "A file stands where the old version is to be moved: move it "
                                  "away."},
    {common::RemoveForbidden, "Is --app right? Its backup would be a directory that is never "
                              "removed."},
    {common::RemoveStart, memory},
    {guard::InstallBusy, "Wait until the other process has ended."},
    {guard::InstallLock, rights},
    {guard::InstallRecovery, "Put right what the text says, and run 'kxupdate recover'."},
    {guard::InstallParent, "A swap renames the application inside that directory. Run this as a "
                           "user who may write there."},
    {guard::InstallNoSpace, noSpace},
    {guard::InstallRunning, "--refuse-running asks for that; without it the application is "
                            "replaced, and the program goes on with its old files."},
    {guard::InstallDowngrade, "--allow-downgrade, or 'allow-downgrade = yes' in the configuration, "
                              "takes it all the same."},
    {guard::InstallJournal, rights},
    {guard::InstallApplication, "Is --app right? It is replaced whole."},
    {guard::PackageEmpty, downloadAgain},
    {guard::PackageUndescribed, downloadAgain},
    {guard::PackageDiffers, downloadAgain},
    {guard::PackageUnreadable, disk},
    {guard::PackageExposed, "Let nobody else write to the --download directory and to those above "
                            "it, and run the command again."},
    {guard::PackageChanged, "Somebody else writes to the --download directory. Find out who, and "
                            "run the command again."},
    {guard::SignatureMissing, "--key is given, so only what its owner has signed is used. Tell the "
                              "publisher that the signature is missing."},
    {guard::SignatureMalformed, notThePublishers},
    {guard::SignatureUnknownKey, "Has the publisher changed keys? Get the new public key from a "
                                 "place that you trust, and name it with --key."},
    {guard::SignatureWrong, notThePublishers},
    {guard::SignaturePackage, "Is --package right? If it is: the server offers something that was "
                              "signed for another purpose. Tell the publisher."},
    {guard::SignatureVersion, "The server offers a version under the name of another. Tell the "
                              "publisher."},
    {guard::SumsMalformed, notThePublishers},
    {guard::SumsDiffer, notThePublishers},
    {guard::KeyMalformed, "Is it a public key as minisign writes it?"},
};

bool HasStatus(const QString& text, std::initializer_list<int> statuses)
{
    for (const int status : statuses) {
        if (text.contains(QStringLiteral("status %1").arg(status)))
            return true;
    }
    return false;
}

QString Advice(int code, const QString& text)
{
    const bool missing = HasStatus(text, {403, 404, 410});
    if (code == common::HttpRequestStatus && missing && text.contains(QLatin1String("version.xml")))
        return QStringLiteral("Is --url right? It is the address below which the server has "
                              "packages/version.xml.");
    if (code == common::HttpRequestStatus && missing && text.contains(QLatin1String("index.xml")))
        return QStringLiteral("Is --package right? The server publishes no such package in its "
                              "latest version.");
    if (code == common::DownloadStatus && missing)
        return QStringLiteral("The server's manifest lists a file that the server does not have: "
                              "tell its publisher.");
    for (const Row& row : rows) {
        if (row.code == code)
            return QString::fromLatin1(row.hint);
    }
    return QString();
}

bool IsStatus(int code)
{
    return code == common::HttpRequestStatus || code == common::DownloadStatus;
}

// Whether the way to the server may be what failed.
bool ConcernsConnection(int code, const QString& text)
{
    switch (code) {
    case common::HttpRequestTimeout:
    case common::HttpRequestNetwork:
    case common::HttpRequestProxy:
    case common::HttpRequestTls:
    case common::DownloadTimeout:
    case common::DownloadNetwork:
    case common::DownloadProxy:
    case common::DownloadTls:
        return true;
    default:
        return IsStatus(code) && HasStatus(text, {401, 403, 407, 502, 503, 504});
    }
}

// Whether a web page can be what came instead.
bool ConcernsContent(int code, const QString& webPage)
{
    switch (code) {
    case updater::VersionParseFailed:
    case updater::PackageParseFailed:
    case common::HttpRequestTooLarge:
        return true;
    case common::DownloadTooLarge:
    case common::DownloadTooSmall:
    case common::DownloadDigest: {
        // A package may hold web pages of its own.
        const QString path = QUrl(webPage).path();
        return !path.endsWith(QLatin1String(".html")) && !path.endsWith(QLatin1String(".htm"));
    }
    default:
        return false;
    }
}

bool KeepsTransfers(int code)
{
    return code == common::DownloadNetwork || code == common::DownloadTimeout;
}

} // namespace

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

QString ErrorHint(int code, const QString& text, const NetworkFinding& finding)
{
    if (IsStatus(code) && HasStatus(text, {511}))
        return QStringLiteral("The network wants a login first. Log in and run the command again.");
    if (!finding.webPage.isEmpty() && ConcernsContent(code, finding.webPage))
        return QStringLiteral("The server's answer is a web page ('%1'); a login page of the "
                              "network? Open it in a browser, and check --url.")
            .arg(finding.webPage);

    QString hint = Advice(code, text);
    if (KeepsTransfers(code))
        hint += u' ' + QString::fromLatin1(kept);
    if (!finding.proxy.isEmpty() && ConcernsConnection(code, text) && !text.contains(finding.proxy))
        hint += QStringLiteral(" The request went through the proxy %1.").arg(finding.proxy);
    return hint;
}
