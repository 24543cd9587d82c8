#include "start.h"

#include <QProcess>

#include <cstdlib>

QString StartProgram(const QString& program, const QStringList& arguments)
{
    QProcess process;
    process.setProgram(program);
    process.setArguments(arguments);
    if (!process.startDetached())
        return process.errorString();
    std::exit(EXIT_SUCCESS);
}
