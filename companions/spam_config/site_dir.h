// Putting a new site configuration of the spam filter in place as a whole: its files go into a
// fresh folder beside the live one, the filter's own lint reads that folder, and only a clean
// folder takes the live one's place, in one rename that swaps the two. A reader (the filter
// daemon starting or reloading) so sees either the old configuration or the new one, never a mix,
// and a configuration the filter would refuse never becomes the live one.
//
// One writer at a time: the caller holds the writers' lock for the whole of ReplaceSiteDir.
#ifndef COMPANIONS_SPAM_CONFIG_SITE_DIR_H_
#define COMPANIONS_SPAM_CONFIG_SITE_DIR_H_

#include <string>
#include <vector>

namespace spamconf {

struct SiteFile {
  std::string name;  // a plain file name
  std::string text;
};

// Makes `files` the content of the folder `target` (absolute). The files are mode 0644 and, when
// run as root, owned by the package user, as is the folder; the lint then runs as that user too,
// so that nothing a rule file makes the filter do happens as root. `linter` is the filter's
// command line program. 0, or -1 with the reason on standard error and in the system log and the
// old folder left as it was.
// REQUIRES: the caller holds the writers' lock.
int ReplaceSiteDir(const std::string &target, const std::vector<SiteFile> &files,
                   const std::string &linter);

// Makes the folder of what the filter learns (mode 0700, the package user's when run as root),
// unless it is there. 0 or -1.
int MakeLearnedDataDir(const std::string &path);

}  // namespace spamconf

#endif  // COMPANIONS_SPAM_CONFIG_SITE_DIR_H_
