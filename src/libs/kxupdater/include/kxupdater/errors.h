#pragma once

namespace updater {

/**
 * Codes that the updater's own parts report through IUpdater::error. Codes of the services
 * (<kxcommon/errors.h>) and the host callback's result pass through the same signal unchanged.
 */
enum ErrorCode : int {
    // Version query
    VersionRequestMissing = 600100, //!< no request object; was the network manager null?
    VersionSendFailed = 600102,     //!< the request did not start; is the URL set and valid?
    VersionParseFailed = 600103,    //!< three replies in a row were not a version reply
    PackageVersionMissing = 600104, //!< the package query has no version query

    // Package query
    PackageRequestMissing = 600200, //!< no request object; was the network manager null?
    PackageSendFailed = 600201,     //!< the request did not start; is the URL set and valid?
    PackageParseFailed = 600202,    //!< three replies in a row were not a manifest

    // File scanner
    ScanTaskMissing = 600301,   //!< the scan task could not be created
    ScanReadFailed = 600302,    //!< an entry could not be read or listed, or is a special file
    ScanAborted = 600303,       //!< the scan was aborted
    ScanThreadMissing = 600304, //!< the scan task has no thread

    // Updater
    PackageMissing = 600400,     //!< the updater has no package query
    ScannerMissing = 600401,     //!< the file scanner could not be created
    CopierMissing = 600402,      //!< the file copier could not be created
    RemoverMissing = 600403,     //!< the file remover could not be created
    DownloaderMissing = 600404,  //!< the downloader could not be created
    VerificationFailed = 600405, //!< the download directory does not hold exactly the package
    CallbackFailed = 600406,     //!< the thread of the host's callback could not be created
    BackupFailed = 600407,       //!< the application directory could not be moved aside
    SymlinkFailed = 600408,      //!< a symbolic link of the package could not be made
    RestoreFailed = 600409,      //!< the backup could not be moved back; it is still there
    UpdateReverted = 600410,     //!< the update failed and the old version was put back

    // Downloader
    DownloadStartFailed = 600500, //!< a file could not be started; is its name a safe one?
    DownloadAborted = 600502,     //!< running transfers were ended
};

} // namespace updater
