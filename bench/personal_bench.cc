// A user's forward saved on one node until it is on the two others, against its floor. Three nodes
// in mount namespaces of their own, each with its key watcher, share a key store and a file buffer,
// as in file_sync_bench. Measured: `mailserverctl personal forward` on node 1 (Personal::save:
// the user's settings read, .forward written in the user's directory, setFile) until .forward
// holds its bytes on nodes 2 and 3. Floor: `mailserverctl file set` of the same bytes from the
// same directory, until they are on nodes 2 and 3: the file sync alone.
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include "harness/cluster_nodes.h"
#include "harness/servers.h"
#include "ratio_reporter.h"

namespace {

using qsvtest::ClusterNodes;
using qsvtest::ServerProcess;

const char kPassword[] = "bench-secret";
const char kUser[] = "benchuser";
const char kAddress[] = "alice@example.com";

ClusterNodes *nodes;
std::string dir;       // the user's mail directory
std::string content;   // what .forward holds once saved

std::string Slurp(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

bool CycleDone() {
  return qsvtest::StoreCommand(kPassword, {"KEYS", "kv_file_upload/*"}).empty() &&
         qsvtest::StoreCommand(kPassword, {"KEYS", "task_queue/*"}).empty();
}

// Times `command` on node 1 until `path` holds `content` on nodes 2 and 3; the copies of the
// previous round are removed, and its cycle waited out, outside the timing.
void UntilOnBothPeers(benchmark::State &state, const std::vector<std::string> &command,
                      const std::string &path) {
  const std::string at2 = nodes->Path(2, path), at3 = nodes->Path(3, path);
  for (auto _ : state) {
    state.PauseTiming();
    while (!CycleDone()) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    // The receivers give the file to its user after the cycle; let that finish too.
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    unlink(at2.c_str());
    unlink(at3.c_str());
    state.ResumeTiming();

    if (nodes->Run(1, command) != 0) {
      state.SkipWithError("the command failed");
      return;
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (Slurp(at2) != content || Slurp(at3) != content) {
      if (std::chrono::steady_clock::now() > deadline) {
        state.SkipWithError("the file did not land");
        return;
      }
      std::this_thread::sleep_for(std::chrono::microseconds(500));
    }
  }
}

void PersonalSaveUntilOnBothPeers(benchmark::State &state) {
  const std::string ctl = std::string(getenv("QSV_BUILD_DIR")) + "/tools/mailserverctl";
  UntilOnBothPeers(state, {ctl, "personal", "forward", kUser, kAddress}, dir + "/.forward");
}

void SetFileOfTheSameBytesUntilOnBothPeers(benchmark::State &state) {
  const std::string ctl = std::string(getenv("QSV_BUILD_DIR")) + "/tools/mailserverctl";
  const std::string path = dir + "/.bench_forward";
  UntilOnBothPeers(state, {ctl, "file", "set", "bench_personal_floor", path}, path);
}

BENCHMARK(PersonalSaveUntilOnBothPeers)
    ->UseRealTime()->Iterations(20)->Repetitions(3)->ReportAggregatesOnly(true)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(SetFileOfTheSameBytesUntilOnBothPeers)
    ->UseRealTime()->Iterations(20)->Repetitions(3)->ReportAggregatesOnly(true)
    ->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char **argv) {
  benchmark::Initialize(&argc, argv);
  if (system((std::string("useradd -M ") + kUser).c_str()) != 0) {
    fprintf(stderr, "set-up failed: run me in the sandbox\n");
    return 1;
  }
  auto redis = ServerProcess::Redis(8500, kPassword, {"--notify-keyspace-events", "KA"});
  auto buffer = ServerProcess::Memcached(8502);
  ClusterNodes cluster(3, kPassword);
  nodes = &cluster;
  dir = "/var/spool/mail/local/" + std::to_string(getpwnam(kUser)->pw_uid);

  // One save makes the user's directory on every node and gives the floor its bytes.
  const std::string ctl = std::string(getenv("QSV_BUILD_DIR")) + "/tools/mailserverctl";
  if (cluster.Run(1, {ctl, "personal", "forward", kUser, kAddress}) != 0) {
    fprintf(stderr, "set-up failed: the first save\n");
    return 1;
  }
  content = Slurp(cluster.Path(1, dir + "/.forward"));
  const std::string floor = cluster.Path(1, dir + "/.bench_forward");
  {
    std::ofstream out(floor, std::ios::binary);
    out << content;
  }
  const passwd *user = getpwnam(kUser);
  if (content != std::string(kAddress) + "\n" || chown(floor.c_str(), user->pw_uid, user->pw_gid) != 0) {
    fprintf(stderr, "set-up failed: .forward holds [%s]\n", content.c_str());
    return 1;
  }
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  printf("\n");
  reporter.PrintRatio("Personal::save until on both peers / setFile of the same bytes",
                      "PersonalSaveUntilOnBothPeers", "SetFileOfTheSameBytesUntilOnBothPeers",
                      "(goal <= 1.2)");
  return 0;
}
