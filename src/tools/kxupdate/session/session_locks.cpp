// Who works on the directories: the locks that this process takes, and what others say of theirs.

#include "session.h"

#include "common/console.h"
#include "files/paths.h"
#include "lockowner.h"

#include <QDir>
#include <QFileInfo>

bool Session::TakesApplicationLock() const
{
    // A download must not read a tree that is being replaced, but may be made by who cannot write
    // beside it, and so cannot lock it.
    return Swaps() || application.SwapViolation().isEmpty();
}

bool Session::IsOwnLockFile(const QString& file)
{
    const QString problem = OwnFileProblem(file);
    if (!problem.isEmpty())
        Refuse(QStringLiteral("The lock file ") + problem);
    return problem.isEmpty();
}

bool Session::LockApplication()
{
    if (!IsOwnLockFile(application.LockPath()))
        return false;
    const guard::Problem problem = installGuard.Lock();
    if (problem.code == guard::InstallBusy)
        Refuse(BusyText(guard::FileLock::OwnerOf(application.LockPath()), application.Path()));
    else if (problem)
        Refuse(problem.text);
    return !problem;
}

bool Session::LockDownload()
{
    if (Assembles())
        QDir().mkpath(QFileInfo(download.Path()).absolutePath());
    if (!IsOwnLockFile(download.LockPath()))
        return false;
    downloadLock = std::make_unique<guard::FileLock>(download.LockPath());
    switch (downloadLock->Take()) {
    case guard::FileLock::Result::Taken:
        return true;
    case guard::FileLock::Result::Busy:
        Refuse(BusyText(guard::FileLock::OwnerOf(download.LockPath()), download.Path()));
        return false;
    case guard::FileLock::Result::Failed:
        break;
    }
    // Who only installs what is there need not be able to write beside it.
    if (Assembles())
        Refuse(downloadLock->Reason());
    return !Assembles();
}

void Session::TakeLocks()
{
    if (TakesApplicationLock() && !LockApplication())
        return;
    if (!LockDownload())
        return;
    record = RunRecord(download.RecordPath());
    // Who asks for it may have another try.
    if (!options.watch)
        record.ClearAttempts();
    Next();
}

void Session::ReportLock(const QString& name, const QString& file)
{
    const QString problem = OwnFileProblem(file);
    if (!problem.isEmpty()) {
        console.Message(QStringLiteral("The lock file ") + problem);
        return console.Data(name, QStringLiteral("unusable"));
    }
    console.Data(name, OwnerWord(guard::FileLock::OwnerOf(file)));
}
