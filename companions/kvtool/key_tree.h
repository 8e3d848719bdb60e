// Keys of the store form a tree with "/" between the levels: "a/b" lies under "a". A directory has
// no key of its own; it exists while something lies under it. Redis only knows flat names, so a
// directory is found with SCAN and a pattern.
#ifndef QSV_COMPANIONS_KVTOOL_KEY_TREE_H_
#define QSV_COMPANIONS_KVTOOL_KEY_TREE_H_

#include <functional>
#include <string>
#include <vector>

#include "store.h"

namespace kvtool {

// `text` as a SCAN pattern that matches only itself: the glob characters of a key are escaped.
std::string GlobEscape(const std::string &text);

// Calls `page` with each batch of keys under `dir` + "/" (at any depth) until the scan is done or
// `page` returns false. False, with a message, when the store fails.
bool ScanUnder(Connection *connection, const std::string &dir,
               const std::function<bool(const std::vector<std::string> &)> &page);

// The direct child of `dir` that `key` lies in: for dir "a" and key "a/b/c", "a/b".
// REQUIRES: key starts with dir + "/".
std::string ChildOf(const std::string &dir, const std::string &key);

}  // namespace kvtool

#endif  // QSV_COMPANIONS_KVTOOL_KEY_TREE_H_
