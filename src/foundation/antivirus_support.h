// Whether this machine has the memory to run the virus scanner, whose signature database alone
// takes a few hundred megabytes. Safe from any thread.
#ifndef MAILSERVER_FOUNDATION_ANTIVIRUS_SUPPORT_H_
#define MAILSERVER_FOUNDATION_ANTIVIRUS_SUPPORT_H_

#include "foundation/export.h"

// True with at least 384 MiB of RAM; false with less or when the kernel can't tell.
QSV_EXPORT bool IsSupportAntiVirus();

#endif  // MAILSERVER_FOUNDATION_ANTIVIRUS_SUPPORT_H_
