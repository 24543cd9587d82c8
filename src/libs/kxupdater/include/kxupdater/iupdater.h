#pragma once

#include <kxupdater/kxupdater_export.h>

#include <QObject>
#include <QString>

QT_BEGIN_NAMESPACE
class QNetworkAccessManager;
QT_END_NAMESPACE

/** The updater and its parts. */
namespace updater {

/**
 * The host's hook into an install: called after the new version is complete and before the
 * application directory is touched. The host owns the object and keeps it alive as long as the
 * updater.
 */
class KXUPDATER_EXPORT AppCallbackFunction
{
public:
    /**
     * Prepares the application for its replacement, for example by closing files inside its
     * directory. Receives the download directory and the application directory. Returns 0 to go on;
     * any other value ends the install and reaches the host as the code of IUpdater::error. Runs on
     * a thread of its own. Leaving the install, and deleting the updater, waits for it to return:
     * it must not wait for the thread that owns the updater.
     */
    virtual int Call(const QString& downloadPath, const QString& localPackagePath) = 0;
    virtual ~AppCallbackFunction();
};

/**
 * Keeps one application current: checks a server, assembles the new version, swaps it in.
 *
 *     auto* updater = updater::CreateUpdater(&networkManager, this);
 *     updater->SetURL("https://updates.example.org");
 *     updater->SetPackageName("demo-app");
 *     updater->SetCurrentVersion("1.0");
 *     updater->SetLocalPackagePath("/opt/demo-app");
 *     updater->SetDownloadPath("/var/cache/demo-app/next");
 *     connect(updater, SIGNAL(updateAvailable()), SLOT(OfferUpdate()));
 *     // once the event loop runs:  Check() ... available() ... Download() ... finished(),
 *     // then Cancel() to restart the stopped updater, and Install() ... finished().
 *
 * Commands act through a state machine that starts by itself once the event loop runs; a command
 * that the present state does not know has no effect, and one given before the loop runs is lost.
 * Everything is answered by signals, emitted on the thread that owns the updater, which is the only
 * one that may call it. Any operation may be called from inside any signal, deleteLater() included.
 */
class KXUPDATER_EXPORT IUpdater : public QObject
{
    Q_OBJECT
public:
    IUpdater();
    ~IUpdater() override;

    /** Base URL of the update server, without the trailing "/packages", which is added. */
    virtual void SetURL(const QString& url) = 0;
    /** The URL that the server client holds, without query and trailing "/packages": the base URL,
     * or after a check the manifest's URL. Empty without a network manager. */
    virtual QString URL() const = 0;
    /** Directory in which the new version is assembled; absolute, on any volume, best empty: what
     * does not belong to the new version fails its verification. Made when missing. */
    virtual void SetDownloadPath(const QString& path) = 0;
    /** The download directory as set. */
    virtual QString DownloadPath() const = 0;
    /** Version of the installed application; any text. */
    virtual void SetCurrentVersion(const QString& version) = 0;
    /** The installed version as set. */
    virtual QString CurrentVersion() const = 0;
    /** Version that the server reported in the last check; empty before. */
    virtual QString ServerVersion() const = 0;
    /** True after a check found nothing to do, until the updater next waits, checks, prepares or
     *  installs. */
    virtual bool IsActual() const = 0;
    /** Seconds from entering WAITING until a check starts by itself; default 2592000 (30 days). At
     * most 2147483647 ms are waited; a negative value leaves automatic checks off. */
    virtual void SetCheckInterval(int seconds) = 0;
    /** The interval as set, in seconds. */
    virtual int CheckInterval() const = 0;
    /** Name of the package on the server. */
    virtual void SetPackageName(const QString& name) = 0;
    /** The name as set. */
    virtual QString PackageName() const = 0;
    /** Directory of the installed application; absolute. It is replaced whole by an install; the
     * same path with ".old" appended is the backup's and is removed. */
    virtual void SetLocalPackagePath(const QString& path) = 0;
    /** The application directory as set. */
    virtual QString LocalPackagePath() const = 0;
    /** Called during an install, see AppCallbackFunction; not owned, null for none. */
    virtual void SetAppCallback(updater::AppCallbackFunction* callback) = 0;
    /** The callback as set; null for none. */
    virtual updater::AppCallbackFunction* AppCallback() const = 0;
    /** Path of the new version's program inside the download directory. The name is the server's:
     * check it before running it. */
    virtual QString ExecutablePath() const = 0;
    /**
     * Checks the directory `path` against the manifest file `xmlFile`, beside whatever the updater
     * does. False when no verification was started; otherwise localUpdateVerificationFinished()
     * follows once.
     */
    virtual bool VerifyLocalUpdate(const QString& path, const QString& xmlFile) = 0;
    /** The manifest of the checked package, reduced to this package, as text to keep beside the
     *  download directory for VerifyLocalUpdate(); empty before a check. */
    virtual QString PackageXML() const = 0;

public Q_SLOTS:
    /** Starts a check; in WAITING, AVAILABLE, FAILED and CANCELED. */
    virtual void Check() = 0;
    /** Goes back to WAITING, which starts the check timer; from a check, the assembly, FAILED and
     *  CANCELED, and from APPCALLBACK, BACKUPREMOVING and BACKUPCLEARING of an install. */
    virtual void Wait() = 0;
    /** Assembles and verifies the new version in the download directory; in AVAILABLE. */
    virtual void Download() = 0;
    /** Swaps the assembled version in; in WAITING. */
    virtual void Install() = 0;
    /** Gives up what runs; restarts an updater that has finished. In the middle of a swap it leaves
     * the old version in the backup directory: do not cancel between BACKUPING and BACKUPCLEARING.
     */
    virtual void Cancel() = 0;
    /** Ends an updater that found nothing to do; in ACTUAL. */
    virtual void Finish() = 0;

Q_SIGNALS:
    void waiting();          //!< WAITING is entered: ready for commands
    void checking();         //!< a check begins
    void checkError();       //!< one try to fetch the manifest failed; a retry may follow
    void available();        //!< a newer or changed version can be downloaded
    void actual();           //!< the installed files match the server's
    void prepairing();       //!< the assembly of the new version begins
    void copying();          //!< unchanged files are copied
    void downloading();      //!< changed files are downloaded
    void creatingSymlinks(); //!< symbolic links are made
    void verification();     //!< the assembled version is verified
    void installing();       //!< the swap begins
    void canceled();         //!< CANCELED is entered
    void failed();           //!< FAILED is entered, after error()
    void finished();         //!< SUCCESS is reached and the updater has stopped
    /** A verification started by VerifyLocalUpdate() is done; true when the directory holds exactly
     * the manifest's files. */
    void localUpdateVerificationFinished(bool result);
    void updateAvailable(); //!< before available(): the server has another version
    void updateRequered();  //!< before available(): the same version, but files must be repaired
    /** A step failed: a code of <kxupdater/errors.h> or <kxcommon/errors.h>, or the result of the
     * host's callback, and a text. */
    void error(int error, const QString& errorString);
    void stateChanged(const QString& stateName); //!< a state is entered
    void progress(int percent); //!< 0 to 100 over the assembly, and again over the swap
};

/**
 * Makes an updater.
 * `manager` is not owned and must outlive the updater; `parent` owns the updater, a null parent
 * leaves it to the caller. Call it on the thread whose event loop drives the updater. With a null
 * manager every check fails with an error.
 */
KXUPDATER_EXPORT IUpdater* CreateUpdater(QNetworkAccessManager* manager, QObject* parent);

} // namespace updater

using updater::AppCallbackFunction;
