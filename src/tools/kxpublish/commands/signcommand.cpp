#include "signcommand.h"

#include "interrupt.h"
#include "output/console.h"
#include "server/disk.h"
#include "server/publishedfiles.h"
#include "source/names.h"
#include "source/treecopy.h"

#include <kxcommon/durablefiles.h>

#include <QFile>
#include <QFileInfo>

#include <filesystem>

namespace publish {

SignCommand::SignCommand(const SignSettings& given, ProgressSink* sink)
    : settings(given), progress(sink)
{
    settings.tree = ResolvedPath(given.tree);
}

ExitStatus SignCommand::Run()
{
    CheckSettings();
    TreeContents contents;
    if (QFileInfo(settings.tree).isDir())
        contents = CheckTree();
    else
        problems.Refuse(Shown(settings.tree), QStringLiteral("no such directory"));
    // Nobody types a passphrase for what is refused anyway.
    if (problems.IsEmpty())
        LoadSecretKey(QStringLiteral("--key"), settings.sign, &key, &problems);
    if (IsInterrupted()) {
        Complain(QStringLiteral("interrupted, nothing is signed"));
        return ExitInterrupted;
    }
    if (!problems.IsEmpty())
        return Refuse();
    problems.PrintWarnings();
    return SignTree(contents);
}

void SignCommand::CheckSettings()
{
    const auto check = [this](const char* option, const QString& value, const QString& problem) {
        if (!problem.isEmpty())
            problems.Refuse(QLatin1String(option) + QLatin1Char(' ') + Shown(value), problem);
    };
    const Build& build = settings.build;
    check("--name", build.package, PackageProblem(build.package));
    check("--version", build.version, VersionProblem(build.version));
    check("--platform", build.platform, PlatformProblem(build.platform));
    if (problems.IsEmpty())
        CheckSignable(build, &problems);
    CheckKeyIsOutside(QStringLiteral("--key"), settings.sign, settings.tree, &problems);
}

TreeContents SignCommand::CheckTree()
{
    // Left by a run that was killed, they would be hidden entries of the tree.
    for (const QString& name : SigningFileNames())
        QFile::remove(StagedPath(name));
    TreeCheck check(settings.tree, QStringLiteral("http://localhost"), settings.tree, {}, &problems,
                    &progress);
    check.Run();
    TreeContents contents = check.Contents();
    CheckNothingIsLeftOut(contents);
    LeaveOutSums(&contents);
    CheckSignable(contents, &problems);
    CheckKeyHasNoCopy(settings.sign, settings.tree, contents, &problems);
    return contents;
}

// Whoever checks the tree refuses what the list does not have.
void SignCommand::CheckNothingIsLeftOut(const TreeContents& contents)
{
    for (auto entry = contents.leftOut.begin(); entry != contents.leftOut.end(); ++entry)
        problems.Refuse(Shown(entry.key()),
                        QStringLiteral("left out by %1, and a signed tree may hold nothing but "
                                       "what is signed")
                            .arg(entry.value()));
    QStringList directories = contents.directories.values();
    directories.append(QString());
    directories.sort();
    for (const QString& directory : std::as_const(directories)) {
        const QString name = JoinPath(directory, TreeCheck::RulesName());
        if (QFileInfo::exists(JoinPath(settings.tree, name)))
            problems.Refuse(Shown(name), QStringLiteral("a signed tree may hold nothing but what "
                                                        "is signed; 'add --sign' leaves it out"));
    }
}

ExitStatus SignCommand::SignTree(const TreeContents& contents)
{
    QString error;
    const PublishedFiles nothingPublished;
    TreeCopy reader(settings.tree, QString(), contents, Digests::Md5AndSha256, nothingPublished,
                    &progress);
    switch (reader.Run(&problems, error)) {
    case TreeCopy::Complete:
        break;
    case TreeCopy::Changed:
        return Refuse();
    case TreeCopy::Failed:
        Complain(error);
        return ExitFailed;
    case TreeCopy::Interrupted:
        Complain(QStringLiteral("interrupted, nothing is signed"));
        return ExitInterrupted;
    }
    const SignedSums sums = SignSums(SumsOf(contents, reader.Sha256Digests()), settings.build, key);
    if (!Place(sums, error)) {
        Complain(error);
        return ExitFailed;
    }
    const QString keyId = key.Public().IdText();
    PrintDatum(QStringLiteral("sums"), JoinPath(settings.tree, guard::SumsName()));
    PrintDatum(QStringLiteral("signature"), JoinPath(settings.tree, guard::SignatureName()));
    PrintDatum(QStringLiteral("files"), quint64(contents.files.size()));
    PrintDatum(QStringLiteral("links"), quint64(contents.links.size()));
    PrintDatum(QStringLiteral("bytes"), reader.Totals().bytes);
    PrintDatum(QStringLiteral("key-id"), keyId);
    Say(QStringLiteral("signed %1 %2 for %3 with key %4: %5 files, %6 links")
            .arg(settings.build.package, settings.build.version, settings.build.platform, keyId)
            .arg(contents.files.size())
            .arg(contents.links.size()));
    return ExitDone;
}

// Both are complete before either is replaced; what they replace may be read meanwhile.
bool SignCommand::Place(const SignedSums& sums, QString& error)
{
    struct Row
    {
        QString path;
        QString staged;
        QByteArray text;
    };
    QList<Row> rows;
    for (const QString& name : SigningFileNames()) {
        const QString path = JoinPath(settings.tree, name);
        rows.append(
            {path, StagedPath(name), name == guard::SumsName() ? sums.text : sums.signature});
    }
    bool done = true;
    for (const Row& row : std::as_const(rows))
        done = done && WriteNewFile(row.staged, row.text, error);
    for (const Row& row : std::as_const(rows)) {
        std::error_code code;
        if (done)
            std::filesystem::rename(QFileInfo(row.staged).filesystemFilePath(),
                                    QFileInfo(row.path).filesystemFilePath(), code);
        if (code) {
            error = QStringLiteral("cannot replace %1: %2")
                        .arg(Shown(row.path), QString::fromLocal8Bit(code.message().c_str()));
            done = false;
        }
    }
    for (const Row& row : std::as_const(rows))
        QFile::remove(row.staged);
    return done && Sync(settings.tree, error);
}

QString SignCommand::StagedPath(const QString& name) const
{
    return common::DurableFiles::HiddenSibling(JoinPath(settings.tree, name),
                                               QStringLiteral(".kxtmp"));
}

ExitStatus SignCommand::Refuse()
{
    problems.PrintWarnings();
    problems.Print();
    return ExitRefused;
}

} // namespace publish
