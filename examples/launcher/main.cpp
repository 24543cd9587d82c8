// Starts a program that updates itself. An install that was cut off may have left the program's
// directory only as its backup, and a program that is missing cannot put itself back: this one
// does, from a place that no update replaces.
//
//     launcher DIRECTORY PROGRAM [ARGUMENT...]
//
// DIRECTORY is the application directory, absolute; PROGRAM is relative to it.

#include "start.h"

#include <kxguard/recover.h>

#include <QCoreApplication>
#include <QDir>
#include <QTextStream>

int main(int argc, char** argv)
{
    const QCoreApplication app(argc, argv);
    QTextStream err(stderr);
    const QStringList args = app.arguments();
    if (args.size() < 3 || !QDir::isAbsolutePath(args[1])) {
        err << "Usage: launcher DIRECTORY PROGRAM [ARGUMENT...]" << Qt::endl;
        return 2;
    }
    const QString& appDir = args[1];

    //! [recover]
    // Waits a minute for an install that is under way in another process.
    const guard::Recovery recovery = guard::Recover(appDir, 60 * 1000);
    if (!recovery.IsWhole())
        err << recovery.text << Qt::endl;
    // While it is being replaced the program would load files of two versions. What merely could
    // not be cleared away (Failed) is no reason to keep from starting it.
    if (recovery.state == guard::RecoveryState::Busy ||
        recovery.state == guard::RecoveryState::Absent)
        return 1;
    //! [recover]

    const QString program = QDir(appDir).absoluteFilePath(args[2]);
    const QString reason = StartProgram(program, args.mid(3));
    err << "Cannot start '" << program << "': " << reason << Qt::endl;
    return 1;
}
