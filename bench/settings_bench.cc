// The SMTP settings object against its floors, on a one-node cluster set up in the sandbox:
//   - Postfix::LoadSettings (76 key files and the four lists) against reading the same files raw
//     in one loop;
//   - SaveSettings with every key changed against the same number of concurrent runs of the key
//     store tool alone;
//   - convertToCIDR throughput.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include "config/postfix.h"
#include "core/mail_conf.h"
#include "foundation/cidr.h"
#include "kolt/exec.h"
#include "ratio_reporter.h"

namespace {

const char kTool[] = "/var/packages/Quillon-Server/target/usr/bin/kolt-quillon-server-go-utils";
std::vector<std::string> keyFiles;
int counter = 0;

void LoadSettings(benchmark::State &state) {
  for (auto _ : state) {
    Postfix postfix;
    if (postfix.LoadSettings() != 0) state.SkipWithError("LoadSettings failed");
  }
}

void ReadKeyFilesRaw(benchmark::State &state) {
  char buffer[4096];
  for (auto _ : state) {
    for (const std::string &path : keyFiles) {
      const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
      if (fd >= 0) {
        benchmark::DoNotOptimize(read(fd, buffer, sizeof(buffer)));
        close(fd);
      }
    }
  }
}

// Every key gets a new value: ints and strings change, bools flip.
void ChangeEverything(Postfix &postfix) {
  ++counter;
  for (const boost::any &key : postfix.GetKeyList()) {
    const std::string name = postfix.GetKeyName(key);
    if (key.type() == typeid(Key<int>)) {
      postfix.Set(name, boost::any(Value<int>(1000 + counter)));
    } else if (key.type() == typeid(Key<bool>)) {
      postfix.Set(name, boost::any(Value<bool>(counter % 2 == 0)));
    } else if (name != "account_type" && name != "virtual_multiple_domain") {
      postfix.Set(name, boost::any(Value<std::string>("v" + std::to_string(counter))));
    }
  }
}

void SaveEverythingChanged(benchmark::State &state) {
  for (auto _ : state) {
    state.PauseTiming();
    Postfix postfix;
    postfix.LoadSettings();
    ChangeEverything(postfix);
    state.ResumeTiming();
    if (postfix.SaveSettings({}) != 0) {
      state.SkipWithError("SaveSettings failed");
      break;
    }
  }
}

void ConcurrentToolRuns(benchmark::State &state) {
  const int runs = static_cast<int>(state.range(0));
  for (auto _ : state) {
    const std::string v = std::to_string(++counter);
    std::vector<std::thread> threads;
    for (int i = 0; i < runs; ++i) {
      threads.emplace_back([i, &v] {
        const std::string key = "mailserver/conf/bench_floor_" + std::to_string(i);
        KLIBCExecl(kTool, 187, "backend-command", "--command", "set", "--key", key.c_str(),
                   "--value", v.c_str(), "--ttl", "0", static_cast<char *>(nullptr));
      });
    }
    for (auto &t : threads) t.join();
  }
}

void ConvertToCidr(benchmark::State &state) {
  const char *patterns[] = {"192.168.1.77/255.255.255.0", "10.0.0.0/8", "2001:db8::1/64",
                            "172.16.5.4"};
  std::string out;
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(convertToCIDR(patterns[i++ & 3], out));
  }
  state.SetItemsProcessed(state.iterations());
}

#define QSV_BENCH(fn) BENCHMARK(fn)->UseRealTime()->Repetitions(3)->ReportAggregatesOnly(true)
QSV_BENCH(LoadSettings);
QSV_BENCH(ReadKeyFilesRaw);
QSV_BENCH(SaveEverythingChanged);
QSV_BENCH(ConcurrentToolRuns)->Arg(76);
QSV_BENCH(ConvertToCidr);

bool SetUp() {
  const char *build = getenv("QSV_BUILD_DIR");
  if (build == nullptr) return false;
  const std::string ctl = std::string(build) + "/tools/mailserverctl";
  if (KLIBCExecl(ctl.c_str(), 187, "setup", static_cast<char *>(nullptr)) != 0) return false;
  // One save so that every key has its file, then the list of those files.
  Postfix postfix;
  if (postfix.LoadSettings() != 0) return false;
  ChangeEverything(postfix);
  if (postfix.SaveSettings({}) != 0) return false;
  for (const boost::any &key : postfix.GetKeyList()) {
    keyFiles.push_back(kMailConfDir + toLeagalFileName(postfix.GetKeyName(key)));
  }
  return true;
}

}  // namespace

int main(int argc, char **argv) {
  benchmark::Initialize(&argc, argv);
  if (!SetUp()) {
    fprintf(stderr, "set-up failed: run me in the sandbox with a built mailserverctl\n");
    return 1;
  }
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  printf("\n");
  reporter.PrintRatio("Postfix::LoadSettings / raw read of its 76 key files", "LoadSettings",
                      "ReadKeyFilesRaw");
  reporter.PrintRatio("SaveSettings, all keys changed / 76 concurrent tool runs",
                      "SaveEverythingChanged", "ConcurrentToolRuns", "(goal <= 1.2)");
  printf("convertToCIDR: %.0f ns per pattern\n", reporter.Time("ConvertToCidr"));
  benchmark::Shutdown();
  KLIBCExec("/var/packages/Quillon-Server/target/scripts/ClusterDaemon.sh", "stop", nullptr,
            nullptr, 187);
  return 0;
}
