#include "mailserverctl/quarantine_commands.h"

#include <sqlite3.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <list>
#include <map>
#include <set>

#include "eai/punycode.h"
#include "foundation/strings.h"
#include "mailserverctl/error.h"
#include "mailserverctl/list_input.h"
#include "security/MCPDBHandler.h"

namespace mailserverctl {
namespace {

// The handler's file: it opens it by this fixed path and has no other to give.
const char kIndexPath[] = "/var/packages/Quillon-Server/etc/mcp_quarantine.db";
constexpr int kBusyTimeoutMs = 60000;
constexpr uint64_t kMaxInt64 = std::numeric_limits<int64_t>::max();
// The text search puts the text four times into a statement of at most 2047 bytes, each quote
// doubled: more than this could make the index refuse the search.
constexpr size_t kMaxSearchText = 200;

// The index puts the order column and direction into its statement as they stand: only these
// words ever reach it.
const std::set<std::string> kColumns = {"message_id", "sender",  "receivers", "dateNum",
                                        "receivedTime", "subject", "report",    "path",
                                        "score",        "actions", "mailSize"};

enum class Option {
  kText, kSender, kReceiver, kSubject, kReceivedFrom, kReceivedTo, kScoreFrom, kScoreTo,
  kSizeFrom, kSizeTo, kOrder, kDirection
};

const std::map<std::string, Option> kOptions = {
    {"--text", Option::kText},
    {"--sender", Option::kSender},
    {"--receiver", Option::kReceiver},
    {"--subject", Option::kSubject},
    {"--received-from", Option::kReceivedFrom},
    {"--received-to", Option::kReceivedTo},
    {"--score-from", Option::kScoreFrom},
    {"--score-to", Option::kScoreTo},
    {"--size-from", Option::kSizeFrom},
    {"--size-to", Option::kSizeTo},
    {"--order", Option::kOrder},
    {"--direction", Option::kDirection},
};

// What a search asks. The index compares its text fields with percent signs around the text
// ("= '%x%'"), which matches no address or subject it stores, so sender, recipient and subject are
// matched here, on the rows the index finds by the other fields.
struct Search {
  MCPDBFilter filter{0, -1, "*", "", "", "", "", "", "", -1, -1, 0, 0, 0, 0, false,
                     "receivedTime", "asc"};
  std::string sender;
  std::string receiver;
  std::string subject;
};

int Usage() {
  fprintf(stderr,
          "usage: mailserverctl quarantine list [--offset N] [--limit N]\n"
          "       mailserverctl quarantine search [--text TEXT] [--sender ADDRESS] "
          "[--receiver ADDRESS] [--subject TEXT]\n"
          "           [--received-from|--received-to SECONDS] [--score-from|--score-to N]\n"
          "           [--size-from|--size-to BYTES] [--order COLUMN] [--direction asc|desc]\n"
          "           [--offset N] [--limit N]\n"
          "       mailserverctl quarantine delete ID...\n");
  return 2;
}

// A decimal number from `min` to `max`, nothing else: no blanks, no sign.
bool Number(const std::string &text, uint64_t min, uint64_t max, uint64_t &number) {
  if (text.empty() || text.size() > 20 ||
      text.find_first_not_of("0123456789") != std::string::npos) {
    return false;
  }
  errno = 0;
  const unsigned long long value = strtoull(text.c_str(), nullptr, 10);
  if (errno == ERANGE || value < min || value > max) return false;
  number = value;
  return true;
}

// The form the index keeps an address in.
std::string Utf8Form(const std::string &address) {
  std::string utf8;
  return KOLT::QUILLON_SERVER::ConvertToUTF8(address, utf8) == 0 ? utf8 : address;
}

bool SameAddress(const std::string &a, const std::string &b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return tolower(static_cast<unsigned char>(x)) == tolower(static_cast<unsigned char>(y));
         });
}

// Why `value` of `option` is refused, or ""; else it goes into `search`.
std::string Take(Option option, const std::string &name, const std::string &value,
                 Search &search) {
  MCPDBFilter &filter = search.filter;
  uint64_t number = 0;
  const auto numberOf = [&](uint64_t min, uint64_t max, const std::string &what) {
    return Number(value, min, max, number)
               ? ""
               : "refused " + name + " " + Quoted(value) + ": it takes " + what;
  };
  std::string why;
  switch (option) {
    case Option::kText:
    case Option::kSender:
    case Option::kReceiver:
    case Option::kSubject:
      why = PatternRefusal(value);
      if (why.empty() && value.empty()) why = "refused " + name + ": it takes a text";
      if (why.empty() && option == Option::kText && value.size() > kMaxSearchText) {
        why = "refused --text " + Quoted(value) + ": a text search has at most " +
              std::to_string(kMaxSearchText) + " bytes";
      }
      if (!why.empty()) return why;
      if (option == Option::kText) filter.searchText = value;
      if (option == Option::kSender) search.sender = Utf8Form(value);
      if (option == Option::kReceiver) search.receiver = Utf8Form(value);
      if (option == Option::kSubject) search.subject = value;
      return "";
    case Option::kReceivedFrom:
    case Option::kReceivedTo:
      why = numberOf(0, kMaxInt64,
                     "seconds, a whole number from 0 to " + std::to_string(kMaxInt64));
      (option == Option::kReceivedFrom ? filter.receivedTimeFrom : filter.receivedTimeTo) =
          static_cast<int64_t>(number);
      return why;
    case Option::kScoreFrom:
    case Option::kScoreTo:
      // 0 is the index's word for no bound: it can't stand for a bound of 0.
      why = numberOf(1, UINT32_MAX, "a whole number from 1 to " + std::to_string(UINT32_MAX));
      (option == Option::kScoreFrom ? filter.scoreFrom : filter.scoreTo) =
          static_cast<uint32_t>(number);
      return why;
    case Option::kSizeFrom:
    case Option::kSizeTo:
      why = numberOf(1, kMaxInt64, "bytes, a whole number from 1 to " + std::to_string(kMaxInt64));
      (option == Option::kSizeFrom ? filter.mailSizeFrom : filter.mailSizeTo) = number;
      return why;
    case Option::kOrder:
      if (kColumns.count(value) == 0) {
        return "refused --order " + Quoted(value) + ": a column is one of " +
               StringJoin(std::list<std::string>(kColumns.begin(), kColumns.end()), ", ");
      }
      filter.orderColumn = value;
      return "";
    case Option::kDirection:
      if (value != "asc" && value != "desc") {
        return "refused --direction " + Quoted(value) + ": a direction is asc or desc";
      }
      filter.orderDirection = value;
      return "";
  }
  return "";
}

// Why the filters given together can't be searched, or "".
std::string Contradiction(const Search &search) {
  const MCPDBFilter &filter = search.filter;
  const bool fields = !search.sender.empty() || !search.receiver.empty() ||
                      !search.subject.empty() || filter.receivedTimeFrom != -1 ||
                      filter.receivedTimeTo != -1 || filter.scoreFrom != 0 || filter.scoreTo != 0 ||
                      filter.mailSizeFrom != 0 || filter.mailSizeTo != 0;
  // The text search ignores every other filter: a mail outside them would be listed anyway.
  if (!filter.searchText.empty() && fields) {
    return "--text searches alone: give it without the other filters";
  }
  if (filter.receivedTimeTo != -1 && filter.receivedTimeFrom > filter.receivedTimeTo) {
    return "--received-from is after --received-to: nothing could be found";
  }
  if (filter.scoreTo != 0 && filter.scoreFrom > filter.scoreTo) {
    return "--score-from is above --score-to: nothing could be found";
  }
  if (filter.mailSizeTo != 0 && filter.mailSizeFrom > filter.mailSizeTo) {
    return "--size-from is above --size-to: nothing could be found";
  }
  return "";
}

bool Matches(const Search &search, const MCPRecord &record) {
  if (!search.sender.empty() && !SameAddress(record.sender, search.sender)) return false;
  if (!search.subject.empty() && record.subject != search.subject) return false;
  if (search.receiver.empty()) return true;
  for (const std::string &receiver : StringSplit(record.receivers.c_str(), " ")) {
    if (SameAddress(receiver, search.receiver)) return true;
  }
  return false;
}

// The index's own numbers of its rows, read from its file: the handler has no word for them.
// Read-only, so that a file that went missing is never made here without its table.
class RowIds {
 public:
  RowIds() {
    if (sqlite3_open_v2(kIndexPath, &db_, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
      sqlite3_close(db_);
      db_ = nullptr;
      return;
    }
    sqlite3_busy_timeout(db_, kBusyTimeoutMs);
  }
  ~RowIds() { sqlite3_close(db_); }
  RowIds(const RowIds &) = delete;
  RowIds &operator=(const RowIds &) = delete;

  bool ok() const { return db_ != nullptr; }

  // The first row of the mail of `record` (its message id and path), or 0 when there is none.
  // -1 when the file can't be read.
  int64_t Of(const MCPRecord &record) {
    int64_t id = -1;
    Query("select min(rowid) from mcp_quarantine_table where message_id = ?1 and path = ?2;",
          [&record](sqlite3_stmt *query) {
            sqlite3_bind_text(query, 1, record.message_id.c_str(), -1, SQLITE_TRANSIENT);
            sqlite3_bind_text(query, 2, record.path.c_str(), -1, SQLITE_TRANSIENT);
          },
          [&id](sqlite3_stmt *query) { id = sqlite3_column_int64(query, 0); });
    return id;
  }

  // The mail of row `id` into `record`: 1, 0 when there is no such row, -1 when the file can't
  // be read.
  int Find(int64_t id, MCPRecord &record) {
    int found = 0;
    const bool read = Query(
        "select message_id, path from mcp_quarantine_table where rowid = ?1;",
        [id](sqlite3_stmt *query) { sqlite3_bind_int64(query, 1, id); },
        [&](sqlite3_stmt *query) {
          const auto text = [query](int i) {
            const auto *value = reinterpret_cast<const char *>(sqlite3_column_text(query, i));
            return std::string(value != nullptr ? value : "");
          };
          record.message_id = text(0);
          record.path = text(1);
          found = 1;
        });
    return read ? found : -1;
  }

 private:
  template <typename Bind, typename Row>
  bool Query(const char *statement, Bind bind, Row row) {
    sqlite3_stmt *query = nullptr;
    if (db_ == nullptr || sqlite3_prepare_v2(db_, statement, -1, &query, nullptr) != SQLITE_OK) {
      sqlite3_finalize(query);
      return false;
    }
    bind(query);
    int rc;
    while ((rc = sqlite3_step(query)) == SQLITE_ROW) row(query);
    sqlite3_finalize(query);
    return rc == SQLITE_DONE;
  }

  sqlite3 *db_ = nullptr;
};

bool Open(MCPDBHandler &index) {
  if (index.getErrCode() == 0) return true;
  Error("cannot open the quarantine index (see the system log)");
  return false;
}

void Print(RowIds &ids, const MCPRecord &record) {
  const int64_t id = ids.Of(record);
  printf("%s\t%s\t%lld\t%d\t%llu\t%s\t%s\t%s\t%s\n", id > 0 ? std::to_string(id).c_str() : "-",
         Shown(record.message_id).c_str(), static_cast<long long>(record.receivedTime),
         static_cast<int>(record.score), static_cast<unsigned long long>(record.mailSize),
         Shown(record.sender).c_str(), Shown(record.receivers).c_str(),
         Shown(record.subject).c_str(), Shown(record.path).c_str());
}

int Run(const Search &search) {
  MCPDBHandler index;
  if (!Open(index)) return 1;
  RowIds ids;
  if (!ids.ok()) return Error("cannot read the quarantine index (see the system log)");
  std::vector<MCPRecord> rows;
  int total = 0;
  if (search.sender.empty() && search.receiver.empty() && search.subject.empty()) {
    total = index.GetRecordNum(search.filter);
    if (total < 0 || index.Retrieve(search.filter, rows) != 0) {
      return Error("cannot read the quarantine index (see the system log)");
    }
  } else {
    MCPDBFilter all = search.filter;
    all.offset = 0;
    all.limit = -1;
    std::vector<MCPRecord> found;
    if (index.Retrieve(all, found) != 0) {
      return Error("cannot read the quarantine index (see the system log)");
    }
    const size_t first = static_cast<size_t>(search.filter.offset);
    for (const MCPRecord &record : found) {
      if (!Matches(search, record)) continue;
      const size_t at = static_cast<size_t>(total++);
      if (at >= first && (search.filter.limit < 0 ||
                          at - first < static_cast<size_t>(search.filter.limit))) {
        rows.push_back(record);
      }
    }
  }
  for (const MCPRecord &record : rows) Print(ids, record);
  printf("total: %d\n", total);
  return 0;
}

int SearchCommand(const std::vector<std::string> &args, bool filters) {
  Search search;
  std::vector<std::string> rest;
  std::string why = ParsePaging(args, 1, search.filter.offset, search.filter.limit, rest);
  if (!why.empty()) return Error(why);
  std::set<Option> seen;
  for (size_t i = 0; i < rest.size(); i += 2) {
    const auto option = kOptions.find(rest[i]);
    if (option == kOptions.end() || !filters) {
      return Error("unknown word " + Quoted(rest[i]) + ": quarantine " + args[0] + " takes " +
                   (filters ? "--text, --sender, --receiver, --subject, --received-from, "
                              "--received-to, --score-from, --score-to, --size-from, --size-to, "
                              "--order, --direction, --offset and --limit"
                            : "--offset and --limit"));
    }
    if (!seen.insert(option->second).second) return Error(rest[i] + " is given twice");
    if (i + 1 == rest.size()) return Error(rest[i] + " needs a value");
    why = Take(option->second, rest[i], rest[i + 1], search);
    if (!why.empty()) return Error(why);
  }
  why = Contradiction(search);
  if (!why.empty()) return Error(why);
  search.filter.searchMode = !search.filter.searchText.empty();
  return Run(search);
}

int Delete(const std::vector<std::string> &words) {
  std::set<int64_t> wanted;
  for (const std::string &word : words) {
    uint64_t id = 0;
    if (!Number(word, 1, kMaxInt64, id)) {
      return Error("refused ID " + Quoted(word) +
                   ": an ID is a number as quarantine list shows it; nothing was deleted");
    }
    wanted.insert(static_cast<int64_t>(id));
  }
  MCPDBHandler index;
  if (!Open(index)) return 1;
  RowIds ids;
  std::vector<MCPRecord> records;
  for (const int64_t id : wanted) {
    MCPRecord record{};
    const int found = ids.Find(id, record);
    if (found < 0) return Error("cannot read the quarantine index (see the system log)");
    if (found == 0) {
      return Error("there is no quarantined mail with ID " + std::to_string(id) +
                   "; nothing was deleted");
    }
    records.push_back(record);
  }
  if (index.Delete(records) != 0) {
    return Error("the mails were not deleted (see the system log)");
  }
  return 0;
}

}  // namespace

int QuarantineCommand(const std::vector<std::string> &args) {
  const std::string word = args.empty() ? "" : args[0];
  if (word == "list" || word == "search") return SearchCommand(args, word == "search");
  if (word == "delete") return args.size() >= 2 ? Delete({args.begin() + 1, args.end()}) : Usage();
  if (word.empty()) return Usage();
  return Error("unknown word " + Quoted(word) + ": quarantine takes list, search or delete");
}

}  // namespace mailserverctl
