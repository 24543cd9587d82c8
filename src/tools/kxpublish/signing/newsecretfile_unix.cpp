#include "newsecretfile.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace publish {

bool OpenNewSecretFile(QFile& file, const QString& path, QString& error)
{
    // With its mode from the first moment: a file that is closed to others later may be open
    // somewhere by then.
    const int descriptor =
        ::open(QFile::encodeName(path).constData(),
               O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC, 0600);
    if (descriptor < 0) {
        error = QString::fromLocal8Bit(std::strerror(errno));
        return false;
    }
    if (file.open(descriptor, QIODevice::WriteOnly | QIODevice::Unbuffered,
                  QFileDevice::AutoCloseHandle))
        return true;
    error = file.errorString();
    ::close(descriptor);
    return false;
}

} // namespace publish
