// The exit statuses of the key store tool. They are its answer to the library, which tells a
// "no" (a missing key, a key that already existed) apart from a failure to reach the store.
#ifndef QSV_COMPANIONS_KVTOOL_EXIT_STATUS_H_
#define QSV_COMPANIONS_KVTOOL_EXIT_STATUS_H_

namespace kvtool {

enum ExitStatus {
  kExitOk = 0,
  kExitNo = 1,      // the store answered, and the answer is no
  kExitStore = 2,   // the store could not be reached, refused us, or answered with an error
  kExitUsage = 64,  // the command line makes no sense
};

}  // namespace kvtool

#endif  // QSV_COMPANIONS_KVTOOL_EXIT_STATUS_H_
