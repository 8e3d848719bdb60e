// The verbs that speak for the suite's services rather than for single keys: taking a server out of
// the service catalog, and announcing a change to the mail event dispatcher. Each returns the
// tool's exit status.
#ifndef QSV_COMPANIONS_KVTOOL_SERVICE_COMMANDS_H_
#define QSV_COMPANIONS_KVTOOL_SERVICE_COMMANDS_H_

#include <string>

#include "options.h"

namespace kvtool {

// Deletes "service_catalog/<service>/<server id>"; a server already gone is fine.
int Deregister(const Invocation &invocation);

// The message published for a dispatcher event: a compact JSON object with "key", "tree" and
// "type", no line end.
std::string DispatcherEventText(const Invocation &invocation);

// Publishes it on "mail_event_dispatcher" through the master, so that every node's subscribers
// receive it.
int SendDispatcherEvent(const Invocation &invocation);

}  // namespace kvtool

#endif  // QSV_COMPANIONS_KVTOOL_SERVICE_COMMANDS_H_
