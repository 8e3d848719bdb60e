// Everything the platform offers, for callers that want it all at once. Each
// header says whether its objects may be shared between threads.

#ifndef KOLT_KOLT_H_
#define KOLT_KOLT_H_

#include "kolt/base64.h"
#include "kolt/err.h"
#include "kolt/exec.h"
#include "kolt/file.h"
#include "kolt/fs.h"
#include "kolt/pidfile.h"
#include "kolt/serial.h"
#include "kolt/str.h"
#include "kolt/syslog.h"
#include "kolt/szhash.h"
#include "kolt/szlist.h"
#include "kolt/types.h"
#include "kolt/user.h"

#endif  // KOLT_KOLT_H_
