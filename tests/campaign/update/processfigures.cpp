#include "processfigures.h"

#include <QDir>
#include <QFile>

#include <cstdlib>

#include <malloc.h>
#include <unistd.h>

namespace kxtest {
namespace {

int EntriesOf(const QString& directory)
{
    return int(
        QDir(directory).entryList(QDir::NoDotAndDotDot | QDir::AllEntries | QDir::System).size());
}

} // namespace

ProcessFigures ProcessFigures::Now()
{
    ProcessFigures now;
    // Listing them takes a descriptor, always.
    now.descriptors = EntriesOf(QStringLiteral("/proc/self/fd"));
    now.threads = EntriesOf(QStringLiteral("/proc/self/task"));
    QFile memory(QStringLiteral("/proc/self/statm"));
    if (memory.open(QIODevice::ReadOnly))
        now.resident = memory.readAll().split(' ').value(1).toLongLong() * ::sysconf(_SC_PAGESIZE);
#ifndef KX_SANITIZED
    ::malloc_trim(0);
    const struct mallinfo2 blocks = ::mallinfo2();
    now.heap = qint64(blocks.uordblks) + qint64(blocks.hblkhd);
#endif
    return now;
}

QString ProcessFigures::Text() const
{
    return QStringLiteral("%1 descriptors, %2 threads, %3 bytes of heap, %4 resident")
        .arg(descriptors)
        .arg(threads)
        .arg(heap)
        .arg(resident);
}

void CountEveryByte(char** argv)
{
#ifdef KX_SANITIZED
    Q_UNUSED(argv)
#else
    static const char name[] = "GLIBC_TUNABLES";
    static const char value[] = "glibc.malloc.tcache_count=0:glibc.malloc.arena_max=1";
    if (qgetenv(name) == value)
        return;
    ::setenv(name, value, 1);
    ::execv("/proc/self/exe", argv);
#endif
}

} // namespace kxtest
