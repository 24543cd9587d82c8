#pragma once

#include "updaterjournal.h"

namespace kxtest {

// What the stages of an update leave in the journal of an UpdaterSite. A state's work stands
// between its entry and its exit; the order of everything is that of the calls.

/** Lines of the block that lists differences, as they stand in state `state`. */
inline QStringList Listed(const QString& state, const QString& title, const QStringList& names)
{
    const QString rule(46, '-');
    QStringList lines{rule, title};
    for (const QString& name : names)
        lines << "      * '" + name + "'";
    lines << rule;
    for (QString& line : lines)
        line = "7 " + state + ": " + line;
    return lines;
}

constexpr const char* downloadTitle = "This files must be downloaded:";
constexpr const char* deleteTitle = "This files must be deleted:";

/** A whole check, up to the verdict of the scan. */
inline QStringList UntilScanned(const QString& from)
{
    return QStringList{"7 " + from + ": <<<--- CHECK", "check()"} + Exited({from}) +
           Entered("CHECKING") + Entered("QUERYING") + QStringList{"packageReady()"} +
           Exited({"QUERYING"}) + Entered("SCANNING");
}

inline QStringList BecameActual()
{
    return QStringList{"6 SCANNING: No changes found in packages.", "packageActual()"} +
           Exited({"SCANNING"}) + Entered("ACTUAL");
}

inline QStringList BecameAvailable(const QString& text, const QString& verdict)
{
    return QStringList{"packageChanged()"} + Exited({"SCANNING"}) + Entered("AVAILABLE") +
           QStringList{"6 AVAILABLE: " + text, verdict, "available()"};
}

inline QStringList NewVersion(const QString& version)
{
    return BecameAvailable(QString("New version '%1' is avalable!").arg(version),
                           "updateAvailable()");
}

inline QStringList Repair()
{
    return BecameAvailable("Version is unchanged, but some files need to be updated!",
                           "updateRequered()");
}

/** COPYING, or DOWNLOADING, with work to do that brings the whole to `percent`. */
inline QStringList Worked(const QString& state, int percent, const QString& completion)
{
    return Entered(state) +
           QStringList{QString("7 %1:  done: 100%,  Total done: %2%...").arg(state).arg(percent),
                       QString("progress(%1)").arg(percent), completion} +
           Exited({state});
}

/** A state that finds nothing to do and says so in `line`. */
inline QStringList Idle(const QString& state, const QString& line, const QString& completion)
{
    return Entered(state) + QStringList{line.left(2) + state + ": " + line.mid(2), completion} +
           Exited({state});
}

/** From the command to the plan of a download phase. */
inline QStringList Planned(int copies, int downloads, int links, int deletions)
{
    const auto Line = [](int count, const char* text) {
        return QString("6 PREPARING: %1 %2").arg(count).arg(text);
    };
    return QStringList{"7 AVAILABLE: <<<--- DOWNLOAD", "download()"} +
           Exited({"AVAILABLE", "CHECKING"}) + Entered("PREPARING") +
           QStringList{Line(copies, "will be copied from local package."),
                       Line(downloads, "will be downloaded from server."),
                       Line(links, "symlinks will be created."),
                       Line(deletions, "will be deleted after update.")};
}

inline QStringList Copied(int percent)
{
    return Worked("COPYING", percent, "copyingComplete()");
}
inline QStringList NothingToCopy()
{
    return Idle("COPYING", "6 No files need to be copied!", "copyingComplete()");
}
inline QStringList Downloaded()
{
    return Worked("DOWNLOADING", 100, "downloadingComplete()");
}
inline QStringList NothingToDownload()
{
    return Idle("DOWNLOADING", "6 No files need be download!", "downloadingComplete()");
}
inline QStringList NothingToLink()
{
    return Idle("CREATINGSYMLINKS", "6 No symlinks to be created!", "creatingSymlinksComplete()");
}
inline QStringList Linked(const QString& link, const QString& target)
{
    return Idle("CREATINGSYMLINKS",
                QString("7 Successfully created symlink '%1' --> '%2'!").arg(link, target),
                "creatingSymlinksComplete()");
}

inline QStringList Succeeded(const QStringList& left)
{
    return Exited(left) + Entered("SUCCESS") + QStringList{"finished()"};
}

inline QStringList Verified()
{
    return Entered("VERIFICATION") +
           QStringList{"6 VERIFICATION: Verification successfully completed.",
                       "verificationComplete()"} +
           Succeeded({"VERIFICATION", "PREPARING"});
}

inline QStringList Restarted()
{
    return QStringList{"7 SUCCESS: <<<--- CANCEL", "7 SUCCESS: Restarting state machine..."} +
           Entered("WAITING");
}

/** Up to the callback, which is not set. */
inline QStringList InstallBegun()
{
    return QStringList{"7 WAITING: <<<--- INSTALL", "install()"} + Exited({"WAITING"}) +
           Entered("INSTALLING") + Entered("APPCALLBACK");
}
inline QStringList NoCallback()
{
    return QStringList{"callback 7 Callback is not set!", "appcallbackComplete()"} +
           Exited({"APPCALLBACK"});
}
inline QStringList NoStaleBackup()
{
    return Idle("BACKUPREMOVING", "7 Nothing to remove in '~/app.old'!",
                "backupRemovingComplete()");
}
inline QStringList StaleBackupRemoved()
{
    return Worked("BACKUPREMOVING", 5, "backupRemovingComplete()");
}
inline QStringList BackedUp()
{
    return Idle("BACKUPING", "7 Successfully renamed from '~/app' to '~/app.old'!",
                "backupingComplete()");
}
inline QStringList NothingToBackUp()
{
    return Idle("BACKUPING", "4 Cannot create backup. Application directory '~/app' isn't exist!",
                "backupingComplete()");
}
inline QStringList Moved()
{
    return Worked("MOVING", 80, "movingComplete()");
}
inline QStringList Installed()
{
    return QStringList{"7 BACKUPCLEARING: exited state BACKUPCLEARING", "progress(100)",
                       "7 BACKUPCLEARING: exited state INSTALLING"} +
           Entered("SUCCESS") + QStringList{"finished()"};
}
inline QStringList BackupCleared()
{
    return Entered("BACKUPCLEARING") +
           QStringList{"7 BACKUPCLEARING:  done: 100%,  Total done: 100%...", "progress(100)",
                       "backupClearingComplete()"} +
           Installed();
}

inline QStringList Failed(const QStringList& left)
{
    return Exited(left) + Entered("FAILED");
}

} // namespace kxtest
