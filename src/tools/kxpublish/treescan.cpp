#include "treescan.h"

#include "interrupt.h"

#include <kxupdater/filescanner.h>

#include <QEventLoop>
#include <QTimer>

namespace publish {

bool ScanTree(const QString& root, updater::FileList& files, QString& error)
{
    updater::FileScanner scanner(root);
    QEventLoop loop;
    bool succeeded = false;
    bool ended = false;
    QObject::connect(&scanner, &updater::FileScanner::succesed, &loop, [&] {
        succeeded = true;
        ended = true;
        loop.quit();
    });
    QObject::connect(&scanner, &updater::FileScanner::failed, &loop, [&](int, const QString& text) {
        error = text;
        ended = true;
        loop.quit();
    });
    // A signal handler may do no more than set a flag, so somebody has to look at it.
    QTimer poll;
    QObject::connect(&poll, &QTimer::timeout, &loop, [&] {
        if (IsInterrupted()) {
            poll.stop();
            scanner.Abort(true);
        }
    });
    poll.start(100);
    scanner.Scan();
    if (!ended)
        loop.exec();
    files = scanner.Files();
    return succeeded;
}

} // namespace publish
