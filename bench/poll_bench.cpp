// What a poll of the memory and CPU groups costs. The processors are those of /proc/stat, or of a
// made-up one when VEX_BENCH_CPUS gives their number (scripts/bench). Collectors count processors
// and create their objects once a process: run this alone (--benchmark_filter=Poll).
#include <benchmark/benchmark.h>

#include <cstring>

#include "monitors/cpu.h"
#include "monitors/memory.h"
#include "platform/framework.h"

namespace {

void PollMemoryAndCpu(benchmark::State &state) {
  static const bool built = [] {
    strcpy(log_dir, REGISTRY_ROOT "/host");
    set_poll_time(15);
    return create_dir(log_dir, 1) == 0 && do_memory() == 0 && do_cpu() == 0;
  }();
  if (!built) {
    state.SkipWithError("the groups cannot be built");
  }
  for (auto _ : state) {
    if (do_cpu() != 0 || do_memory() != 0) {
      state.SkipWithError("a collector failed");
      break;
    }
  }
}
BENCHMARK(PollMemoryAndCpu)->Unit(benchmark::kMicrosecond);

}  // namespace
