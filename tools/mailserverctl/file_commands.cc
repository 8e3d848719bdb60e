#include "mailserverctl/file_commands.h"

#include <cstdio>

#include "cluster/backendWrapper.h"

using KOLT::QUILLON_SERVER::QuillonServerBACKENDWrap;

namespace mailserverctl {

// args: "file", word, ...
int FileCommand(const std::vector<std::string> &args) {
  const std::string word = args.size() > 1 ? args[1] : "";
  if (word == "set" && args.size() >= 4) {
    std::vector<const char *> script;
    for (size_t i = 4; i < args.size(); ++i) script.push_back(args[i].c_str());
    script.push_back(nullptr);
    if (!QuillonServerBACKENDWrap().setFile(args[2], args[3],
                                            args.size() > 4 ? script.data() : nullptr)) {
      fprintf(stderr, "mailserverctl: file set: %s was not sent (see the system log)\n",
              args[3].c_str());
      return 1;
    }
    printf("%s: sent under %s\n", args[3].c_str(), args[2].c_str());
    return 0;
  }
  if (word == "delete" && (args.size() == 3 || args.size() == 4)) {
    const std::string path = args.size() == 4 ? args[3] : "";
    if (!QuillonServerBACKENDWrap().deleteFile(args[2], path)) {
      fprintf(stderr, "mailserverctl: file delete: %s was not removed (see the system log)\n",
              args[2].c_str());
      return 1;
    }
    printf("%s: removal sent\n", args[2].c_str());
    return 0;
  }
  fprintf(stderr,
          "usage: mailserverctl file set KEY PATH [SCRIPT [ARG...]]\n"
          "       mailserverctl file delete KEY [PATH]\n");
  return 2;
}

}  // namespace mailserverctl
