// Migration: MigrationMgr::startTask until the run's exit status is written, for one user with 550
// messages in two folders, against Debian's offlineimap3 run bare (as the package user) with the
// same configuration and the same master user; and a page of a task log of 100,000 rows through
// listTaskLog against the same SELECT in raw SQLite (open, prepare, step, close).
#include <pwd.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include <benchmark/benchmark.h>

#include "config/imap_pop3.h"
#include "core/mail_dir.h"
#include "foundation/mail_dir_path.h"
#include "kolt/exec.h"
#include "migration/imap_source.h"
#include "migration/migration.h"
#include "ratio_reporter.h"

using namespace KOLT::QUILLON_SERVER;

namespace {

const char kTask[] = "bench";
const char kLogTask[] = "logbench";
const char kUser[] = "qsvbench";
const std::string kTaskDir = "/var/packages/Quillon-Server/target/var/migration_data/bench";
const char kGen[] = "/var/packages/Quillon-Server/target/scripts/migration_util/genOfflineimapConfig.py";
std::string maildir;

// A clean destination and no state of an earlier run, so that every run copies all 550.
void Reset() {
  KLIBCExecl("/bin/rm", KLIBC_EXEC_QUIET_WAIT, "-rf", maildir.c_str(),
             (kTaskDir + "/offlineimap_data").c_str(), nullptr);
}

void StartTaskUntilExitStatus(benchmark::State &state) {
  for (auto _ : state) {
    state.PauseTiming();
    Reset();
    state.ResumeTiming();
    if (MigrationMgr::startTask(kTask) != 0) state.SkipWithError("startTask failed");
    while (MigrationTask::isTaskRunning(kTask) != 0 ||
           access((kTaskDir + "/offlineimap_data/exit_status").c_str(), F_OK) != 0) {
      usleep(10000);
    }
    state.PauseTiming();
    if (MigrationTask(kTask).getTaskStatus() != 5) state.SkipWithError("the run did not end well");
    MigrationMgr::disableMasterUser(kTask);
    state.ResumeTiming();
  }
}

void BareOfflineimapSameConfig(benchmark::State &state) {
  std::string user, password;
  char cipher[1024];
  if (MigrationMgr::enableMasterUser(kTask, user, password) != 0 ||
      !migrationEncrypt(password.c_str(), cipher, sizeof(cipher))) {
    state.SkipWithError("no master user");
    return;
  }
  FILE *gen = KLIBCPopen(kGen, "w", kTask, nullptr);
  fprintf(gen, "%s\n%s\n", user.c_str(), cipher);
  if (KLIBCPclose(gen) != 0) state.SkipWithError("no configuration");
  const std::string conf = kTaskDir + "/offlineimap.conf";
  for (auto _ : state) {
    state.PauseTiming();
    Reset();
    state.ResumeTiming();
    if (KLIBCExecl("/usr/bin/setpriv", KLIBC_EXEC_QUIET_WAIT, "--reuid=Quillon-Server",
                   "--regid=Quillon-Server", "--clear-groups", "--", "/usr/bin/offlineimap", "-c",
                   conf.c_str(), "-u", "quiet", nullptr) != 0) {
      state.SkipWithError("offlineimap failed");
    }
  }
  MigrationMgr::disableMasterUser(kTask);
}

const char kPageSql[] =
    "SELECT * FROM main.log_table  ORDER BY time DESC LIMIT 50 OFFSET 50000;";

void TaskLogPage(benchmark::State &state) {
  MigrationTask task(kLogTask);
  std::list<MigrationLog> rows;
  for (auto _ : state) {
    if (task.listTaskLog(rows, -1, 50, 50000, "", true, false) != 0 || rows.size() != 50) {
      state.SkipWithError("no page");
    }
  }
}

void RawSqlSamePage(benchmark::State &state) {
  const std::string path = std::string("/var/packages/Quillon-Server/target/var/migration_data/") +
                           kLogTask + "/task_log.db";
  for (auto _ : state) {
    sqlite3 *db = nullptr;
    sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr);
    sqlite3_busy_timeout(db, 60000);
    sqlite3_stmt *statement = nullptr;
    sqlite3_prepare_v2(db, kPageSql, -1, &statement, nullptr);
    int n = 0;
    while (sqlite3_step(statement) == SQLITE_ROW) {
      time_t when = sqlite3_column_int64(statement, 0);
      struct tm local;
      localtime_r(&when, &local);
      std::string identity(reinterpret_cast<const char *>(sqlite3_column_text(statement, 2)));
      std::string event(reinterpret_cast<const char *>(sqlite3_column_text(statement, 4)));
      benchmark::DoNotOptimize(identity);
      benchmark::DoNotOptimize(event);
      n++;
    }
    sqlite3_finalize(statement);
    sqlite3_close(db);
    if (n != 50) state.SkipWithError("no page");
  }
}

BENCHMARK(StartTaskUntilExitStatus)->UseRealTime()->Iterations(3)->Unit(benchmark::kMillisecond);
BENCHMARK(BareOfflineimapSameConfig)->UseRealTime()->Iterations(3)->Unit(benchmark::kMillisecond);
BENCHMARK(TaskLogPage)->UseRealTime()->Repetitions(3)->ReportAggregatesOnly(true)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(RawSqlSamePage)->UseRealTime()->Repetitions(3)->ReportAggregatesOnly(true)
    ->Unit(benchmark::kMicrosecond);

// 100,000 rows as runs write them: accounts starting and finishing, folders, some errors.
bool FillLog() {
  MigrationTask task(kLogTask);
  if (task.createTaskDir() != 0 || task.getTaskLogNum(-1, "", false) != 0) return false;
  sqlite3 *db = nullptr;
  const std::string path = task.getTaskDir() + "/task_log.db";
  if (sqlite3_open(path.c_str(), &db) != SQLITE_OK) return false;
  sqlite3_exec(db, "BEGIN", nullptr, nullptr, nullptr);
  sqlite3_stmt *insert = nullptr;
  sqlite3_prepare_v2(db, "INSERT INTO log_table VALUES (?, ?, ?, ?, ?)", -1, &insert, nullptr);
  for (int i = 0; i < 100000; i++) {
    const std::string identity = "user" + std::to_string(i % 500) + "@old->user" +
                                 std::to_string(i % 500);
    const std::string event = i % 97 == 0 ? "Login failed for " + identity
                                          : "Syncing folder Folder" + std::to_string(i % 40);
    sqlite3_bind_int64(insert, 1, 1700000000 + i);
    sqlite3_bind_int(insert, 2, i % 97 == 0 ? 3 : 6);
    sqlite3_bind_text(insert, 3, identity.c_str(), -1, SQLITE_TRANSIENT);
    sqlite3_bind_int(insert, 4, i % 3 == 0);
    sqlite3_bind_text(insert, 5, event.c_str(), -1, SQLITE_TRANSIENT);
    sqlite3_step(insert);
    sqlite3_reset(insert);
  }
  sqlite3_finalize(insert);
  sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr);
  sqlite3_close(db);
  return true;
}

bool SetUp(qsvtest::ImapSource *&source) {
  const std::string ctl = std::string(getenv("QSV_BUILD_DIR")) + "/tools/mailserverctl";
  if (KLIBCExecl(ctl.c_str(), KLIBC_EXEC_QUIET_WAIT, "setup", nullptr) != 0) return false;
  if (KLIBCExecl("/usr/sbin/useradd", KLIBC_EXEC_QUIET_WAIT, "-M", kUser, nullptr) != 0) {
    return false;
  }
  const passwd *user = getpwnam(kUser);
  if (user == nullptr || mailDirPathCreate(user->pw_uid, user->pw_gid) != 0) return false;
  mailDirGet(user->pw_uid, maildir);
  maildir += "/Maildir";
  ImapPop3 settings;
  if (settings.LoadSettings() != 0) return false;
  settings.Set("imap_enabled", boost::any(Value<bool>(true)));
  if (settings.SaveSettings({}) != 0 || ImapPop3::Service("start") != 0) return false;
  source = new qsvtest::ImapSource(10143);
  source->AddUser("src", "Src-Pass");
  source->AddMessages("src", "INBOX", 400, "inbox", 4000);
  source->AddMessages("src", "Work", 150, "work", 4000);
  GeneralSetting general;
  general.taskName = kTask;
  general.serverSetting.addr = "127.0.0.1";
  general.serverSetting.port = 10143;
  MigrationTask task(kTask);
  return task.saveGeneral(general) == 0 &&
         task.saveUser({{"src", "Src-Pass", kUser, 0, 0}}) == 0 && FillLog();
}

}  // namespace

int main(int argc, char **argv) {
  benchmark::Initialize(&argc, argv);
  qsvtest::ImapSource *source = nullptr;
  if (!SetUp(source)) {
    fprintf(stderr, "set-up failed: run me in the sandbox\n");
    return 1;
  }
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  printf("\n");
  reporter.PrintRatio("startTask until exit status / bare offlineimap3, 550 messages",
                      "StartTaskUntilExitStatus", "BareOfflineimapSameConfig", "(goal <= 1.2)");
  reporter.PrintRatio("listTaskLog page of 100,000 rows / the same raw SQL", "TaskLogPage",
                      "RawSqlSamePage", "(goal <= 1.2)");
  delete source;
  ImapPop3::Service("stop");
  return 0;
}
