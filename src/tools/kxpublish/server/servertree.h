#pragma once

#include <QByteArray>
#include <QList>
#include <QLockFile>
#include <QString>
#include <QStringList>

#include <memory>

namespace publish {

/** One build: a version of a package for a platform. */
struct Build
{
    QString package;
    QString version;
    QString platform;
};

/**
 * The directory that a web server hands out to clients:
 *
 *     ROOT/packages/version.xml                                        version offered to clients
 *     ROOT/packages/PACKAGE-vVERSION/windows/PLATFORM/index.xml        manifest of one build
 *     ROOT/packages/PACKAGE-vVERSION/windows/PLATFORM/files/           files of the build
 *     ROOT/packages/PACKAGE-vVERSION/windows/PLATFORM/notes.md         its release notes, if any
 *     ROOT/packages/.kxpublish.history                                 versions offered before
 *     ROOT/packages/.kxpublish/                                        what a run is working on
 *     ROOT/packages/.kxpublish.lock                                    held by the run that writes
 *
 * Everything is made in the hidden working directory, brought to the disk, and renamed into place:
 * a build appears whole or not at all, and goes the same way backwards. What an interrupted run
 * leaves behind is removed by the next one that writes. One run writes at a time.
 */
class ServerTree
{
public:
    explicit ServerTree(const QString& root);
    /** Removes what was not placed, and the directories that were made in vain. */
    ~ServerTree();

    QString PackagesPath() const;
    QString VersionReplyPath() const;
    QString BuildPath(const Build& build) const;
    QString ManifestPath(const Build& build) const;
    QString FilesPath(const Build& build) const;
    QString NotesPath(const Build& build) const;
    QString HistoryPath() const;
    /** Address of the files of `build`, when the tree is served at `baseUrl`. */
    static QString FilesUrl(const QString& baseUrl, const Build& build);

    /** True when anything stands where `build` would be placed. */
    bool IsTaken(const Build& build) const;
    /** Every published build, sorted by package, platform and version. */
    QList<Build> Builds() const;
    /** What stands where a build would, but has no manifest; sorted likewise. */
    QList<Build> UnfinishedBuilds() const;
    /** A directory that may hold builds and cannot be looked into; empty when there is none. Builds
     *  in it would be missing above. */
    QString ClosedDirectory() const;
    /** Version that clients are offered now; empty when there is none. */
    QString OfferedVersion() const;

    /** The longest wait that Open() takes, in seconds. */
    static constexpr int maxWait = 86400;

    /**
     * Prepares for writing: makes `packages`, takes the lock, empties the working directory, and
     * removes directories in which a build stood or was to stand. While another run holds the lock,
     * waits up to `waitSeconds`, 0 to maxWait, and says for whom. An interrupt ends the wait, with
     * an error like any other.
     */
    bool Open(QString& error, int waitSeconds = 0);
    /** Path for a build in the making, with its files in "files"; exists after Open(). */
    QString StagedBuildPath() const;
    /** Moves the staged build, which must be on the disk already, to where clients find it. */
    bool PlaceBuild(const Build& build, QString& error);
    /** Path in the working directory, which exists after Open(). */
    QString StagedPath(const QString& name) const;
    /** Likewise for a build that was staged at `staged`. */
    bool PlaceBuild(const QString& staged, const Build& build, QString& error);
    /** Moves a build out of the clients' sight, in one step. It is deleted by Discard(), or at the
     *  end. */
    bool TakeBuildAway(const Build& build, QString& error);
    /** Deletes everything in the working directory. */
    bool Discard(QString& error);
    /** Replaces the version reply, in one step. */
    bool PlaceVersionReply(const QByteArray& text, QString& error);
    /** Replaces the history, in one step. */
    bool PlaceHistory(const QByteArray& text, QString& error);

private:
    Q_DISABLE_COPY(ServerTree)

    QList<Build> BuildDirectories(bool withManifest) const;
    bool PlaceText(const QByteArray& text, const QString& path, QString& error);
    void RemoveEmptyBuildDirectories();
    bool MakeDirectories(const QString& path, QString& error);
    void RemoveMadeDirectories();
    QString WorkPath() const;
    bool RemoveWork(QString& error);
    bool TakeLock(int waitSeconds, QString& error);

    QString root;
    std::unique_ptr<QLockFile> lock; // held from Open() on
    QStringList made;                // directories made by this run, parents first
    int takenAway = 0;               // builds in the working directory that were published
};

} // namespace publish
