#include "addcommand.h"

#include "console.h"
#include "disk.h"
#include "interrupt.h"
#include "names.h"
#include "treecopy.h"
#include "treescan.h"

#include <QFileInfo>

#include <algorithm>

namespace publish {
namespace {

bool IsPublishable(const Build& build)
{
    return PackageProblem(build.package).isEmpty() && VersionProblem(build.version).isEmpty() &&
           PlatformProblem(build.platform).isEmpty();
}

} // namespace

AddCommand::AddCommand(const AddSettings& given)
    : settings(given), server(ResolvedPath(given.serverTree))
{
    settings.tree = ResolvedPath(given.tree);
    settings.serverTree = ResolvedPath(given.serverTree);
    while (settings.baseUrl.endsWith(QLatin1Char('/')))
        settings.baseUrl.chop(1);
    manifest.package = settings.build.package;
    manifest.executable = settings.executable;
    manifest.downloadUrl = ServerTree::FilesUrl(settings.baseUrl, settings.build);
}

ExitStatus AddCommand::Run()
{
    CheckSettings();
    CheckPlaces();
    // With a bad address no name would be good, and the real problems would drown.
    const bool hasAddress =
        IsPublishable(settings.build) && BaseUrlProblem(settings.baseUrl).isEmpty();
    TreeCheck check(settings.tree,
                    hasAddress ? manifest.downloadUrl : QStringLiteral("http://localhost"),
                    server.FilesPath(settings.build), &problems);
    if (QFileInfo(settings.tree).isDir()) {
        check.Run();
        CheckExecutable(check.Contents());
    }
    if (!problems.IsEmpty())
        return Refuse();

    QString error;
    if (!Scan(check.Contents(), error))
        return IsInterrupted() ? GiveUp() : Fail(error);
    if (!problems.IsEmpty())
        return Refuse();
    problems.PrintWarnings();
    return Publish(check.Contents());
}

void AddCommand::CheckSettings()
{
    const auto check = [this](const char* option, const QString& value, const QString& problem) {
        if (!problem.isEmpty())
            problems.Refuse(QLatin1String(option) + QLatin1Char(' ') + Shown(value), problem);
    };
    const Build& build = settings.build;
    check("--name", build.package, PackageProblem(build.package));
    check("--version", build.version, VersionProblem(build.version));
    check("--platform", build.platform, PlatformProblem(build.platform));
    check("--base-url", settings.baseUrl, BaseUrlProblem(settings.baseUrl));
    if (VersionProblem(build.version).isEmpty() && !IsNumbered(build.version))
        problems.Warn(QStringLiteral("--version ") + Shown(build.version),
                      QStringLiteral("clients take it for earlier than any number"));
}

void AddCommand::CheckPlaces()
{
    const QFileInfo tree(settings.tree);
    if (!tree.isDir())
        problems.Refuse(Shown(settings.tree), tree.exists() ? QStringLiteral("not a directory")
                                                            : QStringLiteral("no such directory"));
    const QFileInfo out(settings.serverTree);
    const QString subject = QStringLiteral("--out ") + Shown(settings.serverTree);
    if (out.exists() && !out.isDir())
        problems.Refuse(subject, QStringLiteral("not a directory"));
    if (IsInside(settings.tree, settings.serverTree))
        problems.Refuse(subject, QStringLiteral("the tree to publish lies inside"));
    else if (IsInside(settings.serverTree, settings.tree))
        problems.Refuse(subject, QStringLiteral("lies inside the tree to publish"));
    if (!IsPublishable(settings.build) || !server.IsTaken(settings.build))
        return;
    if (QFileInfo(server.ManifestPath(settings.build)).exists())
        problems.Refuse(Shown(server.BuildPath(settings.build)),
                        QStringLiteral("published already, and never overwritten"));
    else
        problems.Refuse(Shown(server.BuildPath(settings.build)),
                        QStringLiteral("in the way, and not a published build"));
}

void AddCommand::CheckExecutable(const TreeContents& contents)
{
    const QString subject = QStringLiteral("--exec ") + Shown(settings.executable);
    const auto file = contents.files.constFind(settings.executable);
    if (file != contents.files.constEnd()) {
        if (!(file.value() & 0111))
            problems.Warn(subject, QStringLiteral("not executable"));
        return;
    }
    if (contents.links.contains(settings.executable))
        problems.Refuse(subject, QStringLiteral("a link, not a regular file"));
    else if (contents.directories.contains(settings.executable))
        problems.Refuse(subject, QStringLiteral("a directory, not a regular file"));
    else
        problems.Refuse(subject, QStringLiteral("not a file of the tree"));
}

bool AddCommand::Scan(const TreeContents& contents, QString& error)
{
    updater::FileList scanned;
    if (!ScanTree(settings.tree, scanned, error))
        return false;
    CompareWithScan(contents, scanned);

    for (const updater::File& file : std::as_const(scanned)) {
        const QString permissions =
            PermissionText(contents.files.value(file.Name()), file.IsSymlink());
        manifest.files.append(updater::File(file.Name(), file.MD5().toLower(), file.Size(),
                                            permissions, file.SymlinkPath()));
    }
    // By code units: the same order on every machine, whatever its language.
    std::sort(manifest.files.begin(), manifest.files.end(),
              [](const updater::File& a, const updater::File& b) { return a.Name() < b.Name(); });
    return true;
}

// The scan is what clients will see, the listing is what was checked: both have to be the same.
void AddCommand::CompareWithScan(const TreeContents& contents, const updater::FileList& scanned)
{
    QSet<QString> names;
    for (const updater::File& file : scanned) {
        const QString name = file.Name();
        names.insert(name);
        const bool same = file.IsSymlink() ? contents.links.value(name) == file.SymlinkPath()
                                           : contents.files.contains(name);
        if (!same)
            problems.Refuse(Shown(name), QStringLiteral("changed while the tree was read"));
    }
    for (const QString& name : contents.files.keys() + contents.links.keys()) {
        if (!names.contains(name))
            problems.Refuse(Shown(name), QStringLiteral("vanished while the tree was read"));
    }
}

ExitStatus AddCommand::Publish(const TreeContents& contents)
{
    const QByteArray text = WriteManifest(manifest);
    const QString problem = ManifestProblem(manifest, text);
    if (!problem.isEmpty()) {
        problems.Refuse(Shown(settings.tree), problem);
        return Refuse();
    }
    QString error;
    if (!server.Open(error))
        return Fail(error);

    const QString staged = server.StagedBuildPath();
    TreeCopy copy(settings.tree, staged + QStringLiteral("/files"));
    switch (copy.Run(manifest.files, contents.files, &problems, error)) {
    case TreeCopy::Complete:
        break;
    case TreeCopy::Changed:
        return Refuse();
    case TreeCopy::Failed:
        return Fail(error);
    case TreeCopy::Interrupted:
        return GiveUp();
    }
    if (!WriteNewFile(staged + QStringLiteral("/index.xml"), text, error) || !Sync(staged, error) ||
        !server.PlaceBuild(settings.build, error))
        return Fail(error);
    Report();
    return ExitDone;
}

void AddCommand::Report() const
{
    quint64 bytes = 0;
    qsizetype links = 0;
    for (const updater::File& file : manifest.files) {
        if (file.IsSymlink())
            ++links;
        else
            bytes += file.Size();
    }
    const QString files = QString::number(manifest.files.size() - links);
    PrintDatum(QStringLiteral("index"), server.ManifestPath(settings.build));
    PrintDatum(QStringLiteral("files"), files);
    PrintDatum(QStringLiteral("links"), QString::number(links));
    PrintDatum(QStringLiteral("bytes"), QString::number(bytes));
    const Build& build = settings.build;
    Say(QStringLiteral("published %1 %2 for %3: %4 files, %5 links, %6 bytes; "
                       "clients are offered it after 'promote'")
            .arg(build.package, build.version, build.platform, files)
            .arg(links)
            .arg(bytes));
}

ExitStatus AddCommand::Refuse()
{
    problems.PrintWarnings();
    problems.Print();
    return ExitRefused;
}

ExitStatus AddCommand::Fail(const QString& error)
{
    problems.PrintWarnings();
    Complain(error);
    return ExitFailed;
}

ExitStatus AddCommand::GiveUp()
{
    Complain(QStringLiteral("interrupted, nothing is published"));
    return ExitInterrupted;
}

} // namespace publish
