#pragma once

#include <QCoreApplication>
#include <QEventLoop>
#include <QPair>
#include <QString>
#include <QStringList>
#include <QThread>
#include <QTimer>
#include <QVector>

#include <cstdio>
#include <dirent.h>
#include <sys/wait.h>

namespace kxtest {

/** What a copier or a remover signalled in one run. */
struct FileRun
{
    int succeeded = 0;
    int failures = 0;
    int code = 0;
    QString text;
    QVector<QPair<int, int>> progress;
    bool isFromInside = false; //!< something came from inside the call
    bool isElsewhere = false;  //!< something came on another thread

    bool IsGood() const { return succeeded == 1 && failures == 0; }
    bool HasFailed(int with) const { return succeeded == 0 && failures == 1 && code == with; }
    QString Line() const
    {
        return QStringLiteral("succeeded %1, failed %2 with %3 '%4'")
            .arg(succeeded)
            .arg(failures)
            .arg(code)
            .arg(text);
    }
};

/** Runs `worker`, whose run `start` starts, to its end and whatever comes after it. */
template <typename Worker, typename Start>
FileRun RunToEnd(Worker& worker, Start start)
{
    FileRun run;
    bool isInside = true;
    QEventLoop loop;
    QThread* const owner = QThread::currentThread();
    const auto note = [&] {
        run.isFromInside = run.isFromInside || isInside;
        run.isElsewhere = run.isElsewhere || QThread::currentThread() != owner;
    };
    QObject context;
    QObject::connect(&worker, &Worker::succesed, &context, [&] {
        note();
        ++run.succeeded;
        loop.quit();
    });
    QObject::connect(&worker, &Worker::failed, &context, [&](int code, const QString& text) {
        note();
        ++run.failures;
        run.code = code;
        run.text = text;
        loop.quit();
    });
    QObject::connect(&worker, &Worker::progress, &context, [&](int done, int total) {
        note();
        run.progress << qMakePair(done, total);
    });
    if (!(worker.*start)())
        return run;
    isInside = false;
    QTimer::singleShot(120000, &loop, &QEventLoop::quit);
    loop.exec();
    QCoreApplication::sendPostedEvents();
    QCoreApplication::processEvents();
    return run;
}

/** Whether a progress never went back, kept its total, and ended at it. */
inline bool IsSound(const QVector<QPair<int, int>>& progress)
{
    if (progress.isEmpty() || progress.last().first != progress.last().second)
        return false;
    int before = 0;
    for (const auto& [done, total] : progress) {
        if (total < 1 || total != progress.last().second || done < before || done > total)
            return false;
        before = done;
    }
    return true;
}

/** What kxfilechild printed and how it ended. */
struct ChildRun
{
    QString output;
    bool wasKilled = false;
};

/**
 * Runs kxfilechild with `arguments`, which hold neither spaces nor quotes. By popen(), because the
 * thread sanitizer gives up on threads that are started after the way in which QProcess forks.
 */
inline ChildRun RunChild(const QStringList& arguments)
{
    const QString command =
        QStringLiteral("exec '%1/kxfilechild' %2")
            .arg(QCoreApplication::applicationDirPath(), arguments.join(QLatin1Char(' ')));
    ChildRun run;
    FILE* const pipe = popen(qPrintable(command), "r");
    if (!pipe)
        return run;
    QByteArray bytes;
    char buffer[4096];
    while (const size_t size = fread(buffer, 1, sizeof(buffer), pipe))
        bytes.append(buffer, static_cast<qsizetype>(size));
    run.output = QString::fromUtf8(bytes);
    run.wasKilled = WIFSIGNALED(pclose(pipe));
    return run;
}

/** The number of threads of this process. */
inline int ThreadCount()
{
    int count = 0;
    DIR* const tasks = opendir("/proc/self/task");
    while (tasks && readdir(tasks))
        ++count;
    if (tasks)
        closedir(tasks);
    return count - 2;
}

} // namespace kxtest
