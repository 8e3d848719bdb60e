// The configuration spine against its floors, on a one-node cluster set up in the sandbox:
//   - the key store tool's set and get against redis-cli doing the same to the same server, and
//     against the floor of a bare spawn of /bin/true plus one round trip;
//   - mailConfGet of one key against reading its file raw;
//   - mailConfSet of one changed key against one run of the tool plus one file write;
//   - the batch of 76 changed keys against 76 concurrent runs of the tool alone.
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>
#include <hiredis/hiredis.h>
#include <json/json.h>

#include "config/mail_conf.h"
#include "core/mail_conf.h"
#include "kolt/exec.h"
#include "ratio_reporter.h"

extern char **environ;

namespace {

const char kTool[] = "/var/packages/Quillon-Server/target/usr/bin/kolt-quillon-server-go-utils";
const char kRedisCli[] = "/usr/bin/redis-cli";
constexpr int kQuiet = 187;
constexpr int kBatchSize = 76;

std::string password;
redisContext *redis = nullptr;
int counter = 0;

std::string Next() { return std::to_string(++counter); }

void ToolSet(benchmark::State &state) {
  for (auto _ : state) {
    const std::string v = Next();
    if (KLIBCExecl(kTool, kQuiet, "backend-command", "--command", "set", "--key", "bench/k",
                   "--value", v.c_str(), "--ttl", "0", static_cast<char *>(nullptr)) != 0) {
      state.SkipWithError("tool set failed");
      break;
    }
  }
}

void RedisCliSet(benchmark::State &state) {
  for (auto _ : state) {
    const std::string v = Next();
    if (KLIBCExecl(kRedisCli, kQuiet, "-p", "8500", "-a", password.c_str(), "--no-auth-warning",
                   "SET", "bench/k", v.c_str(), static_cast<char *>(nullptr)) != 0) {
      state.SkipWithError("redis-cli set failed");
      break;
    }
  }
}

void ToolGet(benchmark::State &state) {
  for (auto _ : state) {
    if (KLIBCExecl(kTool, kQuiet, "backend-command", "--command", "get", "--key", "bench/k",
                   static_cast<char *>(nullptr)) != 0) {
      state.SkipWithError("tool get failed");
      break;
    }
  }
}

void RedisCliGet(benchmark::State &state) {
  for (auto _ : state) {
    if (KLIBCExecl(kRedisCli, kQuiet, "-p", "8500", "-a", password.c_str(), "--no-auth-warning",
                   "GET", "bench/k", static_cast<char *>(nullptr)) != 0) {
      state.SkipWithError("redis-cli get failed");
      break;
    }
  }
}

// What any run of a program that asks the store once must pay at least.
void SpawnPlusRoundTrip(benchmark::State &state) {
  char *argv[] = {const_cast<char *>("/bin/true"), nullptr};
  for (auto _ : state) {
    pid_t pid;
    posix_spawn(&pid, "/bin/true", nullptr, nullptr, argv, environ);
    int status;
    waitpid(pid, &status, 0);
    freeReplyObject(redisCommand(redis, "SET bench/k %s", Next().c_str()));
  }
}

void MailConfGet(benchmark::State &state) {
  std::string value;
  for (auto _ : state) {
    if (mailConfGet("bench_key_0", value) < 0) state.SkipWithError("mailConfGet failed");
  }
}

void RawFileRead(benchmark::State &state) {
  const std::string path = std::string(kMailConfDir) + "bench_key_0";
  char buffer[4096];
  for (auto _ : state) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    benchmark::DoNotOptimize(read(fd, buffer, sizeof(buffer)));
    close(fd);
  }
}

void MailConfSetChanged(benchmark::State &state) {
  for (auto _ : state) {
    if (mailConfSet("bench_key_0", Next(), true, 0) != 0) {
      state.SkipWithError("mailConfSet failed");
      break;
    }
  }
}

// One run of the tool and one file written the way the store writes it.
void ToolPlusFileWrite(benchmark::State &state) {
  const std::string path = std::string(kMailConfDir) + "bench_floor";
  for (auto _ : state) {
    const std::string v = Next();
    KLIBCExecl(kTool, kQuiet, "backend-command", "--command", "set", "--key",
               "mailserver/conf/bench_floor", "--value", v.c_str(), "--ttl", "0",
               static_cast<char *>(nullptr));
    {
      std::ofstream out(path + ".tmp", std::ios::trunc);
      out << "{\"mailserver/conf/bench_floor\":\"" << v << "\"}\n";
    }
    rename((path + ".tmp").c_str(), path.c_str());
  }
}

void Batch76(benchmark::State &state) {
  for (auto _ : state) {
    std::map<std::string, std::string> pairs;
    const std::string v = Next();
    for (int i = 0; i < kBatchSize; ++i) pairs["bench_key_" + std::to_string(i)] = v;
    if (mailConfSet(pairs) != 0) {
      state.SkipWithError("batch failed");
      break;
    }
  }
}

void Tool76Concurrent(benchmark::State &state) {
  for (auto _ : state) {
    const std::string v = Next();
    std::vector<std::thread> threads;
    for (int i = 0; i < kBatchSize; ++i) {
      threads.emplace_back([i, &v] {
        const std::string key = "mailserver/conf/bench_key_" + std::to_string(i);
        KLIBCExecl(kTool, kQuiet, "backend-command", "--command", "set", "--key", key.c_str(),
                   "--value", v.c_str(), "--ttl", "0", static_cast<char *>(nullptr));
      });
    }
    for (auto &t : threads) t.join();
  }
}

#define QSV_BENCH(fn) BENCHMARK(fn)->UseRealTime()->Repetitions(3)->ReportAggregatesOnly(true)
QSV_BENCH(ToolSet);
QSV_BENCH(RedisCliSet);
QSV_BENCH(ToolGet);
QSV_BENCH(RedisCliGet);
QSV_BENCH(SpawnPlusRoundTrip);
QSV_BENCH(MailConfGet);
QSV_BENCH(RawFileRead);
QSV_BENCH(MailConfSetChanged);
QSV_BENCH(ToolPlusFileWrite);
QSV_BENCH(Batch76);
QSV_BENCH(Tool76Concurrent);

bool SetUpCluster() {
  const char *build = getenv("QSV_BUILD_DIR");
  if (build == nullptr) {
    fprintf(stderr, "run me in the sandbox: tests/harness/sandbox --build BUILD -- ...\n");
    return false;
  }
  const std::string ctl = std::string(build) + "/tools/mailserverctl";
  if (KLIBCExecl(ctl.c_str(), kQuiet, "setup", static_cast<char *>(nullptr)) != 0) {
    fprintf(stderr, "mailserverctl setup failed\n");
    return false;
  }
  Json::Value conf;
  if (loadMailJsonFromFile("backend.conf", conf, "/var/packages/Quillon-Server/etc/") != 0) {
    return false;
  }
  password = conf["password"].asString();
  redis = redisConnect("127.0.0.1", 8500);
  if (redis == nullptr || redis->err) return false;
  freeReplyObject(redisCommand(redis, "AUTH %s", password.c_str()));
  // Every key the benchmarks read exists before they run.
  std::map<std::string, std::string> pairs;
  for (int i = 0; i < kBatchSize; ++i) pairs["bench_key_" + std::to_string(i)] = "0";
  return mailConfSet(pairs) == 0;
}

}  // namespace

int main(int argc, char **argv) {
  benchmark::Initialize(&argc, argv);
  if (!SetUpCluster()) return 1;
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  printf("\n");
  reporter.PrintRatio("tool set / redis-cli set", "ToolSet", "RedisCliSet", "(goal <= 0.5)");
  reporter.PrintRatio("tool get / redis-cli get", "ToolGet", "RedisCliGet", "(goal <= 0.5)");
  reporter.PrintRatio("tool set / (spawn of /bin/true + one round trip)", "ToolSet",
                      "SpawnPlusRoundTrip");
  reporter.PrintRatio("tool get / (spawn of /bin/true + one round trip)", "ToolGet",
                      "SpawnPlusRoundTrip");
  reporter.PrintRatio("mailConfGet / raw read of the key file", "MailConfGet", "RawFileRead");
  reporter.PrintRatio("mailConfSet, one changed key / (tool run + file write)",
                      "MailConfSetChanged", "ToolPlusFileWrite");
  reporter.PrintRatio("batch of 76 changed keys / 76 concurrent tool runs", "Batch76",
                      "Tool76Concurrent", "(goal <= 1.2)");
  benchmark::Shutdown();
  KLIBCExec("/var/packages/Quillon-Server/target/scripts/ClusterDaemon.sh", "stop", nullptr,
            nullptr, 187);
  return 0;
}
