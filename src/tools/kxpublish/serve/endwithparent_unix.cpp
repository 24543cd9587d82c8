#include "endwithparent.h"

#include <QProcess>

#include <csignal>
#include <unistd.h>

#ifdef __linux__
#include <sys/prctl.h>
#endif

namespace publish {

void EndWithParent(QProcess& process)
{
    process.setChildProcessModifier([parent = ::getpid()] {
        // A group of its own: Ctrl-C goes to this process alone, which then ends the other.
        ::setpgid(0, 0);
#ifdef __linux__
        ::prctl(PR_SET_PDEATHSIG, SIGTERM);
        // The parent may have gone before the request was made.
        if (::getppid() != parent)
            ::_exit(1);
#else
        Q_UNUSED(parent);
#endif
    });
}

} // namespace publish
