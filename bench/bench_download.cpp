// Fetching files from nginx on the loopback interface, against curl with as many transfers at once.

#include "workload.h"

#include <benchmark/benchmark.h>
#include <kxupdater/downloader.h>
#include <manifest.h>
#include <nginxserver.h>
#include <treebuilder.h>

#include <QNetworkAccessManager>

namespace {

// Arguments: files, bytes of each.
void Sizes(benchmark::internal::Benchmark* benchmark)
{
    benchmark->Args({2000, 4096})->Args({1, 512 << 20});
    benchmark->ArgNames({"files", "bytes"})->Unit(benchmark::kMillisecond)->UseRealTime();
    benchmark->Iterations(1)->Repetitions(3)->ReportAggregatesOnly();
}

struct Served
{
    Served(qint64 count, qint64 size) : root(kxbench::SharedTree(count, size)), server(root)
    {
        files = kxtest::ScanForManifest(root);
        if (!server.Start())
            qFatal("%s", qPrintable(server.Error()));
    }

    const kxbench::Workspace workspace;
    const QString root;
    kxtest::NginxServer server;
    updater::FileList files;
};

void DownloadKxupdater(benchmark::State& state)
{
    Served served(state.range(0), state.range(1));
    for (auto _ : state) {
        QNetworkAccessManager manager;
        updater::Downloader downloader(&manager, nullptr);
        downloader.SetURL(served.server.Url());
        downloader.SetDownloadPath(served.workspace.Path(QStringLiteral("kx")));
        downloader.SetFiles(served.files);
        downloader.Start();
        kxbench::WaitFor(&downloader, SIGNAL(complete()), SIGNAL(failed(int, const QString&)));
    }
    state.SetBytesProcessed(state.iterations() * state.range(0) * state.range(1));
}

void DownloadCurl(benchmark::State& state)
{
    Served served(state.range(0), state.range(1));
    QByteArray config;
    for (const updater::File& file : served.files) {
        config += "url = \"" + served.server.Url(file.Name()).toUtf8() + "\"\noutput = \"" +
                  served.workspace.Path(QStringLiteral("curl/") + file.Name()).toUtf8() + "\"\n";
    }
    const QString configPath = served.workspace.Path(QStringLiteral("curl.conf"));
    kxtest::Write(configPath, config);
    for (auto _ : state) {
        kxbench::RunPeer(QStringLiteral("curl"),
                         {QStringLiteral("--silent"), QStringLiteral("--no-progress-meter"),
                          QStringLiteral("--fail"), QStringLiteral("--create-dirs"),
                          QStringLiteral("--parallel"), QStringLiteral("--parallel-max"),
                          QStringLiteral("4"), QStringLiteral("--config"), configPath});
    }
    state.SetBytesProcessed(state.iterations() * state.range(0) * state.range(1));
}

} // namespace

BENCHMARK(DownloadKxupdater)->Apply(Sizes);
BENCHMARK(DownloadCurl)->Apply(Sizes);
