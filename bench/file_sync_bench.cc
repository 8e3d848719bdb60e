// One file sync end to end against its floor. Three nodes in mount namespaces of their own, each
// with its key watcher, share a key store and a file buffer (as in the tests). Measured: from the
// call of setFile on node 1 (through mailserverctl) until a 1 MiB file has landed on nodes 2 and
// 3. Floor: the same file copied twice through the same memcached by hand, set then get then
// write, once per receiver.
#include <libmemcached/memcached.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <thread>

#include <benchmark/benchmark.h>

#include "harness/cluster_nodes.h"
#include "harness/servers.h"
#include "ratio_reporter.h"

namespace {

using qsvtest::ClusterNodes;
using qsvtest::ServerProcess;

const char kPassword[] = "bench-secret";
const char kPath[] = "/var/packages/Quillon-Server/etc/bench_sync.bin";
constexpr size_t kSize = 1 << 20;

ClusterNodes *nodes;
std::string content;

std::string Slurp(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

bool Spit(const std::string &path, const std::string &bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  return static_cast<bool>(out.flush());
}

off_t SizeOf(const std::string &path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

bool CycleDone() {
  return qsvtest::StoreCommand(kPassword, {"KEYS", "kv_file_upload/*"}).empty() &&
         qsvtest::StoreCommand(kPassword, {"KEYS", "task_queue/*"}).empty();
}

void SetFileUntilLandedOnBoth(benchmark::State &state) {
  const std::string ctl = std::string(getenv("QSV_BUILD_DIR")) + "/tools/mailserverctl";
  const std::string at2 = nodes->Path(2, kPath), at3 = nodes->Path(3, kPath);
  for (auto _ : state) {
    state.PauseTiming();
    unlink(at2.c_str());
    unlink(at3.c_str());
    while (!CycleDone()) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    state.ResumeTiming();

    if (nodes->Run(1, {ctl, "file", "set", "bench_sync", kPath}) != 0) {
      state.SkipWithError("setFile failed");
      return;
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (SizeOf(at2) != static_cast<off_t>(kSize) || SizeOf(at3) != static_cast<off_t>(kSize)) {
      if (std::chrono::steady_clock::now() > deadline) {
        state.SkipWithError("the file did not land");
        return;
      }
      std::this_thread::sleep_for(std::chrono::microseconds(500));
    }

    state.PauseTiming();
    if (Slurp(at2) != content || Slurp(at3) != content) {
      state.SkipWithError("the file landed damaged");
      return;
    }
    state.ResumeTiming();
  }
  state.SetBytesProcessed(state.iterations() * 2 * static_cast<int64_t>(kSize));
}

void CopyTwiceThroughMemcached(benchmark::State &state) {
  memcached_st *memc = memcached_create(nullptr);
  memcached_server_add(memc, "127.0.0.1", 8502);
  const std::string source = nodes->Path(1, kPath);
  const std::string targets[] = {nodes->Path(2, kPath), nodes->Path(3, kPath)};
  for (auto _ : state) {
    for (const std::string &target : targets) {
      const std::string bytes = Slurp(source);
      if (memcached_set(memc, "bench_floor", 11, bytes.data(), bytes.size(), 0, 0) !=
          MEMCACHED_SUCCESS) {
        state.SkipWithError("memcached_set failed");
        break;
      }
      size_t length = 0;
      uint32_t flags = 0;
      memcached_return_t rc;
      std::unique_ptr<char, void (*)(void *)> value(
          memcached_get(memc, "bench_floor", 11, &length, &flags, &rc), free);
      if (rc != MEMCACHED_SUCCESS || !Spit(target, std::string(value.get(), length))) {
        state.SkipWithError("memcached_get failed");
        break;
      }
    }
  }
  state.SetBytesProcessed(state.iterations() * 2 * static_cast<int64_t>(kSize));
  memcached_delete(memc, "bench_floor", 11, 0);
  memcached_free(memc);
}

BENCHMARK(SetFileUntilLandedOnBoth)
    ->UseRealTime()->Iterations(10)->Repetitions(3)->ReportAggregatesOnly(true)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(CopyTwiceThroughMemcached)
    ->UseRealTime()->MinTime(1.0)->Repetitions(3)->ReportAggregatesOnly(true)
    ->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char **argv) {
  benchmark::Initialize(&argc, argv);
  auto redis = ServerProcess::Redis(8500, kPassword, {"--notify-keyspace-events", "KA"});
  auto buffer = ServerProcess::Memcached(8502);
  ClusterNodes cluster(3, kPassword);
  nodes = &cluster;
  std::mt19937 gen(7);
  content.resize(kSize);
  for (char &c : content) c = static_cast<char>(gen());
  if (!Spit(cluster.Path(1, kPath), content)) {
    fprintf(stderr, "set-up failed: run me in the sandbox\n");
    return 1;
  }
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  printf("\n");
  reporter.PrintRatio("setFile of 1 MiB until on both receivers / two memcached copies",
                      "SetFileUntilLandedOnBoth", "CopyTwiceThroughMemcached");
  return 0;
}
