// The system log as the platform offers it to packages. Any thread may call
// it; syslog(3) does its own locking.

#ifndef KOLT_SYSLOG_H_
#define KOLT_SYSLOG_H_

// The mail server's category.
#define KOLT_SYSLOG_CATEGORY_MAIL 14

// Logs text at the syslog priority level, exactly as given. category names
// the package (0..31); the facility is whatever openlog(3) set. 0, or -1 for a
// category out of range or a null text.
int KOLTSyslogSend(int category, int level, const char *text);

#endif  // KOLT_SYSLOG_H_
