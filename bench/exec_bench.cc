// KLIBCExec of /bin/true against the floor of a bare posix_spawn + waitpid, from a small process and
// from one holding a 1 GB heap. A fork-based run would copy the page tables of that heap and lose
// there by an order of magnitude; a spawn must not care.
#include <spawn.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "ratio_reporter.h"

#include "kolt/exec.h"

extern char **environ;

namespace {

void BareSpawn(benchmark::State &state) {
  char *argv[] = {const_cast<char *>("/bin/true"), nullptr};
  for (auto _ : state) {
    pid_t pid;
    if (posix_spawn(&pid, "/bin/true", nullptr, nullptr, argv, environ) != 0) {
      state.SkipWithError("posix_spawn failed");
      break;
    }
    int status;
    waitpid(pid, &status, 0);
  }
}

void KlibcExec(benchmark::State &state) {
  for (auto _ : state) {
    if (KLIBCExec("/bin/true", nullptr, nullptr, nullptr, 0) != 0) {
      state.SkipWithError("KLIBCExec failed");
      break;
    }
  }
}

// 1 GB, every page touched, so that it is really mapped.
std::vector<char> *bigHeap = nullptr;
void HoldBigHeap(const benchmark::State &) {
  if (bigHeap == nullptr) {
    bigHeap = new std::vector<char>(size_t{1} << 30);
    memset(bigHeap->data(), 1, bigHeap->size());
  }
}
void DropBigHeap(const benchmark::State &) {
  delete bigHeap;
  bigHeap = nullptr;
}

BENCHMARK(BareSpawn)->Name("bare_spawn/empty_heap")->UseRealTime()->Repetitions(3)
    ->ReportAggregatesOnly(true);
BENCHMARK(KlibcExec)->Name("KLIBCExec/empty_heap")->UseRealTime()->Repetitions(3)
    ->ReportAggregatesOnly(true);
BENCHMARK(BareSpawn)->Name("bare_spawn/1GB_heap")->Setup(HoldBigHeap)->Teardown(DropBigHeap)
    ->UseRealTime()->Repetitions(3)->ReportAggregatesOnly(true);
BENCHMARK(KlibcExec)->Name("KLIBCExec/1GB_heap")->Setup(HoldBigHeap)->Teardown(DropBigHeap)
    ->UseRealTime()->Repetitions(3)->ReportAggregatesOnly(true);

}  // namespace

int main(int argc, char **argv) {
  benchmark::Initialize(&argc, argv);
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  printf("\n");
  reporter.PrintRatio("KLIBCExec / bare posix_spawn, empty heap", "KLIBCExec/empty_heap",
                      "bare_spawn/empty_heap", "(goal <= 1.10)");
  reporter.PrintRatio("KLIBCExec / bare posix_spawn, 1 GB heap", "KLIBCExec/1GB_heap",
                      "bare_spawn/1GB_heap");
  reporter.PrintRatio("KLIBCExec, 1 GB heap / empty heap", "KLIBCExec/1GB_heap",
                      "KLIBCExec/empty_heap", "(goal <= 1.20)");
  benchmark::Shutdown();
  return 0;
}
