// Small file helpers: temporary names, existence and age, copying a program's output to a file,
// putting a finished temporary file in its place, and clearing the temporaries of killed writers.
// They keep no state: safe from any thread.
#ifndef MAILSERVER_FOUNDATION_FILES_H_
#define MAILSERVER_FOUNDATION_FILES_H_

#include <sys/types.h>

#include <cstdio>
#include <string>

#include "foundation/export.h"

// Makes a unique file from `tmpl`, which ends in "XXXXXX", and closes it again: the caller gets a
// name. If mkstemp fails the last six characters become the process id ("%06d", the low six
// digits), so the caller still has a usable name, though not a created file.
// 0, or -1 for a null template or one shorter than 7 characters.
QSV_EXPORT int qsvMkstemp(char *tmpl);

// Whether `path` is a directory (a link to one counts).
QSV_EXPORT bool qsvDirectoryExist(const std::string &path);

// The modification time of `path` in seconds, or 0 when it can't be had.
QSV_EXPORT long qsvGetFileMtime(const std::string &path);

// Copies what is left of `stream` into `path`, opened with fopen `mode` ("w" or "a"), in blocks
// of 1024 bytes until the stream ends. The stream stays open. 0, or -1 for a null argument, a file
// that can't be opened or a failed write.
QSV_EXPORT int PopenToFile(FILE *stream, const char *path, const char *mode);

// Gives `tmp` mode 0644 and renames it to `path`. A failed chmod is only logged: the content
// matters more than its mode. 0, or -1 when the rename failed.
QSV_EXPORT int renameTmpFileAndChmod(const char *tmp, const char *path);

// The temporary file of a writer that replaces `target` whole: `target` and six characters from
// mkstemp, close-on-exec, and locked with flock for as long as this descriptor (or a dup of it)
// stays open, so that removeStaleTemporaries can tell it from one whose writer was killed. `tmp`
// gets the name. The descriptor, or -1 with errno set. REQUIRES: `target` is an absolute path.
int mkTemporaryBeside(const std::string &target, std::string &tmp);

// Removes what killed writers of `target` left behind: the regular files directly in its directory
// whose names are its own name and exactly six mkstemp characters, unless a live writer holds one
// locked. Links, directories, other names and the temporaries of other targets stay. A writer
// calls it once its own temporary is in place. The number removed, or -1 when `target` is not
// absolute or its directory can't be read.
int removeStaleTemporaries(const std::string &target);

// Replaces `path` whole with `text`: a temporary beside it, written, flushed to disk, mode 0644,
// renamed into place, so that a reader sees the old file or the new one, never a part. 0, or -1
// with errno set (EINVAL for a relative path) and `path` as it was. A file that holds a secret
// passes its narrower `mode`, which the temporary has before it gets the content.
int WriteWholeFile(const std::string &path, const std::string &text, mode_t mode = 0644);

// Opens `path` for reading if it is a regular file, close-on-exec: a FIFO would block an import, a
// device could feed it without end, and a directory reads as nothing, which looks like success.
// Null (with a log line when the file is of another kind) otherwise.
FILE *OpenRegularFile(const std::string &path);

// Reads the next line, with its newline, into `line`. 1 for a line, 0 at the end of the file, -1
// for a line longer than `limit` bytes: no line of an imported list is that long, and an unbounded
// one would take all memory.
int ReadBoundedLine(FILE *in, std::string &line, size_t limit);

#endif  // MAILSERVER_FOUNDATION_FILES_H_
