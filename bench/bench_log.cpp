// Cost of a log call: one whose level is filtered out (the common case in a
// release set, which logs at warning level) next to an empty loop, and one
// that is written to a file.
#define MOX_LOG_TAG "MOX-BENCH"

#include <cstdlib>
#include <string>

#include <benchmark/benchmark.h>
#include <mox/mox_log.h>

namespace {

void BM_LogFilteredDebug(benchmark::State& state) {
    int n = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(MOX_DEBUG("szParam: %s [%d]", "{\"OPERATION_TYPE\":1}", ++n));
    }
}
BENCHMARK(BM_LogFilteredDebug);

void BM_LogWritten(benchmark::State& state) {
    int n = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(MOX_WARN("szParam: %s [%d]", "{\"OPERATION_TYPE\":1}", ++n));
    }
}
BENCHMARK(BM_LogWritten);

}  // namespace

int main(int argc, char** argv) {
    // Warnings go to a scratch file; debug lines are filtered out.
    setenv("MOX_LOG_LEVEL", "warning", 1);
    setenv("MOX_LOG", "file:/dev/null", 1);
    ::benchmark::Initialize(&argc, argv);
    if (::benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    ::benchmark::RunSpecifiedBenchmarks();
    ::benchmark::Shutdown();
    return 0;
}
