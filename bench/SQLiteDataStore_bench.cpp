// Placeholder until the table-layer benchmark lands.
#include <benchmark/benchmark.h>
BENCHMARK_MAIN();
