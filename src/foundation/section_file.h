// Line tools for the plain text lists the suite imports and for its section files. A section file
// holds named sections, each opened by a line "[name]" and running to the next such line:
//
//   [whitelist]
//   example.com
//   # a comment
//   mail.example.org
//
// Safe from any thread as long as each thread uses its own list.
#ifndef MAILSERVER_FOUNDATION_SECTION_FILE_H_
#define MAILSERVER_FOUNDATION_SECTION_FILE_H_

#include "foundation/export.h"
#include "kolt/szlist.h"

// Copies `in` into `out`, a buffer of `size` bytes, with every tab a blank; a longer text is cut
// and `out` always ends in a NUL. Returns the length copied, or -1 for a null argument or size 0.
QSV_EXPORT int ReplaceTabToSpace(const char *in, char *out, unsigned long size);

// Empties `*list` and fills it with the blank-separated words of `line` (blanks, tabs and the
// line end all separate). A null `*list` gets a new list. Returns the number of words, or -1 for
// a null argument or when memory runs out. `line` is left as it was.
QSV_EXPORT int ParseReadLine(char *line, KLIBSZLIST **list);

// Appends to `*list` the lines of `section` in `file`, each trimmed, leaving out empty lines and
// lines that begin with '#'. Tabs become blanks. A section that appears more than once
// contributes every time. A null `*list` gets a new list. Returns the number of lines appended
// (0 when the section isn't there), or -1.
QSV_EXPORT int GetSectionContent(const char *file, const char *section, KLIBSZLIST **list);

#endif  // MAILSERVER_FOUNDATION_SECTION_FILE_H_
