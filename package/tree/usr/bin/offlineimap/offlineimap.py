#!/usr/bin/python3
"""The package's offlineimap: Debian's offlineimap3 with what the mail server reads from a run.

    offlineimap.py -c CONF -u koltbernui                               a migration run
    offlineimap.py -c CONF -u UI --preliminary-test connectivity-test  can the source be reached
    offlineimap.py -c CONF -u UI --preliminary-test login-test         can each user log in

Beside offlineimap's own state, the metadata folder of CONF (offlineimap_data) gets:
  pid            this process, for the whole run or test
  exit_status    the outcome of the last run: 0 all copied, 1 errors, 143 stopped
  conn_test      "success" or "failure"
  login_test     {"src->dest": "checking" | "success" | "failure"}
  Account-NAME/Curr-Processing/   an entry for each folder in work while NAME is copied
and the task's task_log.db, beside the metadata folder, gets the run's rows.

Started as root, it becomes the package user before it reads anything: the task's files are the
package user's, and only that user can decipher the stored passwords. The first SIGTERM ends the
run at once; IMAP appends are atomic, so no message is left half copied.
"""
import fcntl
import imaplib
import json
import os
import pwd
import signal
import socket
import sqlite3
import ssl
import sys
import tempfile
import threading
import time
from configparser import ConfigParser

# This file shares its name with offlineimap's package: its own folder must not shadow it.
HERE = os.path.dirname(os.path.abspath(__file__))
sys.path = [p for p in sys.path if os.path.abspath(p or ".") != HERE]
sys.path.insert(0, "/usr/share/offlineimap3")

PACKAGE_USER = "Quillon-Server"
STOPPED = 143
SCHEMA = ("BEGIN TRANSACTION;create table log_table(time INTEGER default NULL, severity INTEGER "
          "default NULL, identity TEXT default NULL, should_show INTEGER default 0, event TEXT "
          "default NULL);CREATE INDEX IF NOT EXISTS log_table_time_idx ON log_table (time);"
          "CREATE INDEX IF NOT EXISTS log_table_should_show_idx ON log_table (should_show);"
          "CREATE INDEX IF NOT EXISTS log_table_event_idx ON log_table (event);"
          "COMMIT TRANSACTION;")
ERROR, WARNING, INFO = 3, 4, 6
MASTER_USERS = "/var/packages/Quillon-Server/target/etc/dovecot/conf.d/master-users"
MASTER_USER_LOCK = "/var/lock/quillon_server/kolt_migration_master_user_lock"


def put_file(path, text):
    """Replaces path with text, so readers see the old content or the new, never a part."""
    fd, tmp = tempfile.mkstemp(prefix="." + os.path.basename(path) + ".",
                               dir=os.path.dirname(path))
    with os.fdopen(fd, "w") as f:
        f.write(text)
    os.chmod(tmp, 0o644)
    os.rename(tmp, path)


class TaskLog:
    """Rows of task_log.db; one connection shared by offlineimap's threads under a lock."""

    def __init__(self, path):
        self.lock = threading.Lock()
        self.db = sqlite3.connect(path, timeout=60, isolation_level=None,
                                  check_same_thread=False)
        self.db.execute("PRAGMA busy_timeout = 60000")
        if self.db.execute("SELECT count(*) FROM sqlite_master WHERE name = 'log_table'"
                           ).fetchone()[0] == 0:
            self.db.executescript(SCHEMA)

    def add(self, severity, identity, event, show=True, patience=None):
        if not self.lock.acquire(timeout=-1 if patience is None else patience):
            return
        try:
            self.db.execute("INSERT INTO log_table (time, severity, identity, should_show, event) "
                            "VALUES (?, ?, ?, ?, ?)",
                            (int(time.time()), severity, identity, 1 if show else 0, event))
        except sqlite3.Error:
            pass
        finally:
            self.lock.release()


class Run:
    """What one process of the wrapper writes: its pid, and at the end its outcome."""

    def __init__(self, data_dir):
        self.data = data_dir
        os.makedirs(self.data, mode=0o755, exist_ok=True)
        put_file(os.path.join(self.data, "pid"), "%d\n" % os.getpid())

    def path(self, name):
        return os.path.join(self.data, name)

    def processing_dir(self, account):
        return self.path("Account-%s/Curr-Processing" % account)

    def clear_processing(self, account=None):
        names = [account] if account else [n[8:] for n in os.listdir(self.data)
                                           if n.startswith("Account-")]
        for name in names:
            current = self.processing_dir(name)
            if os.path.isdir(current):
                for entry in os.listdir(current):
                    try:
                        os.unlink(os.path.join(current, entry))
                    except OSError:
                        pass

    def finish(self, status=None):
        if status is not None:
            put_file(self.path("exit_status"), "%d\n" % status)
        try:
            os.unlink(self.path("pid"))
        except OSError:
            pass


def close_master_user(conf):
    """Takes this run's line out of Dovecot's master users as soon as the run ends, rather than
    leaving the door open until someone next starts or stops a task. The file is the package
    user's; Dovecot reads it again at the next login."""
    names = {conf.get(s, "remoteuser").rsplit("*", 1)[-1] for s in conf.sections()
             if s.startswith("Repository local-") and conf.has_option(s, "remoteuser")}
    if not names:
        return
    try:
        with open(MASTER_USER_LOCK, "a") as lock:
            fcntl.flock(lock, fcntl.LOCK_EX)
            with open(MASTER_USERS, "r+") as f:
                lines = f.readlines()
                kept = [l for l in lines if l.split(":", 1)[0] not in names]
                if kept != lines:
                    f.seek(0)
                    f.writelines(kept)
                    f.truncate()
    except OSError:
        pass


def become_package_user():
    if os.geteuid() != 0:
        return
    user = pwd.getpwnam(PACKAGE_USER)
    os.setgroups([])
    os.setgid(user.pw_gid)
    os.setuid(user.pw_uid)


def read_conf(path):
    conf = ConfigParser(interpolation=None)
    with open(path, encoding="utf-8") as f:
        conf.read_file(f)
    return conf


def accounts_of(conf):
    return [a.strip() for a in conf.get("general", "accounts").split(",") if a.strip()]


def open_imap(host, port, use_ssl, timeout=20):
    if use_ssl:
        return imaplib.IMAP4_SSL(host, port, ssl_context=ssl.create_default_context(),
                                 timeout=timeout)
    return imaplib.IMAP4(host, port, timeout=timeout)


def repo_endpoint(conf, section):
    return (conf.get(section, "remotehost"), conf.getint(section, "remoteport"),
            conf.get(section, "ssl", fallback="no") == "yes")


def connectivity_test(conf, run):
    host, port, use_ssl = repo_endpoint(conf, "Repository conn-test")
    word = "failure"
    try:
        server = open_imap(host, port, use_ssl, timeout=10)
        word = "success"
        server.logout()
    except (OSError, imaplib.IMAP4.error, ssl.SSLError):
        pass
    put_file(run.path("conn_test"), word + "\n")
    return 0


def password_of(conf, section):
    import importlib.machinery
    import types
    loader = importlib.machinery.SourceFileLoader("kolt_offlineimap",
                                                  os.path.join(HERE, "kolt_offlineimap.py"))
    helpers = types.ModuleType(loader.name)
    loader.exec_module(helpers)
    kolt_password = helpers.kolt_password
    text = conf.get(section, "remotepasseval")
    prefix, suffix = 'kolt_password("', '")'
    if not (text.startswith(prefix) and text.endswith(suffix)):
        raise ValueError("the password of %s is not one of ours" % section)
    return kolt_password(text[len(prefix):-len(suffix)])


def login_test(conf, run):
    names = accounts_of(conf)
    results = {name: "checking" for name in names}
    put_file(run.path("login_test"), json.dumps(results))
    for name in names:
        section = "Repository remote-" + name
        word = "failure"
        try:
            host, port, use_ssl = repo_endpoint(conf, section)
            user = conf.get(section, "remoteuser")
            identity = conf.get(section, "remote_identity", fallback=None)
            secret = password_of(conf, section)
            server = open_imap(host, port, use_ssl)
            try:
                if identity:
                    token = ("%s\0%s\0%s" % (identity, user, secret)).encode()
                    server.authenticate("PLAIN", lambda _: token)
                else:
                    server.login(user, secret)
                word = "success"
            finally:
                try:
                    server.logout()
                except (OSError, imaplib.IMAP4.error):
                    pass
        except (OSError, imaplib.IMAP4.error, ssl.SSLError, ValueError, RuntimeError):
            pass
        results[name] = word
        put_file(run.path("login_test"), json.dumps(results))
    return 0


def migration_run(conf_path, conf, run):
    import offlineimap
    from offlineimap import ui as uis
    from offlineimap.ui.Noninteractive import Quiet

    log = TaskLog(os.path.join(os.path.dirname(run.data), "task_log.db"))
    folder_entry = lambda folder: str(folder).replace("/", "_")[:200] or "_"

    class KoltBernUI(Quiet):
        """offlineimap's hooks, turned into the rows and progress entries the server reads."""

        def _identity(self):
            account = self.getthreadaccount()
            return str(account) if account is not None else "General"

        def acct(self, account):
            super().acct(account)
            current = run.processing_dir(str(account))
            os.makedirs(current, mode=0o755, exist_ok=True)
            run.clear_processing(str(account))
            open(os.path.join(current, "account"), "w").close()
            os.utime(current)
            log.add(INFO, str(account), "Start Syncing account %s" % account)

        def acctdone(self, account):
            super().acctdone(account)
            run.clear_processing(str(account))
            log.add(INFO, str(account), "Finished Syncing account %s" % account)

        def syncingfolder(self, srcrepos, srcfolder, destrepos, destfolder):
            super().syncingfolder(srcrepos, srcfolder, destrepos, destfolder)
            account = self._identity()
            try:
                open(os.path.join(run.processing_dir(account), folder_entry(srcfolder)),
                     "w").close()
            except OSError:
                pass
            log.add(INFO, account, "Syncing folder %s" % srcfolder, show=False)

        def error(self, exc, exc_traceback=None, msg=None):
            super().error(exc, exc_traceback, msg)
            text = "%s: %s" % (msg, exc) if msg else str(exc)
            log.add(ERROR, self._identity(), " ".join(text.split())[:1000])

        def warn(self, msg, minor=0):
            super().warn(msg, minor)
            # At the end offlineimap repeats every error with its traceback: the rows have them.
            text = str(msg).lstrip()
            if not minor and not text.startswith(("ERROR", "Traceback")):
                log.add(WARNING, self._identity(), " ".join(text.split())[:1000], show=False)

    uis.UI_LIST["koltbernui"] = KoltBernUI

    # offlineimap3 hands the SASL authorization identity over as bytes and then joins it with
    # text, so a source entered through its master account could never log in.
    from offlineimap.repository.IMAP import IMAPRepository
    IMAPRepository.get_remote_identity = lambda self: self.getconf("remote_identity", None)

    def stop(signum, frame):
        log.add(WARNING, "General", "Migration stopped", patience=2)
        close_master_user(conf)
        run.clear_processing()
        run.finish(STOPPED)
        os._exit(STOPPED)

    # offlineimap would only ask its threads to finish after their folders; a stop must be
    # prompt, so its own handler for SIGTERM is kept out.
    signal.signal(signal.SIGTERM, stop)
    real_signal = signal.signal
    signal.signal = lambda sig, handler: None if sig == signal.SIGTERM else real_signal(sig, handler)

    log.add(INFO, "General", "Migration started")
    sys.argv = ["offlineimap", "-c", conf_path, "-u", "koltbernui"]
    try:
        status = offlineimap.OfflineImap().run() or 0
    except SystemExit as done:
        status = done.code if isinstance(done.code, int) else 1
    except Exception as e:
        log.add(ERROR, "General", " ".join(str(e).split())[:1000])
        status = 1
    status = 1 if status not in (0, 1) else status
    log.add(INFO if status == 0 else ERROR, "General",
            "Migration finished" if status == 0 else "Migration finished with errors")
    close_master_user(conf)
    run.clear_processing()
    return status


def main(argv):
    conf_path, ui, test = None, None, None
    i = 0
    while i < len(argv):
        if argv[i] in ("-c", "-u", "--preliminary-test") and i + 1 < len(argv):
            if argv[i] == "-c":
                conf_path = argv[i + 1]
            elif argv[i] == "-u":
                ui = argv[i + 1]
            else:
                test = argv[i + 1]
            i += 2
        else:
            print("offlineimap.py: unknown argument %r" % argv[i], file=sys.stderr)
            return 2
    if not conf_path or not os.path.isabs(conf_path) or test not in (
            None, "connectivity-test", "login-test"):
        print("usage: offlineimap.py -c /ABSOLUTE/CONF -u UI "
              "[--preliminary-test connectivity-test|login-test]", file=sys.stderr)
        return 2
    become_package_user()
    # offlineimap expands $VARIABLES in its paths, and the metadata path holds the task's name:
    # with no variables set, a '$' in a name stays a '$'.
    os.environ.clear()
    conf = read_conf(conf_path)
    data = conf.get("general", "metadata")
    if not os.path.isabs(data) or os.path.dirname(data) != os.path.dirname(conf_path):
        print("offlineimap.py: the metadata folder must lie beside the configuration",
              file=sys.stderr)
        return 2
    run = Run(data)
    try:
        if test == "connectivity-test":
            status = connectivity_test(conf, run)
        elif test == "login-test":
            status = login_test(conf, run)
        else:
            try:
                status = migration_run(conf_path, conf, run)
            except Exception as e:
                print("offlineimap.py: %s" % e, file=sys.stderr)
                status = 1
            run.finish(status)
            return status
    finally:
        run.finish()
    return status


if __name__ == "__main__":
    socket.setdefaulttimeout(120)
    sys.exit(main(sys.argv[1:]))
