#pragma once

namespace common {

/**
 * Codes of the failures that the services report, grouped by service. The text beside a code names
 * the action, the file or URL, and the reason that the system or the server gave.
 */
enum ErrorCode : int {
    // HTTP request, by IHttpRequest::requestError
    HttpRequestTimeout = 610101,  //!< no data came for the allowed number of seconds
    HttpRequestStatus = 610102,   //!< the server answered with a status of 400 or above
    HttpRequestNetwork = 610103,  //!< the server was not found, refused, cut the connection,
                                  //!< or sent a reply that cannot be unpacked
    HttpRequestTooLarge = 610104, //!< the reply is larger than 64 MiB
    HttpRequestRedirect = 610105, //!< a redirect to another scheme, from https to http, or a loop
    HttpRequestProxy = 610106,    //!< the proxy refused, was not found, or wants credentials
    HttpRequestTls = 610107,      //!< the server's certificate or the TLS handshake failed

    // File download, by IFileDownload::failed
    DownloadTimeout = 610201,  //!< no data came for the allowed number of seconds
    DownloadStatus = 610202,   //!< the server answered with a status of 400 or above
    DownloadNetwork = 610203,  //!< the server was not found, refused, or cut the connection
    DownloadTooLarge = 610204, //!< the server sends more than the expected size
    DownloadRedirect = 610205, //!< a redirect to another scheme, from https to http, or a loop
    DownloadProxy = 610206,    //!< the proxy refused, was not found, or wants credentials
    DownloadTls = 610207,      //!< the server's certificate or the TLS handshake failed
    DownloadTooSmall = 610208, //!< the reply ended before the expected size
    DownloadDigest = 610209,   //!< the right size, but not the expected digest
    DownloadCreateDirectory = 610210, //!< the destination's directory could not be made
    DownloadWrite = 610211,           //!< the partial file could not be opened or written
    DownloadNoSpace = 610212,         //!< the destination's volume is full
    DownloadStore = 610213,           //!< the finished file could not be put into place
    DownloadBusy = 610214,            //!< another transfer is writing the same destination
    DownloadPermissions = 610215,     //!< the permissions could not be applied

    // File copier, by FileCopier::failed
    CopySourceMissing = 610301,   //!< the source does not exist
    CopyRead = 610302,            //!< the source could not be opened, listed or read
    CopyWrite = 610303,           //!< the destination could not be opened or written
    CopyNoSpace = 610304,         //!< the destination's volume is full
    CopyCreateDirectory = 610305, //!< a directory of the destination could not be made
    CopyReplace = 610306,         //!< what stands at the destination could not be replaced
    CopyLink = 610307,            //!< the symbolic link could not be read or made
    CopySpecialFile = 610308,     //!< the source is a FIFO, a socket or a device
    CopyOverlap = 610309,         //!< source and destination lie inside one another
    CopySync = 610310,            //!< the new tree could not be brought to disk
    CopyPlace = 610311,           //!< the new tree could not be renamed into place
    CopyConfinement = 610312,     //!< a destination leaves the directory it is confined to
    CopyAttributes = 610313,      //!< permissions or modification time could not be kept
    CopyStart = 610314,           //!< the worker could not be started

    // File remover, by FileRemover::failed
    RemoveFailed = 610401,        //!< an entry could not be removed
    RemoveList = 610402,          //!< a directory could not be listed
    RemoveNotADirectory = 610403, //!< the path is a plain file
    RemoveForbidden = 610404,     //!< an empty path, the root, or the home directory
    RemoveStart = 610405,         //!< the worker could not be started
};

} // namespace common
