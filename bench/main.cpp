// kxbench [--dir DIRECTORY] [--benchmark_filter=REGEX] [--benchmark_out=FILE.json] ...
//
// Cases of the library stand beside those of their peers and are measured in one run. The working
// directory should lie on the file system that is of interest; the default is the temporary one.

#include "updaterun.h"
#include "workload.h"

#include <benchmark/benchmark.h>

#include <QCoreApplication>
#include <QDir>

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.value(1) == QLatin1String("--update-run"))
        return kxbench::RunUpdate(arguments.mid(2));

    benchmark::Initialize(&argc, argv);
    if (argc == 3 && qstrcmp(argv[1], "--dir") == 0 &&
        QDir(QString::fromLocal8Bit(argv[2])).exists()) {
        kxbench::SetBaseDirectory(QString::fromLocal8Bit(argv[2]));
        argc = 1;
    }
    if (argc > 1) {
        qCritical("kxbench: '%s' is neither --dir EXISTING-DIRECTORY nor an option of the "
                  "benchmark library",
                  argv[1]);
        return 2;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
