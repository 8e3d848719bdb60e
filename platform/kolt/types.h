// Common scalar types of the platform interface. Plain values; nothing to share.

#ifndef KOLT_TYPES_H_
#define KOLT_TYPES_H_

typedef int BOOL;

#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif

#endif  // KOLT_TYPES_H_
