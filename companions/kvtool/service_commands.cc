#include "service_commands.h"

#include <memory>

#include "exit_status.h"
#include "json_text.h"
#include "store.h"

namespace kvtool {

int Deregister(const Invocation &inv) {
  std::unique_ptr<Store> store = Store::Open();
  Connection *master = store ? store->Master() : nullptr;
  if (master == nullptr) return kExitStore;
  const std::string key = "service_catalog/" + inv.serviceName + "/" + inv.serverId;
  return master->Call({"DEL", key}) ? kExitOk : kExitStore;
}

std::string DispatcherEventText(const Invocation &inv) {
  return JsonObject({{"type", inv.eventType}, {"tree", inv.eventTree}, {"key", inv.eventKey}});
}

int SendDispatcherEvent(const Invocation &inv) {
  std::unique_ptr<Store> store = Store::Open();
  Connection *master = store ? store->Master() : nullptr;
  if (master == nullptr) return kExitStore;
  return master->Call({"PUBLISH", "mail_event_dispatcher", DispatcherEventText(inv)}) ? kExitOk
                                                                                      : kExitStore;
}

}  // namespace kvtool
