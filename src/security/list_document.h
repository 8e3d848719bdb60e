// The JSON document of the black and white list ({"blacklist": {"from": {"account": [...], ...}}})
// read into rows, and the rule every stored list name keeps. Stateless: safe from any thread.
#ifndef MAILSERVER_SECURITY_LIST_DOCUMENT_H_
#define MAILSERVER_SECURITY_LIST_DOCUMENT_H_

#include <json/json.h>

#include <functional>
#include <list>
#include <string>

#include "kolt/szlist.h"
#include "security/spam.h"

// Whether `name` may be stored in a list: not empty, UTF-8, and without control characters. The
// names end up in configuration lines of the spam filter and the mail daemon, where a newline
// would start a line of the name's own.
bool ListNameAcceptable(const std::string &name);

enum JsonFileRead { kJsonRead = 0, kJsonUnreadable = -1, kJsonInvalid = -2 };
// Reads and parses `path`, a regular file.
JsonFileRead ReadJsonFile(const std::string &path, Json::Value &doc);

// Appends the rows of `doc`. A document that is not an object holds no rows. A cell of the wrong
// shape (a verdict or side that isn't an object, a kind that isn't an array of strings) is refused
// with a log line and false, and nothing is appended.
bool ListDocumentRows(const Json::Value &doc, std::list<BlackWhite> &rows);

// Calls `onLine` with the blank-separated words of each line of `path`, a regular file, and the
// line itself. False, with a log line, when the file can't be read or holds a line longer than
// 64 KiB: no list line is that long, and an unbounded one would take all memory.
bool ForEachWordLine(const std::string &path,
                     const std::function<void(const KLIBSZLIST *words, const std::string &line)> &onLine);

#endif  // MAILSERVER_SECURITY_LIST_DOCUMENT_H_
