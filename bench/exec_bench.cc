// KLIBCExec of /bin/true against the floor of a bare posix_spawn + waitpid, from a small process and
// from one holding a 1 GB heap. A fork-based run would copy the page tables of that heap and lose
// there by an order of magnitude; a spawn must not care.
#include <spawn.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

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

BENCHMARK(BareSpawn)->Name("bare_spawn/empty_heap")->UseRealTime();
BENCHMARK(KlibcExec)->Name("KLIBCExec/empty_heap")->UseRealTime();
BENCHMARK(BareSpawn)->Name("bare_spawn/1GB_heap")->Setup(HoldBigHeap)->Teardown(DropBigHeap)
    ->UseRealTime();
BENCHMARK(KlibcExec)->Name("KLIBCExec/1GB_heap")->Setup(HoldBigHeap)->Teardown(DropBigHeap)
    ->UseRealTime();

// Keeps each run's time per iteration so that the ratios can be printed at the end.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run> &runs) override {
    for (const auto &run : runs) {
      if (run.run_type == Run::RT_Iteration) times_[run.benchmark_name()] = run.GetAdjustedRealTime();
    }
    ConsoleReporter::ReportRuns(runs);
  }
  void PrintRatios() const {
    auto get = [&](const char *name) {
      for (const auto &[key, value] : times_) {
        if (key.rfind(name, 0) == 0) return value;
      }
      return 0.0;
    };
    const double bare = get("bare_spawn/empty_heap"), exec = get("KLIBCExec/empty_heap");
    const double bareBig = get("bare_spawn/1GB_heap"), execBig = get("KLIBCExec/1GB_heap");
    if (bare <= 0 || exec <= 0 || bareBig <= 0 || execBig <= 0) return;
    printf("\nKLIBCExec / bare posix_spawn, empty heap: %.3f (goal <= 1.10)\n", exec / bare);
    printf("KLIBCExec / bare posix_spawn, 1 GB heap:  %.3f\n", execBig / bareBig);
    printf("KLIBCExec 1 GB heap / empty heap:         %.3f (goal <= 1.20)\n", execBig / exec);
  }

 private:
  std::map<std::string, double> times_;
};

}  // namespace

int main(int argc, char **argv) {
  benchmark::Initialize(&argc, argv);
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.PrintRatios();
  benchmark::Shutdown();
  return 0;
}
