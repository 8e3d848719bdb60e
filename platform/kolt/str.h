// Small in-place text helpers. They touch only the caller's buffer, so they
// may be called from any thread.

#ifndef KOLT_STR_H_
#define KOLT_STR_H_

// Removes leading and trailing white space (isspace) in place. flags is
// reserved. Returns the new length, or -1 for a null text.
int KLIBCStrTrimSpace(char *text, int flags);

#endif  // KOLT_STR_H_
