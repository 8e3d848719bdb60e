// kolt-sched-run: one pass of the platform's scheduler, which the platform's cron calls once a
// minute; it starts every entry that is due and says how many.
#include <stdio.h>
#include <time.h>

#include "kolt/err.h"
#include "kolt/sched.h"

int main() {
  const int started = KOLTSchedRunDue(time(nullptr));
  if (started < 0) {
    fprintf(stderr, "kolt-sched-run: the scheduler's entries can't be run [0x%04X %s:%d]\n",
            KLIBCErrGet(), KLIBCErrorGetFile(), KLIBCErrorGetLine());
    return 1;
  }
  printf("%d started\n", started);
  return 0;
}
