// Writes a key's mirror file the way the key watcher does, without a store: for tests of code
// that reads settings from the mirrors only. Not for use by several threads at once.
#ifndef MAILSERVER_TESTS_HARNESS_KEY_FILE_H_
#define MAILSERVER_TESTS_HARNESS_KEY_FILE_H_

#include <string>

#include "core/key_tree_store.h"
#include "core/mail_conf.h"
#include "harness/recording_script.h"

namespace qsvtest {

// `value` goes in as it is: no JSON escaping.
inline void PutKeyFile(const std::string &key, const std::string &value) {
  WriteFile(std::string(kMailConfDir) + toLeagalFileName(key),
            "{\"" + KOLT::QUILLON_SERVER::KeyTreeStore::instance()->keyComplete(key) + "\":\"" +
                value + "\"}\n");
}

}  // namespace qsvtest

#endif  // MAILSERVER_TESTS_HARNESS_KEY_FILE_H_
