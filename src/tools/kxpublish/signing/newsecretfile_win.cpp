#include "newsecretfile.h"

namespace publish {

bool OpenNewSecretFile(QFile& file, const QString& path, QString& error)
{
    // Who may read it follows from the directory here; those of a user are closed to others.
    file.setFileName(path);
    if (file.open(QIODevice::WriteOnly | QIODevice::NewOnly | QIODevice::Unbuffered))
        return true;
    error = file.errorString();
    return false;
}

} // namespace publish
