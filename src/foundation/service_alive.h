// Questions about the services of the cluster's nodes that the helpers of several modules share.
// Each builds its own cluster view: safe from any thread.
#ifndef MAILSERVER_FOUNDATION_SERVICE_ALIVE_H_
#define MAILSERVER_FOUNDATION_SERVICE_ALIVE_H_

#include <string>

#include "foundation/export.h"

// The addresses of the nodes whose `service` reports status 0, blank-separated in address
// order, in `value`. 0, or -1 when the states can't be read.
QSV_EXPORT int aliveServiceGet(const std::string &service, std::string &value);

// -1 when the peers can't be listed or have no address, 0 for one node, 1 for several.
QSV_EXPORT int checkAAStructure();

#endif  // MAILSERVER_FOUNDATION_SERVICE_ALIVE_H_
