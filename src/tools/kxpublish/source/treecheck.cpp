#include "treecheck.h"

#include "linkcheck.h"
#include "names.h"
#include "output/console.h"
#include "output/progress.h"

#include <algorithm>

namespace publish {

namespace {

constexpr const char* rulesName = ".kxpublishignore";
constexpr qint64 maxRules = 1024 * 1024;

// Case folding as file systems do it: a sharp s and "SS" are the same. Qt folds character by
// character, and knows of more than one for its upper case only.
QString Folded(const QString& text)
{
    QString folded;
    for (const QChar c : text.toCaseFolded()) {
        const QString upper = QString(c).toUpper();
        folded += upper.size() > 1 ? upper.toCaseFolded() : QString(c);
    }
    return folded;
}

bool IsAscii(const QString& text)
{
    return std::all_of(text.begin(), text.end(), [](QChar c) { return c.unicode() < 0x80; });
}

} // namespace

QString JoinPath(const QString& directory, const QString& name)
{
    return directory.isEmpty() ? name : directory + QLatin1Char('/') + name;
}

QString TreeContents::LeftOutBy(const QString& path) const
{
    for (qsizetype end = path.size(); end > 0; end = path.lastIndexOf(QLatin1Char('/'), end - 1)) {
        const QString rule = leftOut.value(path.left(end));
        if (!rule.isEmpty())
            return rule;
    }
    return {};
}

TreeCheck::TreeCheck(const QString& root, const QString& baseUrl, const QString& filesPath,
                     const QStringList& excludes, Problems* problems, ProgressMeter* progress)
    : root(root),
      baseUrl(baseUrl),
      filesPath(filesPath),
      excludes(excludes),
      problems(problems),
      progress(progress)
{
}

void TreeCheck::Run()
{
    progress->Begin(Progress::Checking, 0, 0);
    CheckDirectory(QString(), true);
    CheckLinks(contents, problems);
    if (problems->IsEmpty() && contents.files.isEmpty() && contents.links.isEmpty())
        problems->Refuse(Shown(root),
                         contents.leftOut.isEmpty()
                             ? QStringLiteral("the tree has no file and no link")
                             : QStringLiteral("every file and link of the tree is left out"));
    // A pattern that is misspelt leaves in what was to be kept back.
    for (const QByteArray& pattern : rules.UnusedOptions())
        problems->Warn(QStringLiteral("--exclude ") + Shown(pattern),
                       QStringLiteral("matches nothing that another rule does not decide on"));
    progress->End();
}

QString TreeCheck::RulesName()
{
    return QLatin1String(rulesName);
}

const TreeContents& TreeCheck::Contents() const
{
    return contents;
}

void TreeCheck::CheckDirectory(const QString& directory, bool nameIsGood)
{
    QList<TreeEntry> entries;
    QString error;
    if (!ListDirectory(JoinPath(root, directory), entries, error)) {
        problems->Refuse(Shown(directory.isEmpty() ? root : directory),
                         QStringLiteral("the directory cannot be listed: ") + error);
        return;
    }
    if (entries.isEmpty() && !directory.isEmpty())
        problems->Warn(Shown(directory),
                       QStringLiteral("the directory is empty; clients will not have it"));
    // The order of messages must not depend on the file system.
    std::sort(entries.begin(), entries.end(),
              [](const TreeEntry& a, const TreeEntry& b) { return a.nativeName < b.nativeName; });
    const size_t mark = rules.Mark();
    if (ReadRules(entries, directory)) {
        LeaveOut(entries, directory);
        CheckSiblings(entries, directory);
        for (const TreeEntry& entry : std::as_const(entries))
            CheckEntry(entry, directory, nameIsGood);
    }
    // Those of the root tell afterwards which of them were of use.
    if (!directory.isEmpty())
        rules.Restore(mark);
    progress->Tick();
}

// With wrong rules everything would be wrong: then the directory is not looked at.
bool TreeCheck::ReadRules(const QList<TreeEntry>& entries, const QString& directory)
{
    const auto entry = std::find_if(entries.begin(), entries.end(), [](const TreeEntry& candidate) {
        return candidate.name == QLatin1String(rulesName);
    });
    if (entry != entries.end()) {
        const QString name = JoinPath(directory, QLatin1String(rulesName));
        QFile file;
        int mode = 0;
        QString error;
        QByteArray text;
        if (!OpenRegularFile(file, JoinPath(root, name), mode, error))
            error = QStringLiteral("cannot be read: ") + error;
        else if ((text = file.read(maxRules + 1)).size() > maxRules)
            error = QStringLiteral("is longer than %1 bytes").arg(maxRules);
        else if (file.error() != QFileDevice::NoError)
            error = QStringLiteral("cannot be read: ") + file.errorString();
        else if (text.contains('\0'))
            error = QStringLiteral("is not a text");
        if (!error.isEmpty()) {
            problems->Refuse(Shown(name), error);
            return false;
        }
        QStringList doubts;
        rules.AddFile(QFile::encodeName(directory), name, text, doubts);
        for (const QString& doubt : std::as_const(doubts))
            problems->Warn(Shown(name), doubt + QStringLiteral(": can match no name"));
    }
    if (directory.isEmpty())
        AddExcludes();
    return true;
}

void TreeCheck::AddExcludes()
{
    for (const QString& pattern : std::as_const(excludes)) {
        const QString problem = rules.AddOption(QFile::encodeName(pattern));
        if (!problem.isEmpty())
            problems->Refuse(QStringLiteral("--exclude ") + Shown(pattern), problem);
    }
}

void TreeCheck::LeaveOut(QList<TreeEntry>& entries, const QString& directory)
{
    const QByteArray above =
        directory.isEmpty() ? QByteArray() : QFile::encodeName(directory) + '/';
    const auto isLeftOut = [&](const TreeEntry& entry) {
        if (entry.name == QLatin1String(rulesName))
            return true;
        const QByteArray path = above + entry.nativeName;
        const IgnoreRule* rule = rules.Match(path, entry.kind == TreeEntry::Directory);
        if (rule)
            contents.leftOut.insert(QFile::decodeName(path), rule->Shown());
        return rule != nullptr;
    };
    entries.erase(std::remove_if(entries.begin(), entries.end(), isLeftOut), entries.end());
}

void TreeCheck::CheckEntry(const TreeEntry& entry, const QString& directory, bool nameIsGood)
{
    const QString name = JoinPath(directory, entry.name);
    const bool good = CheckName(entry, directory, nameIsGood);
    // Below a hidden directory everything is hidden, and what has no text cannot be opened.
    if (entry.hidden || entry.name.isEmpty())
        return;
    switch (entry.kind) {
    case TreeEntry::Directory:
        contents.directories.insert(name);
        CheckDirectory(name, nameIsGood && good);
        break;
    case TreeEntry::RegularFile:
        CheckFile(entry, name);
        break;
    case TreeEntry::Link:
        CheckLink(entry, name);
        break;
    case TreeEntry::Special:
        problems->Refuse(Shown(name), QStringLiteral("neither file, link nor directory"));
        break;
    }
}

bool TreeCheck::CheckName(const TreeEntry& entry, const QString& directory, bool nameIsGood)
{
    const QByteArray native = directory.isEmpty()
                                  ? entry.nativeName
                                  : QFile::encodeName(directory) + '/' + entry.nativeName;
    if (entry.name.isEmpty()) {
        problems->Refuse(Shown(native),
                         QStringLiteral("the name is not UTF-8 without a byte order mark"));
        return false;
    }
    const QString name = JoinPath(directory, entry.name);
    if (entry.hidden) {
        problems->Refuse(Shown(name),
                         QStringLiteral("hidden; clients skip hidden entries. Leave it out with "
                                        "--exclude or in .kxpublishignore"));
        return false;
    }
    // What is wrong with a directory's name is said once, not for everything below it.
    const QString problem = PathProblem(nameIsGood ? name : entry.name, baseUrl);
    if (!problem.isEmpty()) {
        problems->Refuse(Shown(name), problem);
        return false;
    }
    if (nameIsGood && QFile::encodeName(filesPath).size() + 1 + native.size() > MaxPathLength())
        problems->Refuse(
            Shown(name),
            QStringLiteral("the path is too long below %1 on the server").arg(Shown(filesPath)));
    return true;
}

// File systems that ignore case or normalisation cannot hold both of two such names. Directories
// are siblings as well, so comparing the names of one directory at a time compares whole paths.
void TreeCheck::CheckSiblings(const QList<TreeEntry>& entries, const QString& directory)
{
    QHash<QString, QString> seen;
    for (const TreeEntry& entry : entries) {
        if (entry.name.isEmpty())
            continue;
        const QString decomposed = entry.name.normalized(QString::NormalizationForm_D);
        // Qt is quick to see that ASCII is normalised, and slow to fold it letter by letter.
        const QString key = IsAscii(decomposed)
                                ? decomposed.toLower()
                                : Folded(decomposed).normalized(QString::NormalizationForm_D);
        const auto other = seen.constFind(key);
        if (other == seen.constEnd()) {
            seen.insert(key, entry.name);
            continue;
        }
        const bool sameLetters =
            other.value().normalized(QString::NormalizationForm_D) == decomposed;
        problems->Refuse(Shown(JoinPath(directory, entry.name)),
                         (sameLetters
                              ? QStringLiteral("differs from %1 only in Unicode normalisation")
                              : QStringLiteral("differs from %1 only in case"))
                             .arg(Shown(JoinPath(directory, other.value()))));
    }
}

void TreeCheck::CheckFile(const TreeEntry& entry, const QString& name)
{
    contents.files.insert(name, {entry.status, entry.status.IsYoung()});
    progress->Add(1, entry.status.size);
    // A client gives the file the same mode, and then has to read it to verify it.
    if (!(entry.status.mode & 0400)) {
        problems->Refuse(Shown(name), QStringLiteral("its owner may not read it"));
        return;
    }
    QString error;
    if (!CanRead(JoinPath(root, name), error))
        problems->Refuse(Shown(name), QStringLiteral("cannot be read: ") + error);
}

void TreeCheck::CheckLink(const TreeEntry& entry, const QString& name)
{
    const QString target = QString::fromUtf8(entry.nativeTarget);
    if (target.toUtf8() != entry.nativeTarget) {
        problems->Refuse(
            Shown(name),
            QStringLiteral("the target of the link is not UTF-8 without a byte order mark"));
        return;
    }
    const QString problem = TargetTextProblem(target);
    if (problem.isEmpty())
        contents.links.insert(name, target);
    else
        problems->Refuse(Shown(name), problem);
}

} // namespace publish
