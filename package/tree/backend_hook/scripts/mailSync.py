#!/usr/bin/python3
"""Syncs this node's mailboxes with a peer of the cluster, both ways.

    mailSync.py -d SMTP_DOMAIN -s PEER_ADDRESS -p PORT

For every user whose mail directory lies on this node, Dovecot's doveadm syncs the mailbox with
the doveadm server of the peer (PEER_ADDRESS:PORT, the cluster's sync listener that the peer's
Dovecot opens on its cluster address, TLS only): what either side lacks, it gets, so a new member receives
everything. Where both nodes gave the user an INBOX of their own, the peer's takes the GUID of
ours first, so that dsync merges the two. The peer's certificate must come from the cluster's
internal CA and name PEER_ADDRESS: without that CA on this node nothing is synced, as mail never
crosses the network in clear. The peer's Dovecot works as the user, who can't make a directory in the account
domain's folder there; the peer's request service makes it first, as root.

A mail directory counts only when it is /var/spool/mail/<account domain>/<uid>, a user of the
system has that uid and owns it, and Dovecot's own userdb gives that user that very directory as
home: a folder someone made under another number is nobody's mailbox.

One line per user goes to the system log (facility mail). Exit 0 when every mailbox synced, 1 when
one didn't or the arguments are wrong, with the reason on standard error.
"""
import os
import pwd
import re
import socket
import stat
import subprocess
import sys
import syslog

TARGET = "/var/packages/Quillon-Server/target"
DOVEADM = TARGET + "/bin/doveadm"
DOVECOT_CONF = TARGET + "/etc/dovecot/dovecot.conf"
CTL = TARGET + "/usr/bin/mailserverctl"
CLUSTER_CA = "/var/packages/Quillon-Server/etc/internal-ca-ssl/ca.crt"
# doveadm sync's status when the mailbox changed while it ran: the sync is to be run again.
SYNC_AGAIN = 2
SYNC_TRIES = 3

# The configuration writer puts the domain's folder into the userdb as
# "override_fields = home=<folder>/%{userdb:uid}", with no other characters than these.
HOME_RULE = re.compile(r"^\s*override_fields\s*=\s*home=(/[A-Za-z0-9._/-]+)/%\{userdb:uid\}\s*$",
                       re.M)
HOST_LABEL = re.compile(r"^[A-Za-z0-9]([A-Za-z0-9-]{0,61}[A-Za-z0-9])?$")
USER_NAME = re.compile(r"^[A-Za-z0-9_][A-Za-z0-9._@-]{0,63}$")


class Refused(Exception):
    pass


def log(priority, text):
    syslog.syslog(priority, text)


def host_name(text):
    if not text or len(text) > 253 or not all(HOST_LABEL.match(p) for p in text.split(".")):
        raise Refused("-d takes a plain host name, not %r" % text[:80])
    return text


def ipv4_address(text):
    try:
        packed = socket.inet_pton(socket.AF_INET, text)
    except (OSError, ValueError):
        packed = None
    # Only the form inet_ntop gives back: no leading zeros that some read as octal.
    if packed is None or socket.inet_ntop(socket.AF_INET, packed) != text:
        raise Refused("-s takes an IPv4 address, not %r" % text[:80])
    return text


def port_number(text):
    if not text.isascii() or not text.isdigit() or len(text) > 5 or not 1 <= int(text) <= 65535:
        raise Refused("-p takes a port from 1 to 65535, not %r" % text[:80])
    return int(text)


def parse_arguments(argv):
    checks = {"-d": host_name, "-s": ipv4_address, "-p": port_number}
    values = {}
    if len(argv) != 6:
        return None
    for flag, value in zip(argv[0::2], argv[1::2]):
        if flag not in checks or flag in values:
            return None
        values[flag] = checks[flag](value)
    return values


def roots_alone(path):
    """Whether path and every folder above it are root's and writable by nobody else; a link
    only where root made it (Debian's /var/spool/mail is one)."""
    parts = path.strip("/").split("/")
    for i in range(1, len(parts) + 1):
        part = "/" + "/".join(parts[:i])
        try:
            link = os.lstat(part)
            st = os.stat(part)
        except OSError:
            return False
        if (stat.S_ISLNK(link.st_mode) and link.st_uid != 0) or not stat.S_ISDIR(st.st_mode) \
                or st.st_uid != 0 or st.st_mode & 0o022:
            return False
    return True


def domain_folder():
    """The folder the users' mail directories lie in, as this node's Dovecot has it."""
    try:
        with open(DOVECOT_CONF, encoding="utf-8") as f:
            found = HOME_RULE.findall(f.read())
    except (OSError, UnicodeDecodeError) as e:
        raise Refused("cannot read Dovecot's configuration %s: %s" % (DOVECOT_CONF, e))
    if len(found) != 1 or ".." in found[0].split("/"):
        raise Refused("Dovecot's configuration %s names no mail folder" % DOVECOT_CONF)
    if not roots_alone(found[0]):
        raise Refused("the mail folder %s is missing or not root's alone" % found[0])
    return found[0]


def run(argv):
    """argv's exit status and its last words on standard error, in a clean environment."""
    done = subprocess.run(argv, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, env={"PATH": "/usr/sbin:/usr/bin:/sbin:/bin"},
                          close_fds=True)
    words = " ".join(done.stderr.decode("utf-8", "replace").split())
    return done.returncode, done.stdout.decode("utf-8", "replace").strip(), words[-300:]


def cluster_ca():
    """The cluster's CA certificate, in a folder and file of root's that nobody else may change.
    The package's etc above them is the package user's, who reads the cluster's password there
    anyway, so that user could reach the mail without forging a CA."""
    try:
        folder = os.lstat(os.path.dirname(CLUSTER_CA))
        st = os.lstat(CLUSTER_CA)
    except OSError as e:
        raise Refused("no CA certificate of the cluster at %s (%s): mailboxes are not synced in "
                      "clear" % (CLUSTER_CA, e.strerror))
    if not stat.S_ISDIR(folder.st_mode) or folder.st_uid != 0 or folder.st_mode & 0o022 \
            or not stat.S_ISREG(st.st_mode) or st.st_uid != 0 or st.st_mode & 0o022:
        raise Refused("the cluster's CA certificate %s is not root's alone" % CLUSTER_CA)
    return CLUSTER_CA


def dovecot_home(name):
    rc, out, _ = run([DOVEADM, "-c", DOVECOT_CONF, "user", "-f", "home", name])
    return out if rc == 0 else None


def mailboxes(folder):
    """(name, uid) of every user whose mail directory in folder is truly theirs."""
    found = []
    with os.scandir(folder) as entries:
        for entry in entries:
            name = entry.name
            if not name.isascii() or not name.isdigit() or name != str(int(name)):
                continue
            uid = int(entry.name)
            path = folder + "/" + entry.name
            try:
                user = pwd.getpwuid(uid)
            except KeyError:
                log(syslog.LOG_WARNING, "skipped %s: no user has the number %d" % (path, uid))
                continue
            try:
                st = os.lstat(path)
            except OSError:
                continue
            if uid == 0 or not stat.S_ISDIR(st.st_mode) or st.st_uid != uid:
                log(syslog.LOG_WARNING, "skipped %s: it isn't a directory of user %d's own"
                    % (path, uid))
                continue
            if not USER_NAME.match(user.pw_name):
                log(syslog.LOG_WARNING, "skipped %s: its user's name %r can't be synced"
                    % (path, user.pw_name))
                continue
            if dovecot_home(user.pw_name) != path:
                log(syslog.LOG_WARNING, "skipped %s: Dovecot gives %s another home"
                    % (path, user.pw_name))
                continue
            found.append((user.pw_name, uid))
    return sorted(found, key=lambda user: user[1])


def ask_peer(peer, method, *params):
    """Asks the peer's request service, signed with the cluster's password, through mailserverctl;
    None, or why it failed."""
    rc, _, words = run([CTL, "member", "ask", peer, method] + list(params))
    return None if rc == 0 else words or "mailserverctl exited with %d" % rc


def inbox_guid(name):
    """The GUID of the user's INBOX here; None when unknown."""
    argv = [DOVEADM, "-c", DOVECOT_CONF, "-f", "flow", "mailbox", "status", "-u", name]
    rc, out, _ = run(argv + ["guid", "INBOX"])
    found = re.search(r"\bguid=([0-9a-f]{32})\b", out) if rc == 0 else None
    return found.group(1) if found else None


def align_inbox(name, peer):
    """Gives the peer's INBOX the GUID of ours. Both nodes made an INBOX of their own when mail
    reached the user on each; dsync can merge two mailboxes of one name with different GUIDs,
    but not INBOX, which it can't rename aside: it then ends every run with a desync. The peer's
    request service does it there, as doveadm's commands for another server (-S) would speak in
    clear."""
    ours = inbox_guid(name)
    if ours is None:
        return None
    return ask_peer(peer, "align_inbox", "user", name, "guid", ours)


def sync(name, peer, port, ca):
    """None when the mailbox synced, else why not."""
    # The peer's certificate is checked against the cluster's CA alone, not the system's.
    argv = [DOVEADM, "-c", DOVECOT_CONF, "-o", "ssl_client_ca_file=" + ca,
            "-o", "ssl_client_ca_dir=", "-o", "ssl_client_require_valid_cert=yes",
            "sync", "-u", name, "tcps:%s:%d" % (peer, port)]
    for _ in range(SYNC_TRIES):
        rc, _, words = run(argv)
        if rc != SYNC_AGAIN:
            break
    return None if rc == 0 else "doveadm sync exited with %d: %s" % (rc, words or "no message")


def main(argv):
    try:
        args = parse_arguments(argv)
    except Refused as e:
        print("mailSync.py: %s" % e, file=sys.stderr)
        return 1
    if args is None:
        print("usage: mailSync.py -d SMTP_DOMAIN -s PEER_ADDRESS -p PORT", file=sys.stderr)
        return 1
    syslog.openlog("mailSync.py", syslog.LOG_PID, syslog.LOG_MAIL)
    peer, port = args["-s"], args["-p"]
    try:
        if os.geteuid() != 0:
            raise Refused("must run as root")
        ca = cluster_ca()
        folder = domain_folder()
        users = mailboxes(folder)
    except Refused as e:
        print("mailSync.py: %s" % e, file=sys.stderr)
        log(syslog.LOG_ERR, "no mailbox synced with %s: %s" % (peer, e))
        return 1
    log(syslog.LOG_INFO, "syncing %d mailboxes of %s with %s:%d (mail domain %s)"
        % (len(users), folder, peer, port, args["-d"]))
    failed = 0
    for name, uid in users:
        why = ask_peer(peer, "make_mail_dir", "user", name)
        if why is not None:
            # The directory may be there already; the sync tells.
            log(syslog.LOG_WARNING, "mail directory of %s on %s not made: %s" % (name, peer, why))
        why = align_inbox(name, peer)
        if why is not None:
            log(syslog.LOG_WARNING, "INBOX of %s on %s not aligned: %s" % (name, peer, why))
        why = sync(name, peer, port, ca)
        if why is None:
            log(syslog.LOG_INFO, "synced the mailbox of %s (uid %d) with %s:%d"
                % (name, uid, peer, port))
        else:
            failed += 1
            log(syslog.LOG_ERR, "failed to sync the mailbox of %s (uid %d) with %s:%d: %s"
                % (name, uid, peer, port, why))
    if failed:
        print("mailSync.py: %d of %d mailboxes did not sync with %s (see the system log)"
              % (failed, len(users), peer), file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
