// Logged text as it goes into a row: addresses in their UTF-8 form, a Subject header with its
// encoded words decoded, and everything made valid UTF-8 without control characters, so that
// whoever shows a row shows readable text. Pure functions: safe from any thread.
#ifndef MAILSERVER_TOOLS_LOG_WRITER_ROW_TEXT_H_
#define MAILSERVER_TOOLS_LOG_WRITER_ROW_TEXT_H_

#include <string>

namespace qsvlog {

// Valid UTF-8 without control characters: a byte that isn't part of a well-formed sequence is
// taken as Latin-1, the usual charset of unlabelled 8-bit header text.
std::string RowText(const std::string &text);

// The address with an "xn--" domain in its UTF-8 form ("a@xn--bcher-kva.example" gives
// "a@bücher.example"); an address that doesn't decode stays as logged.
std::string RowAddress(const std::string &address);

// The header text with its MIME encoded words ("=?UTF-8?B?...?=", "=?iso-8859-1?Q?...?=")
// decoded into UTF-8. A word of a charset iconv doesn't know stays as written.
std::string RowSubject(const std::string &header);

}  // namespace qsvlog

#endif  // MAILSERVER_TOOLS_LOG_WRITER_ROW_TEXT_H_
