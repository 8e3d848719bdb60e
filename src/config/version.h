// The version of what the nodes of a cluster share, one row per format. Each node publishes its
// versions in the backend under keys of its own, so that a node can tell whether its peers speak
// the same format before it relies on them.
//
// Only static members; safe from any thread once the list is built at start-up.
#ifndef MAILSERVER_CONFIG_VERSION_H_
#define MAILSERVER_CONFIG_VERSION_H_

#include <string>
#include <vector>

#include "foundation/export.h"

class QSV_EXPORT QuillonServerVersion {
 public:
  struct VersionType {
    std::string name;
    std::string keyPrefix;  // followed by the node's host id
    std::string version;
  };

  static const std::vector<VersionType> gVersionList;

  // Publishes this node's versions. 0, or -1 when the node is not in a cluster or a key could
  // not be written.
  static int SetQuillonServerVersion();

  // Compares this node's versions with every peer's, publishing its own first when they are
  // missing. 0 all equal, 1 a peer differs or never published, -1 failure.
  static int CheckQuillonServerVersion();
};

#endif  // MAILSERVER_CONFIG_VERSION_H_
