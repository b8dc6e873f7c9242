// Shared set-up of the benchmarks: the log keeps only warnings (the builders
// log an info line per object) and goes to stderr.
#pragma once

#include <cstdlib>

#include <benchmark/benchmark.h>

#define MOX_BENCHMARK_MAIN()                                                \
    int main(int argc, char** argv) {                                       \
        setenv("MOX_LOG_LEVEL", "warning", 0);                              \
        setenv("MOX_LOG", "stderr", 0);                                     \
        ::benchmark::Initialize(&argc, argv);                               \
        if (::benchmark::ReportUnrecognizedArguments(argc, argv)) return 1; \
        ::benchmark::RunSpecifiedBenchmarks();                              \
        ::benchmark::Shutdown();                                            \
        return 0;                                                           \
    }
