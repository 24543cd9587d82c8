#include "rollbackcommand.h"

#include "interrupt.h"
#include "output/console.h"
#include "server/disk.h"
#include "server/linkorcopy.h"
#include "server/publishedbuild.h"
#include "server/publishedfilecheck.h"
#include "signing/sha256.h"
#include "signing/signaturecheck.h"
#include "signing/signing.h"
#include "source/names.h"
#include "source/parallel.h"
#include "source/platform.h"

#include <kxcommon/pathguard.h>
#include <kxcommon/version.h>

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QSet>

#include <vector>

namespace publish {

static constexpr qsizetype manyDirectories = 256;

RollbackCommand::RollbackCommand(const RollbackSettings& given)
    : settings(given), server(ResolvedPath(given.serverTree))
{
    result.dryRun = settings.dryRun;
}

ExitStatus RollbackCommand::Run()
{
    if (!CheckServerTree(server, settings.serverTree))
        return ExitRefused;
    if (!CheckKeys())
        return IsInterrupted() ? GiveUp() : Refuse();
    QString error;
    // The lock comes before the look at the builds: none may come or go in between.
    if (!settings.dryRun && !server.Open(error, settings.waitSeconds))
        return Fail(error);
    result.before = server.OfferedVersion();
    if (result.before.isEmpty()) {
        problems.Refuse(Shown(server.VersionReplyPath()),
                        QStringLiteral("offers no version that clients could go back from"));
        return Refuse();
    }
    history = ReadHistory(server, result.before);
    if (!history.problem.isEmpty())
        Warn(Shown(server.HistoryPath()) + QStringLiteral(": ") + history.problem +
             QStringLiteral("; the published versions are used instead"));
    if (FinishEarlierRun(error))
        return error.isEmpty() ? ExitDone : Fail(error);

    const RollbackChoice choice = ChooseRollback(server, history, result.before);
    for (const QString& skipped : choice.skipped)
        Say(skipped);
    if (choice.target.isEmpty()) {
        problems.Refuse(Shown(server.PackagesPath()),
                        QStringLiteral("nothing to go back to: no version was offered before %1 "
                                       "that is still published")
                            .arg(result.before));
        return Refuse();
    }
    result.target = choice.target;
    result.offered = settings.as.isEmpty() ? choice.target : settings.as;
    if (!settings.as.isEmpty()) {
        CheckVersion();
        if (problems.IsEmpty())
            PlanCopies();
    }
    if (IsInterrupted())
        return GiveUp();
    if (!problems.IsEmpty())
        return Refuse();
    for (const Copy& copy : std::as_const(copies))
        result.published.append(copy.to);
    if (settings.dryRun)
        return ExitDone;

    for (Copy& copy : copies) {
        if (!Stage(copy, error))
            return IsInterrupted() ? GiveUp() : Fail(error);
    }
    if (IsInterrupted())
        return GiveUp();
    if (!PlaceCopies(error))
        return Fail(error);
    if (Offer(error))
        return ExitDone;
    if (server.OfferedVersion() != result.offered)
        TakeCopiesAway(copies.size());
    return Fail(error);
}

bool RollbackCommand::CheckKeys()
{
    if (!settings.sign.IsSet())
        return true;
    const QString option = QStringLiteral("--sign");
    trusted = LoadPublicKeys(settings.keyFiles, &problems);
    CheckKeyIsOutside(option, settings.sign, ResolvedPath(settings.serverTree), &problems);
    if (problems.IsEmpty())
        LoadSecretKey(option, settings.sign, &key, &problems);
    problems.PrintWarnings();
    if (key.IsValid())
        trusted.append(key.Public());
    return problems.IsEmpty();
}

void RollbackCommand::CheckVersion()
{
    const QString subject = QStringLiteral("--as ") + Shown(settings.as);
    const QString problem = VersionProblem(settings.as);
    if (!problem.isEmpty())
        problems.Refuse(subject, problem);
    else if (!(common::Version(settings.as) > common::Version(result.before)))
        problems.Refuse(subject, QStringLiteral("not later than %1, which clients are offered now")
                                     .arg(Printable(result.before)));
}

// A run that was killed after clients were offered the older version has done what was asked: this
// one must not go back another step. True when there was such a run.
bool RollbackCommand::FinishEarlierRun(QString& error)
{
    const bool sameRequest = history.unfinishedVersion ==
                             (settings.as.isEmpty() ? history.unfinishedTarget : settings.as);
    if (history.unfinishedTarget.isEmpty() || !sameRequest)
        return false;
    result.target = history.unfinishedTarget;
    result.offered = history.unfinishedVersion;
    if (!settings.dryRun)
        server.PlaceHistory(history.ToText(), error);
    Say(QStringLiteral("finished a rollback that was interrupted"));
    return true;
}

void RollbackCommand::PlanCopies()
{
    QStringList taken;
    const QList<Build> builds = server.Builds();
    for (const Build& build : builds + server.UnfinishedBuilds()) {
        if (build.version == settings.as)
            taken.append(server.BuildPath(build));
    }
    for (const Build& build : builds) {
        if (build.version == result.target)
            PlanCopy(build);
    }
    for (const Copy& copy : std::as_const(copies)) {
        const QString path = server.BuildPath(copy.to);
        if (copy.placed)
            taken.removeAll(path);
        else if (server.IsTaken(copy.to) && !taken.contains(path))
            taken.append(path);
    }
    for (const QString& path : std::as_const(taken))
        problems.Refuse(Shown(path), QStringLiteral("in the way, and never overwritten"));
}

void RollbackCommand::PlanCopy(const Build& from)
{
    Copy copy;
    copy.from = from;
    copy.to = from;
    copy.to.version = settings.as;
    const QString subject = Shown(server.ManifestPath(from));
    QByteArray text;
    const QString problem = ReadManifestOf(server, from, copy.manifest, &text);
    if (!problem.isEmpty()) {
        problems.Refuse(subject, problem);
        return;
    }
    // A manifest that was written by other means must not lead out of the tree, nor a link that
    // stands in place of a directory.
    for (const updater::File& file : std::as_const(copy.manifest.files)) {
        const QString violation = common::PathGuard::Violation(server.FilesPath(from), file.Name());
        if (!violation.isEmpty()) {
            problems.Refuse(Shown(file.Name()), violation);
            return;
        }
    }
    const QString filesProblem = FilesProblem(server, from, copy.manifest);
    if (!filesProblem.isEmpty()) {
        problems.Refuse(Shown(server.BuildPath(from)), filesProblem);
        return;
    }
    const QString tail = ServerTree::FilesUrl(QString(), from);
    if (!copy.manifest.downloadUrl.endsWith(tail)) {
        problems.Refuse(subject, QStringLiteral("its DownloadURL %1 does not end with %2, so there "
                                                "is no telling where the new files would be")
                                     .arg(Shown(copy.manifest.downloadUrl), Shown(tail)));
        return;
    }
    copy.manifest.downloadUrl =
        ServerTree::FilesUrl(copy.manifest.downloadUrl.chopped(tail.size()), copy.to);
    if (!SignAnew(copy, text))
        return;
    copy.text = WriteManifest(copy.manifest);
    const QString unreadable = ManifestProblem(copy.manifest, copy.text);
    if (!unreadable.isEmpty()) {
        problems.Refuse(subject, unreadable);
        return;
    }
    // The manifest depends on the older build alone. One like it was placed by a run that was
    // killed before it could offer the version; what else is in the way was published by somebody.
    QFile present(server.ManifestPath(copy.to));
    copy.placed = present.open(QIODevice::ReadOnly) && present.readAll() == copy.text &&
                  FilesProblem(server, copy.to, copy.manifest).isEmpty();
    copies.append(copy);
}

// A signature is for one version: clients would refuse the same one under another.
bool RollbackCommand::SignAnew(Copy& copy, const QByteArray& text)
{
    const QString subject = Shown(server.ManifestPath(copy.from));
    const bool isSigned = !copy.manifest.signature.IsEmpty();
    if (!isSigned && !settings.sign.IsSet())
        return true;
    if (!settings.sign.IsSet()) {
        problems.Refuse(subject, QStringLiteral("signed, for version %1 only; --sign names the key "
                                                "to sign it as %2 with")
                                     .arg(copy.from.version, Shown(copy.to.version)));
        return false;
    }
    const QString problem =
        isSigned ? ManifestSignatureProblem(text, copy.from, trusted)
                 : QStringLiteral("not signed, so nothing tells that it is what was published; "
                                  "publish its tree with 'add --sign' instead");
    if (!problem.isEmpty()) {
        problems.Refuse(subject, problem);
        return false;
    }
    const QString files = server.FilesPath(copy.from) + QLatin1Char('/');
    QByteArray sums;
    QByteArray signature;
    QString reason = ReadPublishedFile(files + guard::SumsName(), &sums);
    if (reason.isEmpty())
        reason = ReadPublishedFile(files + guard::SignatureName(), &signature);
    if (!reason.isEmpty())
        problems.Refuse(Shown(server.BuildPath(copy.from)), reason);
    else
        CheckSums(sums, signature, copy.manifest, copy.from, trusted, &problems);
    if (problems.IsEmpty())
        CheckContents(copy);
    if (!problems.IsEmpty() || IsInterrupted())
        return false;

    // The list is the same under each version.
    const QString name = guard::SignatureName();
    copy.signature = key.Sign(sums, guard::TrustedComment(IdentityOf(copy.to))).FileText();
    for (updater::File& file : copy.manifest.files) {
        if (file.Name() == name)
            file = updater::File(
                name,
                QString::fromLatin1(
                    QCryptographicHash::hash(copy.signature, QCryptographicHash::Md5).toHex()),
                quint64(copy.signature.size()), file.PermissionsString(), QString());
    }
    copy.manifest.sha256.insert(name, Sha256::HexOf(copy.signature));
    SignManifest(&copy.manifest, copy.to, key);
    return true;
}

void RollbackCommand::CheckContents(const Copy& copy)
{
    const updater::FileList& files = copy.manifest.files;
    const QMap<QString, QByteArray>& sha256 = copy.manifest.sha256;
    const QString root = server.FilesPath(copy.from) + QLatin1Char('/');
    std::vector<QString> reasons(size_t(files.size()));
    const auto read = [&](int, qsizetype index) {
        const updater::File& file = files.at(index);
        if (!file.IsSymlink())
            reasons[size_t(index)] =
                PublishedFileProblem(root + file.Name(), file, sha256.value(file.Name()));
        return !IsInterrupted();
    };
    ForEach(files.size(), read, [] {});
    for (qsizetype i = 0; i < files.size(); ++i) {
        if (!reasons[size_t(i)].isEmpty())
            problems.Refuse(Shown(files.at(i).Name()), reasons[size_t(i)]);
    }
}

bool RollbackCommand::Stage(Copy& copy, QString& error)
{
    if (copy.placed)
        return true;
    copy.staged = server.StagedPath(QStringLiteral("%1-%2").arg(copy.to.package, copy.to.platform));
    const QString notes = server.NotesPath(copy.from);
    return StageFiles(copy, error) &&
           (!QFileInfo(notes).isFile() ||
            LinkOrCopy(notes, copy.staged + QStringLiteral("/notes.md"), error)) &&
           WriteNewFile(copy.staged + QStringLiteral("/index.xml"), copy.text, error) &&
           Sync(copy.staged, error);
}

bool RollbackCommand::StageFiles(const Copy& copy, QString& error)
{
    const QString files = copy.staged + QStringLiteral("/files");
    QSet<QString> directories = {files};
    if (!QDir().mkpath(files)) {
        error = QStringLiteral("cannot make the directory %1").arg(Shown(files));
        return false;
    }
    for (const updater::File& file : copy.manifest.files) {
        if (IsInterrupted())
            return false;
        if (file.IsSymlink())
            continue;
        const QString path = files + QLatin1Char('/') + file.Name();
        for (QString parent = QFileInfo(path).path(); !directories.contains(parent);
             parent = QFileInfo(parent).path()) {
            if (!QDir().mkpath(parent)) {
                error = QStringLiteral("cannot make the directory %1").arg(Shown(parent));
                return false;
            }
            directories.insert(parent);
        }
        if (!copy.signature.isEmpty() && file.Name() == guard::SignatureName()) {
            if (!WriteNewFile(path, copy.signature, error))
                return false;
            continue;
        }
        if (!LinkOrCopy(server.FilesPath(copy.from) + QLatin1Char('/') + file.Name(), path, error))
            return false;
    }
    QString reason;
    // As with the files of a new build, one call for the volume is quicker than many.
    if (directories.size() >= manyDirectories && SyncVolume(copy.staged, reason))
        return true;
    if (!reason.isEmpty()) {
        error = QStringLiteral("cannot bring %1 to the disk: %2").arg(Shown(copy.staged), reason);
        return false;
    }
    for (const QString& directory : std::as_const(directories)) {
        if (!Sync(directory, error))
            return false;
    }
    return true;
}

// All or nothing: what was placed before a failure goes again. Clients are offered none of it yet.
bool RollbackCommand::PlaceCopies(QString& error)
{
    for (qsizetype i = 0; i < copies.size(); ++i) {
        const Copy& copy = copies.at(i);
        if (copy.placed || server.PlaceBuild(copy.staged, copy.to, error))
            continue;
        TakeCopiesAway(i);
        return false;
    }
    return true;
}

void RollbackCommand::TakeCopiesAway(qsizetype count)
{
    QString ignored; // the failure before this one tells why
    while (count-- > 0) {
        // What was there before this run may be somebody's own.
        if (!copies.at(count).placed)
            server.TakeBuildAway(copies.at(count).to, ignored);
    }
}

bool RollbackCommand::Offer(QString& error)
{
    if (!server.PlaceHistory(RollbackText(history, result.target, result.offered), error) ||
        !server.PlaceVersionReply(WriteVersionReply(result.offered), error))
        return false;
    history.GoBackTo(result.target);
    if (!server.PlaceHistory(history.ToText(), error)) {
        // The next run knows from what is written already where this one stopped.
        Warn(error);
        error.clear();
    }
    WarnOfLostSignatures(server, result.before, result.offered);
    Say(QStringLiteral("clients are offered version %1 now, %2 before")
            .arg(result.offered, Printable(result.before)));
    return true;
}

ExitStatus RollbackCommand::Refuse()
{
    problems.Print();
    return ExitRefused;
}

ExitStatus RollbackCommand::Fail(const QString& error)
{
    Complain(error);
    return IsInterrupted() ? ExitInterrupted : ExitFailed;
}

ExitStatus RollbackCommand::GiveUp()
{
    Complain(QStringLiteral("interrupted, the version on offer is unchanged"));
    return ExitInterrupted;
}

QStringList RollbackResult::Lines() const
{
    QStringList lines = {QStringLiteral("before: ") + Printable(before),
                         QStringLiteral("target: ") + target,
                         QStringLiteral("version: ") + offered};
    for (const Build& build : published)
        lines.append(QStringLiteral("build: %1 %2 for %3")
                         .arg(build.package, build.version, Printable(build.platform)));
    return lines;
}

QJsonObject RollbackResult::ToJson() const
{
    QJsonArray builds;
    for (const Build& build : published)
        builds.append(QJsonObject{{QStringLiteral("name"), build.package},
                                  {QStringLiteral("version"), build.version},
                                  {QStringLiteral("platform"), build.platform}});
    return {{QStringLiteral("before"), before},
            {QStringLiteral("target"), target},
            {QStringLiteral("version"), offered},
            {QStringLiteral("published"), builds},
            {QStringLiteral("dryRun"), dryRun}};
}

} // namespace publish
