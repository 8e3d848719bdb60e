// A setting written on a replica node until the third node's mirror file holds it, against the
// floor of the same trip through the stores: a raw SET on the master and a raw GET on the third
// node's replica until it answers the new value. Both sides start their programs the same way,
// inside the node's namespaces.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "harness/cluster_nodes.h"
#include "ratio_reporter.h"

using qsvtest::NetworkNodes;

namespace {

NetworkNodes *nodes = nullptr;
std::string ctl;
std::string password;
const char kMirror[] = "/var/packages/Quillon-Server/etc/mailconf.d/bench_value";

std::vector<std::string> Cli(int node, std::vector<std::string> args) {
  std::vector<std::string> argv = {"env", "REDISCLI_AUTH=" + password, "redis-cli", "-h",
                                   NetworkNodes::Address(node), "-p", "8500"};
  argv.insert(argv.end(), args.begin(), args.end());
  return argv;
}

std::string Slurp(const std::string &path) {
  std::ifstream in(path);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

void SettingFromReplicaToThirdMirror(benchmark::State &state) {
  long i = 0;
  for (auto _ : state) {
    const std::string value = "library-" + std::to_string(++i);
    if (nodes->Run(2, {ctl, "conf", "set", "bench_value", value}) != 0) {
      state.SkipWithError("conf set failed");
      return;
    }
    while (Slurp(nodes->Path(3, kMirror)).find(value) == std::string::npos) {
      usleep(200);
    }
  }
}

void RawSetOnMasterGetOnThird(benchmark::State &state) {
  long i = 0;
  for (auto _ : state) {
    const std::string value = "raw-" + std::to_string(++i);
    nodes->Run(2, Cli(1, {"set", "mailserver/conf/bench_raw", value}));
    std::string out;
    do {
      nodes->Run(2, Cli(3, {"get", "mailserver/conf/bench_raw"}), out);
    } while (out != value);
  }
}

BENCHMARK(SettingFromReplicaToThirdMirror)
    ->UseRealTime()->Iterations(30)->Repetitions(3)->ReportAggregatesOnly(true)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(RawSetOnMasterGetOnThird)
    ->UseRealTime()->Iterations(30)->Repetitions(3)->ReportAggregatesOnly(true)
    ->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char **argv) {
  benchmark::Initialize(&argc, argv);
  ctl = std::string(getenv("QSV_BUILD_DIR")) + "/tools/mailserverctl";
  NetworkNodes cluster(3);
  nodes = &cluster;
  bool ok = cluster.Run(1, {ctl, "setup", "--address", NetworkNodes::Address(1)}) == 0;
  const std::string conf =
      Slurp(cluster.Path(1, "/var/packages/Quillon-Server/etc/backend.conf"));
  const size_t at = conf.find("\"password\":\"");
  if (at != std::string::npos) password = conf.substr(at + 12, conf.find('"', at + 12) - at - 12);
  for (int node = 2; ok && node <= 3; ++node) {
    const std::string ticket = "/tmp/bench-ticket-" + std::to_string(node);
    // The last join's service sync flags hold up the next member until the watchers lower them.
    std::string flags = "?";
    for (int i = 0; i < 150 && !flags.empty(); ++i) {
      if (i > 0) usleep(100000);
      flags.clear();
      cluster.Run(1, Cli(1, {"--scan", "--pattern", "service_change/*"}), flags);
    }
    ok = cluster.Run(1, {ctl, "member", "add", "--address", NetworkNodes::Address(node),
                         "--ticket", ticket}) == 0 &&
         cluster.Run(node, {ctl, "member", "join", "--ticket", ticket}) == 0;
  }
  if (!ok || password.empty()) {
    fprintf(stderr, "set-up failed: run me in the sandbox\n");
    return 1;
  }
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  printf("\n");
  reporter.PrintRatio("setting on a replica until in node 3's mirror / raw SET + GET",
                      "SettingFromReplicaToThirdMirror", "RawSetOnMasterGetOnThird", "(goal <= 3)");
  return 0;
}
