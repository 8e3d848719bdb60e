// What the anti-spam and access list commands of mailserverctl accept: the side words, the names
// they store, page options, and the files they read or write. Every check here runs before the
// command touches a table, a key or a file. Stateless.
#ifndef MAILSERVER_TOOLS_MAILSERVERCTL_LIST_INPUT_H_
#define MAILSERVER_TOOLS_MAILSERVERCTL_LIST_INPUT_H_

#include <string>
#include <vector>

#include "security/list_types.h"

namespace mailserverctl {

// The longest name a list keeps: an address is at most 254 bytes, a domain pattern a little more.
constexpr size_t kMaxListName = 255;

// "from", "to" or "client" as a Type; false for any other word.
bool SideWord(const std::string &word, Type &type);
// "account", "address" or "domain" as a NameType; false for any other word.
bool KindWord(const std::string &word, NameType &kind);
const char *SideName(int type);
const char *KindName(int kind);

// Why `name` can't be stored as a list name, or "": a name is one word of UTF-8 of at most
// kMaxListName bytes, without blanks or control characters. The names end up as words of
// configuration lines of the spam filter and the mail daemon.
std::string ListNameRefusal(const std::string &name);

// Why `name` of `kind` doesn't fit its kind on `side`, or "": an address of a sender or recipient
// has one "@" with something on each side; an account or a domain has none. A client is named by
// its address or host name, so no client name has an "@".
std::string KindRefusal(Type side, NameType kind, const std::string &name);

// A search pattern: as a list name, but blanks are allowed.
std::string PatternRefusal(const std::string &pattern);

// Reads "--offset N" and "--limit N" (each at most once, in any order) from args[from...], and
// the words that are not options into `rest`. An error message, or "".
std::string ParsePaging(const std::vector<std::string> &args, size_t from, int &offset, int &limit,
                        std::vector<std::string> &rest);

// `text` as output may show it: as it stands when it is UTF-8 without control characters,
// otherwise quoted with escapes (see Quoted). Names read back from a table are shown so.
std::string Shown(const std::string &text);

// Reads `path` for an import: an absolute path of a regular file (not a link, a device or a
// FIFO) of at most `maxSize` bytes, whose lines are UTF-8 text of at most 64 KiB without control
// characters other than tabs and line ends. `text` gets the content and `mode`, when given, the
// file's mode as it was read. An error message naming the file (and the line), or "".
std::string ReadImportText(const std::string &path, size_t maxSize, std::string &text,
                           unsigned *mode = nullptr);

// Why `path` can't be written by an export, or "": it must be absolute, in an existing folder,
// and not be anything but a regular file if it exists already.
std::string ExportPathRefusal(const std::string &path);

// A copy of checked text that only root can read or change, for the library to import: it reads
// exactly what was checked, whatever happens meanwhile to the file it came from. Removed with the
// object.
class PrivateCopy {
 public:
  explicit PrivateCopy(const std::string &text);
  ~PrivateCopy();
  PrivateCopy(const PrivateCopy &) = delete;
  PrivateCopy &operator=(const PrivateCopy &) = delete;
  // "" when the copy could not be made.
  const std::string &path() const { return path_; }

 private:
  std::string path_;
};

}  // namespace mailserverctl

#endif  // MAILSERVER_TOOLS_MAILSERVERCTL_LIST_INPUT_H_
