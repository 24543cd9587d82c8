// A whole update over HTTP in a process of its own: its peak memory and the longest gap of its
// event loop. One file in ten has changed; the others are copied.

#include "workload.h"

#include <benchmark/benchmark.h>
#include <kxupdater/build.h>
#include <manifest.h>
#include <nginxserver.h>

#include <QCoreApplication>
#include <QDir>
#include <QProcess>

namespace {

// Arguments: files, bytes of each.
void Update(benchmark::State& state)
{
    const kxbench::Workspace workspace;
    const QString application = workspace.Path(QStringLiteral("app"));
    const QString next = workspace.Path(QStringLiteral("next"));
    const QString root = workspace.Path(QStringLiteral("server"));
    kxbench::MakeTree(application, state.range(0), state.range(1));
    kxbench::MakeTree(next, state.range(0), state.range(1));
    kxbench::ChangeTree(next, state.range(0), state.range(1), 10);
    QDir().mkpath(root);

    kxtest::NginxServer server(root);
    if (!server.Start())
        qFatal("%s", qPrintable(server.Error()));
    kxtest::PublishTree(root, QStringLiteral("app"), QStringLiteral("2.0"),
                        updater::Build::Platform(), next, server.Url());

    for (auto _ : state) {
        QProcess child;
        child.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        child.start(QCoreApplication::applicationFilePath(),
                    {QStringLiteral("--update-run"), server.Url(), application,
                     workspace.Path(QStringLiteral("download"))});
        child.waitForFinished(-1);
        const QList<QByteArray> figures = child.readAllStandardOutput().simplified().split(' ');
        if (child.exitCode() != 0 || figures.size() != 2) {
            state.SkipWithError("the update failed");
            break;
        }
        state.counters["peak_MiB"] = figures.at(0).toDouble() / 1024;
        state.counters["longest_gap_ms"] = figures.at(1).toDouble();
    }
}

} // namespace

BENCHMARK(Update)
    ->ArgNames({"files", "bytes"})
    ->Args({1000, 1024})
    ->Args({20000, 1024})
    ->Args({100000, 1024})
    ->Args({20, 1 << 20})
    ->Args({20, 64 << 20})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(1);
