#include "verifytree.h"

#include "interrupt.h"
#include "output/console.h"
#include "server/publishedbuild.h"
#include "server/publishedfilecheck.h"
#include "server/recordcheck.h"
#include "signing/signaturecheck.h"
#include "signing/signing.h"
#include "source/names.h"
#include "source/platform.h"
#include "source/treecheck.h"

#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <atomic>
#include <thread>
#include <vector>

namespace publish {
namespace {

constexpr int readOther = 0004;
constexpr int passOther = 0001;

QString UnreadableText()
{
    return QStringLiteral("others may not read it, such as the web server");
}

} // namespace

VerifyTree::VerifyTree(const VerifySettings& settings, const ServerTree& server,
                       VerifyResult* result)
    : settings(settings), server(server), result(result)
{
}

void VerifyTree::Run()
{
    CheckReply();
    result->problems = problems.Refusals();
    result->warnings = problems.Warnings();
    const auto isWanted = [this](const Build& build) {
        return (settings.names.isEmpty() || settings.names.contains(build.package)) &&
               (settings.version.isEmpty() || settings.version == build.version) &&
               (settings.platform.isEmpty() || settings.platform == build.platform);
    };
    QSet<QString> met;
    for (const Build& build : server.Builds()) {
        if (IsInterrupted() || !isWanted(build))
            continue;
        met.insert(build.package);
        CheckBuild(build);
    }
    for (const Build& build : server.UnfinishedBuilds()) {
        if (isWanted(build))
            result->warnings.append(Shown(server.BuildPath(build)) +
                                    QStringLiteral(": has no index.xml"));
    }
    for (const QString& name : settings.names) {
        if (!met.contains(name) && !IsInterrupted())
            result->problems.append(Shown(name) + QStringLiteral(": no such build is published"));
    }
    if (settings.names.isEmpty() && met.isEmpty() && !IsInterrupted())
        result->problems.append(Shown(server.PackagesPath()) +
                                QStringLiteral(": no such build is published"));
}

void VerifyTree::CheckReply()
{
    const QString path = server.VersionReplyPath();
    const QFileInfo info(path);
    if (!info.exists() && !info.isSymLink()) {
        problems.Warn(Shown(path), QStringLiteral("missing, clients are offered nothing"));
        return;
    }
    QFile file;
    int mode = 0;
    QString error;
    if (!OpenRegularFile(file, path, mode, error)) {
        problems.Refuse(Shown(path), QStringLiteral("cannot be read: ") + error);
        return;
    }
    if (!(mode & readOther))
        problems.Refuse(Shown(path), UnreadableText());
    result->offered = server.OfferedVersion();
    const QString problem = VersionProblem(result->offered);
    if (!problem.isEmpty())
        problems.Refuse(Shown(path), QStringLiteral("its version ") + problem);
    else
        CheckPromotable(server, result->offered, &problems);
}

void VerifyTree::CheckBuild(const Build& build)
{
    row = VerifyResult::Row();
    row.build = build;
    problems = Problems();
    expected.clear();
    toRead.clear();
    filesPath = server.FilesPath(build);
    CheckOpenDirectories();
    CheckManifestFile(build);
    if (!manifest.files.isEmpty()) {
        if (QFileInfo(filesPath).isDir())
            CheckDirectory(QString());
        QStringList missing = expected.keys();
        std::sort(missing.begin(), missing.end());
        for (const QString& name : std::as_const(missing))
            problems.Refuse(Shown(name), QStringLiteral("missing"));
        ReadFiles();
    }
    row.problems = problems.Refusals();
    row.warnings = problems.Warnings();
    result->builds.append(row);
}

// A web server has to pass them all.
void VerifyTree::CheckOpenDirectories()
{
    const QString root = QFileInfo(server.PackagesPath()).path();
    for (QString path = filesPath; path.size() >= root.size(); path = QFileInfo(path).path()) {
        if (checkedDirectories.contains(path))
            continue;
        checkedDirectories.insert(path);
        const QFileInfo info(path);
        if (info.isDir() && !(info.permissions() & QFileDevice::ExeOther))
            problems.Refuse(Shown(path), UnreadableText());
        if (path == root)
            break;
    }
}

void VerifyTree::CheckManifestFile(const Build& build)
{
    manifest = Manifest();
    const QString path = server.ManifestPath(build);
    QByteArray text;
    const QString problem = ReadManifestOf(server, build, manifest, &text);
    if (!problem.isEmpty()) {
        problems.Refuse(Shown(path), problem);
        manifest = Manifest();
        return;
    }
    if (!(QFileInfo(path).permissions() & QFileDevice::ReadOther))
        problems.Refuse(Shown(path), UnreadableText());
    const QString tail = ServerTree::FilesUrl(QString(), build);
    if (!manifest.downloadUrl.endsWith(tail))
        problems.Warn(Shown(path),
                      QStringLiteral("clients are sent to %1, which does not end with %2")
                          .arg(Shown(manifest.downloadUrl), Shown(tail)));
    CheckRecords(manifest, &problems);
    if (!settings.keys.isEmpty())
        CheckSignatures(build, text);
    for (const updater::File& file : std::as_const(manifest.files)) {
        if (!file.IsSymlink())
            expected.insert(file.Name(), file);
    }
}

void VerifyTree::CheckSignatures(const Build& build, const QByteArray& text)
{
    const QString problem = ManifestSignatureProblem(text, build, settings.keys);
    if (!problem.isEmpty()) {
        problems.Refuse(Shown(server.ManifestPath(build)), problem);
        return;
    }
    QList<QByteArray> contents;
    for (const QString& name : SigningFileNames()) {
        QByteArray bytes;
        const QString reason = ReadPublishedFile(JoinPath(filesPath, name), &bytes);
        if (!reason.isEmpty()) {
            problems.Refuse(Shown(name), reason);
            return;
        }
        contents.append(bytes);
    }
    CheckSums(contents.first(), contents.last(), manifest, build, settings.keys, &problems);
}

void VerifyTree::CheckDirectory(const QString& directory)
{
    QList<TreeEntry> entries;
    QString error;
    const QString path = directory.isEmpty() ? filesPath : JoinPath(filesPath, directory);
    if (!ListDirectory(path, entries, error)) {
        problems.Refuse(Shown(path), QStringLiteral("the directory cannot be listed: ") + error);
        return;
    }
    std::sort(entries.begin(), entries.end(),
              [](const TreeEntry& a, const TreeEntry& b) { return a.nativeName < b.nativeName; });
    for (const TreeEntry& entry : std::as_const(entries)) {
        const QString name = JoinPath(directory, entry.name);
        if (entry.kind == TreeEntry::Directory && !entry.name.isEmpty()) {
            if (!(entry.status.mode & passOther))
                problems.Refuse(Shown(name), UnreadableText());
            CheckDirectory(name);
            continue;
        }
        const auto wanted = expected.constFind(name);
        if (entry.name.isEmpty() || wanted == expected.constEnd()) {
            problems.Warn(entry.name.isEmpty() ? Shown(entry.nativeName) : Shown(name),
                          QStringLiteral("no manifest lists it"));
            continue;
        }
        if (entry.kind != TreeEntry::RegularFile)
            problems.Refuse(Shown(name), entry.kind == TreeEntry::Link
                                             ? QStringLiteral("a link instead of a file")
                                             : QStringLiteral("neither file, link nor directory"));
        else if (!(entry.status.mode & readOther))
            problems.Refuse(Shown(name), UnreadableText());
        if (entry.kind == TreeEntry::RegularFile)
            toRead.append(wanted.value());
        expected.remove(name);
    }
}

void VerifyTree::ReadFiles()
{
    std::vector<QString> reasons(static_cast<size_t>(toRead.size()));
    std::atomic<qsizetype> next = 0;
    const updater::FileList& files = toRead;
    const QString root = filesPath;
    // Nobody asked for more than what clients compare by themselves.
    const QMap<QString, QByteArray> digests =
        settings.keys.isEmpty() ? QMap<QString, QByteArray>() : manifest.sha256;
    const auto work = [&] {
        for (qsizetype i = next++; i < files.size() && !IsInterrupted(); i = next++)
            reasons[size_t(i)] =
                PublishedFileProblem(root + QLatin1Char('/') + files.at(i).Name(), files.at(i),
                                     digests.value(files.at(i).Name()));
    };
    std::vector<std::thread> threads;
    for (int i = 1; i < settings.jobs && i < toRead.size(); ++i)
        threads.emplace_back(work);
    work();
    for (std::thread& thread : threads)
        thread.join();
    for (qsizetype i = 0; i < toRead.size(); ++i) {
        const QString& reason = reasons[size_t(i)];
        if (!reason.isEmpty())
            problems.Refuse(Shown(toRead.at(i).Name()), reason);
        ++row.files;
        row.bytes += toRead.at(i).Size();
    }
}

} // namespace publish
