// Fetching files from nginx on the loopback interface, against curl with as many transfers at once.

#include "workload.h"

#include <benchmark/benchmark.h>
#include <kxupdater/build.h>
#include <kxupdater/downloader.h>
#include <kxupdater/iupdater.h>
#include <kxupdater/transferprogress.h>
#include <manifest.h>
#include <nginxserver.h>
#include <treebuilder.h>

#include <QDir>
#include <QElapsedTimer>
#include <QNetworkAccessManager>
#include <QTimer>

#include <memory>

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

// The DOWNLOADING step of an updater with nothing installed: alone, and watched by a host that asks
// for everything each time that it is told to.
void DownloadStep(benchmark::State& state)
{
    const kxbench::Workspace workspace;
    const QString tree = kxbench::SharedTree(state.range(0), state.range(1));
    const QString root = workspace.Path(QStringLiteral("server"));
    QDir().mkpath(root);
    kxtest::NginxServer server(root);
    if (!server.Start())
        qFatal("%s", qPrintable(server.Error()));
    kxtest::PublishTree(root, QStringLiteral("app"), QStringLiteral("2.0"),
                        updater::Build::Platform(), tree, server.Url());

    for (auto _ : state) {
        QNetworkAccessManager manager;
        std::unique_ptr<updater::IUpdater> updater(updater::CreateUpdater(&manager, nullptr));
        updater->SetURL(server.Url());
        updater->SetPackageName(QStringLiteral("app"));
        updater->SetCurrentVersion(QStringLiteral("1.0"));
        updater->SetLocalPackagePath(workspace.Path(QStringLiteral("app")));
        updater->SetDownloadPath(workspace.Path(QStringLiteral("next")));
        quint64 asked = 0;
        std::unique_ptr<updater::TransferProgress> progress;
        if (state.range(2) != 0) {
            progress = std::make_unique<updater::TransferProgress>(updater.get());
            QObject::connect(progress.get(), &updater::TransferProgress::changed, progress.get(),
                             [&progress, &asked] {
                                 asked += progress->BytesDone() + progress->BytesTotal() +
                                          quint64(progress->FilesDone()) +
                                          quint64(progress->SecondsLeft()) +
                                          quint64(progress->ActiveFiles().size());
                             });
        }
        QElapsedTimer clock;
        QObject::connect(updater.get(), &updater::IUpdater::downloading, updater.get(),
                         [&clock] { clock.start(); });
        const char* const failed = SIGNAL(failed());
        kxbench::WaitFor(updater.get(), SIGNAL(waiting()), failed);
        QTimer::singleShot(0, updater.get(), SLOT(Check()));
        kxbench::WaitFor(updater.get(), SIGNAL(available()), failed);
        QTimer::singleShot(0, updater.get(), SLOT(Download()));
        kxbench::WaitFor(updater.get(), SIGNAL(creatingSymlinks()), failed);
        state.SetIterationTime(double(clock.nsecsElapsed()) / 1e9);
        benchmark::DoNotOptimize(asked);
    }
    state.SetBytesProcessed(state.iterations() * state.range(0) * state.range(1));
}

void Watched(benchmark::internal::Benchmark* benchmark)
{
    for (const int watched : {0, 1})
        benchmark->Args({2000, 4096, watched})->Args({1, 512 << 20, watched});
    benchmark->ArgNames({"files", "bytes", "watched"})->Unit(benchmark::kMillisecond);
    benchmark->UseManualTime()->Iterations(1)->Repetitions(3)->ReportAggregatesOnly();
}

} // namespace

BENCHMARK(DownloadKxupdater)->Apply(Sizes);
BENCHMARK(DownloadCurl)->Apply(Sizes);
BENCHMARK(DownloadStep)->Apply(Watched);
