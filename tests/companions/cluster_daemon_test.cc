// ClusterDaemon.sh with the package's real Redis configuration template, real redis-server and
// real memcached: the library only looks at its exit statuses and at the services it leaves
// running, so that is what is checked.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "companions/program_run.h"
#include "harness/recording_script.h"
#include "harness/servers.h"

namespace qsvtest {
namespace {

const char kScript[] = "/var/packages/Quillon-Server/target/scripts/ClusterDaemon.sh";
const char kTemplate[] = "/var/packages/Quillon-Server/target/etc/template/redis.template";
const char kRedisDir[] = "/var/packages/Quillon-Server/etc/redis";
const char kRedisConf[] = "/var/packages/Quillon-Server/etc/redis/redis.conf";
const char kConfDir[] = "/var/packages/Quillon-Server/etc/mailconf.d";
const char kWatcher[] = "/var/packages/Quillon-Server/target/usr/bin/kolt-quillon-server-key-watcher";
const char kRedisPid[] = "/var/run/quillon_server/redis.pid";
const char kMemcachedPid[] = "/var/run/quillon_server/file_buffer_memcached.pid";
const char kWatcherPid[] = "/var/run/quillon_server/key_watcher.pid";
const char kPassword[] = "cluster-secret";

int Daemon(const std::string &word) { return RunProgram({kScript, word}).status; }

// Any answer will do, NOAUTH included: the question is whether the server is up.
bool RedisAnswers() { return !TcpExchange(8500, "PING\r\n").empty(); }

bool MemcachedAnswers() { return TcpExchange(8502, "version\r\n").rfind("VERSION", 0) == 0; }

pid_t PidIn(const char *path) { return static_cast<pid_t>(atoi(ReadFile(path).c_str())); }

bool Alive(pid_t pid) {
  if (pid <= 0) return false;
  const std::string stat = ReadFile("/proc/" + std::to_string(pid) + "/stat");
  const size_t close = stat.rfind(") ");
  return close != std::string::npos && stat[close + 2] != 'Z';
}

class ClusterDaemonTest : public testing::Test {
 protected:
  void SetUp() override {
    WriteFile(kBackendConf, std::string("{\"password\":\"") + kPassword + "\"}");
    mkdir(kRedisDir, 0755);
    SetIds("node-a", "node-a");
  }

  void TearDown() override {
    Daemon("stop");
    // Whatever the script failed to stop must not leak into the next test.
    for (const char *pidFile : {kWatcherPid, kMemcachedPid, kRedisPid}) {
      const pid_t pid = PidIn(pidFile);
      if (Alive(pid)) {
        ADD_FAILURE() << "still running after stop: " << pidFile;
        kill(pid, SIGKILL);
      }
    }
    unlink(kRedisConf);
    unlink(kWatcher);
    std::filesystem::remove_all(std::string(kRedisDir) + "/appendonlydir");
  }

  // The package's template with the lines that setting a node up appends to it.
  void WriteRedisConf(const std::string &slaveofLine = "") {
    const std::string conf = ReadFile(kTemplate), dir = kRedisDir;
    ASSERT_NE(conf, "") << "the package has no Redis template";
    WriteFile(kRedisConf, conf + (slaveofLine.empty() ? "" : slaveofLine + "\n") + "requirepass " + kPassword +
                              "\nmasterauth " + kPassword + "\nport 8500\ndir  " + dir + "/\nlogfile " + dir +
                              "/redis.log\n");
  }

  void SetIds(const std::string &balancerMaster, const std::string &self) {
    WriteFile(std::string(kConfDir) + "/balancer_master_node",
              "{\"balancer_master_node\":\"" + balancerMaster + "\"}");
    WriteFile(std::string(kConfDir) + "/local_id_file", "{\"name\":\"n\",\"id\":\"" + self + "\"}");
  }
};

TEST_F(ClusterDaemonTest, StatusPassesOnlyWhileTheStoreAnswers) {
  EXPECT_EQ(Daemon("status"), 1) << "no redis.conf: not in a cluster";
  EXPECT_NE(RunProgram({kScript, "restart-everything"}).err.find("usage"), std::string::npos);
  ProgramRun start = RunProgram({kScript, "start"});
  EXPECT_EQ(start.status, 1);
  EXPECT_NE(start.err, "") << "start without redis.conf says why";

  WriteRedisConf();
  EXPECT_EQ(Daemon("status"), 1) << "Redis is not running yet";
  ASSERT_EQ(Daemon("start"), 0);
  EXPECT_EQ(Daemon("status"), 0);
  // The store needs its password: the configuration was really used.
  EXPECT_NE(TcpExchange(8500, "PING\r\n").find("NOAUTH"), std::string::npos);
  EXPECT_EQ(Daemon("stop"), 0);
  EXPECT_FALSE(RedisAnswers());
  EXPECT_EQ(Daemon("status"), 1);
}

TEST_F(ClusterDaemonTest, MasterBalancerRunsTheFileBufferWhichOutlivesABackendRestart) {
  WriteRedisConf();
  ASSERT_EQ(Daemon("start"), 0);
  EXPECT_TRUE(MemcachedAnswers());
  const pid_t memcached = PidIn(kMemcachedPid), redis = PidIn(kRedisPid);
  EXPECT_EQ(Daemon("start"), 0) << "starting twice is fine";
  EXPECT_EQ(PidIn(kMemcachedPid), memcached) << "a running file buffer is left alone";
  EXPECT_EQ(PidIn(kRedisPid), redis);

  ASSERT_EQ(Backend("set", "conf/kept", {"--value", "across restarts"}).status, 0);
  EXPECT_EQ(Daemon("backend_restart"), 0);
  EXPECT_FALSE(Alive(redis)) << "Redis was really restarted";
  EXPECT_EQ(Backend("get", "conf/kept").out, "across restarts");
  EXPECT_EQ(PidIn(kMemcachedPid), memcached);
  EXPECT_TRUE(MemcachedAnswers());
  EXPECT_EQ(Daemon("status"), 0);

  EXPECT_EQ(Daemon("stop"), 0);
  EXPECT_FALSE(MemcachedAnswers());
  EXPECT_FALSE(Alive(memcached));

  SetIds("node-a", "node-b");
  ASSERT_EQ(Daemon("start"), 0);
  EXPECT_TRUE(RedisAnswers());
  EXPECT_FALSE(MemcachedAnswers()) << "only the master balancer runs the file buffer";
}

TEST_F(ClusterDaemonTest, ReplicaPassesStatusOnlyWhileLinkedToItsMaster) {
  WriteRedisConf("slaveof 127.0.0.1 8600");
  ASSERT_EQ(Daemon("start"), 0) << "the store answers even before its master does";
  EXPECT_EQ(Daemon("status"), 1);
  auto master = ServerProcess::Redis(8600, kPassword, {"--repl-diskless-sync-delay", "0"});
  // Polls until status passes (or no longer passes), for up to ten seconds.
  auto statusBecomes = [](bool passing) {
    for (int i = 0; i < 200; ++i, std::this_thread::sleep_for(std::chrono::milliseconds(50))) {
      if ((Daemon("status") == 0) == passing) return true;
    }
    return false;
  };
  EXPECT_TRUE(statusBecomes(true)) << "the replica never linked up (masterauth from the template?)";
  master->Stop();
  EXPECT_TRUE(statusBecomes(false)) << "status still passes with the master gone";
}

TEST_F(ClusterDaemonTest, KeyWatcherRunsWhenInstalled) {
  WriteRedisConf();
  ASSERT_EQ(Daemon("watch_restart"), 0) << "no watcher installed is no error";
  // Like the real one, it says when it has caught up; watch_restart waits for that.
  WriteFile(kWatcher,
            "#!/bin/sh\ntouch /var/run/quillon_server/key_watcher.ready\n"
            "while :; do sleep 1; done\n",
            0755);

  ASSERT_EQ(Daemon("start"), 0);
  const pid_t first = PidIn(kWatcherPid);
  EXPECT_TRUE(Alive(first));
  EXPECT_EQ(Daemon("watch_restart"), 0);
  const pid_t second = PidIn(kWatcherPid);
  EXPECT_TRUE(Alive(second) && !Alive(first));
  EXPECT_EQ(Daemon("stop"), 0);
  EXPECT_FALSE(Alive(second));
  EXPECT_NE(access("/var/run/quillon_server/key_watcher.ready", F_OK), 0);
}

}  // namespace
}  // namespace qsvtest
