// System notifications, as far as the mail suite sends them: a tag that names the message, the
// folder of its localized texts, a filter file that says who hears of it, and the values to put in
// its placeholders.
//
// This machine has no notification centre, so a notification is one JSON line appended to
// /usr/kolt/var/notifications.log, where tools and tests read it back:
//
//   {"tag":"...","texts":"...","filter":"...","values":{"%NAME%":"value",...}}
//
// Each call writes its line with one write on a file opened for appending, so lines of concurrent
// senders don't mix. Any thread and any process may call it.
#ifndef KOLT_NOTIFY_H_
#define KOLT_NOTIFY_H_

#include "kolt/szhash.h"

// The file the notifications go to.
extern const char kKoltNotificationLog[];

// Sends the notification `tag` with the placeholder values of `values` (may be null). `flags` is
// reserved. 0, or -1 with the platform's error slot set.
int KOLTSysNotifySendNotificationCustomized(const char *tag, const char *textsDir,
                                            const char *filterFile, const KLIBSZHASH *values,
                                            int flags);

#endif  // KOLT_NOTIFY_H_
