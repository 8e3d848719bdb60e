#!/usr/bin/python3
"""Writes the offlineimap configuration of a migration task.

    genOfflineimapConfig.py TASK               < "master user\\nenciphered master password\\n"
    genOfflineimapConfig.py -c CONF -a HOST -p PORT [-s]

The first form reads the task's config and user_list and writes its offlineimap.conf: one account
per user, the source side read-only, the local side this server's Dovecot on loopback entered as
the destination account through the task's master user. The second writes a configuration with
one source repository only, for the connection test.

Passwords stay enciphered in the file: offlineimap asks kolt_offlineimap.kolt_password for each
when it logs in. Everything read back from the task's files is checked again before it goes into
the configuration; a value that doesn't fit is refused with a message and exit status 1, and no
file is written.
"""
import json
import os
import pwd
import re
import sys
import tempfile
import time

DATA_DIR = "/var/packages/Quillon-Server/target/var/migration_data"
HELPERS = "/var/packages/Quillon-Server/target/usr/bin/offlineimap/kolt_offlineimap.py"
CONN_TEST_DIR = "/tmp/quillon_server/"
PACKAGE_USER = "Quillon-Server"
LOCAL_HOST, LOCAL_PORT = "127.0.0.1", 143

HOST = re.compile(r"^[A-Za-z0-9.:-]{1,253}$")
CIPHER = re.compile(r"^[A-Za-z0-9+/=]*$")
MASTER = re.compile(r"^[0-9a-f]{64}$")


class Refused(Exception):
    pass


def check_task_name(name):
    if name in ("", ".", "..") or any(c in name for c in '/"\\:') or "\0" in name:
        raise Refused("the task name %r is not one a task can have" % name)


def check_account(name, what):
    # Account names become offlineimap account names (a comma separates them), section names
    # and values of the configuration.
    if not name or name != name.strip() or re.search(r"[\x00-\x1f\x7f,\[\]%]", name):
        raise Refused("the %s %r can't be used in a migration" % (what, name))
    return name


def check_host(addr):
    if not HOST.match(addr or ""):
        raise Refused("the server address %r is not a host name or address" % addr)
    return addr


def check_port(port):
    if isinstance(port, bool) or not isinstance(port, int) or not 1 <= port <= 65535:
        raise Refused("the port %r is not a number from 1 to 65535" % (port,))
    return port


def check_cipher(text, what):
    if not isinstance(text, str) or not CIPHER.match(text):
        raise Refused("the %s is not an enciphered text" % what)
    return text


def number(doc, key, low, high, fallback):
    value = doc.get(key, fallback)
    if isinstance(value, bool) or not isinstance(value, int):
        return fallback
    return min(max(value, low), high)


def flag(doc, key):
    return doc.get(key) is True


def read_json(path):
    st = os.lstat(path)
    if not os.path.isfile(path) or os.path.islink(path):
        raise Refused("%s is not a plain file" % path)
    with open(path, encoding="utf-8") as f:
        return json.load(f)


def section(name, options):
    lines = ["[%s]" % name]
    for key, value in options:
        lines.append("%s = %s" % (key, str(value).replace("%", "%%")))
    return "\n".join(lines) + "\n\n"


def folder_filter(filt):
    """A folderfilter that calls kolt_folder_wanted with the task's rules, or None."""
    rules = {
        "ignore_trash": flag(filt, "ignore_trash"),
        "ignore_junk": flag(filt, "ignore_junk"),
        "by_name": flag(filt, "enable_folder_name_filter"),
        "is_blacklist": flag(filt, "is_blacklist"),
        "keywords": sorted(k for k in filt.get("keyword_list", []) if isinstance(k, str)),
        "exceptions": sorted(k for k in filt.get("exception_list", []) if isinstance(k, str)),
    }
    if not (rules["ignore_trash"] or rules["ignore_junk"] or rules["by_name"]):
        return None
    for word in rules["keywords"] + rules["exceptions"]:
        if re.search(r"[\x00-\x1f\x7f]", word):
            raise Refused("a folder keyword holds a control character")
    # repr() of plain data is Python that evaluates to the same data and nothing else.
    return "lambda folder: kolt_folder_wanted(folder, %r)" % (rules,)


def write_file(path, text, owner):
    directory = os.path.dirname(path)
    fd, tmp = tempfile.mkstemp(prefix=".offlineimap.conf.", dir=directory)
    try:
        with os.fdopen(fd, "w", encoding="utf-8") as f:
            f.write(text)
            f.flush()
            os.fsync(f.fileno())
        os.chmod(tmp, 0o600)
        if owner is not None and os.geteuid() == 0:
            os.chown(tmp, owner.pw_uid, owner.pw_gid)
        os.rename(tmp, path)
    except BaseException:
        os.unlink(tmp)
        raise


def task_config(task):
    check_task_name(task)
    task_dir = os.path.join(DATA_DIR, task)
    if os.path.islink(task_dir) or not os.path.isdir(task_dir):
        raise Refused("there is no task %r" % task)
    lines = sys.stdin.read().split("\n")
    if len(lines) < 2:
        raise Refused("the master user and its password are expected on standard input")
    master, master_cipher = lines[0], lines[1]
    doc = read_json(os.path.join(task_dir, "config"))
    users = read_json(os.path.join(task_dir, "user_list"))
    if not isinstance(doc, dict) or not isinstance(users, list):
        raise Refused("the task's config or user_list is not what a task keeps")
    # "user"/"password" stand in for the master user when only the source is tested.
    testing = (master, master_cipher) == ("user", "password")
    if not testing:
        if not MASTER.match(master):
            raise Refused("the master user name is not one of ours")
        check_cipher(master_cipher, "master password")
    server = doc.get("server_setting", {})
    host = check_host(server.get("addr", ""))
    port = check_port(server.get("port", 143))
    use_ssl = flag(server, "use_ssl")
    by_master = flag(server, "enable_master_user")
    if by_master:
        source_master = check_account(server.get("master_acnt", ""), "source master account")
        source_master_cipher = check_cipher(server.get("master_passwd", ""), "source master password")
    conns = number(doc, "max_ccrt_conn", 1, 16, 1)
    filt = doc.get("filter_setting", {}) if isinstance(doc.get("filter_setting"), dict) else {}
    wanted = folder_filter(filt)

    names = []
    body = ""
    for user in users:
        if not isinstance(user, dict):
            raise Refused("an entry of the user list is not a user")
        src = check_account(user.get("src_acnt", ""), "source account")
        dest = check_account(user.get("dest_acnt", ""), "destination account")
        if "*" in dest:
            raise Refused("the destination account %r holds the master user separator '*'" % dest)
        name = src + "->" + dest
        if name in names:
            continue
        names.append(name)
        account = [("localrepository", "local-" + name), ("remoterepository", "remote-" + name)]
        if flag(filt, "enable_size_limit") and number(filt, "size_limit", 1, 1 << 20, 0):
            account.append(("maxsize", number(filt, "size_limit", 1, 1 << 20, 0) * 1048576))
        if flag(filt, "enable_start_time") and number(filt, "start_time", 1, 1 << 31, 0):
            account.append(("maxage", time.strftime(
                "%Y-%m-%d", time.localtime(number(filt, "start_time", 1, 1 << 31, 0)))))
        body += section("Account " + name, account)
        remote = [("type", "IMAP"), ("remotehost", host), ("remoteport", port),
                  ("ssl", "yes" if use_ssl else "no"), ("starttls", "no"),
                  ("readonly", "True"), ("createfolders", "False"),
                  ("maxconnections", conns), ("holdconnectionopen", "no")]
        if use_ssl:
            remote.append(("sslcacertfile", "OS-DEFAULT"))
        if by_master:
            remote += [("remoteuser", source_master), ("remote_identity", src),
                       ("auth_mechanisms", "PLAIN"),
                       ("remotepasseval", 'kolt_password("%s")' % source_master_cipher)]
        else:
            cipher = check_cipher(user.get("src_passwd", ""), "password of " + src)
            remote += [("remoteuser", src), ("remotepasseval", 'kolt_password("%s")' % cipher)]
        if wanted:
            remote.append(("folderfilter", wanted))
        body += section("Repository remote-" + name, remote)
        local = [("type", "IMAP"), ("remotehost", LOCAL_HOST), ("remoteport", LOCAL_PORT),
                 ("ssl", "no"), ("starttls", "no"), ("maxconnections", conns),
                 ("holdconnectionopen", "no")]
        if not testing:
            # Dovecot takes "destination*master" as the master user entering the destination.
            local += [("remoteuser", dest + "*" + master), ("auth_mechanisms", "PLAIN, LOGIN"),
                      ("remotepasseval", 'kolt_password("%s")' % master_cipher)]
        body += section("Repository local-" + name, local)
    if not names:
        raise Refused("the task has no users to migrate")
    general = section("general", [
        ("metadata", os.path.join(task_dir, "offlineimap_data")),
        ("accounts", ", ".join(names)),
        ("maxsyncaccounts", number(doc, "max_ccrt_user", 1, 64, 1)),
        ("pythonfile", HELPERS),
        ("socktimeout", 60)])
    write_file(os.path.join(task_dir, "offlineimap.conf"), general + body, package_user())


def conn_test_config(argv):
    conf = host = port = None
    use_ssl = False
    i = 0
    while i < len(argv):
        word = argv[i]
        if word == "-s":
            use_ssl = True
            i += 1
            continue
        if word not in ("-c", "-a", "-p") or i + 1 >= len(argv):
            raise Refused("usage: genOfflineimapConfig.py -c CONF -a HOST -p PORT [-s]")
        value = argv[i + 1]
        if word == "-c":
            conf = value
        elif word == "-a":
            host = value
        else:
            port = int(value) if value.isdigit() else -1
        i += 2
    if conf is None or host is None or port is None:
        raise Refused("usage: genOfflineimapConfig.py -c CONF -a HOST -p PORT [-s]")
    conf = os.path.normpath(conf)
    if not conf.startswith(CONN_TEST_DIR) or os.path.basename(conf) != "offlineimap.conf":
        raise Refused("a connection test's configuration goes below %s" % CONN_TEST_DIR)
    remote = [("type", "IMAP"), ("remotehost", check_host(host)), ("remoteport", check_port(port)),
              ("ssl", "yes" if use_ssl else "no"), ("starttls", "no")]
    if use_ssl:
        remote.append(("sslcacertfile", "OS-DEFAULT"))
    text = section("general", [("metadata", os.path.join(os.path.dirname(conf), "offlineimap_data")),
                               ("accounts", "conn-test")])
    text += section("Account conn-test", [("localrepository", "conn-test-local"),
                                          ("remoterepository", "conn-test")])
    text += section("Repository conn-test", remote)
    write_file(conf, text, package_user())


def package_user():
    try:
        return pwd.getpwnam(PACKAGE_USER)
    except KeyError:
        raise Refused("the package user %s is missing" % PACKAGE_USER)


def main(argv):
    try:
        if len(argv) == 1 and not argv[0].startswith("-"):
            task_config(argv[0])
        else:
            conn_test_config(argv)
    except (Refused, OSError, ValueError) as e:
        print("genOfflineimapConfig.py: %s" % e, file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
