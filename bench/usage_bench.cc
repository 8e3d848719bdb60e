// The daily usage counters of 5,000 users read for a page: GetDomainUsageData against one raw
// multi-get of the same 10,000 keys on the same memcached (the floor: the round trip and the
// server's work), each value taken into a map as the library does.
#include <libmemcached/memcached.h>

#include <cstdio>
#include <cstdlib>
#include <list>
#include <map>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <json/json.h>

#include "domain/daily_quota_util.h"
#include "ratio_reporter.h"

namespace {

const char kScript[] = "/var/packages/Quillon-Server/target/scripts/daemon/memcached.sh";
constexpr int kUsers = 5000;
const char kDomain[] = "example.com";

std::list<std::string> Users() {
  std::list<std::string> users;
  for (int i = 0; i < kUsers; ++i) users.push_back("user" + std::to_string(i));
  return users;
}

std::vector<std::string> Keys() {
  std::vector<std::string> keys;
  for (const std::string &user : Users()) {
    keys.push_back(std::string(kDomain) + "[senderQuota]" + user);
    keys.push_back(std::string(kDomain) + "[senderFlow]" + user);
  }
  return keys;
}

memcached_st *Connect() {
  memcached_st *memc = memcached_create(nullptr);
  memcached_server_add(memc, "localhost", 11211);
  return memc;
}

void Library(benchmark::State &state) {
  KOLT::QUILLON_SERVER::UsageMemcached usage;
  const std::list<std::string> users = Users();
  for (auto _ : state) {
    std::vector<Json::Value> rows;
    if (usage.GetDomainUsageData(kDomain, users, rows, "") != 0 || rows.size() != kUsers) {
      state.SkipWithError("library read failed");
    }
  }
}

void Raw(benchmark::State &state) {
  memcached_st *memc = Connect();
  const std::vector<std::string> keys = Keys();
  std::vector<const char *> names;
  std::vector<size_t> lengths;
  for (const std::string &key : keys) {
    names.push_back(key.data());
    lengths.push_back(key.size());
  }
  for (auto _ : state) {
    std::map<std::string, std::string> values;
    memcached_return_t rc = memcached_mget(memc, names.data(), lengths.data(), names.size());
    memcached_result_st *result;
    while ((result = memcached_fetch_result(memc, nullptr, &rc)) != nullptr) {
      values[std::string(memcached_result_key_value(result), memcached_result_key_length(result))] =
          std::string(memcached_result_value(result), memcached_result_length(result));
      memcached_result_free(result);
    }
    if (values.size() != keys.size()) state.SkipWithError("raw read failed");
  }
  memcached_free(memc);
}

#define QSV_BENCH(fn) \
  BENCHMARK(fn)->UseRealTime()->Repetitions(5)->ReportAggregatesOnly(true)->Unit(benchmark::kMillisecond)->MinTime(0.5)
QSV_BENCH(Library);
QSV_BENCH(Raw);

// The counters as a policy daemon leaves them: one of each kind for every user.
bool SetUp() {
  if (system((std::string(kScript) + " start").c_str()) != 0) return false;
  memcached_st *memc = Connect();
  bool ok = true;
  int i = 0;
  for (const std::string &key : Keys()) {
    const std::string value = std::to_string(++i % 977);
    ok = ok && memcached_set(memc, key.data(), key.size(), value.data(), value.size(), 0, 0) ==
                   MEMCACHED_SUCCESS;
  }
  memcached_free(memc);
  return ok;
}

}  // namespace

int main(int argc, char **argv) {
  benchmark::Initialize(&argc, argv);
  if (!SetUp()) {
    fprintf(stderr, "set-up failed: run me in the sandbox\n");
    return 1;
  }
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  printf("\n");
  reporter.PrintRatio("GetDomainUsageData, 5000 users / one raw multi-get of their keys", "Library",
                      "Raw", "goal <= 1.3");
  benchmark::Shutdown();
  system((std::string(kScript) + " stop").c_str());
  return 0;
}
