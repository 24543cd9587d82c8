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
 *     ROOT/packages/.kxpublish/                                        what a run is working on
 *     ROOT/packages/.kxpublish.lock                                    held by the run that writes
 *
 * Everything is made in the hidden working directory, brought to the disk, and renamed into place:
 * a build appears whole or not at all, and what an interrupted run leaves behind is removed by the
 * next. One run writes at a time.
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
    /** Address of the files of `build`, when the tree is served at `baseUrl`. */
    static QString FilesUrl(const QString& baseUrl, const Build& build);

    /** True when anything stands where `build` would be placed. */
    bool IsTaken(const Build& build) const;
    /** Every published build, sorted by package, platform and version. */
    QList<Build> Builds() const;
    /** Version that clients are offered now; empty when there is none. */
    QString OfferedVersion() const;

    /** Prepares for writing: makes `packages`, takes the lock, empties the working directory. */
    bool Open(QString& error);
    /** Path for a build in the making, with its files in "files"; exists after Open(). */
    QString StagedBuildPath() const;
    /** Moves the staged build, which must be on the disk already, to where clients find it. */
    bool PlaceBuild(const Build& build, QString& error);
    /** Replaces the version reply, in one step. */
    bool PlaceVersionReply(const QByteArray& text, QString& error);

private:
    Q_DISABLE_COPY(ServerTree)

    bool MakeDirectories(const QString& path, QString& error);
    void RemoveMadeDirectories();
    QString WorkPath() const;
    bool RemoveWork(QString& error);

    QString root;
    std::unique_ptr<QLockFile> lock; // held from Open() on
    QStringList made;                // directories made by this run, parents first
};

} // namespace publish
