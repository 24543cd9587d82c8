#pragma once

#include <QString>

namespace guard {

/** Codes of the guard's refusals and failures. They reach a host as the code of IUpdater::error,
 *  beside the guard's own text. */
enum ErrorCode : int {
    // Conditions of an install
    InstallBusy = 620101,        //!< another process works on the application directory
    InstallLock = 620102,        //!< the lock file beside the application could not be made
    InstallRecovery = 620103,    //!< what an interrupted install left could not be mended
    InstallParent = 620104,      //!< the directory that holds the application is not writable
    InstallNoSpace = 620105,     //!< too little space for the new version on its volume
    InstallRunning = 620106,     //!< another process runs the program
    InstallDowngrade = 620107,   //!< the new version is earlier than the installed one
    InstallJournal = 620108,     //!< the journal beside the application could not be written
    InstallApplication = 620109, //!< the application path is no directory, the root or the home
                                 //!< directory

    // The download directory
    PackageEmpty = 620201,       //!< the download directory is missing or empty
    PackageUndescribed = 620202, //!< there is no description of the package to compare with
    PackageDiffers = 620203,     //!< it does not hold exactly what the package describes
    PackageUnreadable = 620204,  //!< an entry could not be read
    PackageExposed = 620205,     //!< another user may change it
    PackageChanged = 620206,     //!< it changed while the host's callback ran

    // Signatures
    SignatureMissing = 620301,    //!< a signature is wanted and there is none
    SignatureMalformed = 620302,  //!< it is no signature, or one of another algorithm
    SignatureUnknownKey = 620303, //!< it was made with a key that is not trusted
    SignatureWrong = 620304,      //!< it does not belong to what was signed
    SignaturePackage = 620305,    //!< it is for another package or platform
    SignatureVersion = 620306,    //!< it is for another version than the server announced
    SumsMalformed = 620307,       //!< the list of digests is not one
    SumsDiffer = 620308,          //!< the files are not exactly those of the list of digests
    KeyMalformed = 620309,        //!< a public key is not one
};

/** Why something is refused; false when it is not. */
struct Problem
{
    int code = 0; //!< an ErrorCode; 0 for none
    QString text; //!< names the action, the file, and the reason

    /** Whether there is a problem. */
    explicit operator bool() const { return code != 0; }
};

} // namespace guard
