// Pid files: how the package's daemons tell others who they are, and how the
// library finds and signals them. Stateless; any thread may call these.

#ifndef KOLT_PIDFILE_H_
#define KOLT_PIDFILE_H_

// The pid written in path (decimal, optional trailing white space), 0 if it
// says 0, or -1 when the file is missing, unreadable or holds anything else.
int KLIBCReadPidFile(const char *path);

// Writes getpid() and a newline to a new file (0644). Fails with -1 if path
// already exists: a stale file is the caller's to judge and remove.
int KLIBCProcPidFileCreate(const char *path);

// 1 when the process named by the pid file runs (even if it belongs to
// another user); 0 when it does not, when it has exited and only waits for its
// parent to reap it, or when the file says 0; -1 when the file holds no pid.
int KLIBCProcAliveByPidFile(const char *path);

// 1 when some process's command name (/proc/PID/comm) equals name, else 0.
// The kernel keeps only the first 15 bytes of a command name, so a longer
// name is compared by those.
int KLIBCIsProcAlive(const char *name);

// Sends sig to the process named by the pid file: 0 when sent, else -1.
int KLIBCProcSignalByPidFile(const char *path, int sig);

#endif  // KOLT_PIDFILE_H_
