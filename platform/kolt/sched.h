// The platform's task scheduler: entries that run a command at a set local time, kept by the
// platform in one JSON file (/usr/kolt/etc/scheduler/tasks.json, root's alone, mode 0600) and run,
// when due, by `KOLTSchedRunDue` (the program kolt-sched-run calls it once a minute, as the
// platform's cron would).
//
// A command is stored as one line of text, but it never reaches a shell: it is split into words
// at blanks, with double quotes grouping a word, and run with that argument vector. Nothing in it
// is expanded, so a '$', a backtick or a single quote in a word stays that character. Only an
// absolute program path runs.
//
// A KOLTSCHEDTASK belongs to its caller until KOLTSchedTaskFree; a list owns its tasks. Writers
// of the file take an flock beside it, so processes may call these at the same time; one object
// is for one thread.
#ifndef KOLT_SCHED_H_
#define KOLT_SCHED_H_

#include <sys/types.h>
#include <time.h>

#include "kolt/types.h"

struct KOLTSCHEDTASK;
struct KOLTSCHEDTASKLIST;

// Keeps a task when it answers TRUE; `arg` is the caller's.
typedef BOOL (*KOLTSCHEDFILTER)(const KOLTSCHEDTASK *task, void *arg);

// A blank task (ID -1, state 0) in *task: 0, or -1 when memory runs out.
int KOLTSchedTaskAlloc(KOLTSCHEDTASK **task);
void KOLTSchedTaskFree(KOLTSCHEDTASK *task);

// Setters: 0, or -1 for a null task or a text with a line end.
int KOLTSchedCTaskSetID(KOLTSCHEDTASK *task, int id);
int KOLTSchedCTaskSetOwner(KOLTSCHEDTASK *task, uid_t owner);
int KOLTSchedCTaskSetApp(KOLTSCHEDTASK *task, const char *app);
int KOLTSchedCTaskSetAppName(KOLTSCHEDTASK *task, const char *appName);
int KOLTSchedCTaskSetName(KOLTSCHEDTASK *task, const char *name);
int KOLTSchedCTaskSetAction(KOLTSCHEDTASK *task, const char *action);
int KOLTSchedCTaskSetCanEditName(KOLTSCHEDTASK *task, BOOL can);
int KOLTSchedCTaskSetCanEditOwner(KOLTSCHEDTASK *task, BOOL can);
int KOLTSchedCTaskSetListable(KOLTSCHEDTASK *task, BOOL listable);
int KOLTSchedCTaskSetCommand(KOLTSCHEDTASK *task, const char *command);
int KOLTSchedCTaskSetCanRunFromUI(KOLTSCHEDTASK *task, BOOL can);
int KOLTSchedCTaskSetState(KOLTSCHEDTASK *task, int state);  // 1 on, 0 off
int KOLTSchedCTaskSetOnce(KOLTSCHEDTASK *task, int once);    // 1: run one time, then off
int KOLTSchedCTaskSetStartYear(KOLTSCHEDTASK *task, int year);
int KOLTSchedCTaskSetStartMonth(KOLTSCHEDTASK *task, int month);  // 1 to 12
int KOLTSchedCTaskSetStartDay(KOLTSCHEDTASK *task, int day);
int KOLTSchedCTaskSetRunHour(KOLTSCHEDTASK *task, int hour);
int KOLTSchedCTaskSetRunMin(KOLTSCHEDTASK *task, int minute);

// Getters of a task from a list or of one's own; null or -1 for a null task.
const char *KOLTSchedTaskGetName(const KOLTSCHEDTASK *task);
const char *KOLTSchedTaskGetApp(const KOLTSCHEDTASK *task);
const char *KOLTSchedTaskGetCommand(const KOLTSCHEDTASK *task);
int KOLTSchedCTaskGetID(const KOLTSCHEDTASK *task);
int KOLTSchedCTaskGetState(const KOLTSCHEDTASK *task);
// The start as local time: 0 and *when filled, or -1 for a date that doesn't exist.
int KOLTSchedTaskGetStart(const KOLTSCHEDTASK *task, time_t *when);

// Writes the task: an ID of -1 gets the next free one (also set in the task), another ID replaces
// that entry. Only root may write the file. 0, or -1 with the platform error set.
int KOLTSchedTaskSave(KOLTSCHEDTASK *task);
// Removes the entry with this ID: 0 (also when there was none), or -1.
int KOLTSchedTaskRemove(int id);

// The entries that `filter` keeps (all with a null filter): their count, or -1 when the file
// can't be read. A missing file is an empty list.
int KOLTSchedTaskListGet(KOLTSCHEDTASKLIST **list, KOLTSCHEDFILTER filter, void *arg);
// The task after `previous` (the first for null), or null at the end.
KOLTSCHEDTASK *KOLTSchedTaskNext(KOLTSCHEDTASKLIST *list, KOLTSCHEDTASK *previous);
void KOLTSchedTaskListFree(KOLTSCHEDTASKLIST *list);

// Splits a stored command into its words as the runner does: the count, or -1 for an open quote.
// `words` gets at most `max` pointers into `buffer` (size bytes, a copy of the command).
int KOLTSchedCommandSplit(const char *command, char *buffer, int size, const char **words, int max);

// Starts, in the background, every entry that is on and whose start is at or before `now`; an
// entry set to run once is turned off in the file first, so that it runs one time even if the
// start fails. The file must be root's and writable by no one else, or nothing runs. The number
// started, or -1.
int KOLTSchedRunDue(time_t now);

#endif  // KOLT_SCHED_H_
