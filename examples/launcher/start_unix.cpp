#include "start.h"

#include <QByteArray>
#include <QFile>

#include <cerrno>
#include <cstring>
#include <unistd.h>
#include <vector>

QString StartProgram(const QString& program, const QStringList& arguments)
{
    std::vector<QByteArray> texts = {QFile::encodeName(program)};
    for (const QString& argument : arguments)
        texts.push_back(argument.toLocal8Bit());
    std::vector<char*> pointers;
    for (QByteArray& text : texts)
        pointers.push_back(text.data());
    pointers.push_back(nullptr);
    execv(pointers.front(), pointers.data());
    return QString::fromLocal8Bit(std::strerror(errno));
}
