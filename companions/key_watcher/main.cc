// kolt-quillon-server-key-watcher: follows this node's key store and carries out on this node
// what the cluster's writes ask of it (see watcher.h). Runs in the foreground until SIGTERM;
// ClusterDaemon.sh starts it in the background and keeps its pid file. Loses nothing when the
// store goes away for a while: it reconnects and catches up.
#include <signal.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>

#include "store_link.h"
#include "watcher.h"

namespace {

// A receiver that failed keeps its task; it is tried again this often even without an event.
constexpr int kRetrySeconds = 30;

// Made once the first catch-up is done: whoever restarts the watcher (a node joining, an address
// changing) waits for it before it tells its caller that the node's settings are there.
const char kReadyFile[] = "/var/run/quillon_server/key_watcher.ready";

// A stop request is honoured between two events, never inside one: a watcher killed while it
// holds a file's upload lock would leave the lock behind for a day, and the file with it.
volatile sig_atomic_t stopping = 0;

void RequestStop(int) { stopping = 1; }

}  // namespace

int main() {
  openlog("kolt-quillon-server-key-watcher", LOG_PID, LOG_DAEMON);
  signal(SIGPIPE, SIG_IGN);
  struct sigaction stop = {};
  stop.sa_handler = RequestStop;
  sigaction(SIGTERM, &stop, nullptr);
  sigaction(SIGINT, &stop, nullptr);
  while (!stopping) {
    // Subscribe first, catch up second: a change between the two is then seen twice rather than
    // not at all, and seeing it twice is harmless.
    std::unique_ptr<keywatcher::EventFeed> feed =
        keywatcher::EventFeed::Open(keywatcher::FollowedPatterns());
    std::unique_ptr<keywatcher::Reader> reader = feed ? keywatcher::Reader::Open() : nullptr;
    if (!feed || !reader) {
      sleep(1);
      continue;
    }
    keywatcher::Watcher watcher(reader.get());
    watcher.CatchUpMirrors();
    watcher.CatchUpFiles();
    if (FILE *ready = fopen(kReadyFile, "w")) fclose(ready);
    time_t lastCatchUp = time(nullptr);
    while (!stopping) {
      std::string key, event;
      const int got = feed->Next(&key, &event, 1000);
      if (got < 0) break;
      if (got > 0) watcher.Handle(key, event);
      if (time(nullptr) - lastCatchUp >= kRetrySeconds) {
        watcher.RetryMirrors();
        watcher.CatchUpFiles();
        lastCatchUp = time(nullptr);
      }
    }
    if (stopping) break;
    syslog(LOG_WARNING, "lost the key store; reconnecting");
    sleep(1);
  }
  unlink(kReadyFile);
  return 0;
}
