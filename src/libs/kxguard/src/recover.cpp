#include <kxguard/recover.h>

#include "fileidentity.h"
#include "journal.h"
#include "recovery.h"
#include "treeinventory.h"

#include <kxcommon/durablefiles.h>
#include <kxguard/filelock.h>

#include <QDir>
#include <QFileInfo>
#include <QSet>

#include <algorithm>

namespace guard {
namespace {

using common::DurableFiles;

enum class Standing { Nothing, Directory, Other };

Standing StandingAt(const QString& path)
{
    const QFileInfo info(path);
    if (info.isSymLink())
        return Standing::Other;
    if (!info.exists())
        return Standing::Nothing;
    return info.isDir() ? Standing::Directory : Standing::Other;
}

QString Clean(const QString& appDir)
{
    return QDir::cleanPath(appDir);
}

/** One look at an application and what stands around it, and what follows from that. */
class Recoverer
{
public:
    Recoverer(const QString& appDir, Removals removals)
        : app(Clean(appDir)),
          old(app + QStringLiteral(".old")),
          fresh(DurableFiles::HiddenSibling(app, QStringLiteral(".kxnew"))),
          journalPath(Journal::PathFor(app)),
          unfinishedJournal(DurableFiles::HiddenSibling(journalPath, QStringLiteral(".kxtmp"))),
          mayRemove(removals == Removals::Do),
          hasJournal(Journal::Read(app, &journal))
    {
    }

    /** Without the lock: whether there is anything to do at all. */
    bool IsQuiet() const
    {
        if (StandingAt(journalPath) != Standing::Nothing || QFileInfo(unfinishedJournal).isFile())
            return false;
        return StandingAt(app) != Standing::Nothing || StandingAt(old) != Standing::Directory;
    }

    Recovery Look() const;
    Recovery Run();

private:
    bool IsOldVersion(const QString& path) const;
    bool IsProgram(const QList<InventoryEntry>& entries) const;
    bool HasNamesOfAVersion(const QList<InventoryEntry>& entries) const;
    QString PutBack();
    QString SetAside(const QList<InventoryEntry>& entries);
    QString Decide();
    QString CleanUp();
    void Say(const QString& text) { said << text; }

    const QString app;
    const QString old;
    const QString fresh;
    const QString journalPath;
    const QString unfinishedJournal;
    const bool mayRemove;
    Journal journal;
    const bool hasJournal;
    bool isForeign = false; // the journal speaks of other trees than those that stand here

    RecoveryState state = RecoveryState::Whole;
    QStringList said;
};

Recovery Recoverer::Look() const
{
    if (StandingAt(app) != Standing::Nothing)
        return {RecoveryState::Whole, QStringLiteral("'%1' stands.").arg(app)};
    return {RecoveryState::Absent,
            QStringLiteral("There is no '%1', and no backup of it.").arg(app)};
}

bool Recoverer::IsOldVersion(const QString& path) const
{
    if (journal.application == NoIdentity())
        return false;
    // Where the system does not tell directories apart, their names have to do.
    const QString identity = IdentityOf(path);
    return journal.application.isEmpty() || identity.isEmpty() || identity == journal.application;
}

// Whether a tree that is not what the install was putting there is a program all the same: the new
// version with changes, or a copy of the old one. A few files are none: a program that went on
// running, or whoever writes its logs, makes its directory again while it is moved aside.
bool Recoverer::IsProgram(const QList<InventoryEntry>& entries) const
{
    if (journal.HasAllNames(entries))
        return true;
    Journal oldOne;
    QString unreadable;
    return TakeInventory(old, &oldOne.entries, &unreadable) && !oldOne.entries.isEmpty() &&
           oldOne.Compare(entries) == Journal::Match::Complete;
}

bool Recoverer::HasNamesOfAVersion(const QList<InventoryEntry>& entries) const
{
    QList<InventoryEntry> versions;
    QString unreadable;
    if (!TakeInventory(old, &versions, &unreadable))
        return true;
    versions += journal.entries;
    QSet<QString> names;
    for (const InventoryEntry& entry : std::as_const(versions))
        names.insert(entry.name);
    return std::any_of(entries.begin(), entries.end(), [&names](const InventoryEntry& entry) {
        return names.contains(entry.name);
    });
}

// What stands in the application's place is no version of it, and the old one is in the backup.
QString Recoverer::SetAside(const QList<InventoryEntry>& entries)
{
    // Nothing of it is removed, and what may be somebody's attempt to mend is not even moved.
    const QString found = app + QStringLiteral(".kxfound");
    if (HasNamesOfAVersion(entries) || StandingAt(found) != Standing::Nothing)
        return QStringLiteral("'%1' holds neither the old version nor the new one, and the old one "
                              "is in '%2': remove the first and rename the second back, or remove "
                              "the second")
            .arg(app, old);
    const QString problem = DurableFiles::Rename(app, found);
    if (!problem.isEmpty())
        return problem;
    Say(QStringLiteral("'%1' held files that belong to no version; they are in '%2' now.")
            .arg(app, found));
    return PutBack();
}

// The old version, aside in the backup, comes back to its place.
QString Recoverer::PutBack()
{
    const QString problem = DurableFiles::Rename(old, app);
    if (!problem.isEmpty())
        return problem;
    state = RecoveryState::Restored;
    Say(QStringLiteral("An install was interrupted: '%1' was renamed back to '%2'.").arg(old, app));
    return QString();
}

// Both stand there, or the application alone, and a journal tells of an install.
QString Recoverer::Decide()
{
    if (IsOldVersion(app) && !journal.application.isEmpty())
        return QString(); // the swap had not begun, or has been undone
    // Nothing can be put back, and to list a large tree takes long.
    if (!mayRemove && StandingAt(old) == Standing::Nothing)
        return QString();
    QList<InventoryEntry> entries;
    QString unreadable;
    if (!TakeInventory(app, &entries, &unreadable))
        return QStringLiteral("Cannot list '%1'").arg(unreadable);
    const Journal::Match match = journal.Compare(entries);
    const bool hasOld = StandingAt(old) == Standing::Directory && IsOldVersion(old);

    if (match == Journal::Match::Complete) {
        if (!hasOld)
            return QString();
        if (!mayRemove)
            return QString();
        // Who was killed may have renamed the new version to its place and not brought that to
        // disk.
        QString problem = DurableFiles::SyncDirectoryOf(app);
        if (problem.isEmpty())
            problem = DurableFiles::RemoveTree(old);
        if (!problem.isEmpty())
            return problem;
        state = RecoveryState::Finished;
        Say(QStringLiteral("The new version stands in '%1'; the rest of the old one, '%2', is "
                           "removed.")
                .arg(app, old));
        return QString();
    }
    if (match == Journal::Match::Other) {
        // Said to be whole, the next install would remove the old version as a backup of no use.
        if (hasOld && !IsProgram(entries))
            return SetAside(entries);
        isForeign = true;
        Say(QStringLiteral("'%1' holds something else than the interrupted install was putting "
                           "there, so '%2' is left alone.")
                .arg(app, old));
        return QString();
    }
    // The numbers that tell directories apart are others after each start on some file systems.
    if (!hasOld && StandingAt(old) == Standing::Directory)
        return QStringLiteral("'%1' holds only a part of the version that an interrupted install "
                              "was putting there, and whether '%2' is the old one cannot be told: "
                              "remove the first and rename the second back, or remove the second")
            .arg(app, old);
    if (!hasOld) {
        state = RecoveryState::Absent;
        Say(QStringLiteral("'%1' holds only a part of the version that an interrupted install was "
                           "putting there, and no older one is left; an install replaces it.")
                .arg(app));
        return QString();
    }
    // Aside first, so that the old version is back before the long work begins.
    QString problem = DurableFiles::RemoveTree(fresh);
    if (problem.isEmpty())
        problem = DurableFiles::Rename(app, fresh);
    return problem.isEmpty() ? PutBack() : problem;
}

QString Recoverer::CleanUp()
{
    if (StandingAt(fresh) != Standing::Nothing && !isForeign) {
        if (!mayRemove)
            return QString();
        const QString problem = DurableFiles::RemoveTree(fresh);
        if (!problem.isEmpty())
            return problem;
        Say(QStringLiteral("The unfinished copy '%1' is removed.").arg(fresh));
        if (state == RecoveryState::Whole)
            state = RecoveryState::Cleaned;
    }
    // The rest of an old version waits for who may remove it.
    const bool isLeft = StandingAt(app) == Standing::Directory &&
                        StandingAt(old) == Standing::Directory && IsOldVersion(old) &&
                        journal.application != IdentityOf(app);
    if (isLeft && !mayRemove)
        return QString();
    const QString problem = DurableFiles::Remove(journalPath);
    if (!problem.isEmpty())
        return problem;
    if (state == RecoveryState::Whole)
        state = RecoveryState::Cleaned;
    return QString();
}

Recovery Recoverer::Run()
{
    const Standing appStands = StandingAt(app);
    const Standing oldStands = StandingAt(old);
    QString problem;
    if (appStands == Standing::Nothing && oldStands == Standing::Directory)
        problem = PutBack();
    else if (appStands == Standing::Nothing)
        state = RecoveryState::Absent;
    else if (appStands == Standing::Directory && hasJournal)
        problem = Decide();
    if (problem.isEmpty() && hasJournal)
        problem = CleanUp();
    // Its writer was killed before the swap began, and nobody else gives a file this name.
    if (problem.isEmpty() && QFileInfo(unfinishedJournal).isFile())
        problem = DurableFiles::Remove(unfinishedJournal);
    if (!problem.isEmpty())
        return {RecoveryState::Failed, (said + QStringList{problem + QLatin1Char('.')}).join(u' ')};
    if (!hasJournal && StandingAt(journalPath) != Standing::Nothing)
        Say(QStringLiteral("'%1' is no journal of an install, and nothing is removed because of "
                           "it; remove it.")
                .arg(journalPath));
    if (said.isEmpty())
        said << Look().text;
    return {state, said.join(u' ')};
}

// A process that was killed before its journal, or after it, leaves the file of its lock, which no
// later install may come to remove. Whoever may not do that can do without.
void RemoveLockOfNobody(const QString& path)
{
    if (StandingAt(path) == Standing::Nothing || FileLock::OwnerOf(path).process != 0)
        return;
    FileLock lock(path);
    lock.Take();
}

} // namespace

QString ApplicationViolation(const QString& appDir)
{
    const QString path = Clean(appDir);
    if (appDir.isEmpty() || !QDir::isAbsolutePath(path))
        return QStringLiteral("'%1' is not an absolute path").arg(appDir);
    const QFileInfo info(path);
    const QString canonical = info.exists() ? info.canonicalFilePath() : path;
    const QString home = QFileInfo(QDir::homePath()).canonicalFilePath();
    if (QDir(canonical).isRoot() || home == canonical ||
        home.startsWith(canonical + QLatin1Char('/')))
        return QStringLiteral("'%1' is the root, or holds the home directory").arg(appDir);
    if (info.isSymLink())
        return QStringLiteral("'%1' is a symbolic link").arg(appDir);
    if (info.exists() && !info.isDir())
        return QStringLiteral("'%1' is not a directory").arg(appDir);
    return QString();
}

Recovery RecoverLocked(const QString& appDir, Removals removals)
{
    return Recoverer(appDir, removals).Run();
}

Recovery Recover(const QString& appDir, int waitMs)
{
    const QString violation = ApplicationViolation(appDir);
    if (!violation.isEmpty())
        return {RecoveryState::Failed,
                QStringLiteral("Cannot recover an application: %1.").arg(violation)};
    const Recoverer look(appDir, Removals::Do);
    if (look.IsQuiet()) {
        RemoveLockOfNobody(ApplicationLockPath(Clean(appDir)));
        return look.Look();
    }
    FileLock lock(ApplicationLockPath(Clean(appDir)));
    switch (lock.Take(waitMs)) {
    case FileLock::Result::Taken:
        return RecoverLocked(appDir, Removals::Do);
    case FileLock::Result::Busy:
        return {RecoveryState::Busy,
                QStringLiteral("An install of '%1' is under way. %2").arg(appDir, lock.Reason())};
    case FileLock::Result::Failed:
        break;
    }
    return {RecoveryState::Failed, lock.Reason()};
}

} // namespace guard
