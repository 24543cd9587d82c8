#include "addcommand.h"

#include "interrupt.h"
#include "output/console.h"
#include "server/disk.h"
#include "signing/sha256.h"
#include "signing/signaturecheck.h"
#include "source/names.h"
#include "source/parallel.h"
#include "source/releasenotes.h"

#include <QCryptographicHash>
#include <QFileInfo>

#include <algorithm>

namespace publish {
namespace {

bool IsPublishable(const Build& build)
{
    return PackageProblem(build.package).isEmpty() && VersionProblem(build.version).isEmpty() &&
           PlatformProblem(build.platform).isEmpty();
}

QString MD5Of(const QByteArray& bytes)
{
    return QString::fromLatin1(QCryptographicHash::hash(bytes, QCryptographicHash::Md5).toHex());
}

} // namespace

AddCommand::AddCommand(const AddSettings& given, ProgressSink* sink)
    : settings(given), server(ResolvedPath(given.serverTree)), progress(sink)
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
    CheckNotes();
    CheckSigning();
    if (IsInterrupted())
        return GiveUp();
    TreeContents contents;
    if (QFileInfo(settings.tree).isDir()) {
        contents = CheckTree();
        CheckExecutable(contents);
    }
    if (!problems.IsEmpty())
        return Refuse();
    problems.PrintWarnings();
    return Publish(contents);
}

TreeContents AddCommand::CheckTree()
{
    // With a bad address no name would be good, and the real problems would drown.
    const bool hasAddress =
        IsPublishable(settings.build) && BaseUrlProblem(settings.baseUrl).isEmpty();
    TreeCheck check(settings.tree,
                    hasAddress ? manifest.downloadUrl : QStringLiteral("http://localhost"),
                    server.FilesPath(settings.build), settings.excludes, &problems, &progress);
    check.Run();
    TreeContents contents = check.Contents();
    if (settings.sign.IsSet()) {
        for (const QString& name : LeaveOutSums(&contents))
            Say(QStringLiteral("left out: %1, the signature brings its own").arg(Shown(name)));
        CheckSignable(contents, &problems);
        CheckKeyHasNoCopy(settings.sign, settings.tree, contents, &problems);
    }
    return contents;
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
    CheckNotTaken();
}

void AddCommand::CheckNotTaken()
{
    if (!IsPublishable(settings.build) || !server.IsTaken(settings.build))
        return;
    if (QFileInfo(server.ManifestPath(settings.build)).exists())
        problems.Refuse(Shown(server.BuildPath(settings.build)),
                        QStringLiteral("published already, and never overwritten; a changed tree "
                                       "needs a version of its own"));
    else
        problems.Refuse(Shown(server.BuildPath(settings.build)),
                        QStringLiteral("in the way, and not a published build"));
}

void AddCommand::CheckNotes()
{
    if (settings.notes.isEmpty())
        return;
    const QString problem = ReadNotes(settings.notes, notes);
    if (!problem.isEmpty())
        problems.Refuse(QStringLiteral("--notes ") + Shown(settings.notes), problem);
}

// The key comes last: nobody types a passphrase for what is refused anyway.
void AddCommand::CheckSigning()
{
    if (!settings.sign.IsSet())
        return;
    const QString option = QStringLiteral("--sign");
    if (IsPublishable(settings.build))
        CheckSignable(settings.build, &problems);
    CheckKeyIsOutside(option, settings.sign, settings.tree, &problems);
    CheckKeyIsOutside(option, settings.sign, settings.serverTree, &problems);
    if (problems.IsEmpty())
        LoadSecretKey(option, settings.sign, &key, &problems);
}

void AddCommand::CheckExecutable(const TreeContents& contents)
{
    const QString subject = QStringLiteral("--exec ") + Shown(settings.executable);
    const auto file = contents.files.constFind(settings.executable);
    if (file != contents.files.constEnd()) {
        if (!(file.value().status.mode & 0111))
            problems.Warn(subject, QStringLiteral("not executable"));
        return;
    }
    const QString rule = contents.LeftOutBy(settings.executable);
    if (!rule.isEmpty())
        problems.Refuse(subject, QStringLiteral("left out by ") + rule);
    else if (contents.links.contains(settings.executable))
        problems.Refuse(subject, QStringLiteral("a link, not a regular file"));
    else if (contents.directories.contains(settings.executable))
        problems.Refuse(subject, QStringLiteral("a directory, not a regular file"));
    else
        problems.Refuse(subject, QStringLiteral("not a file of the tree"));
}

ExitStatus AddCommand::Publish(const TreeContents& contents)
{
    QString error;
    if (!settings.dryRun) {
        if (!server.Open(error, settings.waitSeconds))
            return IsInterrupted() ? GiveUp() : Fail(error);
        // Whoever held the lock may have published the same.
        CheckNotTaken();
        if (!problems.IsEmpty())
            return Refuse();
    }
    QSet<quint64> sizes;
    for (const TreeFile& file : contents.files)
        sizes.insert(file.status.size);
    PublishedFiles published;
    published.Read(server, sizes, &problems);

    const QString files = server.StagedBuildPath() + QStringLiteral("/files");
    TreeCopy copy(settings.tree, settings.dryRun ? QString() : files, contents,
                  key.IsValid() ? Digests::Md5AndSha256 : Digests::Md5, published, &progress);
    switch (copy.Run(&problems, error)) {
    case TreeCopy::Complete:
        break;
    case TreeCopy::Changed:
        return Refuse();
    case TreeCopy::Failed:
        return Fail(error);
    case TreeCopy::Interrupted:
        return GiveUp();
    }
    FillManifest(contents, copy.Md5Digests());
    if (key.IsValid())
        Sign(contents, copy.Sha256Digests());
    const QByteArray text = WriteManifest(manifest);
    if (!settings.dryRun && !WriteBuild(text, error))
        return Fail(error);
    CheckAtTheEnd(contents, text);
    if (!problems.IsEmpty())
        return Refuse();
    if (IsInterrupted())
        return GiveUp();
    if (!settings.dryRun && !server.PlaceBuild(settings.build, error))
        return Fail(error);
    problems.PrintWarnings();
    Report(contents, copy.Totals());
    return ExitDone;
}

void AddCommand::FillManifest(const TreeContents& contents,
                              const QMap<QString, QByteArray>& digests)
{
    // Both are sorted by code units: the same order on every machine, whatever its language.
    auto link = contents.links.begin();
    const auto appendLinksBefore = [&](const QString* name) {
        for (; link != contents.links.end() && (!name || link.key() < *name); ++link) {
            manifest.files.append(updater::File(link.key(), MD5Of(link.value().toUtf8()),
                                                quint64(link.value().size()),
                                                PermissionText(0, true), link.value()));
        }
    };
    for (auto file = contents.files.begin(); file != contents.files.end(); ++file) {
        appendLinksBefore(&file.key());
        const FileStatus& status = file.value().status;
        manifest.files.append(
            updater::File(file.key(), QString::fromLatin1(digests.value(file.key())), status.size,
                          PermissionText(status.mode, false), QString()));
    }
    appendLinksBefore(nullptr);
}

// The list of digests and its signature are files of the build like all others, so that clients
// have them without knowing of them.
void AddCommand::Sign(const TreeContents& contents, const QMap<QString, QByteArray>& sha256)
{
    const SignedSums sums = SignSums(SumsOf(contents, sha256), settings.build, key);
    made = {{guard::SumsName(), sums.text}, {guard::SignatureName(), sums.signature}};
    manifest.sha256 = sha256;
    for (auto file = made.cbegin(); file != made.cend(); ++file) {
        manifest.sha256.insert(file.key(), Sha256::HexOf(file.value()));
        const auto place = std::lower_bound(
            manifest.files.begin(), manifest.files.end(), file.key(),
            [](const updater::File& other, const QString& name) { return other.Name() < name; });
        manifest.files.insert(place, updater::File(file.key(), MD5Of(file.value()),
                                                   quint64(file.value().size()),
                                                   PermissionText(0644, false), QString()));
    }
    SignManifest(&manifest, settings.build, key);
}

bool AddCommand::WriteBuild(const QByteArray& text, QString& error)
{
    const QString staged = server.StagedBuildPath();
    const QString files = staged + QStringLiteral("/files");
    for (auto file = made.cbegin(); file != made.cend(); ++file) {
        if (!WriteNewFile(files + QLatin1Char('/') + file.key(), file.value(), error))
            return false;
    }
    if (!made.isEmpty() && !Sync(files, error))
        return false;
    return (notes.isEmpty() || WriteNewFile(staged + QStringLiteral("/notes.md"), notes, error)) &&
           WriteNewFile(staged + QStringLiteral("/index.xml"), text, error) && Sync(staged, error);
}

void AddCommand::CheckAtTheEnd(const TreeContents& contents, const QByteArray& text)
{
    QString manifestProblem;
    Problems changes;
    // Each takes as long as half of the copies when the files are small. The reading of the
    // manifest allocates so much that the first thread, which the C library serves best, is the one
    // for it.
    RunBoth([&] { CompareWithListing(contents, changes); },
            [&] {
                manifestProblem = ManifestProblem(manifest, text);
                if (manifestProblem.isEmpty())
                    manifestProblem = SignatureProblem(text);
            });
    if (!manifestProblem.isEmpty())
        problems.Refuse(Shown(settings.tree), manifestProblem);
    problems.AddProblems(changes);
}

// With the eyes of a client: what it would refuse is not published.
QString AddCommand::SignatureProblem(const QByteArray& text) const
{
    return key.IsValid() ? ManifestSignatureProblem(text, settings.build, {key.Public()})
                         : QString();
}

// Nothing may have come, gone or changed since the tree was listed. What is listed now has been
// checked as well: what is wrong with a new entry is said already.
void AddCommand::CompareWithListing(const TreeContents& before, Problems& found) const
{
    ProgressMeter silent(nullptr);
    TreeCheck check(settings.tree, manifest.downloadUrl, server.FilesPath(settings.build),
                    settings.excludes, &found, &silent);
    check.Run();
    TreeContents now = check.Contents();
    if (settings.sign.IsSet())
        LeaveOutSums(&now);
    const auto refuse = [&found](const QString& name, const char* reason) {
        found.Refuse(Shown(name), QLatin1String(reason));
    };
    for (auto file = before.files.begin(); file != before.files.end(); ++file) {
        const auto other = now.files.find(file.key());
        if (other == now.files.end())
            refuse(file.key(), "vanished while it was published");
        else if (other.value().status != file.value().status)
            refuse(file.key(), "changed while it was published: it was written to or replaced");
    }
    for (auto link = before.links.begin(); link != before.links.end(); ++link) {
        if (now.links.value(link.key()) != link.value())
            refuse(link.key(), "changed while it was published: it is another link now");
    }
    for (const QString& name : now.files.keys() + now.links.keys()) {
        if (!before.files.contains(name) && !before.links.contains(name))
            refuse(name, "appeared while the tree was published");
    }
}

void AddCommand::Report(const TreeContents& contents, const CopyTotals& totals) const
{
    const qsizetype files = contents.files.size() + made.size();
    const qsizetype links = contents.links.size();
    quint64 bytes = totals.bytes;
    for (const QByteArray& content : made)
        bytes += quint64(content.size());
    const quint64 newBytes = bytes - totals.linkedBytes;
    const auto datum = [](const char* key, quint64 value) {
        PrintDatum(QLatin1String(key), value);
    };
    PrintDatum(QStringLiteral("index"), server.ManifestPath(settings.build));
    datum("files", quint64(files));
    datum("links", quint64(links));
    datum("bytes", bytes);
    datum("linked", totals.linked);
    datum("linked-bytes", totals.linkedBytes);
    datum("new-bytes", newBytes);
    datum("left-out", quint64(contents.leftOut.size()));
    if (key.IsValid())
        PrintDatum(QStringLiteral("key-id"), key.Public().IdText());
    if (settings.dryRun)
        ListLeftOut(contents);
    const Build& build = settings.build;
    QString text =
        QStringLiteral("%1 %2 %3 for %4: %5 files, %6 links, %7 bytes")
            .arg(settings.dryRun ? QStringLiteral("would publish") : QStringLiteral("published"),
                 build.package, build.version, build.platform)
            .arg(files)
            .arg(links)
            .arg(bytes);
    if (totals.linked > 0)
        text += QStringLiteral(", of which %1 files of %2 bytes equal published ones and %3")
                    .arg(totals.linked)
                    .arg(totals.linkedBytes)
                    .arg(settings.dryRun ? QStringLiteral("would be links to them")
                                         : QStringLiteral("are links to them"));
    if (!contents.leftOut.isEmpty())
        text += QStringLiteral("; %1 entries left out").arg(contents.leftOut.size());
    if (key.IsValid())
        text += QStringLiteral("; signed with key %1").arg(key.Public().IdText());
    // One version reply speaks for every package and platform: this one may say it already.
    const bool isOffered = server.OfferedVersion() == settings.build.version;
    Say(text + (settings.dryRun ? QStringLiteral("; nothing is written")
                : isOffered     ? QStringLiteral("; clients are offered it now")
                                : QStringLiteral("; clients are offered it after 'promote'")));
}

void AddCommand::ListLeftOut(const TreeContents& contents) const
{
    for (auto entry = contents.leftOut.begin(); entry != contents.leftOut.end(); ++entry)
        Say(QStringLiteral("left out: %1, by %2").arg(Shown(entry.key()), entry.value()));
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
