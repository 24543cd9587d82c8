// A process of its own for the tests of copying and removing: it can be killed at a chosen step,
// and it can be given a small volume that nobody else sees.
//
//     kxfilechild [--die STEP N] [--small-disk DIR BYTES] [--file-limit BYTES]
//                 (copydir|copyfile SOURCE DESTINATION | remove DIR)
//
// Prints "succeeded" or "failed CODE TEXT", then the entries of the small disk.

#include "fileops.h"
#include "treebuilder.h"

#include <kxcommon/filecopier.h>
#include <kxcommon/fileremover.h>

#include <QCoreApplication>
#include <QFile>
#include <QTextStream>

#include <atomic>
#include <csignal>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <unistd.h>

namespace {

using common::fileops::Step;

int fatalStep = -1;
std::atomic<int> stepsLeft{0};

int DieAt(Step step)
{
    if (static_cast<int>(step) == fatalStep && --stepsLeft == 0)
        kill(getpid(), SIGKILL);
    return 0;
}

bool WriteFile(const char* path, const QByteArray& text)
{
    QFile file(QString::fromLatin1(path));
    return file.open(QIODevice::WriteOnly) && file.write(text) == text.size();
}

// A volume in a mount namespace of this process; it goes with the process.
bool MountSmallDisk(const QString& directory, const QString& bytes)
{
    const uid_t user = getuid();
    const gid_t group = getgid();
    if (user != 0) {
        if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0 || !WriteFile("/proc/self/setgroups", "deny"))
            return false;
        WriteFile("/proc/self/uid_map", QByteArray("0 " + QByteArray::number(user) + " 1"));
        WriteFile("/proc/self/gid_map", QByteArray("0 " + QByteArray::number(group) + " 1"));
    } else if (unshare(CLONE_NEWNS) != 0) {
        return false;
    }
    const QByteArray options = "mode=0777,size=" + bytes.toLatin1();
    return mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount("none", qPrintable(directory), "tmpfs", 0, options.constData()) == 0;
}

} // namespace

int main(int argc, char** argv)
{
    QStringList arguments;
    for (int i = 1; i < argc; ++i)
        arguments << QString::fromLocal8Bit(argv[i]);
    QTextStream out(stdout);
    QString smallDisk;
    while (!arguments.isEmpty() && arguments.first().startsWith(QLatin1String("--"))) {
        const QString option = arguments.takeFirst();
        if (option == QLatin1String("--die")) {
            fatalStep = arguments.takeFirst().toInt();
            stepsLeft = arguments.takeFirst().toInt();
            common::fileops::stepHook = DieAt;
        } else if (option == QLatin1String("--small-disk")) {
            smallDisk = arguments.takeFirst();
            if (!MountSmallDisk(smallDisk, arguments.takeFirst())) {
                out << "no namespace\n";
                return 2;
            }
        } else {
            const rlimit limit = {arguments.first().toULongLong(), arguments.first().toULongLong()};
            arguments.removeFirst();
            std::signal(SIGXFSZ, SIG_IGN);
            setrlimit(RLIMIT_FSIZE, &limit);
        }
    }

    QCoreApplication app(argc, argv);
    common::FileCopier copier;
    common::FileRemover remover;
    const auto succeed = [&] {
        out << "succeeded\n";
        app.quit();
    };
    const auto fail = [&](int code, const QString& text) {
        out << "failed " << code << " " << text << "\n";
        app.quit();
    };
    QObject::connect(&copier, &common::FileCopier::succesed, succeed);
    QObject::connect(&copier, &common::FileCopier::failed, fail);
    QObject::connect(&remover, &common::FileRemover::succesed, succeed);
    QObject::connect(&remover, &common::FileRemover::failed, fail);
    if (arguments.value(0) == QLatin1String("remove")) {
        remover.AddDirectory(arguments.value(1));
        remover.Remove();
    } else {
        if (arguments.value(0) == QLatin1String("copydir"))
            copier.AddDirectory(arguments.value(1), arguments.value(2));
        else
            copier.AddFile(arguments.value(1), arguments.value(2));
        copier.Copy();
    }
    app.exec();
    if (!smallDisk.isEmpty())
        out << kxtest::Snapshot(smallDisk).join(QLatin1Char('\n')) << "\n";
    return 0;
}
