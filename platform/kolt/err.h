// The last platform error of the calling thread: which failure, and in which
// source file and line it was seen. Every platform call that fails leaves its
// code here; callers print it as "[0x%04X %s:%d]". Each thread has its own slot,
// so nothing here is shared between threads.

#ifndef KOLT_ERR_H_
#define KOLT_ERR_H_

// A failed system call: its errno in the low byte.
#define KLIBC_ERR_SYSTEM 0x0100
#define KLIBC_ERR_SYS(e) (KLIBC_ERR_SYSTEM | ((e) & 0xFF))

#define KLIBC_ERR_OUT_OF_MEMORY 0x0200
#define KLIBC_ERR_NOT_FOUND 0x0300
#define KLIBC_ERR_BUFFER_TOO_SMALL 0x0400
#define KLIBC_ERR_BAD_FORMAT 0x0500
#define KLIBC_ERR_TIMEOUT 0x0600
#define KLIBC_ERR_CHILD_KILLED 0x0700  // a waited-for child died of a signal
#define KLIBC_ERR_BAD_PARAM 0x0D00

int KLIBCErrGet(void);
const char *KLIBCErrorGetFile(void);
int KLIBCErrorGetLine(void);

// Keeps only the last path component of file. Leaves errno as it was, so that
// callers may still look at it after a failure.
void KLIBCErrSet(int code, const char *file, int line);

#define KLIBC_ERR_SET(code) KLIBCErrSet((code), __FILE__, __LINE__)

#endif  // KOLT_ERR_H_
