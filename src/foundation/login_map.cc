#include "foundation/login_map.h"

#include "foundation/log.h"
#include "kolt/exec.h"

namespace {

const char kGenerator[] = "/var/packages/Quillon-Server/target/bin/kolt_gen_login_map";

}  // namespace

int GenLoginMap(const std::string &argument) {
  const int rc = KLIBCExec(kGenerator, argument.empty() ? nullptr : argument.c_str(), nullptr,
                           nullptr, KLIBC_EXEC_QUIET_WAIT);
  if (rc != 0) {
    maillog(3, "%s:%d Failed to run %s, result %d", QSV_FILE, __LINE__, kGenerator, rc);
    return -1;
  }
  return 0;
}
