// What a check does with the records once they are there: parsing and set differences.

#include "filediff.h"
#include "workload.h"

#include <benchmark/benchmark.h>
#include <kxupdater/package.h>
#include <manifest.h>

#include <QNetworkAccessManager>

namespace {

void DifferenceOfLists(benchmark::State& state)
{
    const updater::FileList local = kxbench::MakeRecords(state.range(0));
    updater::FileList server = local;
    for (qsizetype i = 0; i < server.size(); i += 10)
        server[i] = updater::File(server[i].Name(), server[i].MD5(), 1, {}, {});
    for (auto _ : state) {
        benchmark::DoNotOptimize(updater::Difference(server, local));
        benchmark::DoNotOptimize(updater::Difference(local, server));
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void ParseManifest(benchmark::State& state)
{
    const QString xml =
        kxtest::ManifestFor(QStringLiteral("app"), QStringLiteral("http://127.0.0.1/files"),
                            QStringLiteral("app"), kxbench::MakeRecords(state.range(0)));
    QNetworkAccessManager manager;
    for (auto _ : state) {
        updater::Package package(&manager, nullptr);
        package.SetName(QStringLiteral("app"));
        package.SetPackageXML(xml);
        if (package.Files().size() != state.range(0))
            state.SkipWithError("records are missing");
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

} // namespace

BENCHMARK(DifferenceOfLists)
    ->ArgName("records")
    ->Arg(20000)
    ->Arg(200000)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(ParseManifest)->ArgName("records")->Arg(100000)->Unit(benchmark::kMillisecond);
