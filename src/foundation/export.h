// Marks what libmailserver.so exports. The library is built with hidden visibility, so anything a
// caller outside may use carries QSV_EXPORT; everything else stays internal to the library (and to
// the tests, which link the static core).
#ifndef MAILSERVER_FOUNDATION_EXPORT_H_
#define MAILSERVER_FOUNDATION_EXPORT_H_

#define QSV_EXPORT __attribute__((visibility("default")))

#endif  // MAILSERVER_FOUNDATION_EXPORT_H_
