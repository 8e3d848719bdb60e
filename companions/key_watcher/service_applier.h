// The watcher's side of a service sync flag: a writer that changed a setting some service reads
// raises "service_change/serv_status-ID|SERVICE|TAG" for each other node, and until every node
// has lowered its flag the cluster counts as changing and membership changes wait. The node ID
// reloads SERVICE, so that the service reads the mirror the watcher has just brought up to date,
// and lowers its flag.
#ifndef QSV_COMPANIONS_KEY_WATCHER_SERVICE_APPLIER_H_
#define QSV_COMPANIONS_KEY_WATCHER_SERVICE_APPLIER_H_

#include <string>

#include "store_link.h"

namespace keywatcher {

extern const char kServiceFlagPrefix[];

// Takes up the flag `key` when it names this node (`hostId`) and a service of the package, and
// still stands in the store; any other key under the prefix is left alone.
void TakeUpServiceFlag(Reader *reader, const std::string &key, const std::string &hostId);

// The flags of this node that were raised while its watcher was away.
void CatchUpServiceFlags(Reader *reader, const std::string &hostId);

}  // namespace keywatcher

#endif  // QSV_COMPANIONS_KEY_WATCHER_SERVICE_APPLIER_H_
