// Files on the other nodes of the cluster, reached by running /bin/rsync over the package's ssh as
// root, and the share folder a peer copies through.
//
// A peer is named by three words: the user that logs in there, the host, and the key folder of
// that node, a folder below /var/packages/Quillon-Server/etc/ssh holding the private key "id_rsa"
// and, when the node's ssh listens elsewhere than on 22, a file "port" with the number. The
// package's ssh (usr/bin/ssh of the package) takes the key folder with -d and uses the package's
// own known_hosts there: an unknown host key is refused, never learnt.
//
// Every word goes to rsync as an argument of its own, never through a shell. A word that rsync or
// ssh could read as an option (a leading "-"), that holds a control character, or that would
// change what the remote address means is refused with a log line and -1 before anything runs. Local
// paths must be absolute. rsync gets -s, so remote paths with blanks or shell characters reach the
// peer as they are.
//
// The functions keep no state and may be called from any thread; the critical section they take
// raises the whole process for the length of the run.
#ifndef MAILSERVER_FOUNDATION_RSYNC_H_
#define MAILSERVER_FOUNDATION_RSYNC_H_

#include <string>
#include <vector>

#include "foundation/export.h"
#include "foundation/rsync_listing.h"

// Copies `remotePath` of user@host into `localPath`, keeping times, modes and owners (-a).
// The exit status of rsync: 0 when the file is here.
QSV_EXPORT int RsyncGetFile(const std::string &user, const std::string &host,
                            const std::string &remotePath, const std::string &localPath,
                            const std::string &keyFolder);
// Copies `localPath` to `remotePath` of user@host (-a). The exit status of rsync.
QSV_EXPORT int RsyncPushFile(const std::string &user, const std::string &host,
                             const std::string &remotePath, const std::string &localPath,
                             const std::string &keyFolder);
// Whether `remotePath` exists on the peer: rsync lists it to the caller's standard output and
// exits 0; a missing path gives 23.
QSV_EXPORT int RsyncStat(const std::string &user, const std::string &host,
                         const std::string &remotePath, const std::string &keyFolder);
// Whether an rsync daemon answers on `host` (port 873): 0 when it listed its modules.
QSV_EXPORT int RsyncServiceCheck(const std::string &host);

// Lists what `remoteFolder` of user@host holds; the folder itself (".") is left out. With
// `recursive` non-zero the subfolders are listed too (-r); a non-empty `exclude` leaves out what
// that rsync pattern matches (--exclude=). `entries` gets the entries in rsync's order.
// The number of entries, or -1 (rsync failed, or a line could not be read).
QSV_EXPORT int RsyncListFolder(const std::string &user, const std::string &host,
                               const std::string &remoteFolder, const std::string &keyFolder,
                               int recursive, const std::string &exclude,
                               std::vector<RsyncListEntry> &entries);
// The six-word form callers written against the plain interface use: the same listing, of which
// only the number of entries is given back.
QSV_EXPORT int RsyncListFolder(const std::string &user, const std::string &host,
                               const std::string &remoteFolder, const std::string &keyFolder,
                               int recursive, const std::string &exclude);

// Makes `path` the folder that peers copy through, with the package's ssh folders beside, by
// running ClusterDaemon.sh create_quillon_share_env. The script's exit status.
QSV_EXPORT int prepareQuillonShareEnv(const std::string &path);

#endif  // MAILSERVER_FOUNDATION_RSYNC_H_
