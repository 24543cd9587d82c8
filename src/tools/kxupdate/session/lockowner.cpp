#include "lockowner.h"

#include <QCoreApplication>

namespace {

bool IsThisProgram(const guard::FileLock::Owner& owner)
{
    return owner.program == QCoreApplication::applicationName();
}

} // namespace

QString BusyText(const guard::FileLock::Owner& owner, const QString& subject)
{
    // It may have ended since, and another may not tell who it is.
    if (owner.process <= 0)
        return QStringLiteral("Another process is working on '%1'.").arg(subject);
    if (IsThisProgram(owner))
        return QStringLiteral("Another kxupdate (process %1) is working on '%2'.")
            .arg(owner.process)
            .arg(subject);
    return QStringLiteral("%1 (process %2) is working on '%3'.")
        .arg(owner.program.isEmpty() ? QStringLiteral("Another program")
                                     : QStringLiteral("The program '%1'").arg(owner.program))
        .arg(owner.process)
        .arg(subject);
}

QString OwnerWord(const guard::FileLock::Owner& owner)
{
    if (owner.process == 0)
        return QStringLiteral("free");
    if (owner.process < 0)
        return QStringLiteral("unknown process");
    const QString word = QStringLiteral("process %1").arg(owner.process);
    return IsThisProgram(owner) || owner.program.isEmpty()
               ? word
               : word + QStringLiteral(" (%1)").arg(owner.program);
}
