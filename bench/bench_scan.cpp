// Listing a tree with digests, against find and md5sum.

#include "workload.h"

#include <benchmark/benchmark.h>
#include <kxupdater/filescanner.h>

namespace {

// Arguments: files, bytes of each.
void Sizes(benchmark::internal::Benchmark* benchmark)
{
    benchmark->Args({20000, 4096})->Args({4, 256 << 20});
    benchmark->ArgNames({"files", "bytes"})->Unit(benchmark::kMillisecond)->UseRealTime();
    benchmark->Iterations(1)->Repetitions(3)->ReportAggregatesOnly();
}

void ScanKxupdater(benchmark::State& state)
{
    const QString root = kxbench::SharedTree(state.range(0), state.range(1));
    for (auto _ : state) {
        updater::FileScanner scanner(root);
        scanner.Scan();
        kxbench::WaitFor(&scanner, SIGNAL(succesed()), SIGNAL(failed(int, const QString&)));
        if (scanner.Files().size() != state.range(0))
            state.SkipWithError("files are missing");
    }
    state.SetBytesProcessed(state.iterations() * state.range(0) * state.range(1));
}

void ScanMd5sum(benchmark::State& state)
{
    const QString root = kxbench::SharedTree(state.range(0), state.range(1));
    for (auto _ : state) {
        kxbench::RunPeer(QStringLiteral("sh"),
                         {QStringLiteral("-c"),
                          QStringLiteral("find \"$0\" -type f -print0 | xargs -0 md5sum"), root});
    }
    state.SetBytesProcessed(state.iterations() * state.range(0) * state.range(1));
}

} // namespace

BENCHMARK(ScanKxupdater)->Apply(Sizes);
BENCHMARK(ScanMd5sum)->Apply(Sizes);
