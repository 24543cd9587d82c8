#include "servertree.h"

#include "disk.h"
#include "interrupt.h"
#include "manifest.h"
#include "output/console.h"
#include "source/names.h"
#include "source/platform.h"

#include <kxupdater/build.h>

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <filesystem>
#include <tuple>

namespace publish {
namespace {

QString SeparatorText()
{
    return QStringLiteral("-v");
}

QString BuildDirectory(const Build& build)
{
    return QStringLiteral("packages/%1%2%3/%4/%5")
        .arg(build.package, SeparatorText(), build.version, updater::Build::OSName(),
             build.platform);
}

// A link that leads nowhere exists as well: it would be in the way.
bool Exists(const QString& path)
{
    const QFileInfo info(path);
    return info.exists() || info.isSymLink();
}

QStringList Directories(const QString& path)
{
    return QDir(path).entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name);
}

bool Rename(const QString& from, const QString& to, QString& error)
{
    std::error_code code;
    std::filesystem::rename(QFileInfo(from).filesystemFilePath(),
                            QFileInfo(to).filesystemFilePath(), code);
    if (code)
        error = QStringLiteral("cannot rename %1 to %2: %3")
                    .arg(Shown(from), Shown(to), QString::fromLocal8Bit(code.message().c_str()));
    return !code;
}

// Fails, as it should, for a directory that holds anything.
void RemoveIfEmpty(const QString& path)
{
    QDir().rmdir(path);
}

constexpr int pollMs = 100;
constexpr qint64 maxReply = 64 * 1024;

// Empty when the file does not say.
QString LockHolder(QLockFile& lock, const QString& path)
{
    qint64 process = 0;
    QString host;
    QString program;
    if (!lock.getLockInfo(&process, &host, &program))
        return {};
    return QStringLiteral("process %1 on %2 holds %3").arg(process).arg(Shown(host), Shown(path));
}

} // namespace

ServerTree::ServerTree(const QString& root) : root(root) {}

ServerTree::~ServerTree()
{
    if (!lock)
        return;
    QString ignored; // the next run tries again
    RemoveWork(ignored);
    lock.reset();
    RemoveMadeDirectories();
}

QString ServerTree::PackagesPath() const
{
    return root + QStringLiteral("/packages");
}

QString ServerTree::VersionReplyPath() const
{
    return PackagesPath() + QStringLiteral("/version.xml");
}

QString ServerTree::BuildPath(const Build& build) const
{
    return root + QLatin1Char('/') + BuildDirectory(build);
}

QString ServerTree::ManifestPath(const Build& build) const
{
    return BuildPath(build) + QStringLiteral("/index.xml");
}

QString ServerTree::FilesPath(const Build& build) const
{
    return BuildPath(build) + QStringLiteral("/files");
}

QString ServerTree::NotesPath(const Build& build) const
{
    return BuildPath(build) + QStringLiteral("/notes.md");
}

QString ServerTree::HistoryPath() const
{
    return PackagesPath() + QStringLiteral("/.kxpublish.history");
}

QString ServerTree::FilesUrl(const QString& baseUrl, const Build& build)
{
    return baseUrl + QLatin1Char('/') + BuildDirectory(build) + QStringLiteral("/files");
}

bool ServerTree::IsTaken(const Build& build) const
{
    return Exists(BuildPath(build));
}

QList<Build> ServerTree::Builds() const
{
    return BuildDirectories(true);
}

QList<Build> ServerTree::UnfinishedBuilds() const
{
    return BuildDirectories(false);
}

QList<Build> ServerTree::BuildDirectories(bool withManifest) const
{
    QList<Build> builds;
    for (const QString& name : Directories(PackagesPath())) {
        // A version never holds the separator, so the last one is it; see VersionProblem().
        const qsizetype separator = name.lastIndexOf(SeparatorText());
        if (separator < 0)
            continue;
        Build build;
        build.package = name.left(separator);
        build.version = name.mid(separator + SeparatorText().size());
        if (!PackageProblem(build.package).isEmpty() || !VersionProblem(build.version).isEmpty())
            continue;
        const QString systemPath =
            PackagesPath() + QLatin1Char('/') + name + QLatin1Char('/') + updater::Build::OSName();
        for (const QString& platform : Directories(systemPath)) {
            build.platform = platform;
            if (QFileInfo(ManifestPath(build)).isFile() == withManifest)
                builds.append(build);
        }
    }
    std::sort(builds.begin(), builds.end(), [](const Build& a, const Build& b) {
        return std::tie(a.package, a.platform, a.version) <
               std::tie(b.package, b.platform, b.version);
    });
    return builds;
}

QString ServerTree::ClosedDirectory() const
{
    const auto isClosed = [](const QString& path) {
        const QFileInfo info(path);
        return info.isDir() && !(info.isReadable() && info.isExecutable());
    };
    if (isClosed(PackagesPath()))
        return PackagesPath();
    for (const QString& name : Directories(PackagesPath())) {
        if (!name.contains(SeparatorText()))
            continue;
        const QString path = PackagesPath() + QLatin1Char('/') + name;
        const QString systemPath = path + QLatin1Char('/') + updater::Build::OSName();
        for (const QString& each : {path, systemPath}) {
            if (isClosed(each))
                return each;
        }
        for (const QString& platform : Directories(systemPath)) {
            if (isClosed(systemPath + QLatin1Char('/') + platform))
                return systemPath + QLatin1Char('/') + platform;
        }
    }
    return {};
}

QString ServerTree::OfferedVersion() const
{
    // Opening a pipe that a stranger has put in its place would wait.
    if (!QFileInfo(VersionReplyPath()).isFile())
        return {};
    QFile file(VersionReplyPath());
    return file.open(QIODevice::ReadOnly) ? ReadVersionReply(file.read(maxReply)) : QString();
}

bool ServerTree::Open(QString& error, int waitSeconds)
{
    if (!MakeDirectories(PackagesPath(), error)) {
        RemoveMadeDirectories();
        return false;
    }
    if (!TakeLock(waitSeconds, error)) {
        RemoveMadeDirectories();
        return false;
    }
    if (!RemoveWork(error))
        return false;
    RemoveEmptyBuildDirectories();
    if (!QDir().mkpath(StagedBuildPath() + QStringLiteral("/files"))) {
        error = QStringLiteral("cannot make the directory %1").arg(Shown(StagedBuildPath()));
        return false;
    }
    return true;
}

bool ServerTree::TakeLock(int waitSeconds, QString& error)
{
    const QString path = PackagesPath() + QStringLiteral("/.kxpublish.lock");
    auto taken = std::make_unique<QLockFile>(path);
    // Age says nothing about a run; a lock whose process is gone is taken over all the same.
    taken->setStaleLockTime(0);
    const QDeadlineTimer deadline(qint64(waitSeconds) * 1000);
    QString awaited;
    while (!taken->tryLock(deadline.hasExpired() ? 0 : pollMs)) {
        if (taken->error() != QLockFile::LockFailedError) {
            error = QStringLiteral("cannot make the lock file %1: %2")
                        .arg(Shown(path), FileProblem(path));
            return false;
        }
        const QString holder = LockHolder(*taken, path);
        // A run that was killed in the moment of locking has left an empty file, and no process
        // that could be gone.
        if (holder.isEmpty() && RemoveAbandonedLock(path))
            continue;
        if (deadline.hasExpired() || IsInterrupted()) {
            error = QStringLiteral("another run is writing: ") +
                    (holder.isEmpty() ? QStringLiteral("somebody holds ") + Shown(path) : holder);
            return false;
        }
        if (!holder.isEmpty() && holder != awaited)
            Say(QStringLiteral("waiting for another run: ") + holder);
        awaited = holder;
    }
    lock = std::move(taken);
    return true;
}

QString ServerTree::StagedBuildPath() const
{
    return StagedPath(QStringLiteral("build"));
}

QString ServerTree::StagedPath(const QString& name) const
{
    return WorkPath() + QLatin1Char('/') + name;
}

bool ServerTree::PlaceBuild(const Build& build, QString& error)
{
    return PlaceBuild(StagedBuildPath(), build, error);
}

bool ServerTree::PlaceBuild(const QString& staged, const Build& build, QString& error)
{
    const QString place = BuildPath(build);
    const QString parent = QFileInfo(place).path();
    // rename() would silently replace an empty directory.
    if (IsTaken(build)) {
        error = QStringLiteral("%1 exists already").arg(Shown(place));
        return false;
    }
    if (!MakeDirectories(parent, error) || !Rename(staged, place, error))
        return false;
    made.clear();
    return Sync(parent, error);
}

bool ServerTree::TakeBuildAway(const Build& build, QString& error)
{
    const QString place = BuildPath(build);
    const QString parent = QFileInfo(place).path();
    const QString away = StagedPath(QStringLiteral("removed-%1").arg(++takenAway));
    // On the disk before anything is deleted: after a power cut the build is there whole, or gone.
    if (!Rename(place, away, error) || !Sync(WorkPath(), error) || !Sync(parent, error))
        return false;
    RemoveIfEmpty(parent);
    RemoveIfEmpty(QFileInfo(parent).path());
    return true;
}

bool ServerTree::Discard(QString& error)
{
    if (RemoveWork(error) && QDir().mkpath(WorkPath()))
        return true;
    if (error.isEmpty())
        error = QStringLiteral("cannot make the directory %1").arg(Shown(WorkPath()));
    return false;
}

bool ServerTree::PlaceVersionReply(const QByteArray& text, QString& error)
{
    return PlaceText(text, VersionReplyPath(), error);
}

bool ServerTree::PlaceHistory(const QByteArray& text, QString& error)
{
    return PlaceText(text, HistoryPath(), error);
}

bool ServerTree::PlaceText(const QByteArray& text, const QString& path, QString& error)
{
    const QString staged = StagedPath(QFileInfo(path).fileName());
    return WriteNewFile(staged, text, error) && Rename(staged, path, error) &&
           Sync(PackagesPath(), error);
}

// One level at a time, to know what to remove again, and to bring each new name to the disk.
bool ServerTree::MakeDirectories(const QString& path, QString& error)
{
    if (QFileInfo(path).isDir())
        return true;
    const QString parent = QFileInfo(path).path();
    if (parent == path || !MakeDirectories(parent, error))
        return false;
    if (QDir().mkdir(path)) {
        made.append(path);
    } else if (!QFileInfo(path).isDir()) {
        // Before there is a lock, another run may make it at the same time.
        error =
            QStringLiteral("cannot make the directory %1: %2").arg(Shown(path), FileProblem(path));
        return false;
    }
    return Sync(parent, error);
}

void ServerTree::RemoveMadeDirectories()
{
    while (!made.isEmpty())
        RemoveIfEmpty(made.takeLast());
}

// A run that is killed right before a build is placed, or right after one is taken away, leaves the
// directories around it.
void ServerTree::RemoveEmptyBuildDirectories()
{
    for (const QString& name : Directories(PackagesPath())) {
        if (!name.contains(SeparatorText()))
            continue;
        const QString path = PackagesPath() + QLatin1Char('/') + name;
        RemoveIfEmpty(path + QLatin1Char('/') + updater::Build::OSName());
        RemoveIfEmpty(path);
    }
}

QString ServerTree::WorkPath() const
{
    return PackagesPath() + QStringLiteral("/.kxpublish");
}

bool ServerTree::RemoveWork(QString& error)
{
    const QFileInfo info(WorkPath());
    // Removing through a link would empty whatever it leads to.
    const bool removed = info.isSymLink() || info.isFile() ? QFile::remove(WorkPath())
                         : info.exists()                   ? QDir(WorkPath()).removeRecursively()
                                                           : true;
    if (!removed)
        error =
            QStringLiteral("cannot remove %1, left by an interrupted run").arg(Shown(WorkPath()));
    return removed;
}

} // namespace publish
