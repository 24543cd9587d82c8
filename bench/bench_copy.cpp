// Copying a tree into a place that does not exist, against cp -a alone and with sync: the copier
// brings the tree to disk before it appears.

#include "workload.h"

#include <benchmark/benchmark.h>
#include <kxcommon/filecopier.h>

namespace {

// Arguments: files, bytes of each.
void Sizes(benchmark::internal::Benchmark* benchmark)
{
    benchmark->Args({20000, 4096})->Args({4, 256 << 20});
    benchmark->ArgNames({"files", "bytes"})->Unit(benchmark::kMillisecond)->UseRealTime();
    benchmark->Iterations(1)->Repetitions(3)->ReportAggregatesOnly();
}

struct Source
{
    explicit Source(const benchmark::State& state)
        : from(kxbench::SharedTree(state.range(0), state.range(1))),
          to(workspace.Path(QStringLiteral("to")))
    {
    }

    const kxbench::Workspace workspace;
    const QString from;
    const QString to;
};

void CopyKxupdater(benchmark::State& state)
{
    const Source source(state);
    for (auto _ : state) {
        common::FileCopier copier;
        copier.AddDirectory(source.from, source.to);
        copier.Copy();
        kxbench::WaitFor(&copier, SIGNAL(succesed()), SIGNAL(failed(int, const QString&)));
    }
    state.SetBytesProcessed(state.iterations() * state.range(0) * state.range(1));
}

void CopyCp(benchmark::State& state)
{
    const Source source(state);
    for (auto _ : state)
        kxbench::RunPeer(QStringLiteral("cp"), {QStringLiteral("-a"), source.from, source.to});
    state.SetBytesProcessed(state.iterations() * state.range(0) * state.range(1));
}

void CopyCpAndSync(benchmark::State& state)
{
    const Source source(state);
    for (auto _ : state) {
        kxbench::RunPeer(QStringLiteral("sh"),
                         {QStringLiteral("-c"),
                          QStringLiteral("cp -a \"$0\" \"$1\" && sync -f \"$1\""), source.from,
                          source.to});
    }
    state.SetBytesProcessed(state.iterations() * state.range(0) * state.range(1));
}

} // namespace

BENCHMARK(CopyKxupdater)->Apply(Sizes);
BENCHMARK(CopyCp)->Apply(Sizes);
BENCHMARK(CopyCpAndSync)->Apply(Sizes);
