// What the table tests share: a one-node cluster for each suite, so that a change can spread its
// database file; and lookups in a generated map through postmap itself.
#ifndef MAILSERVER_TESTS_TABLES_TABLES_FIXTURE_H_
#define MAILSERVER_TESTS_TABLES_TABLES_FIXTURE_H_

#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>

#include <json/json.h>

#include <gtest/gtest.h>

#include "harness/cluster_nodes.h"
#include "harness/one_node_cluster.h"
#include "harness/recording_script.h"
#include "kolt/exec.h"

namespace qsvtest {

const char kPostmap[] = "/var/packages/Quillon-Server/target/sbin/postmap";
const char kStoreTool[] =
    "/var/packages/Quillon-Server/target/usr/bin/kolt-quillon-server-go-utils";

using TablesTest = OneNodeClusterTest;

// What `tool -q key map` prints (tool: postmap or postalias), without its newline; "" when the
// key matches nothing.
inline std::string PostmapQuery(const std::string &key, const std::string &map,
                                const char *tool = kPostmap) {
  FILE *out = KLIBCPopen(tool, "r", "-q", key.c_str(), map.c_str(), nullptr);
  if (out == nullptr) return std::string("(") + tool + " did not start)";
  std::string text;
  char buffer[512];
  size_t got;
  while ((got = fread(buffer, 1, sizeof(buffer), out)) > 0) text.append(buffer, got);
  KLIBCPclose(out);
  if (!text.empty() && text.back() == '\n') text.pop_back();
  return text;
}

// Returns once nobody holds an upload lock (a cycle whose sender failed may stay in the store
// until the next change of its file; that is no reason to wait). A store broken under the
// watcher's feet while it holds a lock would keep that lock for a day.
inline void WaitForQuietStore() {
  Json::Value conf;
  std::ifstream("/var/packages/Quillon-Server/etc/backend.conf") >> conf;
  const std::string password = conf.get("password", "").asString();
  for (int i = 0; i < 500; ++i) {
    if (StoreCommand(password, {"KEYS", "quillon_server_lock/*"}).empty()) return;
    usleep(20 * 1000);
  }
}

// For the life of the object every run of the key store tool fails with `status`: 1 is the
// store's "no", 2 a store that can't be reached. Nothing can be spread.
struct FailingStoreTool {
  explicit FailingStoreTool(int status = 1) : tool{kStoreTool, status} { (void)quiet; }
  struct Quiet {
    Quiet() { WaitForQuietStore(); }
  } quiet;
  struct Aside {
    Aside() { rename(kStoreTool, away.c_str()); }
    ~Aside() { rename(away.c_str(), kStoreTool); }
    const std::string away = std::string(kStoreTool) + ".aside";
  } real;
  RecordingScript tool;
};

}  // namespace qsvtest

#endif  // MAILSERVER_TESTS_TABLES_TABLES_FIXTURE_H_
